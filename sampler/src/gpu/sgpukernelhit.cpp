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
    char head[3 + 2 * 4 + 4 * 8 + 3 * 8 + 4];
    if (!QUORVEX_READ(fd, head, sizeof head))
        return false;
    fileio::FieldCursor cursor(head);
    char obuff[3];
    cursor.take(obuff, sizeof obuff);
    ZOR_ASSERT(obuff[0] == 'k');
    ZOR_ASSERT(obuff[1] == 'n');
    ZOR_ASSERT(obuff[2] == 'l');
    mCorrelationId = cursor.take<std::uint32_t>();
    mKernelNameId = cursor.take<std::uint32_t>();
    mStartTime.tv_sec = cursor.take<std::int64_t>();
    mStartTime.tv_nsec = cursor.take<std::int64_t>();
    mEndTime.tv_sec = cursor.take<std::int64_t>();
    mEndTime.tv_nsec = cursor.take<std::int64_t>();
    mDroppedSamples = cursor.take<std::uint64_t>();
    mTotalSamples = cursor.take<std::uint64_t>();
    mSamplingPeriodInCycles = cursor.take<std::uint64_t>();
    const std::uint32_t numLineHits = cursor.take<std::uint32_t>();

    mLineHits.clear();
    for (std::uint32_t i = 0; i < numLineHits; ++i) {
        char entry[4 + 2 * LINE_ARRAY_BYTES];
        if (!QUORVEX_READ(fd, entry, sizeof entry))
            return false;
        fileio::FieldCursor fields(entry);
        const std::uint32_t line = fields.take<std::uint32_t>();
        TLineHits hits;
        fields.take(hits.samples, LINE_ARRAY_BYTES);
        fields.take(hits.latencySamples, LINE_ARRAY_BYTES);
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
