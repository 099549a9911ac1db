// Raw samples to analysed ones: the whole analysis of a run, in the order in
// which it must happen, and the building of one Sample.
#include "preloadsamplesource.h"

#include "constants.h"
#include "envswitch.h"
#include "gpuprofilepsvmodelitem.h"
#include "placeholderzorpsvmodelitem.h"
#include "preloadsamplesourceutils.h"
#include "sampleworkers.h"
#include "profilerresponses.h"
#include "resample.h"
#include "sample.h"
#include "samplelist.h"
#include "selfprofile.h"
#include "ssamplelist.h"
#include "tempguards.h"
#include "tharninterface.h"
#include "timespec_utils.h"
#include "zor_assert.h"
#include "zorpsvmodelitem.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <sched.h>
#include <shared_mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace {

// Sets `target` to the metric's last value, or to 0 when the metric is
// unknown, absent or empty.
void setFromMetricValue(const quorvex::SMetrics& metrics, const Metric* metric, unsigned long& target)
{
    target = 0;
    if (!metric || !metrics.hasMetric(metric->getIndex()))
        return;
    const SampleValue& value = metrics.getMetricValue(metric->getIndex());
    if (!value.empty())
        target = value.to_uint64_t();
}

bool sameTrace(const quorvex::backtrace_t& a, const quorvex::backtrace_t& b)
{
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0);
}

// Below this many frames in a run, starting a second builder costs about
// what it saves (building a tree takes about 0.1 us per frame).
const size_t FramesForTwoBuilders = 10000;
const size_t FramesForSampleWorkers = 200000;
const int MostTreeBuilders = 4;

int usableCores()
{
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) != 0)
        return 1;
    return CPU_COUNT(&cores);
}

// The samples of a trunk phase with several builders: each builder takes
// the next sample not taken yet among those decoded, and the thread that
// finishes the samples in their order builds one itself whenever the next
// in order isn't ready.
class TrunkWork
{
public:
    explicit TrunkWork(unsigned int size) : mSize(size), mDone(new std::atomic<bool>[size])
    {
        for (unsigned int i = 0; i < size; ++i)
            mDone[i].store(false, std::memory_order_relaxed);
    }

    // The next sample to build; size when none is left, NotYet when the
    // next isn't decoded yet.
    unsigned int take()
    {
        unsigned int next = mNext.load(std::memory_order_relaxed);
        for (;;) {
            if (mStopped.load(std::memory_order_relaxed) || next >= mSize)
                return mSize;
            if (next >= mDecoded.load(std::memory_order_acquire))
                return NotYet;
            if (mNext.compare_exchange_weak(next, next + 1, std::memory_order_relaxed))
                return next;
        }
    }
    // The samples before end are decoded: builders may take them.
    void decoded(unsigned int end)
    {
        mDecoded.store(end);
        // A builder counts itself among the waiters before it looks at
        // mDecoded again: one of the two sees the other.
        if (mWaiting.load() > 0) {
            { std::lock_guard<std::mutex> lock(mMutex); }
            mChanged.notify_all();
        }
    }
    // Until more samples are decoded or the work stops.
    void waitForDecoded()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mWaiting.fetch_add(1);
        mChanged.wait(lock, [&] {
            return mStopped.load(std::memory_order_relaxed) || mDecoded.load() > mNext.load(std::memory_order_relaxed)
                || mFailure;
        });
        mWaiting.fetch_sub(1);
    }
    void built(unsigned int i)
    {
        mDone[i].store(true, std::memory_order_release);
        // Taken and left before the notification, so that a waiter that
        // found the sample unbuilt is asleep by now.
        { std::lock_guard<std::mutex> lock(mMutex); }
        mChanged.notify_all();
    }
    bool isBuilt(unsigned int i) const { return mDone[i].load(std::memory_order_acquire); }
    // Until sample i is built or a builder failed.
    void waitFor(unsigned int i)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait(lock, [&] { return isBuilt(i) || mFailure; });
    }
    void fail(std::exception_ptr failure)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (!mFailure)
                mFailure = failure;
        }
        stop();
    }
    void stop()
    {
        mStopped.store(true, std::memory_order_relaxed);
        { std::lock_guard<std::mutex> lock(mMutex); }
        mChanged.notify_all();
    }
    std::exception_ptr failure()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFailure;
    }

    static const unsigned int NotYet = ~0u;

