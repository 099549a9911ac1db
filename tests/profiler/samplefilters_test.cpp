#include <gtest/gtest.h>

#include "sample.h"
#include "samplefilters.h"
#include "samplelist.h"

namespace {

const QString Metric = QStringLiteral("m");

struct Curve
{
    explicit Curve(std::initializer_list<double> values) : list(1000)
    {
        for (double value : values) {
            Sample* sample = new Sample;
            sample->setMetric(Metric, SampleValue(value));
            list.addSample(sample);
        }
    }
    ~Curve() { qDeleteAll(list.begin(), list.end()); }
    QVector<double> values() const
    {
        QVector<double> result;
        for (const Sample* sample : list)
            result.append(sample->metric(Metric).singleValue().to_double());
        return result;
    }
    SampleList list;
};

TEST(SampleFilters, NeighboursCompareWholeUnitsOnly)
{
    EXPECT_TRUE(areNeighbours(SampleValue(20.9), SampleValue(10.0), 10));
    EXPECT_FALSE(areNeighbours(SampleValue(21.0), SampleValue(10.0), 10));
    EXPECT_TRUE(areNeighbours(SampleValue(0L), SampleValue(10UL), 10));
    EXPECT_FALSE(areNeighbours(SampleValue(1e300), SampleValue(0.0), 10));
    EXPECT_FALSE(areNeighbours(SampleValue(-1e300), SampleValue(0.0), 10));
}

TEST(SampleFilters, OutliersAreRepairedAndStepsKept)
{
    const struct
    {
        std::initializer_list<double> in;
        QVector<double> out;
    } cases[] = {
        { {}, {} },
        { { 5 }, { 5 } },
        { { 0, 11 }, { 0, 0 } },
        { { 0, 10 }, { 0, 10 } },
        // A lone spike takes the mean of its neighbours; a lone first value
        // takes that of the two after it.
        { { 100, 10, 12, 90, 14, 16 }, { 11, 10, 12, 13, 14, 16 } },
        // A new level that lasts three samples stays.
        { { 10, 10, 50, 51, 52, 52 }, { 10, 10, 50, 51, 52, 52 } },
        // Two odd samples between agreeing ones both take the mean.
        { { 40, 40, 0, 1, 42, 42 }, { 40, 40, 41, 41, 42, 42 } },
    };
    for (const auto& c : cases) {
        Curve curve(c.in);
        removeOutliers(curve.list, Metric);
        EXPECT_EQ(curve.values(), c.out) << c.in.size();
    }

    // An empty value among the first three leaves everything alone.
    Curve gap{ 100, 0, 0 };
    (*++gap.list.begin())->setMetric(Metric, SampleValue());
    removeOutliers(gap.list, Metric);
    EXPECT_EQ(gap.values(), QVector<double>({ 100, 0, 0 }));
}

TEST(SampleFilters, SmoothingMovesHalfWayToEachWindowsMean)
{
    Curve curve{ 0, 10, 20, 40, 7 };
    smoothFilter(curve.list, Metric, 2);
    EXPECT_EQ(curve.values(), QVector<double>({ 2.5, 7.5, 25, 35, 7 }));

    Curve short_{ 4, 8 };
    smoothFilter(short_.list, Metric, 3);
    EXPECT_EQ(short_.values(), QVector<double>({ 4, 8 }));
}

} // namespace
