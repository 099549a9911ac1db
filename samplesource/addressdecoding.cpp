// Addresses to source positions: every question to the debugger is asked in
// two bulk passes, so that the tree builders work from the caches alone.
#include "preloadsamplesource.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QRegExp>

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "constants.h"
#include "debugger.h"
#include "sampleworkers.h"
#include "selfprofile.h"
#include "ssamplelist.h"
#include "tempguards.h"
#include "zor_assert.h"

namespace {

const QString& unknownName()
{
    static const QString name = QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION);
    return name;
}

// The name that MPI's profiling entry points are shown under: pmpi_send_
// and PMPI_SEND read as MPI_send and MPI_SEND. Names with an inner
// underscore (pmpi_comm_rank) stay as they are.
QString publicMpiName(const QString& function)
{
    // Most names can't match: they are told apart without the expression,
    // whose copy and match cost far more.
    if (!function.startsWith(QLatin1String("pmpi_"), Qt::CaseInsensitive))
        return function;
    static const QRegExp profilingName(QStringLiteral("^pmpi_([a-z])([a-z]*)_*$"), Qt::CaseInsensitive);
    QRegExp expression = profilingName;
    if (!expression.exactMatch(function))
        return function;
    return QLatin1String("MPI_") + expression.cap(1).toUpper() + expression.cap(2);
}

bool isSamplerName(const QString& function)
{
    static const char* const inlinedEntries[] = {"threadLocal_storeBacktrace [inlined]", "sampleMainThread [inlined]",
                                                 "sampleNonMainThread [inlined]"};
    if (function.startsWith(QLatin1String("quorvex_")) || function.startsWith(QLatin1String("quorvex::"))
        || function == QLatin1String("__restore_rt"))
        return true;
    for (const char* entry : inlinedEntries) {
        if (function.endsWith(QLatin1String(entry)))
            return true;
    }
    return false;
}

// The frames with which the C library starts a thread, outermost first:
// glibc up to 2.33 starts threads through clone, glibc 2.34 on through
// clone3; both then call start_thread.
bool isThreadLibraryRoot(const QString& outer, const QString& inner)
{
    static const char* const cloneNames[] = {"clone", "__clone", "clone3", "__clone3"};
    if (inner == QLatin1String("start_thread")) {
        for (const char* name : cloneNames) {
            if (outer == QLatin1String(name))
                return true;
        }
        return false;
    }
    // Without the C library's symbols both frames are unnamed; a thread
    // other than the main one always starts with these two.
    const QString library = Category::libraryOfUnknownFrame(outer);
    return (library.startsWith(QLatin1String("libc.so")) || library.startsWith(QLatin1String("libc-")))
        && Category::libraryOfUnknownFrame(inner) == library;
}

// The distinct addresses of a run, each with the first sample that reads
// it. A run puts millions of frames through this and most of them are
// repeats, so they are gathered in an open-addressing table first and sorted
// once.
class AddressCollector
{
public:
    typedef std::pair<quint32, Address> FirstUse;

    // Small at first: a short run has a few hundred addresses, and a large
    // table costs a page fault per page.
    AddressCollector() : mSlots(1 << 10), mShift(64 - 10), mCount(0), mEmptySample(NoSample) {}

