// The metric values of one sample, indexed by metric. The vector is sized
// once before sampling; afterwards nothing here allocates.
#ifndef ZOR_SMETRICS_H
#define ZOR_SMETRICS_H

#include "smetric.h"

#include <vector>

namespace quorvex {

class SMetrics
{
public:
    SMetrics() : mValid(false) {}

    bool isValid() const { return mValid; }
    void invalidate();
    void initializeMetrics(unsigned int n);
    void setValid() { mValid = true; }

    void setMetric(unsigned int metricId, const SMetric& metric);
    void backfillMetric(unsigned int metricId, const SampleValue& value);
    const SampleValue& getMetricValue(unsigned int metricId) const;
    const timespec& getMetricInterval(unsigned int metricId) const;
    bool shouldDivideBySampleInterval(unsigned int index) const;
    const SMetric& metric(unsigned int index) const { return metrics.at(index); }

    unsigned int size() const { return static_cast<unsigned int>(metrics.size()); }
    bool hasMetric(unsigned int index) const { return index < metrics.size(); }

    void merge(const SMetrics& other);

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    bool readFrom(fileio::RecordInput& in);

private:
    bool mValid;
    std::vector<SMetric> metrics;
};

} // namespace quorvex

#endif