private:
    const unsigned int mSize;
    std::unique_ptr<std::atomic<bool>[]> mDone;
    std::atomic<unsigned int> mNext{0};
    std::atomic<unsigned int> mDecoded{0};
    std::atomic<int> mWaiting{0};
    std::atomic<bool> mStopped{false};
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::exception_ptr mFailure;
};

// Tells the decoder that builders read the decoded frames beside it, for as
// long as it lives.
struct BuildersBeside
{
    explicit BuildersBeside(bool& flag) : flag(flag) { flag = true; }
    ~BuildersBeside() { flag = false; }
    bool& flag;
};

} // namespace

int PreloadSampleSource::treeBuildersFor(size_t frames) const
{
    // That mode interns names as trees are built.
    if (mDebugAddresses)
        return 1;
    if (mTreeBuilders > 0)
        return mTreeBuilders;
    if (frames < FramesForTwoBuilders)
        return 1;
    return std::min(usableCores(), MostTreeBuilders);
}

void PreloadSampleSource::decodeAndBuildSampleTrunks(SampleList& samples, const quorvex::SSampleList* raw,
                                                     const QMap<int, quorvex::SCallSite>& callSites, int builders,
                                                     const std::function<void()>& afterDecoding)
{
    const unsigned int size = raw->size();
    oneThread();
    if (builders <= 1 || size < 2) {
        {
            SelfProfile decode(mTharn, QStringLiteral("40.decodeReturnAddresses"));
            decodeSamplesBefore(size);
            mSelfProfilePoints.addPoint(decode.finish(mPlan.done));
        }
        afterDecoding();
        SelfProfile trunks(mTharn, QStringLiteral("50.samples-trunk"));
        for (unsigned int i = 0; i < size; ++i) {
            samples.addSample(createSample(raw->at(i), mStartTime, callSites, i == 0 ? nullptr : &raw->at(i - 1)));
            reportAnalysisProcessing(BuildSampleTrunks, double(i + 1) / size);
        }
        mSelfProfilePoints.addPoint(trunks.finish(int(size)));
        return;
    }

    // Where the trees of each sample go, in the order of
    // SSampleBacktraceIterator.
    std::vector<size_t> firstTree(size + 1, 0);
    for (unsigned int i = 0; i < size; ++i)
        firstTree[i + 1] = firstTree[i] + 1 + raw->at(i).otherThreads().count();
    std::vector<ThreadTree> trees(firstTree[size]);
    TrunkWork work(size);
    // A builder reads the decoded frames while the decoder may add more;
    // the decoder moves them only while no builder works.
    const auto build = [&](unsigned int i) {
        std::shared_lock<std::shared_mutex> reading(mDecodedFramesMoving);
        buildTrees(raw->at(i), callSites, &trees[firstTree[i]]);
    };

    // The helpers end with the phase, also when it fails: then the trees
    // that were built and not yet taken into a sample go too.
    unsigned int finished = 0;
    std::vector<std::thread> helpers;
    const auto cleanUp = [&]() {
        work.stop();
        for (std::thread& helper : helpers)
            helper.join();
        helpers.clear();
        for (unsigned int i = finished; i < size; ++i) {
            if (!work.isBuilt(i))
                continue;
            for (size_t t = firstTree[i]; t < firstTree[i + 1]; ++t)
                delete trees[t].root;
        }
    };
    try {
        const auto help = [&]() {
            try {
                for (;;) {
                    const unsigned int i = work.take();
                    if (i == TrunkWork::NotYet) {
                        work.waitForDecoded();
                        continue;
                    }
                    if (i >= size)
                        return;
                    build(i);
                    work.built(i);
                }
            } catch (...) {
                work.fail(std::current_exception());
            }
        };
        for (int h = 1; h < builders; ++h) {
            try {
                helpers.emplace_back(help);
            } catch (const std::system_error&) {
                // A helper that can't start leaves its share to this thread.
                break;
            }
        }
        {
            // Each sample is handed to the helpers as soon as everything
            // its trees read is decoded.
            SelfProfile decode(mTharn, QStringLiteral("40.decodeReturnAddresses"));
            BuildersBeside beside(mBuildersBeside);
            for (unsigned int i = 0; i < size; ++i) {
                decodeSamplesBefore(i + 1);
                work.decoded(i + 1);
            }
            mSelfProfilePoints.addPoint(decode.finish(mPlan.done));
        }
        afterDecoding();

        SelfProfile trunks(mTharn, QStringLiteral("50.samples-trunk"));
        bool allTaken = false;
        for (; finished < size; ++finished) {
            while (!work.isBuilt(finished)) {
                const unsigned int next = allTaken ? size : work.take();
                if (next < size) {
                    build(next);
                    work.built(next);
                    continue;
                }
                allTaken = true;
                work.waitFor(finished);
                if (std::exception_ptr failure = work.failure())
                    std::rethrow_exception(failure);
            }
            samples.addSample(finishSample(raw->at(finished), mStartTime,
                                           finished == 0 ? nullptr : &raw->at(finished - 1),
                                           &trees[firstTree[finished]]));
            reportAnalysisProcessing(BuildSampleTrunks, double(finished + 1) / size);
        }
        mSelfProfilePoints.addPoint(trunks.finish(int(size)));
    } catch (...) {
        cleanUp();
        throw;
    }
    cleanUp();
}

