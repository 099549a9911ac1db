#include "selfprofilepoints.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "xmlvalues.h"

SelfProfilePoint::SelfProfilePoint(int rank, const QString& name, const SampleValue& elapsedMs,
                                   const SampleValue& startSelfRss, const SampleValue& selfGrowth,
                                   const SampleValue& startDebuggerRss, const SampleValue& debuggerGrowth,
                                   const SampleValue& startTargetRss, const SampleValue& targetGrowth,
                                   const SampleValue& systemTotal, const SampleValue& systemUsed,
                                   const SampleValue& elements)
    : mRank(rank)
    , mName(name)
    , mValues{ elapsedMs,   startSelfRss,   selfGrowth,   startDebuggerRss, debuggerGrowth,
               startTargetRss, targetGrowth, systemTotal, systemUsed,       elements }
{
}

bool SelfProfilePoint::operator==(const SelfProfilePoint& other) const
{
    if (mRank != other.mRank || mName != other.mName)
        return false;
    for (int i = 0; i < ValueCount; ++i) {
        if (mValues[i].type() != other.mValues[i].type() || mValues[i] != other.mValues[i])
            return false;
    }
    return true;
}

void SelfProfilePoints::writeXml(QXmlStreamWriter& writer) const
{
    writer.writeStartElement(QStringLiteral("selfProfilePoints"));
    writer.writeAttribute(QStringLiteral("rank"), QString::number(mRank));
    for (const SelfProfilePoint& point : mPoints) {
        writer.writeStartElement(QStringLiteral("point"));
        writer.writeAttribute(QStringLiteral("rank"), QString::number(point.mRank));
        writer.writeAttribute(QStringLiteral("name"), point.mName);
        for (int i = 0; i < SelfProfilePoint::ValueCount; ++i)
            writer.writeTextElement(QStringLiteral("v"), sampleValueToString(point.mValues[i]));
        writer.writeEndElement();
    }
    writer.writeEndElement();
}

bool SelfProfilePoints::readXml(QXmlStreamReader& reader, QString* error)
{
    bool ok = false;
    mRank = reader.attributes().value(QLatin1String("rank")).toInt(&ok);
    if (!ok) {
        *error = QStringLiteral("selfProfilePoints without a rank");
        return false;
    }
    mPoints.clear();
    while (reader.readNextStartElement()) {
        SelfProfilePoint point;
        point.mRank = reader.attributes().value(QLatin1String("rank")).toInt();
        point.mName = reader.attributes().value(QLatin1String("name")).toString();
        int count = 0;
        while (reader.readNextStartElement()) {
            if (count >= SelfProfilePoint::ValueCount
                || !sampleValueFromString(reader.readElementText(), &point.mValues[count])) {
                *error = QStringLiteral("bad value in self-profile point \"%1\"").arg(point.mName);
                return false;
            }
            ++count;
        }
        if (count != SelfProfilePoint::ValueCount) {
            *error = QStringLiteral("self-profile point \"%1\" has %2 values").arg(point.mName).arg(count);
            return false;
        }
        mPoints.append(point);
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    return true;
}