    // The addresses of one trace of a sample. The table is far larger than
    // the first level cache: the slots of the addresses a few steps ahead
    // are loaded while one is looked at.
    void insertAll(const unsigned long* addresses, size_t count, quint32 sample)
    {
        const size_t ahead = 8;
        for (size_t i = 0; i < count && i < ahead; ++i)
            __builtin_prefetch(&mSlots[slot(addresses[i])]);
        for (size_t i = 0; i < count; ++i) {
            if (i + ahead < count)
                __builtin_prefetch(&mSlots[slot(addresses[i + ahead])]);
            insert(addresses[i], sample);
        }
    }
    void insert(Address address, quint32 sample)
    {
        if (address == Empty) {
            mEmptySample = std::min(mEmptySample, sample);
            return;
        }
        if ((mCount + 1) * 2 > mSlots.size())
            grow();
        insertNew(address, sample);
    }
    // Adds the addresses of other.
    void merge(const AddressCollector& other)
    {
        for (const Slot& slot : other.mSlots) {
            if (slot.address != Empty)
                insert(slot.address, slot.sample);
        }
        mEmptySample = std::min(mEmptySample, other.mEmptySample);
    }
    // By first sample, then by address; each address `shift` lower. Every
    // first sample is below samples. The samples are few beside the
    // addresses: these are counted into their samples first, and only those
    // of one sample are sorted.
    std::vector<FirstUse> sorted(Address shift, quint32 samples) const
    {
        std::vector<size_t> end(size_t(samples) + 1, 0);
        for (const Slot& slot : mSlots) {
            if (slot.address != Empty)
                ++end[slot.sample + 1];
        }
        if (mEmptySample != NoSample)
            ++end[mEmptySample + 1];
        for (size_t s = 1; s < end.size(); ++s)
            end[s] += end[s - 1];
        std::vector<FirstUse> addresses(end.back());
        // end[s] is where sample s's addresses begin until they are placed,
        // then where they end.
        for (const Slot& slot : mSlots) {
            if (slot.address != Empty)
                addresses[end[slot.sample]++] = FirstUse(slot.sample, slot.address - shift);
        }
        if (mEmptySample != NoSample)
            addresses[end[mEmptySample]++] = FirstUse(mEmptySample, Empty - shift);
        size_t begin = 0;
        for (size_t s = 0; s < samples; ++s) {
            std::sort(addresses.begin() + std::ptrdiff_t(begin), addresses.begin() + std::ptrdiff_t(end[s]),
                      [](const FirstUse& a, const FirstUse& b) { return a.second < b.second; });
            begin = end[s];
        }
        return addresses;
    }

private:
    // The slot marker; the address itself is told by its own first sample.
    static constexpr Address Empty = ~Address(0);
    static constexpr quint32 NoSample = ~quint32(0);
    struct Slot
    {
        Address address = Empty;
        quint32 sample = NoSample;
    };

    size_t slot(Address address) const { return size_t((address * 0x9E3779B97F4A7C15ULL) >> mShift); }
    void insertNew(Address address, quint32 sample)
    {
        const size_t mask = mSlots.size() - 1;
        for (size_t i = slot(address);; i = (i + 1) & mask) {
            if (mSlots[i].address == address) {
                mSlots[i].sample = std::min(mSlots[i].sample, sample);
                return;
            }
            if (mSlots[i].address == Empty) {
                mSlots[i].address = address;
                mSlots[i].sample = sample;
                ++mCount;
                return;
            }
        }
    }
    void grow()
    {
        std::vector<Slot> old(mSlots.size() * 2);
        old.swap(mSlots);
        --mShift;
        mCount = 0;
        for (const Slot& slot : old) {
            if (slot.address != Empty)
                insertNew(slot.address, slot.sample);
        }
    }

    std::vector<Slot> mSlots;
    int mShift;
    size_t mCount;
    quint32 mEmptySample;
};

// Set while this thread decodes the ends of traces: decodedFrame may then
// ask the debugger. Tree builders on other threads never may.
thread_local bool tDecodingTraceEnds = false;

// The kept positions of the outermost two frames that this thread last
// judged, and whether they are the thread library's.
struct LastRootPair
{
    const Position* outer;
    const Position* inner;
    bool root;
};
thread_local LastRootPair tLastRootPair = {nullptr, nullptr, false};

} // namespace

Position PreloadSampleSource::decodeAddress(Address address, AllowPositionLookup lookup)
{
    if (const DecodedFrame* decoded = mDecodedFrames.find(address))
        return *decoded->position;
    // Every address of every trace was decoded in the first pass, together
    // with its neighbour one byte back: a miss here means a trace changed.
    ZOR_ASSERT(lookup != PositionLookupForbidden && "false");

    QList<PositionResponse*> inlined;
    PositionResponse* response = mDebugger->positionOfAddress(address, 0, &inlined);
    return notePositionAnswer(address, response, inlined);
}

