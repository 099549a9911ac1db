#include "recordio.h"
#include "smetrics.h"
#include "ssample.h"
#include "timespec_utils.h"

#include <gtest/gtest.h>

using namespace quorvex;
using namespace zortest;

namespace {
const timespec ZERO = {0, 0};

SMetric dividing(SampleValue v, timespec interval)
{
    return SMetric(v, interval, SMetric::DivideBySampleInterval);
}

SMetric keeping(SampleValue v, timespec interval)
{
    return SMetric(v, interval, SMetric::NoNormalisation);
}

void makeSimple(SSample& sample, int tid, timespec cpu, timespec span = {0, 1000})
{
    sample.makeValid(makeBacktraceData({1, 2}), timespec{1, 0}, span, span, false, false, tid, {tid}, cpu, false);
}

void addThreads(SSample& sample, const std::vector<std::pair<int, long>>& tidsAndCpuNs)
{
    for (const auto& t : tidsAndCpuNs)
        sample.addThreadBacktrace(makeBacktraceData({1}), false, t.first, timespec{0, t.second}, false);
}
} // namespace

TEST(SMetric, MergeRules)
{
    SMetric emptyRate;
    emptyRate.setDivideBySampleInterval(true);
    struct Case
    {
        SMetric a, b;
        SampleValue value;
        timespec interval;
    };
    const Case cases[] = {
        {SMetric(), SMetric(), SampleValue(), ZERO},
        {emptyRate, dividing(5L, {0, 100}), SampleValue(5L), {0, 100}},
        {dividing(5L, {0, 999999999}), emptyRate, SampleValue(5L), {0, 999999999}},
        {dividing(5L, {0, 999999999}), dividing(7L, {0, 2}), SampleValue(12L), {1, 1}},
        {keeping(3.5, {0, 10}), keeping(9.0, {0, 20}), SampleValue(3.5), {0, 10}},
    };
    for (const Case& c : cases) {
        SMetric merged = c.a;
        merged.merge(c.b);
        EXPECT_EQ(merged.getValue(), c.value) << (&c - cases);
        EXPECT_TRUE(timespec_equal(merged.getInterval(), c.interval)) << (&c - cases);
        EXPECT_EQ(merged.shouldDivideBySampleInterval(), c.a.shouldDivideBySampleInterval());
    }
    EXPECT_DEATH(dividing(1L, ZERO).merge(SMetric()),
                 "Assertion `mShouldDivideBySampleInterval == other.mShouldDivideBySampleInterval' failed");
}

TEST(SMetrics, InvalidateKeepsSizeAndFlagsAndBackfillNeedsTheFlag)
{
    SMetrics metrics;
    metrics.initializeMetrics(3);
    metrics.setMetric(0, dividing(1L, timespec{0, 5}));
    metrics.setMetric(1, SMetric(2L, ZERO, SMetric::NoNormalisation, SMetric::CollectBackfilled));
    metrics.backfillMetric(1, SampleValue(8L));
    EXPECT_EQ(metrics.getMetricValue(1), SampleValue(8L));
    EXPECT_DEATH(metrics.backfillMetric(0, SampleValue(1L)), "Assertion `metrics\\[metricId\\]\\.isBackfilled\\(\\)' failed");
    EXPECT_DEATH(metrics.setMetric(3, SMetric()), "Assertion `metricId < metrics\\.size\\(\\)' failed");

    metrics.invalidate();
    EXPECT_FALSE(metrics.isValid());
    metrics.setValid();
    EXPECT_EQ(metrics.size(), 3u);
    EXPECT_TRUE(metrics.getMetricValue(0).empty());
    EXPECT_EQ(metrics.getMetricInterval(0).tv_nsec, 0);
    EXPECT_TRUE(metrics.shouldDivideBySampleInterval(0));
}

// The count comes from the file; only a flag byte of exactly 1 reads as true,
// and a missing last one reads false.
TEST(SMetrics, FileFormSizeAndFlagBytes)
{
    SMetrics in, out;
    in.initializeMetrics(2);
    in.setMetric(0, dividing(-5L, timespec{2, 3}));
    in.setMetric(1, dividing(SampleValue(), ZERO));
    out.initializeMetrics(9);
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(out.size(), 2u);
    EXPECT_TRUE(out.shouldDivideBySampleInterval(0));
    TempFile file;
    writePatched(file, in, 8 + 4 + 9 + 16, 2);
    ASSERT_TRUE(readRecord(file, out));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(0));
    writeTruncated(file, in, 1);
    EXPECT_TRUE(readRecord(file, out));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(1));
}

TEST(SSample, StateChecksAndMetricIntervalFallback)
{
    SSample sample(1);
    makeSimple(sample, 1, ZERO, timespec{0, 777});
    EXPECT_TRUE(sample.isValid());
    EXPECT_DEATH(makeSimple(sample, 1, ZERO), "Assertion `!mMainThreadTrace\\.isValid\\(\\)' failed");
    sample.metrics().initializeMetrics(2);
    sample.metrics().setMetric(1, dividing(1L, timespec{0, 5}));
    EXPECT_EQ(sample.getMetricInterval(0).tv_nsec, 777);
    EXPECT_EQ(sample.getMetricInterval(1).tv_nsec, 5);
    sample.invalidate();
    EXPECT_FALSE(sample.isValid());
    EXPECT_FALSE(sample.metrics().isValid());
    EXPECT_EQ(sample.metrics().size(), 2u);
}

