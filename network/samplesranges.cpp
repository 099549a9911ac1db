#include "samplesranges.h"

#include <QByteArray>
#include <QDataStream>

namespace {

const quint32 Magic = 0x5a535231; // "ZSR1"

void writeValue(QDataStream& out, const SampleValue& value)
{
    out << quint8(value.type()) << quint64(value.rawBits());
}

bool readValue(QDataStream& in, SampleValue* value)
{
    quint8 type = 0;
    quint64 bits = 0;
    in >> type >> bits;
    if (in.status() != QDataStream::Ok || type > SampleValue::Double)
        return false;
    *value = SampleValue::fromRawBits(static_cast<SampleValue::Type>(type), bits);
    return true;
}

} // namespace

QMap<QString, SampleValueRange> SamplesRanges::getSampleRanges(int index) const
{
    if (index < 0 || index >= mSamples.size())
        return QMap<QString, SampleValueRange>();
    return mSamples.at(index);
}

QString SamplesRanges::toBase64() const
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_5_15);
    out << Magic << qint32(mSamples.size());
    for (const auto& ranges : mSamples) {
        out << qint32(ranges.size());
        for (auto it = ranges.constBegin(); it != ranges.constEnd(); ++it) {
            out << it.key();
            writeValue(out, it.value().min);
            writeValue(out, it.value().max);
        }
    }
    return QString::fromLatin1(bytes.toBase64());
}

SamplesRanges SamplesRanges::fromBase64(const QString& text, bool* ok)
{
    *ok = false;
    const auto decoded =
        QByteArray::fromBase64Encoding(text.toLatin1(), QByteArray::Base64Encoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return SamplesRanges();
    QDataStream in(*decoded);
    in.setVersion(QDataStream::Qt_5_15);
    quint32 magic = 0;
    qint32 count = 0;
    in >> magic >> count;
    if (in.status() != QDataStream::Ok || magic != Magic || count < 0)
        return SamplesRanges();
    SamplesRanges result;
    for (qint32 i = 0; i < count; ++i) {
        qint32 metrics = 0;
        in >> metrics;
        if (in.status() != QDataStream::Ok || metrics < 0)
            return SamplesRanges();
        QMap<QString, SampleValueRange> ranges;
        for (qint32 m = 0; m < metrics; ++m) {
            QString id;
            SampleValueRange range;
            in >> id;
            if (in.status() != QDataStream::Ok || !readValue(in, &range.min) || !readValue(in, &range.max))
                return SamplesRanges();
            ranges.insert(id, range);
        }
        result.mSamples.append(ranges);
    }
    if (!in.atEnd())
        return SamplesRanges();
    *ok = true;
    return result;
}