Position PreloadSampleSource::notePositionAnswer(Address address, PositionResponse* response,
                                                 QList<PositionResponse*>& inlined)
{
    Position position;
    QVector<KeyedPosition> callers;
    if (!inlined.isEmpty()) {
        for (PositionResponse* caller : qAsConst(inlined)) {
            // The debugger lists the innermost caller first; they are kept
            // outermost first, the order in which they are added to a tree.
            callers.prepend(KeyedPosition(Position(InternStringCache::internForever(caller->function),
                                                   InternStringCache::internForever(caller->file), caller->line, -1)));
            delete caller;
        }
        inlined.clear();
        position.function = response->function + QLatin1String(" [inlined]");
    } else {
        position.function = response->function;
    }
    position.file = InternStringCache::internForever(response->file);
    position.line = response->line;
    position.column = -1;

    if (response->hasSymbol()) {
        position.function = publicMpiName(position.function);
    } else {
        position.function = unknownName();
        for (const SharedLibrary& library : qAsConst(mSharedLibraries)) {
            if (!library.isRangeKnown() || library.start() > address || library.end() <= address)
                continue;
            if (library.name().isEmpty())
                continue;
            position.function += QCoreApplication::translate("PreloadSampleSource", " from %1")
                                     .arg(QFileInfo(library.name()).fileName());
            break;
        }
    }
    position.function = InternStringCache::internForever(position.function);
    delete response;
    noteDecodedFrame(address, position, callers);
    return position;
}

void PreloadSampleSource::noteDecodedFrame(Address address, const Position& position,
                                           const QVector<KeyedPosition>& callers)
{
    // Tree builders may be reading beside this thread: a table about to move
    // waits for them to stop.
    std::unique_lock<std::shared_mutex> moving;
    if (mBuildersBeside && mDecodedFrames.wouldGrow())
        moving = std::unique_lock<std::shared_mutex>(mDecodedFramesMoving);
    DecodedFrame& frame = mDecodedFrames.insert(address);
    if (moving)
        moving.unlock();
    frame.positionKey = PSVModelItem::positionKeyOf(position);
    frame.position = PSVModelItem::keptPosition(position, frame.positionKey);
    frame.inlineCallersAt = mInlineCallers.add(callers);
    frame.inlineCallerCount = quint16(callers.size());
    frame.hasInlineCallers = !callers.isEmpty();
    frame.telling = isTelling(answersFor(position.function));
    for (const KeyedPosition& caller : callers)
        frame.telling = frame.telling || isTelling(answersFor(caller.position->function));
    frame.hasLineInfo = position.hasFileAndLine();
    frame.unknownPrefix = position.function.startsWith(unknownName());
    frame.exactlyUnknown = position.function == unknownName();
    frame.inSamplerLibrary = isSamplerAddress(address);
    frame.inMpiWrapper = isMpiWrapperAddress(address);
    frame.samplerFrame = frame.inSamplerLibrary || isSamplerName(position.function);
    frame.samplerWrapper = position.function.startsWith(QLatin1String("quorvex_sampleWrapper"));
    frame.cuda = -1;
}

DecodedFrame& PreloadSampleSource::decodedFrame(Address address)
{
    if (DecodedFrame* frame = mDecodedFrames.find(address))
        return *frame;
    // Asserts, but while the ends of the traces are decoded: every address
    // was decoded before the trees are built.
    decodeAddress(address, tDecodingTraceEnds ? PositionLookupAllowed : PositionLookupForbidden);
    return *mDecodedFrames.find(address);
}

