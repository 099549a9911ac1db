#include "sbacktrace.h"
#include "sfileio.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <limits>

namespace quorvex {

SBacktrace::SBacktrace()
    : mParallelId(0), mInMpi(false), mSleeping(false), mCpuTime{0, 0}
{
}

void SBacktrace::set(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime, bool sleeping)
{
    SSimpleBacktrace::set(bt, tid);
    mParallelId = bt.parallelId;
    mInMpi = inMpi;
    mCpuTime = cpuTime;
    mSleeping = sleeping;
}

bool SBacktrace::inMpi() const
{
    ZOR_ASSERT(mValid);
    return mInMpi;
}

bool SBacktrace::isSleeping() const
{
    ZOR_ASSERT(mValid);
    return mSleeping;
}

timespec& SBacktrace::cpuTime()
{
    ZOR_ASSERT(mValid);
    return mCpuTime;
}

const timespec& SBacktrace::cpuTime() const
{
    ZOR_ASSERT(mValid);
    return mCpuTime;
}

void SBacktrace::writeToFile(int fd) const
{
    SSimpleBacktrace::writeToFile(fd);
    QUORVEX_WRITE(fd, "bt", 2);
    QUORVEX_WRITE_WIDE(fd, mInMpi ? 1 : 0);
    QUORVEX_WRITE_WIDE(fd, mCpuTime.tv_sec);
    QUORVEX_WRITE_WIDE(fd, mCpuTime.tv_nsec);
    QUORVEX_WRITE_WIDE(fd, mSleeping ? 1 : 0);
    QUORVEX_WRITE_WIDE(fd, mParallelId);
    QUORVEX_WRITE(fd, "/bt", 3);
}

bool SBacktrace::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    return readFrom(in);
}

bool SBacktrace::readFrom(fileio::RecordInput& in)
{
    // The base record's outcome shows in isValid(); the callers look there.
    SSimpleBacktrace::readFrom(in);

    char scratch[2 + 5 * 8 + 3];
    const char* block = QUORVEX_VIEW_FROM(in, scratch, sizeof scratch);
    if (!block)
        return false;
    fileio::FieldCursor cursor(block);
    char obuff[2];
    cursor.take(obuff, sizeof obuff);
    ZOR_ASSERT(obuff[0] == 'b');
    ZOR_ASSERT(obuff[1] == 't');
    const std::int64_t inMpi = cursor.take<std::int64_t>();
    ZOR_ASSERT(inMpi==0 || inMpi==1);
    const std::int64_t cpuTimeSec = cursor.take<std::int64_t>();
    ZOR_ASSERT(cpuTimeSec < std::numeric_limits<time_t>::max());
    const std::int64_t cpuTimeNsec = cursor.take<std::int64_t>();
    ZOR_ASSERT(cpuTimeNsec < ONE_SECOND_NS);
    ZOR_ASSERT(cpuTimeNsec >= 0);
    const std::int64_t sleeping = cursor.take<std::int64_t>();
    ZOR_ASSERT(sleeping==0 || sleeping==1);
    const std::int64_t parallelId = cursor.take<std::int64_t>();
    char cbuff[3];
    cursor.take(cbuff, sizeof cbuff);
    ZOR_ASSERT(cbuff[0] == '/');
    ZOR_ASSERT(cbuff[1] == 'b');
    ZOR_ASSERT(cbuff[2] == 't');

    mInMpi = inMpi == 1;
    mCpuTime.tv_sec = cpuTimeSec;
    mCpuTime.tv_nsec = cpuTimeNsec;
    mSleeping = sleeping == 1;
    mParallelId = static_cast<quorvex_parallel_id_t>(parallelId);
    return true;
}

} // namespace quorvex
