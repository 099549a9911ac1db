#include "stallreasoncounts.h"

#include <QStringList>

#include <cmath>

namespace {

const char* const REASON_NAMES[GpuProfilerStallReason::COUNT] = {
    "invalid",       "none",        "instruction-fetch", "execution-dependency", "memory-dependency", "texture",
    "synchronization", "constant-memory-dependency", "pipe-busy", "memory-throttle", "not-selected", "other"};

bool validReason(int reason)
{
    return reason >= 0 && reason < GpuProfilerStallReason::COUNT;
}

} // namespace

QString GpuProfilerStallReason::name(int reason)
{
    return validReason(reason) ? QLatin1String(REASON_NAMES[reason]) : QString();
}

StallReasonCounts::StallReasonCounts()
{
    for (double& count : mCounts)
        count = 0.0;
}

void StallReasonCounts::inc(GpuProfilerStallReason::Enum reason, double value)
{
    if (validReason(reason))
        mCounts[reason] += value;
}

double StallReasonCounts::value(GpuProfilerStallReason::Enum reason) const
{
    return validReason(reason) ? mCounts[reason] : 0.0;
}

double StallReasonCounts::total() const
{
    double sum = 0.0;
    for (double count : mCounts)
        sum += count;
    return sum;
}

bool StallReasonCounts::isZero() const
{
    for (double count : mCounts) {
        if (count != 0.0)
            return false;
    }
    return true;
}

void StallReasonCounts::add(const StallReasonCounts& other)
{
    for (int i = 0; i < GpuProfilerStallReason::COUNT; ++i)
        mCounts[i] += other.mCounts[i];
}

QString StallReasonCounts::toString() const
{
    QStringList parts;
    for (double count : mCounts)
        parts.append(QString::number(count, 'g', 17));
    return parts.join(QLatin1Char(','));
}

bool StallReasonCounts::fromString(const QString& text)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != GpuProfilerStallReason::COUNT)
        return false;
    double counts[GpuProfilerStallReason::COUNT];
    for (int i = 0; i < GpuProfilerStallReason::COUNT; ++i) {
        bool ok = false;
        counts[i] = parts.at(i).toDouble(&ok);
        // QString::number writes "nan" and "inf", which toDouble reads back.
        if (!ok)
            return false;
    }
    for (int i = 0; i < GpuProfilerStallReason::COUNT; ++i)
        mCounts[i] = counts[i];
    return true;
}

bool StallReasonCounts::operator==(const StallReasonCounts& other) const
{
    for (int i = 0; i < GpuProfilerStallReason::COUNT; ++i) {
        const double a = mCounts[i];
        const double b = other.mCounts[i];
        if (a != b && !(std::isnan(a) && std::isnan(b)))
            return false;
    }
    return true;
}