void PreloadSampleSource::populateSampleList(SampleList& samples, quorvex::SSampleList* raw,
                                             const QMap<int, quorvex::SCallSite>& callSites)
{
    PreloadSampleSourceUtils::correctSparseMetrics(raw, mMetricDefinitions);

    size_t frames = 0;
    size_t traces = 0;
    for (unsigned int i = 0; i < raw->size(); ++i) {
        quorvex::SSampleBacktraceIterator threads(raw->at(i));
        while (threads.hasNext()) {
            frames += threads.next().trace().size();
            ++traces;
        }
    }
    const int builders = treeBuildersFor(frames);
    // The other phases' work on a sample is a fraction of building its
    // trees: a second thread of theirs pays only on a large run, and on a
    // small one waiting for a busy core to start it costs more than it
    // saves. A number of builders that was set holds for them too.
    mSampleWorkers = mTreeBuilders > 0 || frames >= FramesForSampleWorkers ? builders : 1;
    prepareDecoding(raw, callSites);
    mRecordTreePlaceholders = true;
    mLeafRecords.clear();
    mSampleLeafRecords.clear();
    // A leaf for nearly every trace: the lists don't grow by copying.
    mLeafRecords.reserve(traces);
    mSampleLeafRecords.reserve(raw->size() + 1);
    mNewLeafAddresses.reserve(mNewLeafAddresses.size() + traces);

    // Once the decoding is done, the leaves' questions to the debugger are
    // asked on this thread, the one that asks it, while the helpers go on
    // building trees, which never ask it. With one builder they wait for
    // the trunk, as the leaves not foreseen do.
    std::unique_ptr<TempDisableDebugMode> quiet(new TempDisableDebugMode(&mTharn));
    decodeAndBuildSampleTrunks(samples, raw, callSites, builders, [this, builders]() {
        if (builders > 1)
            askLeafQuestions();
    });

    timespec intervalSum = {0, 0};
    unsigned long long intervals = 0;
    timespec previousStamp = {0, 0};
    {
        const unsigned int size = raw->size();
        for (unsigned int i = 0; i < size; ++i) {
            const timespec stamp = raw->at(i).getTimestamp();
            const bool zero = stamp.tv_sec == 0 && stamp.tv_nsec == 0;
            const bool previousZero = previousStamp.tv_sec == 0 && previousStamp.tv_nsec == 0;
            if (!zero && !previousZero) {
                timespec difference = stamp;
                quorvex::timespec_subtract(difference, previousStamp);
                quorvex::timespec_add(intervalSum, difference);
                ++intervals;
            }
            previousStamp = stamp;
        }
    }

    disassembleAndDecodeLeafAddresses();
    quiet.reset();

    {
        SelfProfile leafs(mTharn, QStringLiteral("80.samples-leafs"));
        answerLeaves();
        const int replaced = replaceLeaves();
        mRecordTreePlaceholders = false;
        mTraceEnds.clear();
        mSelfProfilePoints.addPoint(leafs.finish(replaced));
    }

    SelfProfile post(mTharn, QStringLiteral("90.post"));
    identifyMonitorThreads();
    prependClassificationFramesToSampleBacktraces(samples);
    const int left = 100 - mReportedProgress;
    ProfilerProgressResponse complete(ProfilerProgressResponse::AnalysisComplete, left < 0 ? 0 : left, 0);
    mTharn.sendResponse(&complete);

    // Below a second in all the average stays unknown; the bound keeps the
    // product from overflowing.
    const unsigned long long seconds = static_cast<unsigned long long>(intervalSum.tv_sec);
    if (intervalSum.tv_sec > 0 && seconds + 1 <= 18446744072ULL)
        mAverageSampleIntervalNs = (seconds * 1000000000ULL + static_cast<unsigned long long>(intervalSum.tv_nsec))
            / intervals;
    mRunDurationMs = raw->size() == 0 ? 0
                                      : PreloadSampleSourceUtils::msFromTimespec(
                                            raw->at(raw->size() - 1).getTimestamp(), mStartTime);
    if (raw->size() != 0) {
        const quorvex::SMetrics& metrics = raw->at(raw->size() - 1).metrics();
        setFromMetricValue(metrics, mMetricDefinitions.getMetricById(QLatin1String(METRIC_CHARS_READ)), mCharsRead);
        setFromMetricValue(metrics, mMetricDefinitions.getMetricById(QLatin1String(METRIC_CHARS_WRITTEN)),
                           mCharsWritten);
        setFromMetricValue(metrics, mMetricDefinitions.getMetricById(QLatin1String(METRIC_LUSTRE_CHARS_READ)),
                           mLustreCharsRead);
        setFromMetricValue(metrics, mMetricDefinitions.getMetricById(QLatin1String(METRIC_LUSTRE_CHARS_WRITTEN)),
                           mLustreCharsWritten);
    }
    mSelfProfilePoints.addPoint(post.finish(samples.size()));
    mNameAnswers.clear();
    mAnsweredNames.clear();
}

