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
} // namespace

TEST(SMetric, MergeRules)
{
    SMetric a;
    a.merge(SMetric());
    EXPECT_TRUE(a.getValue().empty());

    SMetric empty;
    empty.setDivideBySampleInterval(true);
    empty.merge(dividing(SampleValue(5L), timespec{0, 100}));
    EXPECT_EQ(empty.getValue(), SampleValue(5L));
    EXPECT_EQ(empty.getInterval().tv_nsec, 100);
    EXPECT_TRUE(empty.shouldDivideBySampleInterval());

    SMetric rate = dividing(SampleValue(5L), timespec{0, 999999999});
    SMetric emptyRate;
    emptyRate.setDivideBySampleInterval(true);
    rate.merge(emptyRate);
    EXPECT_EQ(rate.getValue(), SampleValue(5L));
    rate.merge(dividing(SampleValue(7L), timespec{0, 2}));
    EXPECT_EQ(rate.getValue(), SampleValue(12L));
    EXPECT_EQ(rate.getInterval().tv_sec, 1);
    EXPECT_EQ(rate.getInterval().tv_nsec, 1);

    SMetric level = keeping(SampleValue(3.5), timespec{0, 10});
    level.merge(keeping(SampleValue(9.0), timespec{0, 20}));
    EXPECT_EQ(level.getValue(), SampleValue(3.5));
    EXPECT_EQ(level.getInterval().tv_nsec, 10);

    SMetric other;
    EXPECT_DEATH(rate.merge(other),
                 "Assertion `mShouldDivideBySampleInterval == other.mShouldDivideBySampleInterval' failed");
}

TEST(SMetrics, InvalidateKeepsSizeAndFlagsAndBackfillNeedsTheFlag)
{
    SMetrics metrics;
    metrics.initializeMetrics(3);
    metrics.setMetric(0, dividing(SampleValue(1L), timespec{0, 5}));
    metrics.setMetric(1, SMetric(SampleValue(2L), ZERO, SMetric::NoNormalisation, SMetric::CollectBackfilled));
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

TEST(SMetrics, FileFormKeepsValuesIntervalsAndDivideFlags)
{
    SMetrics in;
    in.initializeMetrics(4);
    in.setMetric(0, dividing(SampleValue(-5L), timespec{2, 3}));
    in.setMetric(1, keeping(SampleValue(7UL), timespec{0, 9}));
    in.setMetric(2, keeping(SampleValue(0.25), ZERO));
    in.setMetric(3, dividing(SampleValue(), ZERO));
    SMetrics out;
    out.initializeMetrics(9);
    ASSERT_TRUE(roundTrip(in, out));
    ASSERT_EQ(out.size(), 4u);
    EXPECT_TRUE(out.isValid());
    EXPECT_EQ(out.getMetricValue(0), SampleValue(-5L));
    EXPECT_EQ(out.getMetricInterval(0).tv_sec, 2);
    EXPECT_TRUE(out.shouldDivideBySampleInterval(0));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(1));
    EXPECT_EQ(out.getMetricValue(2), SampleValue(0.25));
    EXPECT_TRUE(out.getMetricValue(3).empty());
    EXPECT_TRUE(out.shouldDivideBySampleInterval(3));

    // Only a flag byte of exactly 1 reads as true; a missing one reads false.
    TempFile file;
    writeRecord(file, in);
    patchByte(file, 8 + 4 + 9 + 16, 2);
    ASSERT_TRUE(readRecord(file, out));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(0));
    writeRecord(file, in);
    truncateBy(file, 1);
    EXPECT_TRUE(readRecord(file, out));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(3));
}

TEST(SSample, StateChecksAndMetricIntervalFallback)
{
    SSample sample(1);
    EXPECT_FALSE(sample.isValid());
    makeSimple(sample, 1, ZERO, timespec{0, 777});
    EXPECT_TRUE(sample.isValid());
    EXPECT_DEATH(makeSimple(sample, 1, ZERO), "Assertion `!mMainThreadTrace\\.isValid\\(\\)' failed");
    EXPECT_DEATH(sample.setTimestamp(timespec{0, ONE_SECOND_NS}), "Assertion `timestamp\\.tv_nsec < ONE_SECOND_NS' failed");
    sample.setTimestamp(timespec{0, 999999999});

    sample.metrics().initializeMetrics(2);
    sample.metrics().setMetric(1, dividing(SampleValue(1L), timespec{0, 5}));
    EXPECT_EQ(sample.getMetricInterval(0).tv_nsec, 777);
    EXPECT_EQ(sample.getMetricInterval(1).tv_nsec, 5);

    sample.invalidate();
    EXPECT_FALSE(sample.isValid());
    EXPECT_FALSE(sample.metrics().isValid());
    EXPECT_EQ(sample.metrics().size(), 2u);
}

