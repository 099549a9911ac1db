// The sample source of a run with the sampler library preloaded into the
// target: it arms the sampler through the debugger, lets the target run,
// waits for the run to end, reads the sampler's data file and turns the raw
// samples into analysed ones.
//
// The run's control (start, stop, reading, metrics and side files) lives in
// preloadsamplesource.cpp; the analysis of the raw samples (addresses,
// trees, sample building, thread classes, unwind errors, GPU trees) in
// files of its own beside it.
#ifndef ZOR_PRELOADSAMPLESOURCE_H
#define ZOR_PRELOADSAMPLESOURCE_H

#include <QHash>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVarLengthArray>
#include <ctime>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "category.h"
#include "decodedframe.h"
#include "flatindex.h"
#include "debuggertypes.h"
#include "disassembler.h"
#include "gpuprofilerglobaldata.h"
#include "instructioncache.h"
#include "instructionquery.h"
#include "internstringcache.h"
#include "metric.h"
#include "mpicallmetrics.h"
#include "position.h"
#include "qorderedset.h"
#include "samplesource.h"
#include "samplevalue.h"
#include "scallsite.h"
#include "selfprofilepoints.h"
#include "ssimplebacktrace.h"

class Debugger;
class GpuProfilePSVModelItem;
class PidFile;
class PSVModelItem;
class ProfilerPlayResponse;
class Sample;
class SampleList;
class TharnInterface;
class ZORPSVModelItem;
namespace quorvex {
class SBacktrace;
class SSample;
class SSampleList;
}

typedef unsigned long long Address;

// The instruction cache's view of the target's code, through the debugger.
class PlaceholderZORPSVModelItem;

class DebuggerDisassembler : public Disassembler
{
public:
    DebuggerDisassembler(Debugger* debugger, int rank) : mDebugger(debugger), mRank(rank) {}

    QMap<unsigned long long, Instruction> disassemble(unsigned long long start, long long length,
                                                      unsigned long long* end) override;
    int id() override { return mRank; }
    Position position(unsigned long long address) override;

private:
    Debugger* mDebugger;
    int mRank;
};

// Waits for the node's analysis lock without blocking the host: retries
// after random delays that double in range each time.
class MyPidFileWaiter : public QObject
{
    Q_OBJECT

public:
    MyPidFileWaiter(PidFile* lock, int mask) : mLock(lock), mMask(mask) {}

    int mask() const { return mMask; }
    // Arms the timer of the next try and widens the range of the delay.
    void scheduleRetry();

signals:
    void locked();

public slots:
    void checkOrBackoff();

private:
    PidFile* mLock;
    int mMask;
};

class PreloadSampleSource : public ProfilerSampleSource
{
    Q_OBJECT

public:
    enum AnalysisPhase {
        DisassembleLeafAddresses = 0,
        DecodeLeafAddresses = 1,
        DecodeReturnAddresses = 2,
        BuildSampleTrunks = 3
    };
    enum AllowPositionLookup { PositionLookupAllowed = 0, PositionLookupForbidden = 1 };

    // Removes its file once, at the latest when it goes out of scope.
    struct AutoFileRemove
    {
        explicit AutoFileRemove(const QString& path = QString()) : path(path), removed(false) {}
        AutoFileRemove(const AutoFileRemove&) = delete;
        AutoFileRemove& operator=(const AutoFileRemove&) = delete;
        ~AutoFileRemove() { remove(); }
        void remove();

        QString path;
        bool removed;
    };

    // The samples that one unwinding status hit, with some of their traces.
    struct UnwindError
    {
        UnwindError() : count(0) {}
        int count;
        QList<quorvex::SSimpleBacktrace> backtraces;
    };

    // Arms the sampler in the stopped target; throws Exception* with words
    // for the user when it can't.
    PreloadSampleSource(TharnInterface& host, int numSamples, int initialInterval, const MetricDefinitions& metrics,
                        unsigned int timestamp, unsigned int startOffset, unsigned int stopOffset, bool cudaEnabled,
                        bool enableCudaPcSampling, bool notSelected);
    ~PreloadSampleSource() override;

