#include "metric.h"

#include <QDir>

namespace {

const char KeyIndex[] = "index";
const char KeyDisplayName[] = "displayName";
const char KeyUnits[] = "units";
const char KeySparse[] = "sparse";
const char KeyDivide[] = "divideBySampleTime";
const char KeyClamp[] = "clampPercentages";
const char KeyOnTimeDomain[] = "onTimeDomain";
const char KeyLibrary[] = "library";

bool flag(const QVariantMap& map, const char* key, bool defaultValue)
{
    const auto it = map.constFind(QLatin1String(key));
    if (it == map.constEnd() || !it.value().canConvert<bool>())
        return defaultValue;
    return it.value().toBool();
}

} // namespace

Metric::Metric()
    : mIndex(0)
    , mSparse(false)
    , mDivideBySampleTime(false)
    , mClampPercentages(false)
    , mOnTimeDomain(true)
{
}

Metric::Metric(const QString& id, unsigned int index)
    : mId(id)
    , mIndex(index)
    , mSparse(false)
    , mDivideBySampleTime(false)
    , mClampPercentages(false)
    , mOnTimeDomain(true)
{
}

QVariantMap Metric::toQVariantMap() const
{
    QVariantMap map;
    map.insert(QLatin1String(KeyIndex), mIndex);
    if (!mDisplayName.isEmpty())
        map.insert(QLatin1String(KeyDisplayName), mDisplayName);
    if (!mUnits.isEmpty())
        map.insert(QLatin1String(KeyUnits), mUnits);
    map.insert(QLatin1String(KeySparse), mSparse);
    map.insert(QLatin1String(KeyDivide), mDivideBySampleTime);
    map.insert(QLatin1String(KeyClamp), mClampPercentages);
    map.insert(QLatin1String(KeyOnTimeDomain), mOnTimeDomain);
    if (mSource.kind() == MetricSource::Library)
        map.insert(QLatin1String(KeyLibrary), mSource.library());
    return map;
}

bool Metric::operator==(const Metric& other) const
{
    return mId == other.mId && mIndex == other.mIndex && mDisplayName == other.mDisplayName
        && mUnits == other.mUnits && mSparse == other.mSparse && mDivideBySampleTime == other.mDivideBySampleTime
        && mClampPercentages == other.mClampPercentages && mOnTimeDomain == other.mOnTimeDomain
        && mSource == other.mSource;
}

MetricDefinitions MetricDefinitions::fromQVariantMap(const QVariantMap& map)
{
    MetricDefinitions definitions;
    QList<Metric> unindexed;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        if (it.value().type() != QVariant::Map)
            continue;
        const QVariantMap entry = it.value().toMap();
        Metric metric(it.key(), 0);
        metric.mDisplayName = entry.value(QLatin1String(KeyDisplayName)).toString();
        metric.mUnits = entry.value(QLatin1String(KeyUnits)).toString();
        metric.mSparse = flag(entry, KeySparse, false);
        metric.mDivideBySampleTime = flag(entry, KeyDivide, false);
        metric.mClampPercentages = flag(entry, KeyClamp, false);
        metric.mOnTimeDomain = flag(entry, KeyOnTimeDomain, true);
        const QString library = entry.value(QLatin1String(KeyLibrary)).toString();
        if (!library.isEmpty())
            metric.mSource = MetricSource(MetricSource::Library, library);
        bool ok = false;
        const unsigned int index = entry.value(QLatin1String(KeyIndex)).toUInt(&ok);
        if (ok && !definitions.mIdByIndex.contains(index)) {
            metric.mIndex = index;
            definitions.addMetric(metric);
        } else {
            unindexed.append(metric);
        }
    }
    // Metrics without a usable index take the lowest free ones, in
    // identifier order, so that every process numbers them alike.
    unsigned int next = 0;
    for (Metric metric : unindexed) {
        while (definitions.mIdByIndex.contains(next))
            ++next;
        metric.mIndex = next;
        definitions.addMetric(metric);
    }
    return definitions;
}

QVariantMap MetricDefinitions::toQVariantMap() const
{
    QVariantMap map;
    for (const Metric& metric : mById)
        map.insert(metric.getId(), metric.toQVariantMap());
    return map;
}

void MetricDefinitions::addMetric(const Metric& metric)
{
    const auto old = mById.constFind(metric.getId());
    if (old != mById.constEnd())
        mIdByIndex.remove(old->getIndex());
    mById.insert(metric.getId(), metric);
    mIdByIndex.insert(metric.getIndex(), metric.getId());
}

const Metric* MetricDefinitions::getMetricById(const QString& id) const
{
    const auto it = mById.constFind(id);
    return it == mById.constEnd() ? nullptr : &it.value();
}

QString MetricDefinitions::getMetricIdByIndex(unsigned int index) const
{
    return mIdByIndex.value(index);
}

QMap<QString, Metric> MetricDefinitions::getMetricsOnTimeDomain() const
{
    QMap<QString, Metric> result;
    for (const Metric& metric : mById) {
        if (metric.isOnTimeDomain())
            result.insert(metric.getId(), metric);
    }
    return result;
}

void MetricDefinitions::makeQuorvexSharedLibraryPathsAbsolute(const QString& directory)
{
    for (Metric& metric : mById) {
        if (metric.mSource.kind() != MetricSource::Library)
            continue;
        const QString library = metric.mSource.library();
        if (QDir::isRelativePath(library))
            metric.mSource.setLibrary(QDir(directory).filePath(library));
    }
}
