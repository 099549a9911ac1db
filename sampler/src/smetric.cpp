#include "smetric.h"
#include "sfileio.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <cstring>
#include <unistd.h>

namespace quorvex {

SMetric::SMetric() : mInterval{0, 0}, mShouldDivideBySampleInterval(false), mBackfilled(false)
{
}

SMetric::SMetric(SampleValue value, timespec interval, NormalisationMode mode)
    : mValue(value), mInterval{0, 0}, mShouldDivideBySampleInterval(mode == DivideBySampleInterval),
      mBackfilled(false)
{
    setInterval(interval);
}

SMetric::SMetric(SampleValue value, timespec interval, NormalisationMode mode, CollectionStrategy strategy)
    : mValue(value), mInterval{0, 0}, mShouldDivideBySampleInterval(mode == DivideBySampleInterval),
      mBackfilled(strategy == CollectBackfilled)
{
    setInterval(interval);
}

void SMetric::setInterval(const timespec& ts)
{
    ZOR_ASSERT(ts.tv_nsec >= 0);
    ZOR_ASSERT(ts.tv_nsec < ONE_SECOND_NS);
    mInterval = ts;
}

void SMetric::merge(const SMetric& other)
{
    ZOR_ASSERT(mShouldDivideBySampleInterval == other.mShouldDivideBySampleInterval);
    if (mValue.empty()) {
        *this = other;
    } else if (!other.mValue.empty() && mShouldDivideBySampleInterval) {
        mValue += other.mValue;
        timespec_add(mInterval, other.mInterval);
    }
}

// This record is deliberately lax: results are only checked for -1, and
// nothing is printed. The list of metrics around it decides.
void SMetric::writeToFile(int fd) const
{
    mValue.writeToFile(fd);
    (void)!fileio::writeSome(fd, &mInterval, sizeof mInterval);
    const unsigned char divide = mShouldDivideBySampleInterval ? 1 : 0;
    (void)!fileio::writeSome(fd, &divide, 1);
}

bool SMetric::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    return readFrom(in);
}

bool SMetric::readFrom(fileio::RecordInput& in)
{
    static_assert(sizeof(timespec) == 16, "a timespec is two 64-bit words in the file");
    if (mValue.readFrom(in) == -1)
        return false;
    // Interval and flag in one read. Whatever a short read leaves out keeps
    // its old value, and the flag byte is preset so that it then reads false.
    unsigned char tail[sizeof mInterval + 1];
    std::memcpy(tail, &mInterval, sizeof mInterval);
    tail[sizeof mInterval] = 0xFF;
    if (in.readSome(tail, sizeof tail) == -1)
        return false;
    std::memcpy(&mInterval, tail, sizeof mInterval);
    mShouldDivideBySampleInterval = tail[sizeof mInterval] == 1;
    mBackfilled = false;
    return true;
}

} // namespace quorvex