void PreloadSampleSource::findSamplerLibraries()
{
    mSamplerRanges.clear();
    mMpiWrapperRanges.clear();
    for (const SharedLibrary& library : qAsConst(mSharedLibraries)) {
        if (!library.isRangeKnown())
            continue;
        const QString file = QFileInfo(library.name()).fileName();
        if (file.startsWith(QLatin1String("libquorvex-sampler")))
            mSamplerRanges.append(qMakePair(library.start(), library.end()));
        else if (file.startsWith(QLatin1String("libquorvex-mpiwrapper"))
                 || file.startsWith(QLatin1String("libquorvex-shmemwrapper")))
            mMpiWrapperRanges.append(qMakePair(library.start(), library.end()));
    }
}

namespace {

bool inRanges(const QList<QPair<Address, Address>>& ranges, Address address)
{
    for (const auto& range : ranges) {
        if (range.first <= address && address < range.second)
            return true;
    }
    return false;
}

} // namespace

bool PreloadSampleSource::isMpiWrapperAddress(Address address) const
{
    return inRanges(mMpiWrapperRanges, address);
}

bool PreloadSampleSource::isSamplerAddress(Address address) const
{
    return inRanges(mSamplerRanges, address);
}

void PreloadSampleSource::precacheLineAndInstructionInfo(const quorvex::SSampleList* samples,
                                                         const QMap<int, quorvex::SCallSite>& callSites)
{
    prepareDecoding(samples, callSites);
    SelfProfile decode(mTharn, QStringLiteral("40.decodeReturnAddresses"));
    decodeSamplesBefore(samples->size());
    mSelfProfilePoints.addPoint(decode.finish(mPlan.done));
}

void PreloadSampleSource::prepareDecoding(const quorvex::SSampleList* samples,
                                          const QMap<int, quorvex::SCallSite>& callSites)
{
    findSamplerLibraries();
    // The samples are shared out among the threads that will build the
    // trees, each gathering into tables of its own.
    struct Gathered
    {
        AddressCollector addresses;
        // The leaves apart: they are decoded as they are, with the ends of
        // the traces.
        AddressCollector leaves;
        size_t traces = 0;
        unsigned long missingSamples = 0;
    };
    SelfProfile prep(mTharn, QStringLiteral("30.precachePrep"));
    std::vector<Gathered> gathered(size_t(std::max(1, mSampleWorkers)));
    runOnSampleWorkers(samples->size(), int(gathered.size()), [&](size_t i, int worker) {
        Gathered& mine = gathered[size_t(worker)];
        bool missing = false;
        quorvex::SSampleBacktraceIterator threads(samples->at(unsigned(i)));
        while (threads.hasNext()) {
            const quorvex::backtrace_t& trace = threads.next().trace();
            ++mine.traces;
            if (trace.empty())
                missing = true;
            else
                mine.leaves.insert(trace[0], quint32(i));
            mine.addresses.insertAll(trace.data(), trace.size(), quint32(i));
        }
        if (missing)
            ++mine.missingSamples;
    });
    AddressCollector& collector = gathered[0].addresses;
    AddressCollector& leaves = gathered[0].leaves;
    size_t traces = 0;
    for (size_t w = 0; w < gathered.size(); ++w) {
        if (w > 0) {
            collector.merge(gathered[w].addresses);
            leaves.merge(gathered[w].leaves);
        }
        traces += gathered[w].traces;
        mMissingBacktraceSamples += gathered[w].missingSamples;
    }
    // Each distinct address one byte back, where its call lies: the
    // position of a return address. The addresses themselves are read only
    // at the ends of a trace, which decodeTraceEnds decodes. The call sites
    // come first: any sample may continue a trace with one.
    mPlan = DecodePlan();
    mPlan.returns = collector.sorted(1, samples->size());
    if (!callSites.isEmpty()) {
        std::vector<AddressCollector::FirstUse> sites;
        for (const quorvex::SCallSite& site : callSites) {
            for (unsigned long address : site.callSite()->trace())
                sites.emplace_back(0, Address(address) - 1);
        }
        mPlan.returns.insert(mPlan.returns.begin(), sites.begin(), sites.end());
    }
    mPlan.leaves = leaves.sorted(0, samples->size());
    // The traces in their order, so that what is read of the traces a few
    // steps ahead can be loaded while one is looked at: the frames of a run
    // lie scattered over a table far larger than the caches.
    mPlan.traces.reserve(traces);
    mPlan.firstTrace.reserve(samples->size() + 1);
    for (unsigned int i = 0; i < samples->size(); ++i) {
        mPlan.firstTrace.push_back(mPlan.traces.size());
        quorvex::SSampleBacktraceIterator threads(samples->at(i));
        while (threads.hasNext()) {
            const quorvex::SBacktrace& backtrace = threads.next();
            if (!backtrace.trace().empty())
                mPlan.traces.emplace_back(&backtrace, threads.wasMainThread());
        }
    }
    mPlan.firstTrace.push_back(mPlan.traces.size());
    // Room for the raw addresses decoded at the ends of the traces too: the
    // leaves, and a few frames of the thread library at the roots. A table
    // twice as large as needed costs a page fault for every 64 slots.
    mDecodedFrames.reserve(mDecodedFrames.size() + mPlan.returns.size() + mPlan.leaves.size() + 256);
    mTraceEnds.clear();
    mTraceEnds.reserve(traces);
    mLeafQuestions.clear();
    mLeafQuestions.leaves.reserve(traces);
    mSelfProfilePoints.addPoint(prep.finish(int(mPlan.returns.size())));
}

