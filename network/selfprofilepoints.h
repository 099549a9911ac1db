// What a phase of the back-end's own analysis cost, sent back at the end of
// a run.
#ifndef ZOR_SELFPROFILEPOINTS_H
#define ZOR_SELFPROFILEPOINTS_H

#include <QList>
#include <QString>

#include "samplevalue.h"

class QXmlStreamReader;
class QXmlStreamWriter;

class SelfProfilePoint
{
public:
    enum Value {
        ElapsedMs,
        StartSelfRssKib,
        SelfGrowthKib,
        StartDebuggerRssKib,
        DebuggerGrowthKib,
        StartTargetRssKib,
        TargetGrowthKib,
        SystemMemoryTotal,
        SystemMemoryUsed,
        Elements,
        ValueCount
    };

    SelfProfilePoint() : mRank(-1) {}
    SelfProfilePoint(int rank, const QString& name, const SampleValue& elapsedMs, const SampleValue& startSelfRss,
                     const SampleValue& selfGrowth, const SampleValue& startDebuggerRss,
                     const SampleValue& debuggerGrowth, const SampleValue& startTargetRss,
                     const SampleValue& targetGrowth, const SampleValue& systemTotal, const SampleValue& systemUsed,
                     const SampleValue& elements);

    int rank() const { return mRank; }
    QString name() const { return mName; }
    SampleValue value(Value which) const { return mValues[which]; }

    bool operator==(const SelfProfilePoint& other) const;

private:
    friend class SelfProfilePoints;
    int mRank;
    QString mName;
    SampleValue mValues[ValueCount];
};

class SelfProfilePoints
{
public:
    SelfProfilePoints() : mRank(-1) {}
    explicit SelfProfilePoints(int rank) : mRank(rank) {}

    int rank() const { return mRank; }
    void addPoint(const SelfProfilePoint& point) { mPoints.append(point); }
    const QList<SelfProfilePoint>& points() const { return mPoints; }
    bool isEmpty() const { return mPoints.isEmpty(); }

    void writeXml(QXmlStreamWriter& writer) const;
    bool readXml(QXmlStreamReader& reader, QString* error);

    bool operator==(const SelfProfilePoints& other) const { return mRank == other.mRank && mPoints == other.mPoints; }

private:
    int mRank;
    QList<SelfProfilePoint> mPoints;
};

#endif
