#include "ssample.h"
#include "sfileio.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <algorithm>
#include <cstdlib>

namespace quorvex {

namespace {
// Thread ids are read in slices so that a corrupt count claims no more
// memory than the file backs.
const std::size_t READ_SLICE_IDS = 256;

void writeTimespec(int fd, const timespec& ts)
{
    QUORVEX_WRITE_WIDE(fd, ts.tv_sec);
    QUORVEX_WRITE_WIDE(fd, ts.tv_nsec);
}
} // namespace

SSample::SSample(int preallocatedThreads)
    : mTimestamp{0, 0}, mCumulativeMetricInterval{0, 0}, mWindowSize{0, 0}, mOtherThreads(preallocatedThreads),
      mDownsampled(false)
{
    // Room for the main thread and every preallocated one, and as many
    // again for the threads that fusing with a neighbour brings in.
    mThreadList.reserve(2 * static_cast<std::size_t>(std::max(preallocatedThreads, 0)) + 1);
    invalidate();
}

SSample::SSample(const SSample& other)
    : mMainThreadTrace(other.mMainThreadTrace), mMetrics(other.mMetrics), mTimestamp(other.mTimestamp),
      mCumulativeMetricInterval(other.mCumulativeMetricInterval), mWindowSize(other.mWindowSize),
      mOtherThreads(other.mOtherThreads), mDownsampled(other.mDownsampled)
{
    mThreadList.reserve(other.mThreadList.capacity());
    mThreadList = other.mThreadList;
    mKernelHits.reserve(other.mKernelHits.capacity());
    mKernelHits = other.mKernelHits;
}

void SSample::invalidate()
{
    mMainThreadTrace.SSimpleBacktrace::invalidate();
    mOtherThreads.clear();
    mThreadList.clear();
    mKernelHits.clear();
    mMetrics.invalidate();
}

void SSample::makeValid(const ExtendedBacktraceData& bt, const timespec& timestamp, const timespec& interval,
                        const timespec& window, bool downsampled, bool inMpi, int tid, const threadlist_t& threads,
                        const timespec& cpuTime, bool sleeping)
{
    ZOR_ASSERT(!mMainThreadTrace.isValid());
    mMainThreadTrace.set(bt, inMpi, tid, cpuTime, sleeping);
    ZOR_ASSERT(mMainThreadTrace.isValid());
    mDownsampled = downsampled;
    setTimestamp(timestamp);
    setInterval(interval);
    setWindow(window);
    mThreadList = threads;
    mKernelHits.clear();
}

void SSample::makeValid(const ExtendedBacktraceData& bt, const timespec& timestamp, const timespec& interval,
                        const timespec& window, bool downsampled, bool inMpi, int tid, const int* threads,
                        std::size_t threadCount, const timespec& cpuTime, bool sleeping)
{
    ZOR_ASSERT(!mMainThreadTrace.isValid());
    mMainThreadTrace.set(bt, inMpi, tid, cpuTime, sleeping);
    ZOR_ASSERT(mMainThreadTrace.isValid());
    mDownsampled = downsampled;
    setTimestamp(timestamp);
    setInterval(interval);
    setWindow(window);
    mThreadList.assign(threads, threads + threadCount);
    mKernelHits.clear();
}

void SSample::addThreadBacktrace(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime,
                                 bool sleeping)
{
    mOtherThreads.addBacktrace(bt, inMpi, tid, cpuTime, sleeping);
}

void SSample::setTimestamp(timespec timestamp)
{
    ZOR_ASSERT(timestamp.tv_nsec >= 0);
    ZOR_ASSERT(timestamp.tv_nsec < ONE_SECOND_NS);
    mTimestamp = timestamp;
}

void SSample::setInterval(timespec interval)
{
    ZOR_ASSERT(interval.tv_nsec >= 0);
    ZOR_ASSERT(interval.tv_nsec < ONE_SECOND_NS);
    mCumulativeMetricInterval = interval;
}

void SSample::setWindow(timespec window)
{
    ZOR_ASSERT(window.tv_nsec >= 0);
    ZOR_ASSERT(window.tv_nsec < ONE_SECOND_NS);
    mWindowSize = window;
}

const timespec& SSample::getMetricInterval(unsigned int id) const
{
    const timespec& own = mMetrics.getMetricInterval(id);
    if (own.tv_sec == 0 && own.tv_nsec == 0)
        return mCumulativeMetricInterval;
    return own;
}

void SSample::addKernelHit(zor_shared_ptr<SGpuKernelHit>& hit)
{
    mKernelHits.push_back(hit);
}

void SSample::combineMetrics(const SSample& other)
{
    mDownsampled = mDownsampled || other.mDownsampled;
    if (mMetrics.isValid() && other.mMetrics.isValid())
        mMetrics.merge(other.mMetrics);
    else if (!mMetrics.isValid() && other.mMetrics.isValid())
        mMetrics = other.mMetrics;
    timespec_add(mCumulativeMetricInterval, other.mCumulativeMetricInterval);
    timespec_add(mWindowSize, other.mWindowSize);
}

void SSample::combineThreads(const SSample& other, drand48_data& random)
{
    const int mainTid = mMainThreadTrace.tid();
    const int otherMainTid = other.mMainThreadTrace.tid();

    if (mainTid == otherMainTid)
        timespec_add(mMainThreadTrace.cpuTime(), other.mMainThreadTrace.cpuTime());
    for (std::size_t i = 0; i < mOtherThreads.count(); ++i) {
        SBacktrace& mine = mOtherThreads[i];
        if (mine.tid() == otherMainTid)
            timespec_add(mine.cpuTime(), other.mMainThreadTrace.cpuTime());
    }

    for (std::size_t j = 0; j < other.mOtherThreads.count(); ++j) {
        const SBacktrace& theirs = other.mOtherThreads[j];
        if (theirs.tid() == mainTid) {
            timespec_add(mMainThreadTrace.cpuTime(), theirs.cpuTime());
            continue;
        }
        SBacktrace* mine = nullptr;
        for (std::size_t i = 0; i < mOtherThreads.count() && !mine; ++i) {
            if (mOtherThreads[i].tid() == theirs.tid())
                mine = &mOtherThreads[i];
        }
        if (!mine) {
            // A thread that answered only in the dropped sample, as one
            // that answers at its own pace often does: its backtrace and
            // time move here. Without room for them, which only a list
            // grown beyond its reservation lacks, they are lost.
            const bool listed = std::find(mThreadList.begin(), mThreadList.end(), theirs.tid()) != mThreadList.end();
            if (!mOtherThreads.hasRoom() || (!listed && mThreadList.size() == mThreadList.capacity()))
                continue;
            mOtherThreads.addBacktrace(theirs);
            if (!listed)
                mThreadList.push_back(theirs.tid());
            continue;
        }
        timespec total = mine->cpuTime();
        timespec_add(total, theirs.cpuTime());
        if (takesOver(*mine, theirs.cpuTime(), theirs.unwindStatus(), random))
            *mine = theirs;
        mine->cpuTime() = total;
    }
}

bool SSample::takesOver(const SBacktrace& mine, const timespec& theirCpu, int theirStatus, drand48_data& random)
{
    // In both: the backtrace that stands for the pair is drawn in proportion
    // to the CPU time each stands for, which is what the thread spent where
    // each was taken; one that wasn't answered gives way to one that was.
    const double ours = timespec_toDouble(mine.cpuTime());
    const double theirs = timespec_toDouble(theirCpu);
    if (ours + theirs > 0) {
        double r = 0;
        drand48_r(&random, &r);
        return theirs / (ours + theirs) > r;
    }
    return mine.unwindStatus() != 0 && theirStatus == 0;
}

void SSample::mergeThreadBacktrace(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime,
                                   bool sleeping, drand48_data& random)
{
    for (std::size_t i = 0; i < mOtherThreads.count(); ++i) {
        SBacktrace& mine = mOtherThreads[i];
        if (mine.tid() != tid)
            continue;
        timespec total = mine.cpuTime();
        timespec_add(total, cpuTime);
        if (takesOver(mine, cpuTime, static_cast<int>(bt.unwindStatus), random))
            mine.set(bt, inMpi, tid, total, sleeping);
        else
            mine.cpuTime() = total;
        return;
    }
    if (mOtherThreads.hasRoom())
        mOtherThreads.addBacktrace(bt, inMpi, tid, cpuTime, sleeping);
}

bool SSample::addThreadCpuTime(int tid, const timespec& cpuTime, int unanswered)
{
    for (std::size_t i = 0; i < mOtherThreads.count(); ++i) {
        SBacktrace& mine = mOtherThreads[i];
        if (mine.tid() == tid && mine.unwindStatus() != unanswered) {
            timespec_add(mine.cpuTime(), cpuTime);
            return true;
        }
    }
    return false;
}

bool SSample::read_timespec(int fd, timespec* out)
{
    std::int64_t tv_secs = 0;
    std::int64_t tv_nsecs = 0;
    if (!QUORVEX_READ(fd, &tv_secs, sizeof tv_secs))
        return false;
    if (!QUORVEX_READ(fd, &tv_nsecs, sizeof tv_nsecs))
        return false;
    ZOR_ASSERT(tv_nsecs >= 0);
    ZOR_ASSERT(tv_nsecs < ONE_SECOND_NS);
    out->tv_sec = tv_secs;
    out->tv_nsec = tv_nsecs;
    return true;
}

void SSample::writeToFile(int fd) const
{
    ZOR_ASSERT(isValid());
    ZOR_ASSERT(mMainThreadTrace.unwindStatus()!=UNW_ZOR_NOT_SET);
    QUORVEX_WRITE(fd, "s", 1);
    writeTimespec(fd, mTimestamp);
    writeTimespec(fd, mCumulativeMetricInterval);
    writeTimespec(fd, mWindowSize);
    QUORVEX_WRITE_WIDE(fd, mDownsampled ? 1 : 0);
    mMainThreadTrace.writeToFile(fd);
    mOtherThreads.writeToFile(fd);
    mMetrics.writeToFile(fd);
    QUORVEX_WRITE_UWIDE(fd, mThreadList.size());
    for (int tid : mThreadList)
        QUORVEX_WRITE_WIDE(fd, tid);
    QUORVEX_WRITE_UWIDE(fd, mKernelHits.size());
    for (const zor_shared_ptr<SGpuKernelHit>& hit : mKernelHits)
        hit->writeToFile(fd);
    QUORVEX_WRITE(fd, "/s", 2);
}

bool SSample::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    return readFrom(in);
}