TEST(SSample, CombineMetricsAccumulatesSpansEvenFromAnInvalidNeighbour)
{
    SSample kept(0), dropped(0);
    makeSimple(kept, 1, ZERO, timespec{0, 600000000});
    kept.metrics().initializeMetrics(1);
    kept.metrics().setMetric(0, dividing(SampleValue(2L), timespec{0, 1}));
    dropped.makeValid(makeBacktraceData({}), ZERO, timespec{0, 600000000}, timespec{0, 600000000}, true, false, 2,
                      {}, ZERO, false);
    dropped.metrics().invalidate();

    kept.combineMetrics(dropped);
    EXPECT_TRUE(kept.downsamplingHappened());
    EXPECT_EQ(kept.getInterval().tv_sec, 1);
    EXPECT_EQ(kept.getInterval().tv_nsec, 200000000);
    EXPECT_EQ(kept.getWindow().tv_sec, 1);
    EXPECT_EQ(kept.metrics().getMetricValue(0), SampleValue(2L));
    EXPECT_EQ(kept.getTimestamp().tv_sec, 1);

    // Only the other side valid: its metrics are taken over.
    SSample fresh(0);
    makeSimple(fresh, 3, ZERO);
    fresh.combineMetrics(kept);
    EXPECT_TRUE(fresh.metrics().isValid());
    EXPECT_EQ(fresh.metrics().getMetricValue(0), SampleValue(2L));
}

TEST(SSample, CombineThreadCpuTimeAddsByThreadId)
{
    SSample kept(2), dropped(2);
    makeSimple(kept, 1, timespec{1, 0});
    kept.addThreadBacktrace(makeBacktraceData({1}), false, 2, timespec{2, 0}, false);
    kept.addThreadBacktrace(makeBacktraceData({1}), false, 3, timespec{3, 0}, false);
    makeSimple(dropped, 2, timespec{0, 20});
    dropped.addThreadBacktrace(makeBacktraceData({1}), false, 1, timespec{0, 10}, false);
    dropped.addThreadBacktrace(makeBacktraceData({1}), false, 3, timespec{0, 30}, false);
    dropped.addThreadBacktrace(makeBacktraceData({1}), false, 9, timespec{0, 90}, false);

    kept.combineThreadCpuTime(dropped);
    EXPECT_EQ(kept.mainThreadTrace().cpuTime().tv_nsec, 10);
    EXPECT_EQ(kept.otherThreads()[0].cpuTime().tv_nsec, 20);
    EXPECT_EQ(kept.otherThreads()[1].cpuTime().tv_nsec, 30);

    // The same main thread on both sides adds once.
    SSample a(0), b(0);
    makeSimple(a, 5, timespec{0, 1});
    makeSimple(b, 5, timespec{0, 2});
    a.combineThreadCpuTime(b);
    EXPECT_EQ(a.mainThreadTrace().cpuTime().tv_nsec, 3);
}

TEST(SSample, FileFormEdgeCases)
{
    SSample in(0);
    in.makeValid(makeBacktraceData({}, 0), timespec{5, 6}, timespec{0, 7}, timespec{0, 8}, true, true, 3, {3, -1},
                 timespec{1, 2}, true);
    in.metrics().initializeMetrics(0);
    SSample out(0);
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(compareSamples(in, out), "");

    TempFile file;
    file.setContents({'s'});
    SSample cut(0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(readRecord(file, cut));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    writeRecord(file, in);
    patchByte(file, file.contents().size() - 1, 'x');
    SSample bad(0);
    EXPECT_DEATH(readRecord(file, bad), "Assertion `cbuff\\[1\\] == 's'' failed");

    SSample unset(0);
    unset.makeValid(makeBacktraceData({1}, UNW_ZOR_NOT_SET), ZERO, ZERO, ZERO, false, false, 1, {}, ZERO, false);
    unset.metrics().initializeMetrics(0);
    EXPECT_DEATH(writeRecord(file, unset), "Assertion `mMainThreadTrace\\.unwindStatus\\(\\)!=UNW_ZOR_NOT_SET' failed");
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
    EXPECT_DEATH(hit.addLineHit(1, GpuProfilerTypes::StallReason::None, 3, 4),
                 "Assertion `numSamples >= numLatencySamples' failed");

    hit.setSamplingRecordInfo(5, 600, 7);
    SGpuKernelHit out;
    ASSERT_TRUE(roundTrip(hit, out));
    EXPECT_EQ(compareKernelHits(hit, out), "");
    SGpuKernelHit none;
    ASSERT_TRUE(roundTrip(none, out));
    EXPECT_TRUE(out.lineHits().empty());
}

TEST(SGpuKernelHitDeathTest, RepeatedLineInTheFileIsAnAssertion)
{
    SGpuKernelHit hit;
    hit.addLineHit(1, GpuProfilerTypes::StallReason::None, 1, 0);
    hit.addLineHit(2, GpuProfilerTypes::StallReason::None, 1, 0);
    TempFile file;
    writeRecord(file, hit);
    // The second entry's line number, after the 60-byte head and one entry.
    patchByte(file, 3 + 4 + 4 + 32 + 24 + 4 + 100, 1);
    SGpuKernelHit out;
    EXPECT_DEATH(readRecord(file, out), "Assertion `mLineHits\\.size\\(\\)==numLineHits' failed");
}

namespace {
struct Counted
{
    explicit Counted(int* deaths) : deaths(deaths) {}
    ~Counted() { ++*deaths; }
    int* deaths;
};
} // namespace

TEST(ZorSharedPtr, LastDetachDeletes)
{
    int deaths = 0;
    zor_shared_ptr<Counted> a(new Counted(&deaths));
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
