#include "mpicallmetrics.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "xmlvalues.h"

MpiCallMetric::MpiCallMetric(int rank, const QString& name, const SampleValue& value1, const SampleValue& value2,
                             const SampleValue& value3, const SampleValue& value4)
    : mRank(rank)
    , mName(name)
    , mValues{ value1, value2, value3, value4 }
{
}

bool MpiCallMetric::operator==(const MpiCallMetric& other) const
{
    if (mRank != other.mRank || mName != other.mName)
        return false;
    for (int i = 0; i < 4; ++i) {
        if (mValues[i].type() != other.mValues[i].type() || mValues[i] != other.mValues[i])
            return false;
    }
    return true;
}

bool MpiCallMetrics::addCall(const MpiCallMetric& call)
{
    for (const MpiCallMetric& existing : mCalls) {
        if (existing.name() == call.name())
            return false;
    }
    mCalls.append(call);
    return true;
}

void MpiCallMetrics::writeXml(QXmlStreamWriter& writer) const
{
    writer.writeStartElement(QStringLiteral("mpiCallMetrics"));
    writer.writeAttribute(QStringLiteral("rank"), QString::number(mRank));
    for (const MpiCallMetric& call : mCalls) {
        writer.writeStartElement(QStringLiteral("call"));
        writer.writeAttribute(QStringLiteral("rank"), QString::number(call.rank()));
        writer.writeAttribute(QStringLiteral("name"), call.name());
        for (int i = 0; i < 4; ++i)
            writer.writeAttribute(QStringLiteral("v%1").arg(i + 1), sampleValueToString(call.value(i)));
        writer.writeEndElement();
    }
    writer.writeEndElement();
}

bool MpiCallMetrics::readXml(QXmlStreamReader& reader, QString* error)
{
    bool ok = false;
    mRank = reader.attributes().value(QLatin1String("rank")).toInt(&ok);
    if (!ok) {
        *error = QStringLiteral("mpiCallMetrics without a rank");
        return false;
    }
    mCalls.clear();
    while (reader.readNextStartElement()) {
        const QXmlStreamAttributes a = reader.attributes();
        SampleValue values[4];
        for (int i = 0; i < 4; ++i) {
            if (!sampleValueFromString(a.value(QStringLiteral("v%1").arg(i + 1)).toString(), &values[i])) {
                *error = QStringLiteral("bad value in MPI call metrics");
                return false;
            }
        }
        mCalls.append(MpiCallMetric(a.value(QLatin1String("rank")).toInt(), a.value(QLatin1String("name")).toString(),
                                    values[0], values[1], values[2], values[3]));
        reader.skipCurrentElement();
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    return true;
}
