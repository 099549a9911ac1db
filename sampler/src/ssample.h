// One raw sample: every thread's backtrace at one moment, the metrics of the
// span it stands for, and the GPU kernels that ran in that span. Inside the
// target a fixed set of these objects is reused for the whole run.
#ifndef ZOR_SSAMPLE_H
#define ZOR_SSAMPLE_H

#include "sbacktrace.h"
#include "sbacktracelist.h"
#include "sgpukernelhit.h"
#include "smetrics.h"
#include "zor_shared_ptr.h"

#include <cstdlib>
#include <ctime>
#include <vector>

namespace quorvex {

typedef std::vector<int> threadlist_t;
typedef std::vector<zor_shared_ptr<SGpuKernelHit>> kernelhitlist_t;

class SSample
{
public:
    explicit SSample(int preallocatedThreads);
    // Memberwise, but the thread list keeps the source's capacity so that a
    // copy made before sampling can be filled without allocating.
    SSample(const SSample& other);
    SSample& operator=(const SSample& other) = default;

    bool isValid() const { return mMainThreadTrace.isValid(); }
    void invalidate();
    void makeValid(const ExtendedBacktraceData& bt, const timespec& timestamp, const timespec& interval,
                   const timespec& window, bool downsampled, bool inMpi, int tid, const threadlist_t& threads,
                   const timespec& cpuTime, bool sleeping);
    // The same with the thread list as `threadCount` ids at `threads`; no
    // allocation while they fit in the list's reserved room.
    void makeValid(const ExtendedBacktraceData& bt, const timespec& timestamp, const timespec& interval,
                   const timespec& window, bool downsampled, bool inMpi, int tid, const int* threads,
                   std::size_t threadCount, const timespec& cpuTime, bool sleeping);
    void addThreadBacktrace(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime,
                            bool sleeping);

    const timespec& getTimestamp() const { return mTimestamp; }
    const timespec& getInterval() const { return mCumulativeMetricInterval; }
    const timespec& getWindow() const { return mWindowSize; }
    void setTimestamp(timespec timestamp);
    void setInterval(timespec interval);
    void setWindow(timespec window);

    // The metric's own interval, or the sample's when the metric has none.
    const timespec& getMetricInterval(unsigned int id) const;

    bool downsamplingHappened() const { return mDownsampled; }
    bool hasGpuKernelHit() const { return !mKernelHits.empty(); }
    void addKernelHit(zor_shared_ptr<SGpuKernelHit>& hit);

    const SBacktrace& mainThreadTrace() const { return mMainThreadTrace; }
    const SBacktraceList& otherThreads() const { return mOtherThreads; }
    SMetrics& metrics() { return mMetrics; }
    const SMetrics& metrics() const { return mMetrics; }
    const threadlist_t& threadList() const { return mThreadList; }
    const kernelhitlist_t& kernelHits() const { return mKernelHits; }

    // Folds a dropped neighbour into this sample, the one kept.
    void combineMetrics(const SSample& other);
    // The threads of both: CPU times add up by thread id, and a thread
    // sampled on both sides keeps one backtrace, drawn by CPU time.
    void combineThreads(const SSample& other, drand48_data& random);
    // A thread's backtrace that comes after its sample was thinned: it
    // joins the one here as combineThreads would join them.
    void mergeThreadBacktrace(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime,
                              bool sleeping, drand48_data& random);
    // Adds CPU time to the thread's backtrace here, when it has one that
    // isn't just a mark (status `unanswered`) for a missing answer.
    bool addThreadCpuTime(int tid, const timespec& cpuTime, int unanswered);

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    bool readFrom(fileio::RecordInput& in);

    static bool read_timespec(int fd, timespec* out);

private:
    static bool takesOver(const SBacktrace& mine, const timespec& theirCpu, int theirStatus, drand48_data& random);
    SBacktrace mMainThreadTrace;
    SMetrics mMetrics;
    timespec mTimestamp;
    timespec mCumulativeMetricInterval;
    timespec mWindowSize;
    SBacktraceList mOtherThreads;
    threadlist_t mThreadList;
    kernelhitlist_t mKernelHits;
    bool mDownsampled;
};

// Walks the threads of one sample, the main thread first.
class SSampleBacktraceIterator
{
public:
    explicit SSampleBacktraceIterator(const SSample& sample);

    bool hasNext() const;
    const SBacktrace& next();
    bool wasMainThread() const;

private:
    const SSample* mSample;
    bool mMainThreadPending;
    unsigned int mIndex;
};

} // namespace quorvex

#endif