bool SSample::readFrom(fileio::RecordInput& in)
{
    char obuff[1];
    if (!QUORVEX_READ_FROM(in, obuff, sizeof obuff))
        return false;
    ZOR_ASSERT(obuff[0] == 's');

    // The three time spans and the flag.
    char scratch[6 * 8 + 8];
    const char* head = QUORVEX_VIEW_FROM(in, scratch, sizeof scratch);
    if (!head)
        return false;
    fileio::FieldCursor cursor(head);
    const std::int64_t tv_secs = cursor.take<std::int64_t>();
    const std::int64_t tv_nsecs = cursor.take<std::int64_t>();
    ZOR_ASSERT(tv_nsecs >= 0);
    ZOR_ASSERT(tv_nsecs < ONE_SECOND_NS);
    mTimestamp.tv_sec = tv_secs;
    mTimestamp.tv_nsec = tv_nsecs;
    ZOR_ASSERT(mTimestamp.tv_nsec >= 0);
    ZOR_ASSERT(mTimestamp.tv_nsec < ONE_SECOND_NS);
    mCumulativeMetricInterval.tv_sec = cursor.take<std::int64_t>();
    mCumulativeMetricInterval.tv_nsec = cursor.take<std::int64_t>();
    ZOR_ASSERT(mCumulativeMetricInterval.tv_nsec >= 0);
    ZOR_ASSERT(mCumulativeMetricInterval.tv_nsec < ONE_SECOND_NS);
    mWindowSize.tv_sec = cursor.take<std::int64_t>();
    mWindowSize.tv_nsec = cursor.take<std::int64_t>();
    ZOR_ASSERT(mWindowSize.tv_nsec >= 0);
    ZOR_ASSERT(mWindowSize.tv_nsec < ONE_SECOND_NS);
    const std::int64_t downsampled = cursor.take<std::int64_t>();
    ZOR_ASSERT(downsampled==0 || downsampled==1);
    mDownsampled = downsampled == 1;

    // These three go on whatever the one before said; the main trace's
    // outcome also shows in isValid().
    bool ok = mMainThreadTrace.readFrom(in);
    ok = mOtherThreads.readFrom(in) && ok;
    ok = mMetrics.readFrom(in) && ok;

    mThreadList.clear();
    std::uint64_t numThreads = 0;
    if (!QUORVEX_READ_FROM(in, &numThreads, sizeof numThreads))
        return false;
    mThreadList.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(numThreads, READ_SLICE_IDS)));
    std::int64_t ids[READ_SLICE_IDS];
    std::uint64_t done = 0;
    while (done < numThreads) {
        const std::size_t slice = static_cast<std::size_t>(std::min<std::uint64_t>(numThreads - done, READ_SLICE_IDS));
        if (!QUORVEX_READ_FROM(in, ids, slice * sizeof(std::int64_t)))
            return false;
        for (std::size_t i = 0; i < slice; ++i)
            mThreadList.push_back(static_cast<int>(ids[i]));
        done += slice;
    }

    std::uint64_t numHits = 0;
    if (!QUORVEX_READ_FROM(in, &numHits, sizeof numHits))
        return false;
    for (std::uint64_t i = 0; i < numHits; ++i) {
        SGpuKernelHit* hit = new SGpuKernelHit();
        const bool hitOk = hit->readFromFile(in.fd());
        mKernelHits.push_back(zor_shared_ptr<SGpuKernelHit>(hit));
        ok = hitOk && ok;
        // A hit fails only when the file is spent, and so would every later
        // one: a corrupt count costs no more reads.
        if (!hitOk)
            break;
    }

    char cbuff[2];
    if (!QUORVEX_READ_FROM(in, cbuff, sizeof cbuff))
        return false;
    ZOR_ASSERT(cbuff[0] == '/');
    ZOR_ASSERT(cbuff[1] == 's');
    return ok;
}

SSampleBacktraceIterator::SSampleBacktraceIterator(const SSample& sample)
    : mSample(&sample), mMainThreadPending(true), mIndex(0)
{
}

bool SSampleBacktraceIterator::hasNext() const
{
    return mMainThreadPending || mIndex < mSample->otherThreads().count();
}

const SBacktrace& SSampleBacktraceIterator::next()
{
    if (mMainThreadPending) {
        mMainThreadPending = false;
        return mSample->mainThreadTrace();
    }
    if (mIndex >= mSample->otherThreads().count())
        abort();
    return mSample->otherThreads()[mIndex++];
}

bool SSampleBacktraceIterator::wasMainThread() const
{
    return !mMainThreadPending && mIndex == 0;
}

} // namespace quorvex
