#include "scallsite.h"
#include "sfileio.h"
#include "zor_assert.h"

namespace quorvex {

SCallSite::SCallSite() : mParallelId(0), mTid(0), mTag(0), mValid(false)
{
}

SCallSite::SCallSite(int parallelId, int tid, BacktraceData* bt, unsigned long tag)
    : mParallelId(parallelId), mTid(tid), mTag(tag), mValid(true)
{
    mCallSite.set(*bt, tid);
}

void SCallSite::set(int parallelId, int tid, const BacktraceData& bt, unsigned long tag)
{
    mParallelId = parallelId;
    mTid = tid;
    mTag = tag;
    mValid = true;
    mCallSite.set(bt, tid);
}

quorvex_parallel_id_t SCallSite::parallelId() const
{
    ZOR_ASSERT(mValid);
    return mParallelId;
}

const SSimpleBacktrace* SCallSite::callSite() const
{
    ZOR_ASSERT(mValid);
    return &mCallSite;
}

void SCallSite::writeToFile(int fd) const
{
    QUORVEX_WRITE_WIDE(fd, mParallelId);
    QUORVEX_WRITE_WIDE(fd, mTid);
    QUORVEX_WRITE_UWIDE(fd, mTag);
    mCallSite.writeToFile(fd);
}

bool SCallSite::readFromFile(int fd)
{
    mValid = false;
    std::int64_t parallelId = 0;
    std::int64_t tid = 0;
    std::uint64_t tag = 0;
    if (!QUORVEX_READ(fd, &parallelId, sizeof parallelId))
        return false;
    if (!QUORVEX_READ(fd, &tid, sizeof tid))
        return false;
    if (!QUORVEX_READ(fd, &tag, sizeof tag))
        return false;
    mParallelId = static_cast<quorvex_parallel_id_t>(parallelId);
    mTid = static_cast<int>(tid);
    mTag = tag;
    if (!mCallSite.readFromFile(fd))
        return false;
    mValid = true;
    return true;
}

} // namespace quorvex