void PreloadSampleSource::recordUnwindStatus(Sample& sample, const quorvex::SBacktrace& backtrace,
                                             const quorvex::SSample* previous)
{
    const int status = backtrace.unwindStatus();
    if (status == UNW_ZOR_NOT_SET && previous) {
        // A thread's first appearance has no backtrace yet: not an error.
        bool seenBefore = false;
        quorvex::SSampleBacktraceIterator threads(*previous);
        while (threads.hasNext() && !seenBefore)
            seenBefore = threads.next().tid() == backtrace.tid();
        if (!seenBefore)
            return;
    }
    UnwindError& error = mUnwindErrors[status];
    ++error.count;
    if (verboseUnwindErrors() && error.backtraces.size() <= 5) {
        bool known = false;
        for (const quorvex::SSimpleBacktrace& kept : qAsConst(error.backtraces))
            known = known || sameTrace(kept.trace(), backtrace.trace());
        if (!known)
            error.backtraces.append(backtrace);
    }
    sample.addLibunwindErrorCode(status);
}

Sample* PreloadSampleSource::createSample(const quorvex::SSample& raw, timespec start,
                                          const QMap<int, quorvex::SCallSite>& callSites,
                                          const quorvex::SSample* previous)
{
    oneThread();
    QVarLengthArray<ThreadTree, 32> trees(1 + raw.otherThreads().count());
    buildTrees(raw, callSites, trees.data());
    return finishSample(raw, start, previous, trees.data());
}

