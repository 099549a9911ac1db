#include "sbacktracelist.h"

#include <algorithm>
#include "sfileio.h"
#include "zor_assert.h"
#include "zor_print.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace quorvex {

namespace {
// The most objects a list makes ahead of the records it reads.
const std::uint64_t READ_POOL_LIMIT = 1024;
}

SBacktraceList::SBacktraceList(int preallocated)
    : mPool(nullptr), mPoolBytes(0), mPoolCount(0), mNumTraces(0)
{
    buildPool(preallocated);
}

SBacktraceList::SBacktraceList(const SBacktraceList& other)
    : mPool(nullptr), mPoolBytes(0), mPoolCount(0), mNumTraces(0)
{
    buildPool(other.mPoolCount);
    *this = other;
}

void SBacktraceList::buildPool(int count)
{
    mPoolCount = count;
    mPoolBytes = static_cast<std::size_t>(count) * sizeof(SBacktrace);
    mNumTraces = 0;

    mTraces.reserve(static_cast<std::size_t>(count));
    ZOR_ASSERT(mTraces.empty());

    // Through operator new, which the sampler serves from its reservation.
    // An empty pool is none, so that a read can still make one.
    mPool = count > 0 ? static_cast<SBacktrace*>(::operator new(mPoolBytes, std::nothrow)) : nullptr;
    if (mPoolBytes > 0 && !mPool)
        throw std::bad_alloc();

    for (int i = 0; i < count; ++i) {
        SBacktrace* bt = new (mPool + i) SBacktrace();
        ZOR_ASSERT(bt);
        mTraces.push_back(bt);
        ZOR_ASSERT(mTraces[i] == bt);
        ZOR_ASSERT(isPreallocated(bt));
        ZOR_ASSERT(!bt->isValid());
    }
}

SBacktraceList& SBacktraceList::operator=(const SBacktraceList& other)
{
    if (this == &other)
        return *this;
    clear();
    while (mTraces.size() < other.mNumTraces)
        createNewSBacktrace();
    ZOR_ASSERT(mTraces.size() >= other.mNumTraces);
    ZOR_ASSERT(mNumTraces==0);
    for (std::size_t i = 0; i < other.mNumTraces; ++i) {
        const SBacktrace* otherBt = other.mTraces[i];
        ZOR_ASSERT(otherBt);
        ZOR_ASSERT(otherBt->isValid());
        SBacktrace* bt = mTraces[i];
        ZOR_ASSERT(bt);
        *bt = *otherBt;
        ++mNumTraces;
    }
    ZOR_ASSERT(size()==other.size());
    return *this;
}

SBacktraceList::~SBacktraceList()
{
    for (SBacktrace* bt : mTraces) {
        if (bt && !isPreallocated(bt)) {
            bt->~SBacktrace();
            ::operator delete(bt);
        }
    }
    for (int i = 0; i < mPoolCount; ++i)
        mPool[i].~SBacktrace();
    ::operator delete(mPool);
}

bool SBacktraceList::isPreallocated(const SBacktrace* bt) const
{
    return mPool && bt >= mPool && bt < mPool + mPoolCount;
}

SBacktrace* SBacktraceList::createNewSBacktrace()
{
    void* memory = ::operator new(sizeof(SBacktrace), std::nothrow);
    if (!memory)
        throw std::bad_alloc();
    SBacktrace* bt = new (memory) SBacktrace();
    ZOR_ASSERT(!isPreallocated(bt));
    mTraces.push_back(bt);
    return bt;
}

void SBacktraceList::addBacktrace(const ExtendedBacktraceData& data, bool inMpi, int tid, const timespec& cpuTime,
                                  bool sleeping)
{
    ZOR_ASSERT(mNumTraces <= mTraces.size());
    SBacktrace* bt = mNumTraces == mTraces.size() ? createNewSBacktrace() : mTraces[mNumTraces];
    ZOR_ASSERT(bt);
    ZOR_ASSERT(!bt->isValid());
    ++mNumTraces;
    bt->set(data, inMpi, tid, cpuTime, sleeping);
    ZOR_ASSERT(bt->isValid());
}

void SBacktraceList::addBacktrace(const SBacktrace& source)
{
    ZOR_ASSERT(source.isValid());
    SBacktrace* bt = mNumTraces == mTraces.size() ? createNewSBacktrace() : mTraces[mNumTraces];
    ++mNumTraces;
    *bt = source;
}

void SBacktraceList::clear()
{
    ZOR_ASSERT(mNumTraces <= mTraces.size());
    for (std::size_t i = 0; i < mNumTraces; ++i) {
        SBacktrace* bt = mTraces[i];
        ZOR_ASSERT(bt);
        bt->invalidate();
    }
    mNumTraces = 0;
}

SBacktrace* SBacktraceList::entry(std::size_t index) const
{
    ZOR_ASSERT(mNumTraces <= mTraces.size());
    if (index >= mNumTraces) {
        SafeMessage().str("ZOR: SBacktraceList index out of bounds: ").udec(index).str(", size=").udec(mNumTraces)
            .str("\n").writeTo(2);
        abort();
    }
    SBacktrace* bt = mTraces[index];
    ZOR_ASSERT(bt);
    return bt;
}

SBacktrace& SBacktraceList::operator[](std::size_t index)
{
    return *entry(index);
}

const SBacktrace& SBacktraceList::operator[](std::size_t index) const
{
    return *entry(index);
}

void SBacktraceList::writeToFile(int fd) const
{
    QUORVEX_WRITE_UWIDE(fd, mNumTraces);
    for (std::size_t i = 0; i < mNumTraces; ++i) {
        const SBacktrace* bt = mTraces[i];
        ZOR_ASSERT(bt->isValid());
        bt->writeToFile(fd);
    }
}

bool SBacktraceList::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    return readFrom(in);
}

bool SBacktraceList::readFrom(fileio::RecordInput& in)
{
    clear();
    std::uint64_t numTraces = 0;
    if (!QUORVEX_READ_FROM(in, &numTraces, sizeof numTraces))
        return false;
    ZOR_ASSERT(numTraces <= std::numeric_limits<unsigned int>::max());

    // A list read from a file has its objects in one block, which is
    // cheaper to make and to free than one allocation each. Beyond a bound
    // they are made as records arrive, so that a corrupt count cannot ask
    // for billions of them before the first read.
    if (mTraces.empty() && !mPool && numTraces > 0)
        buildPool(static_cast<int>(std::min<std::uint64_t>(numTraces, READ_POOL_LIMIT)));
    else
        mTraces.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(numTraces, READ_POOL_LIMIT)));
    bool ok = true;
    for (std::uint64_t i = 0; i < numTraces; ++i) {
        SBacktrace* bt = i < mTraces.size() ? mTraces[i] : createNewSBacktrace();
        ok = bt->readFrom(in) && ok;
        ZOR_ASSERT(bt->isValid());
    }
    mNumTraces = numTraces;
    return ok;
}

} // namespace quorvex
