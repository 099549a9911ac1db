// The histograms of one resampled sample: for each metric, how many of the
// sample's threads fall into each of a number of equal bins over the range
// that the front-end has worked out from all processes.
#ifndef ZOR_SAMPLEHISTOGRAM_H
#define ZOR_SAMPLEHISTOGRAM_H

#include <QMap>
#include <QString>
#include <QVector>

class QXmlStreamReader;
class QXmlStreamWriter;
class XmlWriter;

class SampleHistogram
{
public:
    SampleHistogram() : mNumBins(0) {}
    explicit SampleHistogram(int numBins) : mNumBins(numBins) {}

    int numBins() const { return mNumBins; }
    // Counts per bin of one metric; `counts` has numBins() entries.
    void setBins(const QString& metric, const QVector<quint32>& counts) { mBins.insert(metric, counts); }
    QVector<quint32> bins(const QString& metric) const { return mBins.value(metric); }
    QList<QString> metrics() const { return mBins.keys(); }
    bool isEmpty() const { return mBins.isEmpty(); }

    void writeXml(QXmlStreamWriter& writer) const;
    void writeXml(XmlWriter& writer) const;
    bool readXml(QXmlStreamReader& reader, QString* error);

    bool operator==(const SampleHistogram& other) const
    {
        return mNumBins == other.mNumBins && mBins == other.mBins;
    }

private:
    int mNumBins;
    QMap<QString, QVector<quint32>> mBins;
};

#endif