    // SampleSource.
    bool readSamples(SampleList& list) override;
    int sampleInterval() const override { return 0; }
    long long duration() override { return mRunDurationMs; }
    bool hasWrappedMpiCalls() override { return mHasWrappedMpiCalls; }
    void provideMetrics(ProfilerPlayResponse& response) override;
    void provideGpuProfilingInfo(ProfilerPlayResponse& response) override;
    bool interrupted() const override;

    // What the profiler asks at the end of a run.
    void enableLineMetrics(bool enable) override { mLineMetricsEnabled = enable; }
    void readMpiCallMetrics(MpiCallMetrics& metrics) override;
    void readMetricErrors(MetricErrorMap& errors) override;
    SelfProfilePoints selfProfile() const override;
    bool isMPIThreadMultiple() const override { return mMpiThreadMultiple; }
    bool hasOmpRegions() const override { return mHasOmpRegions; }
    QSet<Category::OmpCompiler::Enum> ompRuntimes() const override { return mOmpRuntimes; }

    // Start of sampling.
    bool isFirstOnNode();
    void constructSystemSharedLibrariesList(const QList<SharedLibrary>& libraries);
    static bool isAddressInLibraries(unsigned long long address,
                                     const QMap<unsigned long long, unsigned long long>& libraries);
    bool isAddressFromSystemSharedLibrary(unsigned long long address);
    // Thread-safe: tree builders ask it.
    bool isAddressFromCUDALibrary(unsigned long long address, const QString& functionName) const;

    // Progress of the analysis, `fraction` of the phase done.
    void reportAnalysisProcessing(AnalysisPhase phase, double fraction);

    // The analysis of a run, in the order in which it happens.
    void populateSampleList(SampleList& samples, quorvex::SSampleList* raw,
                            const QMap<int, quorvex::SCallSite>& callSites);

    // Addresses to source positions.
    Position decodeAddress(Address address, AllowPositionLookup lookup);
    void precacheLineAndInstructionInfo(const quorvex::SSampleList* samples,
                                        const QMap<int, quorvex::SCallSite>& callSites);
    void disassembleAndDecodeLeafAddresses();
    unsigned int findRootFramesOfThread(const quorvex::backtrace_t& trace, bool& found);

    // Backtraces to trees.
    ZORPSVModelItem* createPSVModelForBacktrace(const quorvex::SBacktrace& backtrace, bool partialTrace,
                                                unsigned int rootFramesToSkip, QString* instruction,
                                                bool* accelerator);
    void addLeafNode(Address address, ZORPSVModelItem*& parent, InstructionQuery& query, bool& fromCuda);
    ZORPSVModelItem* getOrCreatePSVModelItem(const Position& position, ZORPSVModelItem* parent);
    bool replaceTailFramePlaceholder(PSVModelItem* root, InstructionQuery& query);
    bool replaceTailFramePlaceholder(PSVModelItem* root, InstructionQuery& query, PSVModelItem** newLeaf);

    // Raw samples to analysed ones.
    // How many threads build the trees of a run: 0 (the default) decides by
    // the run's size and the processor cores this process may use; 1 keeps
    // the whole analysis on the calling thread.
    void setTreeBuilders(int builders) { mTreeBuilders = builders; }
    Sample* createSample(const quorvex::SSample& raw, timespec start, const QMap<int, quorvex::SCallSite>& callSites,
                         const quorvex::SSample* previous);
    void populateLineMetrics(const MetricDefinitions& definitions, Sample& sample);
    bool cpuInstructionMetricsSupported(const MetricDefinitions& definitions);

    // Classes of threads.
    bool isTidClassified(int tid) const;
    void classifyNonMainTid(int tid, const ZORPSVModelItem* item);
    void identifyMonitorThreads();
    void prependClassificationFramesToSampleBacktraces(SampleList& samples);