void PreloadSampleSource::buildTrees(const quorvex::SSample& raw, const QMap<int, quorvex::SCallSite>& callSites,
                                     ThreadTree* trees)
{
    quorvex::SSampleBacktraceIterator threads(raw);
    for (ThreadTree* tree = trees; threads.hasNext(); ++tree) {
        const quorvex::SBacktrace& backtrace = threads.next();
        const int status = backtrace.unwindStatus();
        const bool mainThread = threads.wasMainThread();

        // A worker's trace that stops at its region continues with the
        // stack that opened the region. Only such a trace is copied, into a
        // plain list of frames: a backtrace's copy writes shared state.
        const quorvex::backtrace_t* trace = &backtrace.trace();
        quorvex::backtrace_t extended;
        int siteFrames = 0;
        if (backtrace.stopsAtCallingFrame()) {
            const auto site = callSites.constFind(backtrace.parallelId());
            if (site != callSites.constEnd() && site->callSite()->unwindStatus() != UNW_ZOR_NOT_SET) {
                const quorvex::backtrace_t& siteTrace = site->callSite()->trace();
                ZOR_ASSERT(!siteTrace.empty());
                extended.reserve(trace->size() + siteTrace.size());
                extended.assign(trace->begin(), trace->end());
                extended.insert(extended.end(), siteTrace.begin(), siteTrace.end());
                trace = &extended;
                tree->hasCallSite = true;
                siteFrames = int(siteTrace.size());
            }
        }

        unsigned int rootFramesToSkip = 0;
        bool foundRoot = false;
        if (!tree->hasCallSite && !mainThread) {
            const TraceEnds* ends = mTraceEnds.find(traceKey(*trace));
            if (ends && ends->rootKnown) {
                rootFramesToSkip = ends->rootFramesToSkip;
                foundRoot = ends->rootFound;
            } else {
                rootFramesToSkip = findRootFramesOfThread(*trace, foundRoot);
            }
        }
        // A thread whose root was found is whole, whatever its status says.
        const bool partial = status != 0 ? !foundRoot : false;

        ZORPSVModelItem* root = buildPath(*trace, backtrace.inMpi(), partial, rootFramesToSkip, &tree->instruction,
                                          &tree->accelerator, tree->leaf, tree->mayTell);
        tree->root = root;
        if (backtrace.stopsAtCallingFrame())
            tree->regionCaller = markRegionCaller(root, tree->hasCallSite ? siteFrames : 0);

        if (root->childCount() == 0) {
            ZORPSVModelItem* error = new ZORPSVModelItem(
                root, Position(QStringLiteral("%1 [error]").arg(QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION))));
            error->addThread(mRank, false, false);
            tree->mayTell = true;
        }
    }
}

Sample* PreloadSampleSource::finishSample(const quorvex::SSample& raw, timespec start,
                                          const quorvex::SSample* previous, ThreadTree* trees)
{
    Sample* sample = new Sample(mMetricDefinitions, mRank);
    if (mRecordTreePlaceholders)
        mSampleLeafRecords.emplace_back(sample, mLeafRecords.size());
    sample->setIgnore(mIgnoreSamples);
    sample->backendOnly_setTimestamp(PreloadSampleSourceUtils::msFromTimespec(raw.getTimestamp(), start));
    if (raw.otherThreads().count() > mMaxBacktracesPerSample)
        mMaxBacktracesPerSample = raw.otherThreads().count();

    ThreadContext context;
    context.rank = mRank;
    context.pid = mTargetPid;
    sample->backendOnly_reserveThreads(1 + raw.otherThreads().count());
    quorvex::SSampleBacktraceIterator threads(raw);
    for (ThreadTree* tree = trees; threads.hasNext(); ++tree) {
        const quorvex::SBacktrace& backtrace = threads.next();
        const int status = backtrace.unwindStatus();
        if (status != 0)
            recordUnwindStatus(*sample, backtrace, previous);
        const bool mainThread = threads.wasMainThread();
        const Sample::ThreadType threadType = mainThread ? Sample::MainThread
            : tree->hasCallSite                         ? Sample::ParallelRegionThread
                                                        : Sample::OtherThread;
        ZORPSVModelItem* root = tree->root;
        noteTreeLeaf(tree->leaf, backtrace.tid());
        if (tree->regionCaller)
            mHasOmpRegions = true;

        // The runtime of the tree and, for a thread of no class yet, its
        // class, in one walk. The mark and the error frame change neither.
        const int tid = backtrace.tid();
        const bool unclassified = !isTidClassified(tid);
        if (unclassified && mainThread)
            mMainTids.insert(tid);
        const Category::OmpCompiler::Enum runtime = scanFreshTree(tid, root, unclassified && !mainThread, tree->mayTell);
        if (runtime != Category::OmpCompiler::Unknown)
            mOmpRuntimes.insert(runtime);
        if (threadType == Sample::ParallelRegionThread)
            mRegionTids.insert(tid);
        if (backtrace.isSleeping())
            ++mSleepingCounts[tid];
        else
            ++mAwakeCounts[tid];

        if ((mainThread || tree->hasCallSite) && status == 0)
            dropStartupFrame(root);

        const timespec& cpu = backtrace.cpuTime();
        const unsigned long long cpuNanoseconds =
            static_cast<unsigned long long>(cpu.tv_sec) * 1000000000ULL + static_cast<unsigned long long>(cpu.tv_nsec);
        // Accelerator threads always count as sleeping: their time is the
        // device's.
        const bool sleeping = mAcceleratorTids.contains(tid) ? true : backtrace.isSleeping();
        sample->backendOnly_addThread(root, tid, context, InstructionQuery(tree->instruction, tree->accelerator),
                                      threadType, cpuNanoseconds, sleeping);
    }

    const quorvex::threadlist_t& live = raw.threadList();
    sample->backendOnly_setLiveThreadList(QVector<int>(live.begin(), live.end()));

    if (raw.metrics().isValid()) {
        const QMap<QString, Metric> metrics = mMetricDefinitions.getMetricsOnTimeDomain();
        for (const Metric& metric : metrics) {
            const unsigned int index = metric.getIndex();
            if (!raw.metrics().hasMetric(index))
                continue;
            const SampleValue& value = raw.metrics().getMetricValue(index);
            if (value.empty())
                continue;
            const double scale = PreloadSampleSourceUtils::calculateScaleUpFactor(raw.getMetricInterval(index));
            if (metric.getUnits() == QLatin1String("%") && metric.getDivideBySampleTime()) {
                double result = scale * value.to_double() * 100.0;
                if (metric.getClampPercentages())
                    result = PreloadSampleSourceUtils::clampPercentage(result);
                sample->setMetric(metric.getId(), SampleValue(result));
            } else if (metric.getDivideBySampleTime()) {
                sample->setMetric(metric.getId(), value * scale);
            } else {
                sample->setMetric(metric.getId(), value);
            }
        }
    }

    if (raw.hasGpuKernelHit())
        sample->setGpuPsvModel(createGpuPsvModel(raw));
    return sample;
}

