#include "samplehistogram.h"

#include <QStringList>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "xmlwriting.h"

void SampleHistogram::writeXml(QXmlStreamWriter& writer) const
{
    QByteArray xml;
    XmlWriter out(&xml);
    writeXml(out);
    writeRawXml(writer, xml);
}

void SampleHistogram::writeXml(XmlWriter& writer) const
{
    writer.startElement(QLatin1String("histogram"));
    writer.attribute(QLatin1String("bins"), mNumBins);
    for (auto it = mBins.constBegin(); it != mBins.constEnd(); ++it) {
        QString counts;
        for (quint32 count : it.value()) {
            if (!counts.isEmpty())
                counts += QLatin1Char(',');
            counts += QString::number(count);
        }
        writer.startElement(QLatin1String("metric"));
        writer.attribute(QLatin1String("id"), it.key());
        writer.characters(counts);
        writer.endElement();
    }
    writer.endElement();
}

bool SampleHistogram::readXml(QXmlStreamReader& reader, QString* error)
{
    bool ok = false;
    mNumBins = reader.attributes().value(QLatin1String("bins")).toInt(&ok);
    if (!ok || mNumBins < 0) {
        *error = QStringLiteral("histogram without a number of bins");
        return false;
    }
    mBins.clear();
    while (reader.readNextStartElement()) {
        const QString id = reader.attributes().value(QLatin1String("id")).toString();
        const QString text = reader.readElementText();
        QVector<quint32> counts;
        if (!text.isEmpty()) {
            for (const QStringRef& part : text.splitRef(QLatin1Char(','))) {
                counts.append(part.toUInt(&ok));
                if (!ok) {
                    *error = QStringLiteral("histogram of %1 has a bad count").arg(id);
                    return false;
                }
            }
        }
        if (counts.size() != mNumBins) {
            *error = QStringLiteral("histogram of %1 has %2 bins, not %3").arg(id).arg(counts.size()).arg(mNumBins);
            return false;
        }
        mBins.insert(id, counts);
    }
    if (reader.hasError()) {
        *error = reader.errorString();
        return false;
    }
    return true;
}
