#include "xmlvalues.h"

#include <QStringList>
#include <QVector>
#include <QXmlStreamReader>
#include <algorithm>
#include <cmath>

QString sampleValueToString(const SampleValue& value)
{
    switch (value.type()) {
    case SampleValue::Empty: return QString();
    case SampleValue::Int: return QLatin1String("i:") + QString::number(value.to_int64_t());
    case SampleValue::UInt: return QLatin1String("u:") + QString::number(value.to_uint64_t());
    case SampleValue::Double:
        // QString::number drops the sign of a negative zero.
        if (value.to_double() == 0 && std::signbit(value.to_double()))
            return QStringLiteral("d:-0");
        return QLatin1String("d:") + QString::number(value.to_double(), 'g', 17);
    }
    return QString();
}

bool sampleValueFromString(const QString& text, SampleValue* value)
{
    if (text.isEmpty()) {
        *value = SampleValue();
        return true;
    }
    if (text.size() < 3 || text.at(1) != QLatin1Char(':'))
        return false;
    const QStringRef number = text.midRef(2);
    bool ok = false;
    switch (text.at(0).toLatin1()) {
    case 'i': {
        const qlonglong v = number.toLongLong(&ok);
        if (ok)
            *value = SampleValue(static_cast<long>(v));
        return ok;
    }
    case 'u': {
        const qulonglong v = number.toULongLong(&ok);
        if (ok)
            *value = SampleValue(static_cast<unsigned long>(v));
        return ok;
    }
    case 'd': {
        const double v = number.toDouble(&ok);
        if (ok)
            *value = SampleValue(v);
        return ok;
    }
    default: return false;
    }
}

QString intSetToString(const QSet<int>& set)
{
    QVector<int> sorted(set.begin(), set.end());
    std::sort(sorted.begin(), sorted.end());
    QStringList parts;
    for (int v : sorted)
        parts.append(QString::number(v));
    return parts.join(QLatin1Char(','));
}

bool intSetFromString(const QString& text, QSet<int>* set)
{
    QSet<int> result;
    if (!text.isEmpty()) {
        for (const QStringRef& part : text.splitRef(QLatin1Char(','))) {
            bool ok = false;
            const int v = part.toInt(&ok);
            if (!ok)
                return false;
            result.insert(v);
        }
    }
    *set = result;
    return true;
}

QString xmlReadError(const QXmlStreamReader& reader, const QString& fallback)
{
    if (reader.hasError())
        return QStringLiteral("line %1, column %2: %3")
            .arg(reader.lineNumber())
            .arg(reader.columnNumber())
            .arg(reader.errorString());
    return fallback;
}
