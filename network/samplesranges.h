// Per resampled sample, the range of each metric over all processes: the
// front-end works these out and sends them back, base64-encoded, so that
// every process bins its histograms alike.
#ifndef ZOR_SAMPLESRANGES_H
#define ZOR_SAMPLESRANGES_H

#include <QMap>
#include <QString>
#include <QVector>

#include "metric.h"

class SamplesRanges
{
public:
    SamplesRanges() = default;

    void addSample(const QMap<QString, SampleValueRange>& ranges) { mSamples.append(ranges); }
    int numSamples() const { return mSamples.size(); }
    // The ranges of sample `index`; an empty map for an index beyond them.
    QMap<QString, SampleValueRange> getSampleRanges(int index) const;

    QString toBase64() const;
    // Sets *ok to false, and gives an empty object, for text that is not
    // base64 or does not hold a complete set of ranges.
    static SamplesRanges fromBase64(const QString& text, bool* ok);

private:
    QVector<QMap<QString, SampleValueRange>> mSamples;
};

#endif
