#include <QVector>
#include <gtest/gtest.h>

#include "sample.h"
#include "samplelist.h"

namespace {

// Samples whose time stamps are their numbers, so that survivors can be told apart.
QVector<Sample*> numbered(int count)
{
    QVector<Sample*> samples;
    for (int i = 0; i < count; ++i) {
        samples.append(new Sample);
        samples.last()->backendOnly_setTimestamp(i);
    }
    return samples;
}

QVector<long long> stamps(const SampleList& list)
{
    QVector<long long> result;
    for (const Sample* sample : list)
        result.append(sample->backendOnly_getTimestamp());
    return result;
}

TEST(SampleList, AFullListKeepsOneOfEachPairAndAlwaysAppends)
{
    QVector<Sample*> samples = numbered(5);
    SampleList list(4);
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(list.addSample(samples[i]));
    EXPECT_TRUE(list.addSample(samples[4]));

    const QVector<long long> kept = stamps(list);
    ASSERT_EQ(kept.size(), 3);
    EXPECT_TRUE(kept[0] == 0 || kept[0] == 1);
    EXPECT_TRUE(kept[1] == 2 || kept[1] == 3);
    EXPECT_EQ(kept[2], 4);
    EXPECT_EQ(list.lastSample(), samples[4]);

    // Thinned samples are dropped from the list, not deleted.
    list.clear();
    EXPECT_EQ(list.size(), 0);
    EXPECT_EQ(list.capacity(), 4);
    for (Sample* sample : samples)
        EXPECT_TRUE(sample->hasTimestamp());
    qDeleteAll(samples);
}

TEST(SampleList, TinyCapacitiesAndOddCounts)
{
    QVector<Sample*> samples = numbered(7);
    SampleList none(0);
    EXPECT_TRUE(none.addSample(samples[0]));
    EXPECT_TRUE(none.addSample(samples[1]));
    EXPECT_TRUE(none.addSample(samples[2]));
    EXPECT_EQ(none.size(), 2);

    // With an odd count the newest sample survives a thinning.
    SampleList odd(100);
    for (Sample* sample : samples)
        odd.addSample(sample);
    odd.downsample();
    EXPECT_EQ(odd.size(), 4);
    EXPECT_EQ(odd.lastSample(), samples[6]);
    qDeleteAll(samples);
}

// Over many thinnings each member of a pair survives about half the time,
// and a long run ends with survivors spread over all of it in order.
TEST(SampleList, ThinningIsFairAndKeepsTheRunEvenlyCovered)
{
    qsrand(1234);
    QVector<Sample*> pair = numbered(2);
    int firstKept = 0;
    const int trials = 20000;
    for (int i = 0; i < trials; ++i) {
        SampleList list(2);
        list.addSample(pair[0]);
        list.addSample(pair[1]);
        list.downsample();
        firstKept += list.lastSample() == pair[0];
    }
    // Four standard deviations of a fair coin over 20000 throws is about 280.
    EXPECT_NEAR(firstKept, trials / 2, 300);
    qDeleteAll(pair);

    // The source doubles its spacing each time the list says it thinned.
    QVector<Sample*> run = numbered(100000);
    SampleList list(1000);
    int stride = 1;
    for (int i = 0; i < run.size(); i += stride) {
        if (list.addSample(run[i]))
            stride *= 2;
    }
    const QVector<long long> kept = stamps(list);
    EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end()));
    EXPECT_GE(kept.size(), 500);
    EXPECT_LE(kept.size(), 1000);
    // One survivor in each stretch of the run's final spacing: no gap
    // reaches two spacings, the start included.
    long long previous = -1;
    for (long long stamp : kept) {
        EXPECT_LT(stamp - previous, 2 * stride);
        previous = stamp;
    }
    EXPECT_GT(previous, 100000 - 2 * stride);
    qDeleteAll(run);
}

} // namespace