    // Unwinding failures.
    void printUnwindErrors();
    QString backtraceToString(const quorvex::SSimpleBacktrace& backtrace);
    // The words for an unwinding status, and whether it is told only in
    // debug mode.
    static QString unwindStatusText(int code, bool* debugOnly);
    // Whether failed traces are kept and told in full.
    static bool verboseUnwindErrors();

    // GPU trees.
    GpuProfilePSVModelItem* createGpuPsvModel(const quorvex::SSample& sample);
    int convertGpuProfilerStallReason(int reason) const;

    // Files of the run, for whoever needs to know (the host's diagnostics,
    // tests).
    QString sampleFile() const { return mSampleFile; }
    QString runningFile() const { return mRunningFile; }
    QString errorMessagesFile() const { return mErrorMessagesFile; }
    QString mpiFile() const { return mMpiFile; }
    QString gpuFile() const { return mGpuFile; }
    unsigned int numRawSamples() const { return mNumSamples; }

signals:
    void stopping();

public slots:
    void stop() override;
    void terminate() override;
    void checkIfTargetWantsToStop(const QString& path);

private:
    // What the naming rules say of one function name.
    struct NameAnswers
    {
        Category::NameFacts facts;
        Category::OmpCompiler::Enum runtime;
    };

    // The analysis's own helpers (addressdecoding.cpp, backtracemodel.cpp,
    // samplebuilding.cpp, threadclassification.cpp).
    void noteDecodedFrame(Address address, const Position& position, const QVector<KeyedPosition>& callers);
    // The index of the leaf: the first frame that is not the sampler's own.
    // Needs trace[0] and the return addresses decoded.
    size_t firstProgramFrame(const quorvex::backtrace_t& trace);
    // The first decoding pass in two steps, so that the trees of a sample
    // can be built while the decoder goes on with those after it: what the
    // pass will ask, each address with the first sample that reads it, and
    // the tables sized for all of it; then the addresses of the samples
    // before `end`, in the order of first use.
    void prepareDecoding(const quorvex::SSampleList* samples, const QMap<int, quorvex::SCallSite>& callSites);
    void decodeSamplesBefore(unsigned int end);
    // Decodes what the tree builders read of one trace beyond its return
    // addresses: the leaf, the sampler's frames at the leaf end and the
    // thread library's at the root end, as the builders walk them.
    void decodeTraceEnds(const quorvex::SBacktrace& backtrace, bool mainThread, bool wholeFailedTraces);
    // The rest of decodeAddress once the debugger answered: takes the
    // answers.
    Position notePositionAnswer(Address address, PositionResponse* response, QList<PositionResponse*>& inlined);
    // The debugger's questions of the leaves that decodeTraceEnds foresaw:
    // their disassembly and the positions of the instructions before them,
    // the answers kept for disassembleAndDecodeLeafAddresses. Nothing that
    // the tree builders read is written: it may run beside them, on the one
    // thread that uses the debugger meanwhile.
    void askLeafQuestions();
    DecodedFrame& decodedFrame(Address address);
    void findSamplerLibraries();
    bool isSamplerAddress(Address address) const;
    bool isMpiWrapperAddress(Address address) const;
    // The leaf placeholder of a fresh tree and the address it stands for.
    struct TreeLeaf
    {
        PlaceholderZORPSVModelItem* placeholder = nullptr;
        Address address = 0;
    };
    // The tree of one thread of a raw sample, built apart from the rest of
    // the sample, which depends on the samples before it.
    struct ThreadTree
    {
        ZORPSVModelItem* root = nullptr;
        TreeLeaf leaf;
        QString instruction;
        bool accelerator = false;
        bool hasCallSite = false;
        bool regionCaller = false;
        // Whether scanFreshTree may find anything in the tree.
        bool mayTell = true;
    };
    // Builds the tree of every thread of raw, in the order of
    // SSampleBacktraceIterator, into trees. It writes nothing shared, so
    // that several samples' trees may be built at once, but for the lazily
    // filled fields of the decoded frames, which it fills atomically. The
    // debug-address mode's names are interned, which is not thread-safe.
    void buildTrees(const quorvex::SSample& raw, const QMap<int, quorvex::SCallSite>& callSites, ThreadTree* trees);
    // The sample of raw from its trees, with what depends on the samples
    // before it (thread classes, unwinding errors, counts).
    Sample* finishSample(const quorvex::SSample& raw, timespec start, const quorvex::SSample* previous,
                         ThreadTree* trees);
    // The decoding pass that prepareDecoding prepared, then the trunk phase:
    // the trees of the raw samples on `builders` threads, the samples
    // finished in their order. With several builders, all but this thread
    // build the trees of the samples decoded so far while this thread
    // decodes, which is the only one to ask the debugger. afterDecoding runs
    // on this thread between the two.
    void decodeAndBuildSampleTrunks(SampleList& samples, const quorvex::SSampleList* raw,
                                    const QMap<int, quorvex::SCallSite>& callSites, int builders,
                                    const std::function<void()>& afterDecoding);
    // For a run of that many frames in its traces.
    int treeBuildersFor(size_t frames) const;
    // createPSVModelForBacktrace's work, as buildTrees may do it: the leaf
    // goes to leaf rather than to the lists of the source. mayTell: whether
    // a frame of the path is telling (DecodedFrame::telling) or named here.
    ZORPSVModelItem* buildPath(const quorvex::backtrace_t& trace, bool inMpi, bool partialTrace,
                               unsigned int rootFramesToSkip, QString* instruction, bool* accelerator,
                               TreeLeaf& leaf, bool& mayTell);
    void noteTreeLeaf(const TreeLeaf& leaf, int tid);
    void addInlineCallers(const DecodedFrame& frame, ZORPSVModelItem*& parent);
    // The child of parent at position, counting one more thread of the
    // rank; made if there is none.
    // kept is one that PSVModelItem::keptPosition handed out.
    ZORPSVModelItem* frameNode(const Position* kept, quint32 key, ZORPSVModelItem* parent);
    // The thread counts of a fresh node: one thread of this rank. Asked
    // before trees are built, which read mOneThread itself.
    const IntProcessMap& oneThread();
    // Whether a run was folded.
    bool foldUnknownTail(ZORPSVModelItem*& current);
    void recordUnwindStatus(Sample& sample, const quorvex::SBacktrace& backtrace, const quorvex::SSample* previous);
    Category::OmpCompiler::Enum detectOmpRuntime(const ZORPSVModelItem* root);
    // mayTell false: no frame of the tree is telling (DecodedFrame::telling),
    // so the rules have nothing to find in it.
    Category::OmpCompiler::Enum scanFreshTree(int tid, const ZORPSVModelItem* root, bool classify,
                                              bool mayTell = true);
    bool classifyByFrame(int tid, const Category::NameFacts& facts, const Category::NameFacts& parentFacts,
                         bool nearRoot);
    // Whether a frame was marked.
    static bool markRegionCaller(ZORPSVModelItem* root, int depth);
    void dropStartupFrame(ZORPSVModelItem* root);
    // Valid until the next call.
    const NameAnswers& answersFor(const QString& function);
    static std::uint64_t nameKey(const QString& function);
    static bool isTelling(const NameAnswers& answers);
    QString programDisplayName();

