#include "preloadsamplesourceutils.h"
#include "metric.h"
#include "ssamplelist.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <cmath>

using quorvex::ONE_SECOND_NS;

long long PreloadSampleSourceUtils::msFromTimespec(timespec a, timespec b)
{
    return static_cast<long long>(a.tv_sec - b.tv_sec) * 1000 + static_cast<long long>(a.tv_nsec - b.tv_nsec) / 1000000;
}

long long PreloadSampleSourceUtils::nsFromTimespec(timespec t)
{
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

double PreloadSampleSourceUtils::clampPercentage(double x)
{
    if (x < 0)
        return 0;
    if (x < 100)
        return x;
    return 100;
}

double PreloadSampleSourceUtils::calculateScaleUpFactor(timespec a)
{
    if (a.tv_sec == 0 && a.tv_nsec == 0)
        return 1.0;
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >=0);
    return 1e9 / std::fma(static_cast<double>(a.tv_sec), 1e9, static_cast<double>(a.tv_nsec));
}

namespace {

// Empty, for the walk back over a gap. A sample without the metric at all
// bounds the gap like a reported value: nothing can be stored there.
bool isEmptyAt(const quorvex::SSample& sample, unsigned int index)
{
    return sample.metrics().hasMetric(index) && sample.metrics().getMetricValue(index).empty();
}

} // namespace

void PreloadSampleSourceUtils::correctSparseMetrics(quorvex::SSampleList* samples,
                                                    const MetricDefinitions& definitions)
{
    const QMap<QString, Metric> metrics = definitions.getMetricsOnTimeDomain();
    for (unsigned int i = 0; i < samples->size(); ++i) {
        for (const Metric& metric : metrics) {
            if (!metric.isSparse())
                continue;
            const unsigned int index = metric.getIndex();
            const quorvex::SMetrics& reported = samples->at(i).metrics();
            if (!reported.hasMetric(index) || reported.getMetricValue(index).empty())
                continue;
            const SampleValue value = reported.getMetricValue(index);

            unsigned int first = i;
            while (first > 0 && isEmptyAt(samples->at(first - 1), index))
                --first;
            if (first == i)
                continue;

            timespec total = {0, 0};
            for (unsigned int k = first; k <= i; ++k)
                quorvex::timespec_add(total, samples->at(k).getMetricInterval(index));
            const double totalNs = static_cast<double>(nsFromTimespec(total));

            const bool divide = metric.getDivideBySampleTime();
            const quorvex::SMetric::NormalisationMode mode =
                divide ? quorvex::SMetric::DivideBySampleInterval : quorvex::SMetric::NoNormalisation;
            for (unsigned int k = first; k <= i; ++k) {
                quorvex::SSample& sample = samples->at(k);
                // The share uses the interval with the sample's fallback; the
                // stored interval is the metric's own.
                const double share = static_cast<double>(nsFromTimespec(sample.getMetricInterval(index))) / totalNs;
                const SampleValue spread = divide ? value * share : value;
                const timespec interval = sample.metrics().getMetricInterval(index);
                sample.metrics().setMetric(index, quorvex::SMetric(spread, interval, mode));
            }
        }
    }
}