Category::OmpCompiler::Enum PreloadSampleSource::detectOmpRuntime(const ZORPSVModelItem* root)
{
    // What ZORPSVModelItem::detectOmpRuntime finds, with the answer for each
    // name kept. A tree at this stage is one path.
    for (const PSVModelItem* node = root; node; node = node->firstChild()) {
        if (node->childCount() > 1)
            return root->detectOmpRuntime();
        const QString& function = node->position().function;
        if (function.isEmpty())
            continue;
        const Category::OmpCompiler::Enum runtime = answersFor(function).runtime;
        if (runtime != Category::OmpCompiler::Unknown)
            return runtime;
    }
    return Category::OmpCompiler::Unknown;
}

Category::OmpCompiler::Enum PreloadSampleSource::scanFreshTree(int tid, const ZORPSVModelItem* root, bool classify,
                                                               bool mayTell)
{
    if (!mayTell)
        return Category::OmpCompiler::Unknown;
    // What detectOmpRuntime and classifyNonMainTid find, walking a tree that
    // is one path once and asking the rules once per frame.
    static const Category::NameFacts noParent = Category::factsOf(QString());
    Category::NameFacts parentFacts = noParent;
    Category::OmpCompiler::Enum runtime = Category::OmpCompiler::Unknown;
    bool runtimeFound = false;
    // The path first, so that the answers of the frames a few steps ahead
    // can be loaded while one is looked at; it ends early at a fork.
    QVarLengthArray<const PSVModelItem*, 160> path;
    // Nodes point at their positions, which lie elsewhere: all of them are
    // asked for at once.
    for (const PSVModelItem* node = root; node; node = node->childCount() > 1 ? nullptr : node->firstChild()) {
        __builtin_prefetch(&node->position());
        path.append(node);
    }
    const int prefetchDistance = 4;
    for (int i = 0; i < prefetchDistance && i < path.size(); ++i)
        mNameAnswers.prefetch(nameKey(path[i]->position().function));
    for (int depth = 0; depth < path.size() && (classify || !runtimeFound); ++depth) {
        const PSVModelItem* node = path[depth];
        if (depth + prefetchDistance < path.size())
            mNameAnswers.prefetch(nameKey(path[depth + prefetchDistance]->position().function));
        if (node->childCount() > 1) {
            if (classify)
                classifyNonMainTid(tid, static_cast<const ZORPSVModelItem*>(node));
            return runtimeFound ? runtime : root->detectOmpRuntime();
        }
        const NameAnswers& answers = answersFor(node->position().function);
        if (!runtimeFound && answers.runtime != Category::OmpCompiler::Unknown) {
            runtime = answers.runtime;
            runtimeFound = true;
        }
        const Category::NameFacts facts = answers.facts;
        if (classify && classifyByFrame(tid, facts, parentFacts, depth <= 1))
            classify = false;
        parentFacts = facts;
    }
    return runtime;
}