void PreloadSampleSource::decodeSamplesBefore(unsigned int end)
{
    TempDisableDebugMode quiet(&mTharn);
    DecodePlan& plan = mPlan;
    const double total = plan.returns.size();
    const bool wholeFailedTraces = verboseUnwindErrors();
    const size_t ahead = 8;
    const size_t tracesAhead = 4;
    const auto prefetchEnds = [this](const quorvex::backtrace_t& trace) {
        const size_t n = trace.size();
        mDecodedFrames.prefetch(trace[0]);
        if (n > 1)
            mDecodedFrames.prefetch(Address(trace[1]) - 1);
        if (n > 2)
            mDecodedFrames.prefetch(trace[n - 3]);
        mTraceEnds.prefetch(traceKey(trace));
    };
    for (; plan.nextSample < end; ++plan.nextSample) {
        const quint32 sample = plan.nextSample;
        // The return addresses that this sample reads first, in the order of
        // their addresses, then its leaves.
        for (size_t& i = plan.nextReturn; i < plan.returns.size() && plan.returns[i].first <= sample; ++i) {
            if (i + ahead < plan.returns.size())
                mDecodedFrames.prefetch(plan.returns[i + ahead].second);
            decodeAddress(plan.returns[i].second, PositionLookupAllowed);
            ++plan.done;
            reportAnalysisProcessing(DecodeReturnAddresses, plan.done / total);
        }
        for (size_t& i = plan.nextLeaf; i < plan.leaves.size() && plan.leaves[i].first <= sample; ++i)
            decodeAddress(plan.leaves[i].second, PositionLookupAllowed);
        // Then each trace's ends.
        const size_t last = plan.firstTrace[sample + 1];
        for (size_t i = plan.firstTrace[sample]; i < last && i < plan.firstTrace[sample] + tracesAhead; ++i)
            prefetchEnds(plan.traces[i].first->trace());
        for (size_t i = plan.firstTrace[sample]; i < last; ++i) {
            if (i + tracesAhead < last)
                prefetchEnds(plan.traces[i + tracesAhead].first->trace());
            decodeTraceEnds(*plan.traces[i].first, plan.traces[i].second, wholeFailedTraces);
        }
    }
}

