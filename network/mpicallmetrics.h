// Figures per MPI call of one process, sent back at the end of a run.
#ifndef ZOR_MPICALLMETRICS_H
#define ZOR_MPICALLMETRICS_H

#include <QList>
#include <QString>

#include "samplevalue.h"

class QXmlStreamReader;
class QXmlStreamWriter;

class MpiCallMetric
{
public:
    MpiCallMetric() : mRank(-1) {}
    // The four figures pass through from the sampler's side in file order.
    MpiCallMetric(int rank, const QString& name, const SampleValue& value1, const SampleValue& value2,
                  const SampleValue& value3, const SampleValue& value4);

    int rank() const { return mRank; }
    QString name() const { return mName; }
    SampleValue value(int i) const { return mValues[i]; }

    bool operator==(const MpiCallMetric& other) const;

private:
    int mRank;
    QString mName;
    SampleValue mValues[4];
};

class MpiCallMetrics
{
public:
    explicit MpiCallMetrics(int rank = -1) : mRank(rank) {}

    int rank() const { return mRank; }
    // False, and nothing added, when a call of that name is already there.
    bool addCall(const MpiCallMetric& call);
    void clear() { mCalls.clear(); }
    const QList<MpiCallMetric>& calls() const { return mCalls; }
    bool isEmpty() const { return mCalls.isEmpty(); }

    void writeXml(QXmlStreamWriter& writer) const;
    bool readXml(QXmlStreamReader& reader, QString* error);

    bool operator==(const MpiCallMetrics& other) const { return mRank == other.mRank && mCalls == other.mCalls; }

private:
    int mRank;
    QList<MpiCallMetric> mCalls;
};

#endif