bool PreloadSampleSource::markRegionCaller(ZORPSVModelItem* root, int depth)
{
    // The frame that opened the region: the last of the call site's frames
    // if it has a line, else the first of the worker's own.
    ZORPSVModelItem* node = static_cast<ZORPSVModelItem*>(root->firstChild());
    ZORPSVModelItem* above = nullptr;
    for (int level = 0; node && level < depth; ++level) {
        above = node;
        node = node->childCount() > 0 ? static_cast<ZORPSVModelItem*>(node->firstChild()) : nullptr;
        if (!node && level + 1 < depth)
            return false;
    }
    ZORPSVModelItem* marked = above && above->position().hasFileAndLine() ? above : node;
    if (!marked)
        return false;
    marked->setSpecial(ZORPSVModelItem::specialRegionCaller);
    return true;
}

void PreloadSampleSource::dropStartupFrame(ZORPSVModelItem* root)
{
    // The single frame above the program's main function (the C library's
    // start-up code) isn't shown.
    if (mMainFunctionName.isEmpty() || root->childCount() != 1)
        return;
    PSVModelItem* child = root->firstChild();
    if (child->childCount() != 1)
        return;
    PSVModelItem* grandchild = child->firstChild();
    const Position& position = grandchild->position();
    if (!position.hasFileAndLine())
        return;
    if (position.function != mMainFunctionName && position.function != mMainFunctionName + QLatin1String(" [inlined]"))
        return;
    grandchild->detach();
    delete child;
    root->addChild(grandchild);
}

void PreloadSampleSource::answerLeaves()
{
    // In the order of their addresses, in which the cache's lookups walk
    // memory just walked.
    mLeafAnswers.clear();
    mLeafAnswers.reserve(mLeafAddresses.size());
    oneThread();
    // The cache's answers asked with the leaves' questions hold while no
    // other leaf was disassembled since.
    const bool asked = mLeafQuestions.asked && !mLeafQuestions.stale
        && mLeafQuestions.previous.size() == mLeafQuestions.leaves.size();
    const std::vector<Address>& foreseen = mLeafQuestions.leaves;
    std::vector<LeafAnswer*> answers;
    answers.reserve(mLeafAddresses.size());
    size_t next = 0;
    for (Address address : mLeafAddresses) {
        LeafAnswer& answer = mLeafAnswers.insert(address);
        while (next < foreseen.size() && foreseen[next] < address)
            ++next;
        if (asked && next < foreseen.size() && foreseen[next] == address)
            answer.previous = mLeafQuestions.previous[next];
        else
            answer.previous =
                mInstructionCache.previousAddressAndInstruction(address, InstructionCache::DisassemblyLookupForbidden);
        answer.known = true;
        answers.push_back(&answer);
    }
    mLeafQuestions.clear();
    // The frames shown, on the sample workers: the table of answers is full
    // and moves no more, and two leaves may share a frame.
    runOnSampleWorkers(answers.size(), mDebugAddresses ? 1 : mSampleWorkers, [&](size_t i, int) {
        LeafAnswer& answer = *answers[i];
        // The frame stands at the instruction that was executing, the one
        // before the recorded program counter.
        const Address used = answer.previous.mnemonic.isEmpty() ? mLeafAddresses[i] : answer.previous.address;
        DecodedFrame& frame = decodedFrame(used);
        const Position* kept = __atomic_load_n(&frame.kept, __ATOMIC_ACQUIRE);
        if (!kept) {
            kept = PSVModelItem::keptPosition(frame.position, frame.positionKey);
            __atomic_store_n(&frame.kept, kept, __ATOMIC_RELEASE);
        }
        answer.frame = &frame;
        answer.kept = kept;
        answer.fromCuda = isAddressFromCUDALibrary(used, frame.position.function) ? 1 : 0;
    });
}

