// Metric definitions of a run: which metrics exist, their index in the
// sampler's records, and how their values are to be read.
#ifndef ZOR_METRIC_H
#define ZOR_METRIC_H

#include <QMap>
#include <QString>
#include <QVariant>

#include "samplevalue.h"

// Where a metric's values come from: built into the sampler, or a plug-in
// library that the sampler loads into the target.
class MetricSource
{
public:
    enum Kind { Builtin, Library };

    MetricSource() : mKind(Builtin) {}
    MetricSource(Kind kind, const QString& library) : mKind(kind), mLibrary(library) {}

    Kind kind() const { return mKind; }
    QString library() const { return mLibrary; }
    void setLibrary(const QString& library) { mLibrary = library; }

    bool operator==(const MetricSource& other) const { return mKind == other.mKind && mLibrary == other.mLibrary; }

private:
    Kind mKind;
    QString mLibrary;
};

class Metric
{
public:
    Metric();
    Metric(const QString& id, unsigned int index);

    QString getId() const { return mId; }
    unsigned int getIndex() const { return mIndex; }
    QString getDisplayName() const { return mDisplayName.isEmpty() ? mId : mDisplayName; }
    QString getUnits() const { return mUnits; }
    // Reported only now and then; a value covers the time since the last one.
    bool isSparse() const { return mSparse; }
    // A rate: values of merged samples add up and are shown per second.
    bool getDivideBySampleTime() const { return mDivideBySampleTime; }
    bool getClampPercentages() const { return mClampPercentages; }
    // Shown as a curve over the run, rather than as one value per run.
    bool isOnTimeDomain() const { return mOnTimeDomain; }
    const MetricSource& getSource() const { return mSource; }

    void setDisplayName(const QString& name) { mDisplayName = name; }
    void setUnits(const QString& units) { mUnits = units; }
    void setSparse(bool sparse) { mSparse = sparse; }
    void setDivideBySampleTime(bool divide) { mDivideBySampleTime = divide; }
    void setClampPercentages(bool clamp) { mClampPercentages = clamp; }
    void setOnTimeDomain(bool onTimeDomain) { mOnTimeDomain = onTimeDomain; }
    void setSource(const MetricSource& source) { mSource = source; }

    QVariantMap toQVariantMap() const;
    bool operator==(const Metric& other) const;

private:
    friend class MetricDefinitions;
    QString mId;
    unsigned int mIndex;
    QString mDisplayName;
    QString mUnits;
    bool mSparse;
    bool mDivideBySampleTime;
    bool mClampPercentages;
    bool mOnTimeDomain;
    MetricSource mSource;
};

// The set of metrics of a run, a value type. Its map form, which travels in
// the "metricDefinitions" attribute of CMD_ZOR_PLAY, has one entry per
// metric identifier whose value is a map with the keys
//   "index" (unsigned; the position in the sampler's records; if missing,
//            the next index not yet taken),
//   "displayName", "units" (text), "sparse", "divideBySampleTime",
//   "clampPercentages", "onTimeDomain" (flags; onTimeDomain defaults to
//   true, the others to false), "library" (text: a metric plug-in that the
//   sampler loads; absent for built-in metrics).
// An entry whose value is not a map is ignored.
class MetricDefinitions
{
public:
    MetricDefinitions() = default;

    static MetricDefinitions fromQVariantMap(const QVariantMap& map);
    QVariantMap toQVariantMap() const;

    void addMetric(const Metric& metric);
    bool isEmpty() const { return mById.isEmpty(); }
    int size() const { return mById.size(); }

    // Null for an unknown identifier.
    const Metric* getMetricById(const QString& id) const;
    // A null string for an unknown index.
    QString getMetricIdByIndex(unsigned int index) const;
    // The metrics shown over time, by identifier.
    QMap<QString, Metric> getMetricsOnTimeDomain() const;
    QList<Metric> metrics() const { return mById.values(); }

    // Plug-in libraries given by a relative path are taken relative to `directory`.
    void makeQuorvexSharedLibraryPathsAbsolute(const QString& directory);

    bool operator==(const MetricDefinitions& other) const { return mById == other.mById; }

private:
    QMap<QString, Metric> mById;
    QMap<unsigned int, QString> mIdByIndex;
};

// The value of one metric in one sample.
class ScalarMetric
{
public:
    ScalarMetric() = default;
    explicit ScalarMetric(const SampleValue& value) : mSingle(value), mMean(value) {}
    ScalarMetric(const SampleValue& single, const SampleValue& mean) : mSingle(single), mMean(mean) {}

    SampleValue singleValue() const { return mSingle; }
    // Over the samples that were merged into this one; the single value
    // itself while nothing was merged.
    SampleValue mean() const { return mMean; }

    bool operator==(const ScalarMetric& other) const { return mSingle == other.mSingle && mMean == other.mMean; }

private:
    SampleValue mSingle;
    SampleValue mMean;
};

// The lowest and highest value of a metric, over which histograms are binned.
struct SampleValueRange
{
    SampleValue min;
    SampleValue max;

    bool operator==(const SampleValueRange& other) const { return min == other.min && max == other.max; }
};

class MetricError
{
public:
    MetricError() : mErrorId(0), mRank(-1) {}
    MetricError(const QString& metric, int errorId, const QString& message, int rank)
        : mMetric(metric), mErrorId(errorId), mMessage(message), mRank(rank) {}

    QString metric() const { return mMetric; }
    int errorId() const { return mErrorId; }
    QString message() const { return mMessage; }
    int rank() const { return mRank; }

    bool operator==(const MetricError& other) const
    {
        return mMetric == other.mMetric && mErrorId == other.mErrorId && mMessage == other.mMessage
            && mRank == other.mRank;
    }

private:
    QString mMetric;
    int mErrorId;
    QString mMessage;
    int mRank;
};

// Metric to error identifier to error.
typedef QMap<QString, QMap<int, MetricError>> MetricErrorMap;

#endif
