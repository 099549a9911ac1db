#include "sgpukernelhit.h"
#include "sfileio.h"
#include "zor_assert.h"

#include <cstring>

namespace quorvex {

namespace {
const std::size_t LINE_ARRAY_BYTES = sizeof(std::uint32_t) * GpuProfilerTypes::StallReason::COUNT;
}

SGpuKernelHit::SGpuKernelHit()
    : mCorrelationId(0), mKernelNameId(0), mStartTime{0, 0}, mEndTime{0, 0}, mDroppedSamples(0),
      mTotalSamples(0), mSamplingPeriodInCycles(0)
{
}

SGpuKernelHit::SGpuKernelHit(unsigned int correlationId, unsigned int kernelNameId, timespec start, timespec end)
    : mCorrelationId(correlationId), mKernelNameId(kernelNameId), mStartTime(start), mEndTime(end),
      mDroppedSamples(0), mTotalSamples(0), mSamplingPeriodInCycles(0)
{
}

void SGpuKernelHit::setSamplingRecordInfo(unsigned long dropped, unsigned long total, unsigned long period)
{
    mDroppedSamples = dropped;
    mTotalSamples = total;
    mSamplingPeriodInCycles = period;
}

void SGpuKernelHit::addLineHit(std::uint32_t line, GpuProfilerTypes::StallReason::Enum stallReason,
                               std::uint32_t numSamples, std::uint32_t numLatencySamples)
{
    LineHitMap::iterator it = mLineHits.find(line);
    if (it == mLineHits.end()) {
        TLineHits empty;
        std::memset(&empty, 0, sizeof empty);
        it = mLineHits.insert(std::make_pair(line, empty)).first;
    }
    ZOR_ASSERT(stallReason >= 0);
    ZOR_ASSERT(stallReason < quorvex::GpuProfilerTypes::StallReason::COUNT);
    ZOR_ASSERT(numSamples >= numLatencySamples);
    it->second.samples[stallReason] += numSamples;
    it->second.latencySamples[stallReason] += numLatencySamples;
}

void SGpuKernelHit::writeToFile(int fd) const
{
    QUORVEX_WRITE(fd, "knl", 3);
    QUORVEX_WRITE(fd, &mCorrelationId, sizeof mCorrelationId);
    QUORVEX_WRITE(fd, &mKernelNameId, sizeof mKernelNameId);
    QUORVEX_WRITE_WIDE(fd, mStartTime.tv_sec);
    QUORVEX_WRITE_WIDE(fd, mStartTime.tv_nsec);
    QUORVEX_WRITE_WIDE(fd, mEndTime.tv_sec);
    QUORVEX_WRITE_WIDE(fd, mEndTime.tv_nsec);
    QUORVEX_WRITE(fd, &mDroppedSamples, sizeof mDroppedSamples);
    QUORVEX_WRITE(fd, &mTotalSamples, sizeof mTotalSamples);
    QUORVEX_WRITE(fd, &mSamplingPeriodInCycles, sizeof mSamplingPeriodInCycles);
    const std::uint32_t numLineHits = static_cast<std::uint32_t>(mLineHits.size());
    QUORVEX_WRITE(fd, &numLineHits, sizeof numLineHits);
    for (const auto& entry : mLineHits) {
        const std::uint32_t line = entry.first;
        QUORVEX_WRITE(fd, &line, sizeof line);
        QUORVEX_WRITE(fd, entry.second.samples, LINE_ARRAY_BYTES);
        QUORVEX_WRITE(fd, entry.second.latencySamples, LINE_ARRAY_BYTES);
    }
    QUORVEX_WRITE(fd, "/knl", 4);
}

bool SGpuKernelHit::readFromFile(int fd)
{
    char obuff[3];
    if (!QUORVEX_READ(fd, obuff, sizeof obuff))
        return false;
    ZOR_ASSERT(obuff[0] == 'k');
    ZOR_ASSERT(obuff[1] == 'n');
    ZOR_ASSERT(obuff[2] == 'l');

    if (!QUORVEX_READ(fd, &mCorrelationId, sizeof mCorrelationId))
        return false;
    if (!QUORVEX_READ(fd, &mKernelNameId, sizeof mKernelNameId))
        return false;
    std::int64_t times[4];
    for (std::int64_t& word : times) {
        if (!QUORVEX_READ(fd, &word, sizeof word))
            return false;
    }
    mStartTime.tv_sec = times[0];
    mStartTime.tv_nsec = times[1];
    mEndTime.tv_sec = times[2];
    mEndTime.tv_nsec = times[3];
    if (!QUORVEX_READ(fd, &mDroppedSamples, sizeof mDroppedSamples))
        return false;
    if (!QUORVEX_READ(fd, &mTotalSamples, sizeof mTotalSamples))
        return false;
    if (!QUORVEX_READ(fd, &mSamplingPeriodInCycles, sizeof mSamplingPeriodInCycles))
        return false;
    std::uint32_t numLineHits = 0;
    if (!QUORVEX_READ(fd, &numLineHits, sizeof numLineHits))
        return false;

    mLineHits.clear();
    for (std::uint32_t i = 0; i < numLineHits; ++i) {
        std::uint32_t line = 0;
        TLineHits hits;
        if (!QUORVEX_READ(fd, &line, sizeof line))
            return false;
        if (!QUORVEX_READ(fd, hits.samples, LINE_ARRAY_BYTES))
            return false;
        if (!QUORVEX_READ(fd, hits.latencySamples, LINE_ARRAY_BYTES))
            return false;
        mLineHits[line] = hits;
    }
    ZOR_ASSERT(mLineHits.size()==numLineHits);

    char cbuff[4];
    if (!QUORVEX_READ(fd, cbuff, sizeof cbuff))
        return false;
    ZOR_ASSERT(cbuff[0] == '/');
    ZOR_ASSERT(cbuff[1] == 'k');
    ZOR_ASSERT(cbuff[2] == 'n');
    ZOR_ASSERT(cbuff[3] == 'l');
    return true;
}

} // namespace quorvex