void PreloadSampleSource::decodeTraceEnds(const quorvex::SBacktrace& backtrace, bool mainThread,
                                          bool wholeFailedTraces)
{
    // With the same functions as the builders, which may ask the debugger
    // here. A trace whose failure may be told in full has every address
    // decoded.
    tDecodingTraceEnds = true;
    const quorvex::backtrace_t& trace = backtrace.trace();
    TraceEnds ends;
    ends.first = quint32(firstProgramFrame(trace));
    if (!mainThread) {
        ends.rootFramesToSkip = findRootFramesOfThread(trace, ends.rootFound);
        ends.rootKnown = true;
    }
    mTraceEnds.insert(traceKey(trace)) = ends;
    // The leaf that the tree of the trace will have, but for a trace in
    // MPI, whose last frame is a call.
    if (ends.first < trace.size() && !backtrace.inMpi())
        mLeafQuestions.leaves.push_back(trace[ends.first]);
    if (wholeFailedTraces && backtrace.unwindStatus() != 0) {
        for (unsigned long address : trace)
            decodedFrame(address);
    }
    tDecodingTraceEnds = false;
}

void PreloadSampleSource::LeafQuestions::clear()
{
    for (PendingPosition& pending : positions) {
        delete pending.response;
        qDeleteAll(pending.inlined);
    }
    positions.clear();
    leaves.clear();
    shown.clear();
    viaJump.clear();
    previous.clear();
    stale = false;
    asked = false;
}

void PreloadSampleSource::askLeafQuestions()
{
    std::vector<Address>& leaves = mLeafQuestions.leaves;
    std::sort(leaves.begin(), leaves.end());
    leaves.erase(std::unique(leaves.begin(), leaves.end()), leaves.end());
    mLeafQuestions.shown.resize(leaves.size());
    mLeafQuestions.viaJump.resize(leaves.size());
    // In the order of their addresses, as the cache's disassembly walks
    // the code forwards.
    for (size_t i = 0; i < leaves.size(); ++i) {
        const InstructionCache::PreviousInstruction previous =
            mInstructionCache.previousAddressAndInstruction(leaves[i], InstructionCache::DisassemblyLookupAllowed);
        mLeafQuestions.shown[i] = previous.mnemonic.isEmpty() ? leaves[i] : previous.address;
        mLeafQuestions.viaJump[i] = previous.viaJump;
    }
    mLeafQuestions.previous.resize(leaves.size());
    for (size_t i = 0; i < leaves.size(); ++i) {
        mLeafQuestions.previous[i] =
            mInstructionCache.previousAddressAndInstruction(leaves[i], InstructionCache::DisassemblyLookupForbidden);
    }
    std::vector<Address> shown = mLeafQuestions.shown;
    std::sort(shown.begin(), shown.end());
    shown.erase(std::unique(shown.begin(), shown.end()), shown.end());
    for (Address address : shown) {
        if (mDecodedFrames.find(address))
            continue;
        PendingPosition pending{address, nullptr, {}};
        mLeafQuestions.positions.push_back(pending);
        PendingPosition& kept = mLeafQuestions.positions.back();
        kept.response = mDebugger->positionOfAddress(address, 0, &kept.inlined);
    }
    mLeafQuestions.asked = true;
}

