#include "ssamplelist.h"
#include "sfileio.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <algorithm>
#include <limits>

namespace quorvex {

SSampleList::SSampleList(int maxSamples, int preallocatedThreads, drand48_data& random, bool constructLazily)
    : mSize(0), mNumDownsamples(0), mLimit(static_cast<std::uint32_t>(std::max(maxSamples, 0))),
      mPrototype(preallocatedThreads), mRandomState(random), mMergeGpuKernelLists(false)
{
    if (constructLazily)
        mSamples.reserve(mLimit);
    else
        mSamples.resize(mLimit, mPrototype);
}

SSampleList& SSampleList::operator=(const SSampleList& other)
{
    if (this != &other) {
        mSize = other.mSize;
        mLimit = other.mLimit;
        mSamples = other.mSamples;
        mSamples.reserve(mLimit);
        mPrototype = other.mPrototype;
    }
    return *this;
}

void SSampleList::setMetricCount(int n)
{
    mPrototype.metrics().initializeMetrics(static_cast<unsigned int>(n));
    for (SSample& sample : mSamples)
        sample.metrics().initializeMetrics(static_cast<unsigned int>(n));
}

void SSampleList::makeRoom(bool& downsampled)
{
    downsampled = false;
    if (mSize == mLimit) {
        downsample();
        downsampled = true;
    }
    // Within the room reserved: the samples made before don't move.
    if (mSize == mSamples.size())
        mSamples.push_back(mPrototype);
    ZOR_ASSERT(!mSamples[mSize].isValid());
}

SSample* SSampleList::createSample(const ExtendedBacktraceData& bt, const timespec& timestamp,
                                   const timespec& interval, const timespec& window, bool& downsampled, bool inMpi,
                                   int tid, const threadlist_t& threads, const timespec& cpuTime, bool sleeping)
{
    makeRoom(downsampled);
    SSample& sample = mSamples[mSize];
    sample.makeValid(bt, timestamp, interval, window, downsampled, inMpi, tid, threads, cpuTime, sleeping);
    ++mSize;
    return &sample;
}

SSample* SSampleList::createSample(const ExtendedBacktraceData& bt, const timespec& timestamp,
                                   const timespec& interval, const timespec& window, bool& downsampled, bool inMpi,
                                   int tid, const int* threads, std::size_t threadCount, const timespec& cpuTime,
                                   bool sleeping)
{
    makeRoom(downsampled);
    SSample& sample = mSamples[mSize];
    sample.makeValid(bt, timestamp, interval, window, downsampled, inMpi, tid, threads, threadCount, cpuTime,
                     sleeping);
    ++mSize;
    return &sample;
}

SSample* SSampleList::createSample(const SSample& source, bool& downsampled)
{
    ZOR_ASSERT(source.isValid());
    makeRoom(downsampled);
    SSample& sample = mSamples[mSize];
    sample = source;
    ++mSize;
    return &sample;
}

SSample& SSampleList::getLatestSample()
{
    ZOR_ASSERT(mSize>0);
    ZOR_ASSERT(mSamples[mSize-1].isValid());
    return mSamples[mSize - 1];
}

SSample& SSampleList::at(unsigned int index)
{
    ZOR_ASSERT(index<mSize);
    return mSamples[index];
}

const SSample& SSampleList::at(unsigned int index) const
{
    ZOR_ASSERT(index<mSize);
    return mSamples[index];
}

void SSampleList::clear()
{
    for (std::uint32_t i = 0; i < mSize; ++i)
        mSamples[i].invalidate();
    mSize = 0;
    mNumDownsamples = 0;
    verifySanity(true);
}

bool SSampleList::verifySanity(bool fatal) const
{
    bool sane = mSize <= mSamples.size() && mSamples.size() <= mLimit;
    for (std::size_t i = 0; sane && i < mSamples.size(); ++i)
        sane = mSamples[i].isValid() == (i < mSize);
    if (!sane && fatal)
        ZOR_ASSERT(false);
    return sane;
}

void SSampleList::downsample()
{
    const std::uint32_t oldSize = mSize;
    const std::uint32_t downsampledSize = oldSize / 2;
    ++mNumDownsamples;
    ZOR_ASSERT(downsampledSize*2 <=oldSize);

    for (std::uint32_t i = 0; i < downsampledSize; ++i) {
        const std::size_t kept = chooseBetween(2 * i, 2 * i + 1);
        if (kept != i)
            mSamples[i] = mSamples[kept];
    }
    // An odd one out joins the last survivor rather than taking its time
    // with it.
    if (oldSize % 2 != 0 && downsampledSize > 0) {
        const std::size_t last = downsampledSize - 1;
        const std::size_t kept = chooseBetween(last, oldSize - 1);
        if (kept != last)
            mSamples[last] = mSamples[kept];
    }
    for (std::uint32_t j = downsampledSize; j < oldSize; ++j)
        mSamples[j].invalidate();

    mSize = downsampledSize;
    verifySanity(true);
}

std::size_t SSampleList::chooseBetween(std::size_t a, std::size_t b)
{
    ZOR_ASSERT(mSamples[a].isValid());
    ZOR_ASSERT(mSamples[b].isValid());
    const double wa = timespec_toDouble(mSamples[a].getWindow());
    const double wb = timespec_toDouble(mSamples[b].getWindow());
    double r = 0;
    drand48_r(&mRandomState, &r);

    // Strictly greater: a tie goes to b, and so do two empty windows, whose
    // quotient is not a number.
    const bool keepA = wa / (wb + wa) > r;
    const std::size_t kept = keepA ? a : b;
    const std::size_t dropped = keepA ? b : a;
    SSample& survivor = mSamples[kept];
    SSample& loser = mSamples[dropped];

    survivor.combineMetrics(loser);
    survivor.combineThreads(loser, mRandomState);
    if (mMergeGpuKernelLists) {
        for (const zor_shared_ptr<SGpuKernelHit>& shared : loser.kernelHits()) {
            zor_shared_ptr<SGpuKernelHit> hit(shared);
            survivor.addKernelHit(hit);
        }
    }
    loser.invalidate();
    return kept;
}

zor_shared_ptr<SGpuKernelHit> SSampleList::createCudaKernelHit(unsigned int correlationId, unsigned int kernelNameId,
                                                               const timespec& start, const timespec& end,
                                                               bool attachToNextSample)
{
    zor_shared_ptr<SGpuKernelHit> hit;
    std::uint32_t nextAfter = mSize;
    for (std::uint32_t i = mSize; i-- > 0;) {
        SSample& sample = mSamples[i];
        const timespec& timestamp = sample.getTimestamp();
        if (timespec_less_than(end, timestamp)) {
            nextAfter = i;
            continue;
        }
        if (timespec_less_than(timestamp, start))
            break;
        if (hit.isNull())
            hit = zor_shared_ptr<SGpuKernelHit>(new SGpuKernelHit(correlationId, kernelNameId, start, end));
        sample.addKernelHit(hit);
    }
    if (attachToNextSample && hit.isNull() && nextAfter < mSize) {
        hit = zor_shared_ptr<SGpuKernelHit>(new SGpuKernelHit(correlationId, kernelNameId, start, end));
        mSamples[nextAfter].addKernelHit(hit);
    }
    return hit;
}

namespace {
const char LIST_OPENING[2] = {'s', 'l'};
const char LIST_CLOSING[3] = {'/', 's', 'l'};
} // namespace

void SSampleList::writeOpening(int fd, std::uint64_t count)
{
    QUORVEX_WRITE(fd, LIST_OPENING, sizeof LIST_OPENING);
    QUORVEX_WRITE(fd, &count, sizeof count);
}

void SSampleList::writeClosing(int fd)
{
    QUORVEX_WRITE(fd, LIST_CLOSING, sizeof LIST_CLOSING);
}

void SSampleList::writeToFile(int fd) const
{
    writeOpening(fd, mSize);
    for (std::uint32_t i = 0; i < mSize; ++i)
        mSamples[i].writeToFile(fd);
    writeClosing(fd);
}

bool SSampleList::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    // The tags are checked byte by byte, so that a damaged file names the
    // byte in the assertion; they are those of writeOpening and writeClosing.
    char obuff[sizeof LIST_OPENING];
    if (!QUORVEX_READ_FROM(in, obuff, sizeof obuff))
        return false;
    ZOR_ASSERT(obuff[0] == 's');
    ZOR_ASSERT(obuff[1] == 'l');

    std::uint64_t numSamples = 0;
    if (!QUORVEX_READ_FROM(in, &numSamples, sizeof numSamples))
        return false;
    ZOR_ASSERT(numSamples <= std::numeric_limits<unsigned int>::max());
    mSize = static_cast<std::uint32_t>(numSamples);
    if (mSamples.size() != numSamples)
        mSamples.resize(static_cast<std::size_t>(numSamples), SSample(0));
    mLimit = mSize;

    for (std::uint32_t i = 0; i < mSize; ++i) {
        if (!mSamples[i].readFrom(in))
            return false;
    }

    char cbuff[sizeof LIST_CLOSING];
    if (!QUORVEX_READ_FROM(in, cbuff, sizeof cbuff))
        return false;
    ZOR_ASSERT(cbuff[0] == '/');
    ZOR_ASSERT(cbuff[1] == 's');
    ZOR_ASSERT(cbuff[2] == 'l');
    return true;
}

} // namespace quorvex
