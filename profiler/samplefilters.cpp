#include "samplefilters.h"

#include <QDebug>
#include <QVector>
#include <climits>
#include <cmath>

#include "constants.h"
#include "sample.h"
#include "samplelist.h"

namespace {

const float Threshold = 10.0f;

class Curve
{
public:
    Curve(SampleList& list, const QString& metric) : mMetric(metric)
    {
        for (Sample* sample : list)
            mSamples.append(sample);
    }
    int size() const { return mSamples.size(); }
    // Read when needed, so that a repair made earlier is seen later on.
    SampleValue value(int i) const { return mSamples.at(i)->metric(mMetric).singleValue(); }
    void set(int i, const SampleValue& value) { mSamples.at(i)->setMetric(mMetric, value); }

private:
    QString mMetric;
    QVector<Sample*> mSamples;
};

bool near(const SampleValue& a, const SampleValue& b)
{
    return areNeighbours(a, b, Threshold);
}

} // namespace

bool areNeighbours(const SampleValue& a, const SampleValue& b, float threshold)
{
    const double difference = (a - b).to_double();
    if (std::isnan(difference))
        return false;
    // Whole units only; a difference beyond what 32 bits hold stays beyond.
    const double whole = std::trunc(difference);
    const long long truncated = whole >= INT_MAX ? INT_MAX : whole <= INT_MIN ? INT_MIN : static_cast<int>(whole);
    return static_cast<float>(std::llabs(truncated)) <= threshold;
}

void removeOutliers(SampleList& list, const QString& metric)
{
    Curve curve(list, metric);
    const int n = curve.size();
    if (n >= 3) {
        const SampleValue second = curve.value(1);
        const SampleValue third = curve.value(2);
        if (second.empty() || third.empty())
            return;
        // When the two that follow agree, the first takes their mean.
        if (near(second, third))
            curve.set(0, (second + third) / 2);
    }
    // A is held as good, B is judged against it and the samples after it.
    for (int a = 0, b = 1; b < n; a = b, ++b) {
        const SampleValue va = curve.value(a);
        const SampleValue vb = curve.value(b);
        if (near(va, vb))
            continue;
        if (b == n - 1) {
            curve.set(b, va);
            break;
        }
        const int c = b + 1;
        const SampleValue vc = curve.value(c);
        if (near(va, vc)) {
            curve.set(b, (va + vc) / 2);
            continue;
        }
        if (c == n - 1)
            continue;
        const SampleValue vd = curve.value(c + 1);
        if (near(va, vd)) {
            const SampleValue mean = (va + vd) / 2;
            curve.set(b, mean);
            curve.set(c, mean);
        } else if (near(vc, vd)) {
            // B, C and D agree: the level has shifted, and B stays.
            if (!near(vb, vc))
                curve.set(b, (va + vc) / 2);
        } else {
            curve.set(b, va);
        }
    }
}

void smoothFilter(SampleList& list, const QString& metric, unsigned int windowSize)
{
    Curve curve(list, metric);
    const int n = curve.size();
    const int size = static_cast<int>(windowSize);
    for (int first = 0; size > 0 && first + size <= n; first += size) {
        SampleValue sum;
        for (int i = first; i < first + size; ++i)
            sum += curve.value(i);
        const SampleValue mean = sum / windowSize;
        for (int i = first; i < first + size; ++i)
            curve.set(i, (curve.value(i) + mean) / 2);
    }
}

void printIOWrites(QLinkedListIterator<Sample*> samples)
{
    const QString written = QString::fromLatin1(METRIC_CHARS_WRITTEN);
    qDebug("========");
    while (samples.hasNext()) {
        const Sample* sample = samples.next();
        if (!sample)
            break;
        qDebug("%llu,%f", static_cast<unsigned long long>(sample->backendOnly_getTimestamp()),
               sample->metric(written).mean().to_double());
    }
    qDebug("\n");
}