void PreloadSampleSource::disassembleAndDecodeLeafAddresses()
{
    TempDisableDebugMode quiet(&mTharn);
    std::sort(mNewLeafAddresses.begin(), mNewLeafAddresses.end());
    mNewLeafAddresses.erase(std::unique(mNewLeafAddresses.begin(), mNewLeafAddresses.end()), mNewLeafAddresses.end());
    const size_t before = mLeafAddresses.size();
    mLeafAddresses.insert(mLeafAddresses.end(), mNewLeafAddresses.begin(), mNewLeafAddresses.end());
    std::inplace_merge(mLeafAddresses.begin(), mLeafAddresses.begin() + std::ptrdiff_t(before), mLeafAddresses.end());
    mLeafAddresses.erase(std::unique(mLeafAddresses.begin(), mLeafAddresses.end()), mLeafAddresses.end());
    std::vector<Address>().swap(mNewLeafAddresses);

    // The leaves foreseen were asked ahead, with the debugger's answers for
    // their positions, unless the trunk had no thread beside; any other
    // leaf is asked now.
    SelfProfile disassemble(mTharn, QStringLiteral("60.disassembleLeafAddresses"));
    if (!mLeafQuestions.asked)
        askLeafQuestions();
    const std::vector<Address>& foreseen = mLeafQuestions.leaves;
    std::vector<Address> decodedLeafs;
    decodedLeafs.reserve(mLeafAddresses.size());
    const double total = mLeafAddresses.size();
    int done = 0;
    size_t next = 0;
    for (Address address : mLeafAddresses) {
        // Both lists ascend.
        while (next < foreseen.size() && foreseen[next] < address)
            ++next;
        if (next < foreseen.size() && foreseen[next] == address) {
            decodedLeafs.push_back(mLeafQuestions.shown[next]);
            if (mLeafQuestions.viaJump[next])
                mJumpTargetLeafs.insert(address);
        } else {
            mLeafQuestions.stale = true;
            const InstructionCache::PreviousInstruction previous =
                mInstructionCache.previousAddressAndInstruction(address, InstructionCache::DisassemblyLookupAllowed);
            decodedLeafs.push_back(previous.mnemonic.isEmpty() ? address : previous.address);
            if (previous.viaJump)
                mJumpTargetLeafs.insert(address);
        }
        ++done;
        reportAnalysisProcessing(DisassembleLeafAddresses, done / total);
    }
    std::sort(decodedLeafs.begin(), decodedLeafs.end());
    decodedLeafs.erase(std::unique(decodedLeafs.begin(), decodedLeafs.end()), decodedLeafs.end());
    mSelfProfilePoints.addPoint(disassemble.finish(done));

    SelfProfile decode(mTharn, QStringLiteral("70.decodeLeafAddresses"));
    const double leafs = decodedLeafs.size();
    done = 0;
    std::vector<PendingPosition>& answered = mLeafQuestions.positions;
    next = 0;
    for (Address address : decodedLeafs) {
        while (next < answered.size() && answered[next].address < address)
            ++next;
        if (next < answered.size() && answered[next].address == address && answered[next].response
            && !mDecodedFrames.find(address)) {
            PendingPosition& pending = answered[next];
            PositionResponse* response = pending.response;
            pending.response = nullptr;
            notePositionAnswer(address, response, pending.inlined);
        } else {
            decodeAddress(address, PositionLookupAllowed);
        }
        ++done;
        reportAnalysisProcessing(DecodeLeafAddresses, done / leafs);
    }
    mSelfProfilePoints.addPoint(decode.finish(done));
}

unsigned int PreloadSampleSource::findRootFramesOfThread(const quorvex::backtrace_t& trace, bool& found)
{
    found = false;
    const int size = int(trace.size());
    if (size <= 2)
        return 0;
    int i = size - 1;
    while (i > 0 && trace[i] == 0)
        --i;
    if (i <= 0)
        return 0;
    // Kept positions never move, whatever the lookups do to the table, and
    // each is the one copy of its position: the threads of a run start
    // alike, and the names of the last pair are judged only once.
    const Position* outer = decodedFrame(trace[i]).position;
    const Position* inner = decodedFrame(trace[i - 1]).position;
    LastRootPair& last = tLastRootPair;
    if (outer != last.outer || inner != last.inner)
        last = LastRootPair{outer, inner, isThreadLibraryRoot(outer->function, inner->function)};
    if (!last.root)
        return 0;
    found = true;
    // The trailing zeros and the two frames of the thread library.
    unsigned int skip = unsigned(size + 1 - i);
    // The sampler starts the program's threads through a wrapper of its
    // own, which stands right below start_thread and is no frame of the
    // program. Its frame is a return address, read one byte back as the
    // tree builders read it: that position is known already.
    for (int wrapper = i - 2; wrapper > 0 && decodedFrame(Address(trace[wrapper]) - 1).samplerFrame; --wrapper)
        ++skip;
    return skip;
}
