#include "linemetrics.h"

void LineMetrics::merge(const LineMetrics& other)
{
    // Most lines get their first counts this way: sharing them costs nothing.
    if (mValues.isEmpty()) {
        mValues = other.mValues;
        return;
    }
    for (auto it = other.mValues.constBegin(); it != other.mValues.constEnd(); ++it)
        mValues[it.key()] += it.value();
}

QString LineMetrics::entryToString(const QString& id, double value)
{
    // 17 digits bring every double back exactly.
    return id + QLatin1Char('=') + QString::number(value, 'g', 17);
}

bool LineMetrics::readEntry(const QString& text)
{
    const int equals = text.lastIndexOf(QLatin1Char('='));
    if (equals <= 0)
        return false;
    bool ok = false;
    const double value = text.mid(equals + 1).toDouble(&ok);
    if (!ok)
        return false;
    mValues.insert(text.left(equals), value);
    return true;
}