    void lookForMpiWrapper();
    void watchAndWaitForStop();
    void takeAnalysisLock(PidFile& lock);
    void keepSamplesFiles(const QString& destination);

    TharnInterface& mTharn;
    Debugger* mDebugger;
    QString mSampleFile;
    QString mRunningFile;
    QString mErrorMessagesFile;
    QString mMpiFile;
    QString mGpuFile;
    QString mOmpNumThreads;
    std::unique_ptr<DebuggerDisassembler> mDisassembler;
    InstructionCache mInstructionCache;
    bool mHasWrappedMpiCalls;
    unsigned long mMissingBacktraceSamples;
    unsigned long mAverageSampleIntervalNs;
    QString mMainFunctionName;
    long long mRunDurationMs;
    bool mTargetWantsToStop;
    bool mDetaching;
    bool mStopStarted;
    QMutex mStopMutex;
    QMap<int, UnwindError> mUnwindErrors;
    unsigned int mNumSamples;
    unsigned int mStopReason;
    unsigned long mNumPhdrCacheRebuilds;
    unsigned long mNumPhdrCacheChecks;
    unsigned long mNumDownsamples;
    unsigned long mNumSamplesSkippedWhileSuspended;
    unsigned long mNumSamplesTakenWhileResuming;
    unsigned long mNumSamplesTakenInTotal;
    timespec mStartTime;
    unsigned long mCharsRead;
    unsigned long mCharsWritten;
    unsigned long mLustreCharsRead;
    unsigned long mLustreCharsWritten;
    MetricDefinitions mMetricDefinitions;
    QMap<QString, SampleValue> mCustomMetrics;
    unsigned int mTimestamp;
    bool mDebugAddresses;
    bool mUseGpuLatencyStalls;
    bool mLineMetricsEnabled;
    // Every leaf of the run, ascending and distinct.
    std::vector<Address> mLeafAddresses;
    // Leaves of trees built since the last disassembly, gathered apart and
    // merged into the list above once.
    std::vector<Address> mNewLeafAddresses;
    QSet<unsigned long long> mJumpTargetLeafs;
    int mRank;
    int mTargetPid;
    unsigned int mFirstSpareWord;
    unsigned int mSecondSpareWord;
    QString mHostname;
    QMap<unsigned long long, unsigned long long> mSystemLibraries;
    QMap<unsigned long long, unsigned long long> mCudaLibraries;
    QList<SharedLibrary> mSharedLibraries;
    AutoFileRemove mSampleFileRemove;
    AutoFileRemove mRunningFileRemove;
    AutoFileRemove mErrorMessagesFileRemove;
    AutoFileRemove mMpiFileRemove;
    AutoFileRemove mGpuFileRemove;
    // The sampler's list of loaded objects, written beside the sample file.
    AutoFileRemove mModulesFileRemove;
    AutoFileRemove mThreadsFileRemove;
    QStringList mSamplerTemporaryFiles;
    QSet<int> mAcceleratorTids;
    QSet<int> mMainTids;
    QSet<int> mMpiTids;
    QSet<int> mOmpTids;
    QSet<int> mRegionTids;
    QSet<int> mMonitorTids;
    QMap<int, int> mSleepingCounts;
    QMap<int, int> mAwakeCounts;
    unsigned long mMaxBacktracesPerSample;
    int mMainThreadUid;
    bool mCudaPcSampling;
    bool mMpiThreadMultiple;
    bool mCudaProfilingEnabled;
    bool mHasOmpRegions;
    GpuProfilerGlobalData mGpuData;
    bool mIgnoreSamples;
    QSet<Category::OmpCompiler::Enum> mOmpRuntimes;
    SelfProfilePoints mSelfProfilePoints;
    int mReportedProgress;

