#include "smetrics.h"
#include "sfileio.h"
#include "zor_assert.h"

#include <cstdint>

namespace quorvex {

void SMetrics::invalidate()
{
    mValid = false;
    for (SMetric& m : metrics) {
        m.setValue(SampleValue());
        m.setInterval(timespec{0, 0});
    }
}

void SMetrics::initializeMetrics(unsigned int n)
{
    metrics.clear();
    metrics.resize(n);
    mValid = true;
}

void SMetrics::setMetric(unsigned int metricId, const SMetric& metric)
{
    ZOR_ASSERT(metricId < metrics.size());
    metrics[metricId] = metric;
}

void SMetrics::backfillMetric(unsigned int metricId, const SampleValue& value)
{
    ZOR_ASSERT(metricId < metrics.size());
    ZOR_ASSERT(metrics[metricId].isBackfilled());
    metrics[metricId].setValue(value);
}

const SampleValue& SMetrics::getMetricValue(unsigned int metricId) const
{
    ZOR_ASSERT(metricId < metrics.size());
    return metrics[metricId].getValue();
}

const timespec& SMetrics::getMetricInterval(unsigned int metricId) const
{
    ZOR_ASSERT(metricId < metrics.size());
    return metrics[metricId].getInterval();
}

bool SMetrics::shouldDivideBySampleInterval(unsigned int index) const
{
    ZOR_ASSERT(index<metrics.size());
    return metrics[index].shouldDivideBySampleInterval();
}

void SMetrics::merge(const SMetrics& other)
{
    ZOR_ASSERT(mValid);
    ZOR_ASSERT(other.mValid);
    const std::size_t size = metrics.size();
    ZOR_ASSERT(size==other.metrics.size());
    for (std::size_t i = 0; i < size; ++i)
        metrics[i].merge(other.metrics[i]);
}

void SMetrics::writeToFile(int fd) const
{
    ZOR_ASSERT(isValid());
    QUORVEX_WRITE_WIDE(fd, 1);
    const std::uint32_t count = static_cast<std::uint32_t>(metrics.size());
    QUORVEX_WRITE(fd, &count, sizeof count);
    for (const SMetric& m : metrics)
        m.writeToFile(fd);
}

bool SMetrics::readFromFile(int fd)
{
    fileio::RecordInput in(fd);
    return readFrom(in);
}

bool SMetrics::readFrom(fileio::RecordInput& in)
{
    char scratch[8 + 4];
    const char* head = QUORVEX_VIEW_FROM(in, scratch, sizeof scratch);
    if (!head)
        return false;
    fileio::FieldCursor cursor(head);
    mValid = cursor.take<std::int64_t>() == 1;
    const std::uint32_t count = cursor.take<std::uint32_t>();
    metrics.resize(count);
    // A metric's outcome doesn't change ours. Once one fails the file is
    // spent, so the rest are not asked: a corrupt count costs no more reads.
    for (SMetric& m : metrics) {
        if (!m.readFrom(in))
            break;
    }
    return true;
}

} // namespace quorvex
