// One metric value of one sample, with the time span it covers and how it
// combines with a neighbour's value when samples are fused.
#ifndef ZOR_SMETRIC_H
#define ZOR_SMETRIC_H

#include "samplevalue.h"
#include "sfileio.h"

#include <ctime>

namespace quorvex {

class SMetric
{
public:
    enum NormalisationMode { NoNormalisation = 0, DivideBySampleInterval = 1 };
    enum CollectionStrategy { CollectBackfilled = 0, CollectAtSample = 1 };

    SMetric();
    SMetric(SampleValue value, timespec interval, NormalisationMode mode);
    SMetric(SampleValue value, timespec interval, NormalisationMode mode, CollectionStrategy strategy);

    const SampleValue& getValue() const { return mValue; }
    const timespec& getInterval() const { return mInterval; }
    bool isBackfilled() const { return mBackfilled; }
    bool shouldDivideBySampleInterval() const { return mShouldDivideBySampleInterval; }

    void setValue(SampleValue value) { mValue = value; }
    void setInterval(const timespec& ts);
    void setDivideBySampleInterval(bool divide) { mShouldDivideBySampleInterval = divide; }

    // Rates add up; other values keep this sample's value; an empty value
    // never wins.
    void merge(const SMetric& other);

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    bool readFrom(fileio::RecordInput& in);

private:
    SampleValue mValue;
    timespec mInterval;
    bool mShouldDivideBySampleInterval;
    // Only meaningful inside the sampler; not part of the file.
    bool mBackfilled;
};

} // namespace quorvex

#endif