    // The analysis's caches beside those above: per decoded address what
    // the tree builders need, the sampler's own code, and the answers of the
    // naming rules, kept for one analysis by the storage of the names.
    InternStringCache mInternedStrings;
    FlatTable<DecodedFrame> mDecodedFrames;
    // What decodeTraceEnds found of each raw trace, by the trace's address,
    // so that the tree builders don't look the ends up again.
    struct TraceEnds
    {
        quint32 first = 0;
        quint32 rootFramesToSkip = 0;
        bool rootFound = false;
        bool rootKnown = false;
    };
    FlatTable<TraceEnds> mTraceEnds;
    static quintptr traceKey(const quorvex::backtrace_t& trace) { return reinterpret_cast<quintptr>(&trace); }
    InlineCallerList mInlineCallers;
    // What prepareDecoding found for decodeSamplesBefore: per sample, from
    // where in each list its addresses and traces lie.
    struct DecodePlan
    {
        // (first sample, address), in that order: the return addresses one
        // byte back and the leaves as they are.
        std::vector<std::pair<quint32, Address>> returns;
        std::vector<std::pair<quint32, Address>> leaves;
        // Each trace that isn't empty, whether it is a main thread's, and
        // where each sample's begin.
        std::vector<std::pair<const quorvex::SBacktrace*, bool>> traces;
        std::vector<size_t> firstTrace;
        size_t nextReturn = 0;
        size_t nextLeaf = 0;
        unsigned int nextSample = 0;
        int done = 0;
    };
    DecodePlan mPlan;
    // Held shared by tree builders that work beside the decoder, and
    // exclusively by the decoder for the rare insertion that would move the
    // decoded frames.
    std::shared_mutex mDecodedFramesMoving;
    bool mBuildersBeside = false;
    QList<QPair<Address, Address>> mSamplerRanges;
    QList<QPair<Address, Address>> mMpiWrapperRanges;
    // By the names' storage, which the names held beside keep their own.
    FlatTable<NameAnswers> mNameAnswers;
    std::deque<QString> mAnsweredNames;
    // While a run is analysed: the leaf placeholder of each tree built, with
    // its address and thread, each sample's together in the order built,
    // which spares a walk down a deep tree whose nodes have long left the
    // cache; and each sample built with where its records begin.
    struct LeafRecord
    {
        PlaceholderZORPSVModelItem* placeholder;
        Address address;
        int tid;
    };
    std::vector<LeafRecord> mLeafRecords;
    std::vector<std::pair<Sample*, size_t>> mSampleLeafRecords;
    // The placeholders of the samples built by this run replaced by their
    // leaves, on the sample workers; how many were.
    int replaceLeaves();
    bool replacePlaceholder(PlaceholderZORPSVModelItem* placeholder, InstructionQuery& query, PSVModelItem** newLeaf);
    // The thread counts of a fresh node, one thread of mOneThreadRank,
    // shared by all of them.
    IntProcessMap mOneThread;
    int mOneThreadRank = 0;
    bool mRecordTreePlaceholders = false;
    // While the placeholders of a run are replaced, what each distinct leaf
    // address gives, worked out once: many leaves share an address, and the
    // instruction cache doesn't change meanwhile.
    struct LeafAnswer
    {
        InstructionCache::PreviousInstruction previous;
        bool known = false;
        // Whether the frame shown lies in accelerator code; -1 until asked.
        signed char fromCuda = -1;
        // Where all of them were worked out ahead, so that threads may read
        // them at once: the frame shown and its kept position.
        const DecodedFrame* frame = nullptr;
        const Position* kept = nullptr;
    };
    FlatTable<LeafAnswer> mLeafAnswers;
    // The leaves' questions asked ahead (askLeafQuestions).
    struct PendingPosition
    {
        Address address;
        PositionResponse* response;
        QList<PositionResponse*> inlined;
    };
    struct LeafQuestions
    {
        // The leaves foreseen, ascending and distinct, and for each the
        // address whose position it shows and whether a jump led there.
        std::vector<Address> leaves;
        std::vector<Address> shown;
        std::vector<bool> viaJump;
        // What the cache answers for each once all of them are disassembled,
        // as the placeholders' replacement reads it; stale once another
        // leaf was disassembled after them.
        std::vector<InstructionCache::PreviousInstruction> previous;
        bool stale = false;
        // The debugger's answers for the shown addresses not decoded yet,
        // ascending.
        std::vector<PendingPosition> positions;
        bool asked = false;
        void clear();
    };
    LeafQuestions mLeafQuestions;
    bool mKeepLeafAnswers = false;
    // The answers for every leaf of the run, worked out in the order of
    // their addresses, before the placeholders are replaced.
    void answerLeaves();
    // populateLineMetrics, with the leaves just made of the sample's threads.
    void populateLineMetrics(const MetricDefinitions& definitions, Sample& sample,
                             const QVarLengthArray<QPair<int, PSVModelItem*>, 32>& leaves);
    // How many threads the work on finished samples may use (the leaves, the
    // class frames): as many as built the trees.
    int mSampleWorkers = 1;
    int mTreeBuilders = 0;
};

// Lowers the priority of this process and of its children to the least, so
// that the back-end and its debugger stay out of the target's way.
void reduceSelfAndChildrenPriority();

#endif
