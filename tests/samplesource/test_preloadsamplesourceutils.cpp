#include "metric.h"
#include "preloadsamplesourceutils.h"
#include "samplefilebuilder.h"
#include "ssamplelist.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using Utils = PreloadSampleSourceUtils;

TEST(PreloadSampleSourceUtils, TimeConversionsClampAndScale)
{
    EXPECT_EQ(Utils::msFromTimespec(timespec{2, 0}, timespec{1, 999999999}), 1);
    // No borrow between the fields: the nanosecond part truncates on its own.
    EXPECT_EQ(Utils::msFromTimespec(timespec{1, 0}, timespec{0, 999999}), 1000);
    EXPECT_EQ(Utils::msFromTimespec(timespec{0, 0}, timespec{3, 0}), -3000);
    EXPECT_EQ(Utils::nsFromTimespec(timespec{100000, 5}), 100000000000005LL);

    for (const auto& [in, out] : {std::pair<double, double>{-0.5, 0}, {42.5, 42.5}, {100, 100}, {250, 100},
                                  {std::nan(""), 100}})
        EXPECT_EQ(Utils::clampPercentage(in), out) << in;
    EXPECT_EQ(Utils::calculateScaleUpFactor(timespec{0, 500000000}), 2.0);
    EXPECT_EQ(Utils::calculateScaleUpFactor(timespec{0, 0}), 1.0);
    EXPECT_DOUBLE_EQ(Utils::calculateScaleUpFactor(timespec{4, 0}), 0.25);
}

namespace {

// Six samples of 1 to 6 ms; metric 0 a sparse rate, 1 a sparse level, 2 a
// plain rate, 3 sparse but not shown over time.
struct SparseFixture
{
    SparseFixture()
    {
        srand48_r(1, &random);
        list.reset(new quorvex::SSampleList(6, 0, random));
        list->setMetricCount(4);
        for (int i = 0; i < 6; ++i) {
            bool downsampled = false;
            const timespec interval = {0, (i + 1) * 1000000L};
            list->createSample(zortest::makeBacktraceData({1}), timespec{i, 0}, interval, interval, downsampled,
                               false, 1, {1}, timespec{0, 0}, false);
        }
        for (unsigned m = 0; m < 4; ++m) {
            Metric metric(QString::number(m), m);
            metric.setSparse(m != 2);
            metric.setDivideBySampleTime(divides(m));
            metric.setOnTimeDomain(m != 3);
            definitions.addMetric(metric);
        }
    }

    static bool divides(unsigned metric) { return metric == 0 || metric == 2; }

    void set(unsigned sample, unsigned metric, long value, timespec interval = {0, 0})
    {
        list->at(sample).metrics().setMetric(
            metric, quorvex::SMetric(SampleValue(value), interval,
                                     divides(metric) ? quorvex::SMetric::DivideBySampleInterval
                                                     : quorvex::SMetric::NoNormalisation));
    }

    std::vector<std::string> values(unsigned metric) const
    {
        std::vector<std::string> out;
        for (unsigned i = 0; i < list->size(); ++i) {
            const SampleValue v = list->at(i).metrics().getMetricValue(metric);
            out.push_back(v.empty() ? "-" : std::to_string(v.to_int64_t()));
        }
        return out;
    }

    drand48_data random;
    std::unique_ptr<quorvex::SSampleList> list;
    MetricDefinitions definitions;
};

using Values = std::vector<std::string>;

} // namespace

TEST(CorrectSparseMetrics, SpreadsEachValueOverTheGapBeforeIt)
{
    SparseFixture f;
    for (unsigned metric : {0, 2, 3})
        f.set(2, metric, 600);
    f.set(5, 0, 1500);
    f.set(2, 1, 7);
    f.set(5, 1, 9);
    PreloadSampleSourceUtils::correctSparseMetrics(f.list.get(), f.definitions);

    // Rates by interval: 1+2+3 ms share 600, 4+5+6 ms share 1500.
    EXPECT_EQ(f.values(0), (Values{"100", "200", "300", "400", "500", "600"}));
    EXPECT_TRUE(f.list->at(0).metrics().shouldDivideBySampleInterval(0));
    EXPECT_EQ(f.list->at(0).metrics().getMetricInterval(0).tv_nsec, 0);
    // Levels are copied.
    EXPECT_EQ(f.values(1), (Values{"7", "7", "7", "9", "9", "9"}));
    EXPECT_FALSE(f.list->at(3).metrics().shouldDivideBySampleInterval(1));
    // Not sparse, or not shown over time: untouched.
    EXPECT_EQ(f.values(2), (Values{"-", "-", "600", "-", "-", "-"}));
    EXPECT_EQ(f.values(3), (Values{"-", "-", "600", "-", "-", "-"}));
}

TEST(CorrectSparseMetrics, LeavesFirstSamplesAndEmptyMetricsAndUsesOwnIntervals)
{
    SparseFixture f;
    f.set(0, 0, 5);
    f.set(2, 0, 90, timespec{0, 2000000}); // sample 1 empty; 2 ms of its own against 2 ms
    PreloadSampleSourceUtils::correctSparseMetrics(f.list.get(), f.definitions);
    EXPECT_EQ(f.values(0), (Values{"5", "45", "45", "-", "-", "-"}));
    EXPECT_EQ(f.list->at(2).metrics().getMetricInterval(0).tv_nsec, 2000000);
    EXPECT_EQ(f.list->at(1).metrics().getMetricInterval(0).tv_nsec, 0);
    EXPECT_EQ(f.values(1), (Values{"-", "-", "-", "-", "-", "-"}));
}
