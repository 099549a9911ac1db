// Raw samples to analysed ones: the whole analysis of a run, in the order in
// which it must happen, and the building of one Sample.
#include "preloadsamplesource.h"

#include "constants.h"
#include "envswitch.h"
#include "gpuprofilepsvmodelitem.h"
#include "preloadsamplesourceutils.h"
#include "profilerresponses.h"
#include "resample.h"
#include "sample.h"
#include "samplelist.h"
#include "selfprofile.h"
#include "ssamplelist.h"
#include "tharninterface.h"
#include "timespec_utils.h"
#include "zorpsvmodelitem.h"

#include <cstring>
#include <optional>

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

} // namespace

void PreloadSampleSource::populateSampleList(SampleList& samples, quorvex::SSampleList* raw,
                                             const QMap<int, quorvex::SCallSite>& callSites)
{
    PreloadSampleSourceUtils::correctSparseMetrics(raw, mMetricDefinitions);
    precacheLineAndInstructionInfo(raw, callSites);
    mRecordTreePlaceholders = true;

    timespec intervalSum = {0, 0};
    unsigned long long intervals = 0;
    timespec previousStamp = {0, 0};
    {
        SelfProfile trunks(mTharn, QStringLiteral("50.samples-trunk"));
        const unsigned int size = raw->size();
        for (unsigned int i = 0; i < size; ++i) {
            const quorvex::SSample& sample = raw->at(i);
            samples.addSample(createSample(sample, mStartTime, callSites, i == 0 ? nullptr : &raw->at(i - 1)));
            const timespec stamp = sample.getTimestamp();
            const bool zero = stamp.tv_sec == 0 && stamp.tv_nsec == 0;
            const bool previousZero = previousStamp.tv_sec == 0 && previousStamp.tv_nsec == 0;
            if (!zero && !previousZero) {
                timespec difference = stamp;
                quorvex::timespec_subtract(difference, previousStamp);
                quorvex::timespec_add(intervalSum, difference);
                ++intervals;
            }
            previousStamp = stamp;
            reportAnalysisProcessing(BuildSampleTrunks, double(i + 1) / size);
        }
        mSelfProfilePoints.addPoint(trunks.finish(int(size)));
    }

    disassembleAndDecodeLeafAddresses();

    {
        SelfProfile leafs(mTharn, QStringLiteral("80.samples-leafs"));
        int replaced = 0;
        // The answers for the leaves, asked in the order of their addresses,
        // in which the cache's lookups walk memory just walked.
        mLeafAnswers.clear();
        mLeafAnswers.reserve(mLeafAddresses.size());
        for (Address address : mLeafAddresses) {
            LeafAnswer& answer = mLeafAnswers.insert(address);
            answer.previous =
                mInstructionCache.previousAddressAndInstruction(address, InstructionCache::DisassemblyLookupForbidden);
            answer.known = true;
        }
        mKeepLeafAnswers = true;
        for (Sample* sample : samples) {
            mSampleLeaves.clear();
            for (int tid : sample->sampledTidList()) {
                ZORPSVModelItem* model = sample->backendOnly_mutablePsvModel(tid);
                if (!model)
                    continue;
                InstructionQuery query;
                PSVModelItem* leaf = nullptr;
                if (replaceTailFramePlaceholder(model, query, &leaf)) {
                    sample->backendOnly_setInstruction(tid, query);
                    mSampleLeaves.append(qMakePair(tid, leaf));
                    ++replaced;
                }
            }
            if (mLineMetricsEnabled && !mIgnoreSamples)
                populateLineMetrics(mMetricDefinitions, *sample);
        }
        mSampleLeaves.clear();
        mKeepLeafAnswers = false;
        mLeafAnswers.clear();
        mRecordTreePlaceholders = false;
        mTreePlaceholders.clear();
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
    Sample* sample = new Sample(mMetricDefinitions, mRank);
    sample->setIgnore(mIgnoreSamples);
    sample->backendOnly_setTimestamp(PreloadSampleSourceUtils::msFromTimespec(raw.getTimestamp(), start));
    if (raw.otherThreads().count() > mMaxBacktracesPerSample)
        mMaxBacktracesPerSample = raw.otherThreads().count();

    ThreadContext context;
    context.rank = mRank;
    context.pid = mTargetPid;
    quorvex::SSampleBacktraceIterator threads(raw);
    while (threads.hasNext()) {
        const quorvex::SBacktrace& backtrace = threads.next();
        const int status = backtrace.unwindStatus();
        if (status != 0)
            recordUnwindStatus(*sample, backtrace, previous);
        const bool mainThread = threads.wasMainThread();
        Sample::ThreadType threadType = mainThread ? Sample::MainThread : Sample::OtherThread;

        // A worker's trace that stops at its region continues with the
        // stack that opened the region. Only such a trace is copied.
        const quorvex::SBacktrace* trace = &backtrace;
        // Made only when needed: an empty backtrace takes heap memory ahead.
        std::optional<quorvex::SBacktrace> extended;
        bool hasCallSite = false;
        int siteFrames = 0;
        if (backtrace.stopsAtCallingFrame()) {
            const auto site = callSites.constFind(backtrace.parallelId());
            if (site != callSites.constEnd() && site->callSite()->unwindStatus() != UNW_ZOR_NOT_SET) {
                extended.emplace(backtrace);
                extended->appendTrace(site->callSite()->trace());
                trace = &*extended;
                hasCallSite = true;
                siteFrames = int(site->callSite()->trace().size());
                if (threadType == Sample::OtherThread)
                    threadType = Sample::ParallelRegionThread;
            }
        }

        unsigned int rootFramesToSkip = 0;
        bool foundRoot = false;
        if (!hasCallSite && !mainThread) {
            const TraceEnds* ends = mTraceEnds.find(traceKey(trace->trace()));
            if (ends && ends->rootKnown) {
                rootFramesToSkip = ends->rootFramesToSkip;
                foundRoot = ends->rootFound;
            } else {
                rootFramesToSkip = findRootFramesOfThread(trace->trace(), foundRoot);
            }
        }
        // A thread whose root was found is whole, whatever its status says.
        const bool partial = status != 0 ? !foundRoot : false;

        QString instruction;
        bool accelerator = false;
        ZORPSVModelItem* root = createPSVModelForBacktrace(*trace, partial, rootFramesToSkip, &instruction, &accelerator);

        if (backtrace.stopsAtCallingFrame())
            markRegionCaller(root, hasCallSite ? siteFrames : 0);

        if (root->childCount() == 0) {
            ZORPSVModelItem* error = new ZORPSVModelItem(
                root, Position(QStringLiteral("%1 [error]").arg(QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION))));
            error->addThread(mRank, false, false);
        }

        // The runtime of the tree and, for a thread of no class yet, its
        // class, in one walk. The mark and the error frame above change
        // neither.
        const int tid = backtrace.tid();
        const bool unclassified = !isTidClassified(tid);
        if (unclassified && mainThread)
            mMainTids.insert(tid);
        const Category::OmpCompiler::Enum runtime = scanFreshTree(tid, root, unclassified && !mainThread);
        if (runtime != Category::OmpCompiler::Unknown)
            mOmpRuntimes.insert(runtime);
        if (threadType == Sample::ParallelRegionThread)
            mRegionTids.insert(tid);
        if (backtrace.isSleeping())
            ++mSleepingCounts[tid];
        else
            ++mAwakeCounts[tid];

        if ((mainThread || hasCallSite) && status == 0)
            dropStartupFrame(root);

        const timespec& cpu = backtrace.cpuTime();
        const unsigned long long cpuNanoseconds =
            static_cast<unsigned long long>(cpu.tv_sec) * 1000000000ULL + static_cast<unsigned long long>(cpu.tv_nsec);
        // Accelerator threads always count as sleeping: their time is the
        // device's.
        const bool sleeping = mAcceleratorTids.contains(tid) ? true : backtrace.isSleeping();
        sample->backendOnly_addThread(root, tid, context, InstructionQuery(instruction, accelerator), threadType,
                                      cpuNanoseconds, sleeping);
    }

    QSet<int> live;
    for (int tid : raw.threadList())
        live.insert(tid);
    sample->backendOnly_setLiveThreads(live);

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

void PreloadSampleSource::markRegionCaller(ZORPSVModelItem* root, int depth)
{
    // The frame that opened the region: the last of the call site's frames
    // if it has a line, else the first of the worker's own.
    ZORPSVModelItem* node = static_cast<ZORPSVModelItem*>(root->firstChild());
    ZORPSVModelItem* above = nullptr;
    for (int level = 0; node && level < depth; ++level) {
        above = node;
        node = node->childCount() > 0 ? static_cast<ZORPSVModelItem*>(node->firstChild()) : nullptr;
        if (!node && level + 1 < depth)
            return;
    }
    ZORPSVModelItem* marked = above && above->position().hasFileAndLine() ? above : node;
    if (!marked)
        return;
    marked->setSpecial(ZORPSVModelItem::specialRegionCaller);
    mHasOmpRegions = true;
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

void PreloadSampleSource::populateLineMetrics(const MetricDefinitions& definitions, Sample& sample)
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
        for (const auto& known : qAsConst(mSampleLeaves)) {
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
