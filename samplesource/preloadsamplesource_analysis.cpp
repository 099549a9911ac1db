// The analysis of a run in its simplest form: every raw sample becomes a
// Sample with its time and its threads, without call trees, positions or
// thread classes. The full analysis replaces this file.
#include "preloadsamplesource.h"

#include "constants.h"
#include "preloadsamplesourceutils.h"
#include "profilerresponses.h"
#include "sample.h"
#include "samplelist.h"
#include "ssamplelist.h"
#include "tharninterface.h"
#include "zorpsvmodelitem.h"

void PreloadSampleSource::populateSampleList(SampleList& samples, quorvex::SSampleList* raw,
                                             const QMap<int, quorvex::SCallSite>& callSites)
{
    const quorvex::SSample* previous = nullptr;
    for (unsigned int i = 0; i < raw->size(); ++i) {
        const quorvex::SSample& sample = raw->at(i);
        samples.addSample(createSample(sample, mStartTime, callSites, previous));
        previous = &sample;
        reportAnalysisProcessing(BuildSampleTrunks, double(i + 1) / raw->size());
    }
    const int left = 100 - mReportedProgress;
    ProfilerProgressResponse complete(ProfilerProgressResponse::AnalysisComplete, left < 0 ? 0 : left, 0);
    mTharn.sendResponse(&complete);
}

Sample* PreloadSampleSource::createSample(const quorvex::SSample& raw, timespec start,
                                          const QMap<int, quorvex::SCallSite>&, const quorvex::SSample*)
{
    Sample* sample = new Sample(mMetricDefinitions, mRank);
    const long long time = PreloadSampleSourceUtils::msFromTimespec(raw.getTimestamp(), start);
    sample->backendOnly_setTimestamp(time);
    sample->setIgnore(mIgnoreSamples);
    mRunDurationMs = time;
    ThreadContext context;
    context.rank = mRank;
    context.pid = mTargetPid;
    quorvex::SSampleBacktraceIterator threads(raw);
    while (threads.hasNext()) {
        const quorvex::SBacktrace& trace = threads.next();
        sample->backendOnly_addThread(nullptr, trace.tid(), context, InstructionQuery(),
                                      threads.wasMainThread() ? Sample::MainThread : Sample::OtherThread,
                                      PreloadSampleSourceUtils::nsFromTimespec(trace.cpuTime()), trace.isSleeping());
    }
    return sample;
}

Position PreloadSampleSource::decodeAddress(Address, AllowPositionLookup)
{
    return Position(QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION));
}

void PreloadSampleSource::precacheLineAndInstructionInfo(const quorvex::SSampleList*,
                                                         const QMap<int, quorvex::SCallSite>&)
{
}

void PreloadSampleSource::disassembleAndDecodeLeafAddresses() {}

unsigned int PreloadSampleSource::findRootFramesOfThread(const std::vector<unsigned long>&, bool& found)
{
    found = false;
    return 0;
}

ZORPSVModelItem* PreloadSampleSource::createPSVModelForBacktrace(const quorvex::SBacktrace&, bool, unsigned int,
                                                                 QString* instruction, bool* accelerator)
{
    *instruction = QString();
    *accelerator = false;
    return nullptr;
}

void PreloadSampleSource::addLeafNode(Address, ZORPSVModelItem*&, InstructionQuery&, bool& fromCuda)
{
    fromCuda = false;
}

void PreloadSampleSource::addInlineCallerFrames(Address, ZORPSVModelItem*&) {}

ZORPSVModelItem* PreloadSampleSource::getOrCreatePSVModelItem(const Position&, ZORPSVModelItem* parent)
{
    return parent;
}

bool PreloadSampleSource::replaceTailFramePlaceholder(PSVModelItem*, InstructionQuery&)
{
    return false;
}

void PreloadSampleSource::populateLineMetrics(const MetricDefinitions&, Sample&) {}

bool PreloadSampleSource::cpuInstructionMetricsSupported(const MetricDefinitions&)
{
    return false;
}

bool PreloadSampleSource::isTidClassified(int tid) const
{
    return mMainTids.contains(tid) || mOmpTids.contains(tid) || mMpiTids.contains(tid)
        || mAcceleratorTids.contains(tid);
}

void PreloadSampleSource::classifyNonMainTid(int, const ZORPSVModelItem*) {}

void PreloadSampleSource::identifyMonitorThreads() {}

void PreloadSampleSource::prependClassificationFramesToSampleBacktraces(SampleList&) {}

void PreloadSampleSource::printUnwindErrors() {}

QString PreloadSampleSource::backtraceToString(const quorvex::SSimpleBacktrace&)
{
    return QString();
}

GpuProfilePSVModelItem* PreloadSampleSource::createGpuPsvModel(const quorvex::SSample&)
{
    return nullptr;
}

int PreloadSampleSource::convertGpuProfilerStallReason(int reason) const
{
    return static_cast<unsigned int>(reason) < 12 ? reason : -1;
}

void PreloadSampleSource::provideGpuProfilingInfo(ProfilerPlayResponse&) {}