int PreloadSampleSource::replaceLeaves()
{
    mKeepLeafAnswers = true;
    const size_t samples = mSampleLeafRecords.size();
    mSampleLeafRecords.emplace_back(nullptr, mLeafRecords.size());
    // What a sample's replacement reads lies scattered over the memory of
    // the trees: the placeholders of the next sample and their answers are
    // loaded ahead, then the parents of this one's all at once. The next
    // sample may be another thread's: its placeholders are not read.
    const auto records = [this](size_t i) {
        return std::make_pair(mLeafRecords.data() + mSampleLeafRecords[i].second,
                              mLeafRecords.data() + mSampleLeafRecords[i + 1].second);
    };
    std::atomic<int> replaced{0};
    const bool lineMetrics = mLineMetricsEnabled && !mIgnoreSamples;
    // Each sample's trees are its own, and the answers were all worked out
    // ahead: the samples are shared out among the threads.
    runOnSampleWorkers(samples, mDebugAddresses ? 1 : mSampleWorkers, [&](size_t i, int) {
        if (i + 1 < samples) {
            for (auto next = records(i + 1); next.first != next.second; ++next.first) {
                __builtin_prefetch(next.first->placeholder);
                mLeafAnswers.prefetch(next.first->address);
            }
        }
        const auto mine = records(i);
        for (const LeafRecord* record = mine.first; record != mine.second; ++record) {
            __builtin_prefetch(record->placeholder->parent());
            if (const LeafAnswer* answer = mLeafAnswers.find(record->address))
                __builtin_prefetch(answer->kept);
        }
        Sample* sample = mSampleLeafRecords[i].first;
        QVarLengthArray<QPair<int, PSVModelItem*>, 32> leaves;
        for (const LeafRecord* record = mine.first; record != mine.second; ++record) {
            InstructionQuery query;
            PSVModelItem* leaf = nullptr;
            // A placeholder stays the leaf of its path: nothing adds to it.
            if (replacePlaceholder(record->placeholder, query, &leaf)) {
                sample->backendOnly_setInstruction(record->tid, query);
                leaves.append(qMakePair(record->tid, leaf));
            }
        }
        replaced.fetch_add(leaves.size(), std::memory_order_relaxed);
        if (lineMetrics)
            populateLineMetrics(mMetricDefinitions, *sample, leaves);
    });
    mKeepLeafAnswers = false;
    mLeafAnswers.clear();
    std::vector<LeafRecord>().swap(mLeafRecords);
    std::vector<std::pair<Sample*, size_t>>().swap(mSampleLeafRecords);
    return replaced.load();
}

void PreloadSampleSource::populateLineMetrics(const MetricDefinitions& definitions, Sample& sample)
{
    populateLineMetrics(definitions, sample, {});
}

void PreloadSampleSource::populateLineMetrics(const MetricDefinitions& definitions, Sample& sample,
                                              const QVarLengthArray<QPair<int, PSVModelItem*>, 32>& leaves)
{
    if (!cpuInstructionMetricsSupported(definitions))
        return;
    // The filling itself is the one that the resampling window's line
    // metrics use, so that both count an instruction the same way; the
    // leaves just made are known.
    for (int tid : sample.sampledTidList()) {
        if (sample.backendOnly_isSleeping(tid))
            continue;
        PSVModelItem* leaf = nullptr;
        for (const auto& known : leaves) {
            if (known.first == tid)
                leaf = known.second;
        }
        if (!leaf || leaf->childCount() > 0) {
            leaf = sample.backendOnly_mutablePsvModel(tid);
            while (leaf && leaf->firstChild())
                leaf = leaf->firstChild();
        }
        if (leaf)
            addLineMetricsOfLeaf(sample, tid, leaf);
    }
}

bool PreloadSampleSource::cpuInstructionMetricsSupported(const MetricDefinitions& definitions)
{
    // Where the instruction tables know the processor's mnemonics.
    return ::cpuInstructionMetricsSupported(definitions);
}