TEST(SSample, CombineMetricsAccumulatesSpansEvenFromAnInvalidNeighbour)
{
    SSample kept(0), dropped(0), fresh(0);
    makeSimple(kept, 1, ZERO, timespec{0, 600000000});
    kept.metrics().initializeMetrics(1);
    kept.metrics().setMetric(0, dividing(2L, timespec{0, 1}));
    dropped.makeValid(makeBacktraceData({}), ZERO, timespec{0, 600000000}, timespec{0, 600000000}, true, false, 2,
                      {}, ZERO, false);
    dropped.metrics().invalidate();

    kept.combineMetrics(dropped);
    EXPECT_TRUE(kept.downsamplingHappened());
    EXPECT_TRUE(timespec_equal(kept.getInterval(), timespec{1, 200000000}));
    EXPECT_TRUE(timespec_equal(kept.getWindow(), timespec{1, 200000000}));
    EXPECT_EQ(kept.metrics().getMetricValue(0), SampleValue(2L));
    EXPECT_EQ(kept.getTimestamp().tv_sec, 1);

    // Only the other side valid: its metrics are taken over.
    makeSimple(fresh, 3, ZERO);
    fresh.combineMetrics(kept);
    EXPECT_TRUE(fresh.metrics().isValid());
    EXPECT_EQ(fresh.metrics().getMetricValue(0), SampleValue(2L));
}

TEST(SSample, CombineThreadCpuTimeAddsByThreadId)
{
    SSample kept(2), dropped(2);
    makeSimple(kept, 1, timespec{1, 0});
    addThreads(kept, {{2, 0}, {3, 0}});
    makeSimple(dropped, 2, timespec{0, 20});
    addThreads(dropped, {{1, 10}, {3, 30}, {9, 90}});
    kept.combineThreadCpuTime(dropped);
    EXPECT_TRUE(timespec_equal(kept.mainThreadTrace().cpuTime(), timespec{1, 10}));
    EXPECT_EQ(kept.otherThreads()[0].cpuTime().tv_nsec, 20);
    EXPECT_EQ(kept.otherThreads()[1].cpuTime().tv_nsec, 30);

    // The same main thread on both sides adds once.
    SSample a(0), b(0);
    makeSimple(a, 5, timespec{0, 1});
    makeSimple(b, 5, timespec{0, 2});
    a.combineThreadCpuTime(b);
    EXPECT_EQ(a.mainThreadTrace().cpuTime().tv_nsec, 3);
}

TEST(SSample, FileFormEmptyTraceCutAndBadTag)
{
    SSample in(0), out(0);
    in.makeValid(makeBacktraceData({}), timespec{5, 6}, timespec{0, 7}, timespec{0, 8}, true, true, 3, {3, -1},
                 timespec{1, 2}, true);
    in.metrics().initializeMetrics(0);
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(compareSamples(in, out), "");

    TempFile file;
    file.setContents({'s'});
    testing::internal::CaptureStderr();
    EXPECT_FALSE(readRecord(file, out));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    writePatched(file, in, -1, 'x');
    EXPECT_DEATH(readRecord(file, out), "Assertion `cbuff\\[1\\] == 's'' failed");
}

TEST(SGpuKernelHit, LineHitsAddUpAndSortAsSigned)
{
    SGpuKernelHit hit(1, 2, timespec{1, 0}, timespec{2, 0});
    hit.addLineHit(10, GpuProfilerTypes::StallReason::MemoryThrottle, 4, 1);
    hit.addLineHit(10, GpuProfilerTypes::StallReason::MemoryThrottle, 3, 3);
    hit.addLineHit(0x80000000u, GpuProfilerTypes::StallReason::None, 1, 0);
    ASSERT_EQ(hit.lineHits().size(), 2u);
    EXPECT_EQ(hit.lineHits().begin()->first, 0x80000000u);
    const SGpuKernelHit::TLineHits& ten = hit.lineHits().at(10);
    EXPECT_EQ(ten.samples[GpuProfilerTypes::StallReason::MemoryThrottle], 7u);
    EXPECT_EQ(ten.latencySamples[GpuProfilerTypes::StallReason::MemoryThrottle], 4u);
    EXPECT_DEATH(hit.addLineHit(1, static_cast<GpuProfilerTypes::StallReason::Enum>(12), 1, 0),
                 "Assertion `stallReason < quorvex::GpuProfilerTypes::StallReason::COUNT' failed");
}

TEST(SGpuKernelHitDeathTest, RepeatedLineInTheFileIsAnAssertion)
{
    SGpuKernelHit hit, out;
    hit.addLineHit(1, GpuProfilerTypes::StallReason::None, 1, 0);
    hit.addLineHit(2, GpuProfilerTypes::StallReason::None, 1, 0);
    TempFile file;
    // The second entry's line number, after the 60-byte head and one entry.
    writePatched(file, hit, 3 + 4 + 4 + 32 + 24 + 4 + 100, 1);
    EXPECT_DEATH(readRecord(file, out), "Assertion `mLineHits\\.size\\(\\)==numLineHits' failed");
}

TEST(ZorSharedPtr, LastDetachDeletes)
{
    struct Counted
    {
        int* deaths;
        ~Counted() { ++*deaths; }
    };
    int deaths = 0;
    zor_shared_ptr<Counted> a(new Counted{&deaths});
    zor_shared_ptr<Counted> b(a);
    EXPECT_EQ(a.refCount(), 2);
    a.detach();
    EXPECT_TRUE(a.isNull());
    EXPECT_EQ(deaths, 0);
    b = b;
    EXPECT_EQ(b.refCount(), 1);
    b.detach();
    EXPECT_EQ(deaths, 1);
    EXPECT_DEATH((void)b->deaths, "Assertion `d' failed");
}
