// The raw records: their rules, their file forms and the assertions that
// guard them.
#include "samplefilebuilder.h"
#include "scallsite.h"
#include "smetrics.h"
#include "ssamplelist.h"
#include "timespec_utils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fcntl.h>
#include <map>
#include <tuple>
#include <unistd.h>

using namespace quorvex;
using namespace zortest;

namespace {

const timespec ZERO = {0, 0};
// Tags, four words, two frames and end tags: one SSimpleBacktrace of two frames.
const long SIMPLE_BYTES = 3 + 4 * 8 + 2 * 8 + 4;

// The record's file form, less its last `drop` bytes, with the byte at
// `offset` (from the end when negative) replaced when `value` is given.
template <typename Record>
void writeRecord(const TempFile& file, const Record& record, size_t drop = 0, long offset = 0, int value = -1)
{
    const int fd = file.openForWriting();
    record.writeToFile(fd);
    close(fd);
    std::vector<char> bytes = file.contents();
    bytes.resize(bytes.size() - drop);
    if (value >= 0)
        bytes.at(static_cast<size_t>(offset < 0 ? static_cast<long>(bytes.size()) + offset : offset)) =
            static_cast<char>(value);
    file.setContents(bytes);
}

template <typename Record>
bool readRecord(const TempFile& file, Record& record)
{
    const int fd = open(file.path().c_str(), O_RDONLY);
    const bool ok = record.readFromFile(fd);
    close(fd);
    return ok;
}

template <typename In, typename Out>
bool roundTrip(const In& in, Out& out)
{
    TempFile file;
    writeRecord(file, in);
    return readRecord(file, out);
}

SMetric dividing(SampleValue v, timespec interval)
{
    return SMetric(v, interval, SMetric::DivideBySampleInterval);
}

// A valid sample of one frame per thread; other threads as (tid, CPU ns).
void makeSample(SSample& sample, int tid, long cpuNs, timespec span = {0, 1000},
                const std::vector<std::pair<int, long>>& others = {})
{
    sample.makeValid(makeBacktraceData({1}), timespec{1, 0}, span, span, false, false, tid, {tid}, timespec{0, cpuNs},
                     false);
    for (const auto& t : others)
        sample.addThreadBacktrace(makeBacktraceData({1}), false, t.first, timespec{0, t.second}, false);
}

struct ListFixture
{
    explicit ListFixture(int limit, unsigned seed = 7, bool lazily = false)
    {
        srand48_r(seed, &random);
        list.reset(new SSampleList(limit, 2, random, lazily));
        list->setMetricCount(1);
    }

    // A sample told apart by its tid, standing for `window` nanoseconds.
    SSample* add(int tid, long window, long atSecond = 0)
    {
        const timespec span = {0, window};
        SSample* s = list->createSample(makeBacktraceData({1}), timespec{atSecond, 0}, span, span, downsampled, false,
                                        tid, {tid}, ZERO, false);
        s->metrics().setValid();
        return s;
    }

    int tid(unsigned index) const { return list->at(index).mainThreadTrace().tid(); }

    drand48_data random;
    std::unique_ptr<SSampleList> list;
    bool downsampled = false; // by the last add
};

} // namespace

// The assertion report carries file, line, signature and expression, and
// the process ends whatever the build type.
TEST(TimespecDeathTest, UnnormalisedOperandEndsTheProcessWithAFullReport)
{
    timespec bad = {0, ONE_SECOND_NS};
    EXPECT_DEATH(timespec_add(bad, ZERO),
                 "ZOR: .*timespec_utils\\.cpp:[0-9]+: void quorvex::timespec_add\\(timespec&, const timespec&\\): "
                 "Assertion `a\\.tv_nsec < ONE_SECOND_NS' failed\\.");
}

TEST(SSimpleBacktrace, FileFormAndItsAssertions)
{
    SSimpleBacktrace in, out;
    EXPECT_DEATH(out.tid(), "Assertion `mValid' failed");
    EXPECT_DEATH(SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyExact),
                 "ZOR: Unable to change backtrace storage policy\n.*Assertion `false' failed");
    in.set(makeBacktraceData({0xffffffffffffffffUL, 0x401000}, -3, true), -1);
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(std::make_tuple(out.tid(), out.unwindStatus(), out.stopsAtCallingFrame(), out.trace()),
              std::make_tuple(-1, -3, true, in.trace()));
    TempFile file;
    writeRecord(file, in);
    EXPECT_EQ(file.contents().size(), static_cast<size_t>(SIMPLE_BYTES));

    // Cut short: false, and the record that was valid is left invalid.
    writeRecord(file, in, 10);
    EXPECT_FALSE(readRecord(file, out));
    EXPECT_FALSE(out.isValid());
    writeRecord(file, in, 0, 3 + 8 + 8, 2); // the calling-frame flag
    EXPECT_DEATH(readRecord(file, out), "Assertion `stopsAtCallingFrame==0 \\|\\| stopsAtCallingFrame==1' failed");

    SBacktrace thread, threadOut;
    thread.set(makeBacktraceData({10, 20}), true, 42, timespec{3, 999999999}, true);
    writeRecord(file, thread, 0, SIMPLE_BYTES + 2, 5); // the in-MPI word, right after "bt"
    EXPECT_DEATH(readRecord(file, threadOut), "Assertion `inMpi==0 \\|\\| inMpi==1' failed");
}

TEST(SBacktraceList, CopiesAreDeepAndIndexesChecked)
{
    SBacktraceList list(2), assigned(4);
    for (int i = 0; i < 3; ++i)
        list.addBacktrace(makeBacktraceData({1, 2}), i == 0, 100 + i, timespec{1, i}, false);
    EXPECT_DEATH(list[3], "ZOR: SBacktraceList index out of bounds: 3, size=3");
    SBacktraceList copy(list);
    EXPECT_TRUE(copy.isPreallocated(&copy[0]));
    copy[0].cpuTime().tv_sec = 99;
    EXPECT_EQ(list[0].cpuTime().tv_sec, 1);
    assigned = list;
    EXPECT_EQ(compareBacktraces(assigned[2], list[2]), "");
    assigned = assigned;
    EXPECT_EQ(assigned.size(), 3u);
}

TEST(SCallSite, CutShortReadsFalseAndStaysInvalid)
{
    BacktraceData data = makeBacktraceData({0x10, 0x20}, 1);
    SCallSite in(12, -4, &data, 0xfeedfacecafeUL), out;
    TempFile file;
    writeRecord(file, in, 1);
    EXPECT_FALSE(readRecord(file, out));
    EXPECT_DEATH(out.parallelId(), "Assertion `mValid' failed");
}

TEST(SMetric, MergeRules)
{
    SMetric emptyRate;
    emptyRate.setDivideBySampleInterval(true);
    const SMetric level(3.5, timespec{0, 10}, SMetric::NoNormalisation);
    struct Case
    {
        SMetric a, b;
        SampleValue value;
        timespec interval;
    } const cases[] = {
        {SMetric(), SMetric(), SampleValue(), ZERO},
        {emptyRate, dividing(5L, {0, 100}), SampleValue(5L), {0, 100}},
        {dividing(5L, {0, 999999999}), emptyRate, SampleValue(5L), {0, 999999999}},
        {dividing(5L, {0, 999999999}), dividing(7L, {0, 2}), SampleValue(12L), {1, 1}},
        {level, SMetric(9.0, timespec{0, 20}, SMetric::NoNormalisation), SampleValue(3.5), {0, 10}},
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

// Invalidating keeps the size and the flags. In the file, only a flag byte of
// exactly 1 reads as true, and a missing last one reads false.
TEST(SMetrics, InvalidateAndFlagBytes)
{
    SMetrics in, out;
    in.initializeMetrics(2);
    in.setMetric(0, dividing(-5L, timespec{2, 3}));
    in.setMetric(1, SMetric(2L, ZERO, SMetric::NoNormalisation, SMetric::CollectBackfilled));

    out.initializeMetrics(9);
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(out.size(), 2u);
    EXPECT_TRUE(out.shouldDivideBySampleInterval(0));
    TempFile file;
    writeRecord(file, in, 0, 8 + 4 + 9 + 16, 2);
    ASSERT_TRUE(readRecord(file, out));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(0));

    in.setMetric(1, dividing(SampleValue(), ZERO));
    in.invalidate();
    EXPECT_EQ(std::make_tuple(in.isValid(), in.size(), in.getMetricValue(0).empty(), in.shouldDivideBySampleInterval(0)),
              std::make_tuple(false, 2u, true, true));
    in.setValid();
    writeRecord(file, in, 1);
    EXPECT_TRUE(readRecord(file, out));
    EXPECT_FALSE(out.shouldDivideBySampleInterval(1));
}

TEST(SSample, MakeValidTwiceIsAnAssertionAndMetricsFallBackOnTheSampleInterval)
{
    SSample sample(1);
    makeSample(sample, 1, 0, timespec{0, 777});
    EXPECT_DEATH(makeSample(sample, 1, 0), "Assertion `!mMainThreadTrace\\.isValid\\(\\)' failed");
    sample.metrics().initializeMetrics(2);
    sample.metrics().setMetric(1, dividing(1L, timespec{0, 5}));
    EXPECT_EQ(sample.getMetricInterval(0).tv_nsec, 777);
    EXPECT_EQ(sample.getMetricInterval(1).tv_nsec, 5);
}

TEST(SSample, CombineMetricsAccumulatesSpansEvenFromAnInvalidNeighbour)
{
    SSample kept(0), dropped(0), fresh(0);
    makeSample(kept, 1, 0, timespec{0, 600000000});
    kept.metrics().initializeMetrics(1);
    kept.metrics().setMetric(0, dividing(2L, timespec{0, 1}));
    dropped.makeValid(makeBacktraceData({}), ZERO, timespec{0, 600000000}, timespec{0, 600000000}, true, false, 2,
                      {}, ZERO, false);
    dropped.metrics().invalidate();

    kept.combineMetrics(dropped);
    EXPECT_TRUE(kept.downsamplingHappened());
    EXPECT_TRUE(timespec_equal(kept.getInterval(), timespec{1, 200000000}));
    EXPECT_TRUE(timespec_equal(kept.getWindow(), timespec{1, 200000000}));
    EXPECT_EQ(kept.getTimestamp().tv_sec, 1);
    EXPECT_EQ(kept.metrics().getMetricValue(0), SampleValue(2L));
    // Only the other side valid: its metrics are taken over.
    makeSample(fresh, 3, 0);
    fresh.combineMetrics(kept);
    EXPECT_EQ(fresh.metrics().getMetricValue(0), SampleValue(2L));
}

TEST(SSample, CombineThreadsAddsTimeByThreadAndKeepsThreadsOfEitherSide)
{
    drand48_data random;
    srand48_r(3, &random);
    SSample kept(4), dropped(4), full(1), a(0), b(0);
    // Frames tell the sides apart: 1 for the kept one, 2 for the dropped one.
    makeSample(kept, 1, 100, ZERO, {{2, 0}, {3, 0}, {4, 50}});
    dropped.makeValid(makeBacktraceData({2}), ZERO, ZERO, ZERO, false, false, 2, {2, 1, 3, 4, 9}, timespec{0, 20}, false);
    for (const auto& t : std::vector<std::pair<int, long>>{{1, 10}, {3, 30}, {4, 0}, {9, 90}})
        dropped.addThreadBacktrace(makeBacktraceData({2}), false, t.first, timespec{0, t.second}, false);
    kept.combineThreads(dropped, random);
    EXPECT_EQ(kept.mainThreadTrace().cpuTime().tv_nsec, 110);
    // tid: CPU ns and the side whose frames it keeps. 3 spent its time only
    // on the dropped side, 4 only on the kept one; 9 answered only there.
    const std::map<int, std::pair<long, unsigned long>> expected = {{2, {20, 1}}, {3, {30, 2}}, {4, {50, 1}}, {9, {90, 2}}};
    ASSERT_EQ(kept.otherThreads().count(), expected.size());
    for (std::size_t i = 0; i < kept.otherThreads().count(); ++i) {
        const SBacktrace& bt = kept.otherThreads()[i];
        EXPECT_EQ(std::make_pair(bt.cpuTime().tv_nsec, bt.trace().at(0)), expected.at(bt.tid())) << bt.tid();
    }
    EXPECT_EQ(std::count(kept.threadList().begin(), kept.threadList().end(), 9), 1);
    // No room without allocating: the thread is left out.
    makeSample(full, 1, 0, ZERO, {{2, 0}});
    full.combineThreads(dropped, random);
    EXPECT_EQ(full.otherThreads().count(), 1u);
    // The same main thread on both sides adds once.
    makeSample(a, 5, 1);
    makeSample(b, 5, 2);
    a.combineThreads(b, random);
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
    writeRecord(file, in, 0, -1, 'x');
    EXPECT_DEATH(readRecord(file, out), "Assertion `cbuff\\[1\\] == 's'' failed");
}

TEST(SGpuKernelHit, LineHitsAddUpSortAsSignedAndAreChecked)
{
    SGpuKernelHit hit(1, 2, timespec{1, 0}, timespec{2, 0}), out;
    hit.addLineHit(1, GpuProfilerTypes::StallReason::MemoryThrottle, 4, 1);
    hit.addLineHit(1, GpuProfilerTypes::StallReason::MemoryThrottle, 3, 3);
    hit.addLineHit(0x80000001u, GpuProfilerTypes::StallReason::None, 1, 0);
    ASSERT_EQ(hit.lineHits().size(), 2u);
    EXPECT_EQ(hit.lineHits().begin()->first, 0x80000001u);
    const SGpuKernelHit::TLineHits& one = hit.lineHits().at(1);
    EXPECT_EQ(one.samples[GpuProfilerTypes::StallReason::MemoryThrottle], 7u);
    EXPECT_EQ(one.latencySamples[GpuProfilerTypes::StallReason::MemoryThrottle], 4u);
    EXPECT_DEATH(hit.addLineHit(1, static_cast<GpuProfilerTypes::StallReason::Enum>(12), 1, 0),
                 "Assertion `stallReason < quorvex::GpuProfilerTypes::StallReason::COUNT' failed");

    // Line 0x80000001 turned into a second line 1: the first entry's top
    // byte, after the 71-byte head.
    TempFile file;
    writeRecord(file, hit, 0, 3 + 4 + 4 + 32 + 24 + 4 + 3, 0);
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
    a.detach();
    EXPECT_EQ(deaths, 0);
    b = b;
    EXPECT_EQ(b.refCount(), 1);
    b.detach();
    EXPECT_EQ(deaths, 1);
}

TEST(SSampleList, FullListHalvesBeforeTheNextSample)
{
    for (bool lazily : {false, true}) {
        SCOPED_TRACE(lazily ? "made as filled" : "made up front");
        ListFixture f(4, 7, lazily);
        SSample* first = f.add(0, 10);
        for (int i = 1; i < 4; ++i) {
            f.add(i, 10);
            EXPECT_FALSE(f.downsampled);
        }
        // Samples made later never move the earlier ones.
        EXPECT_EQ(&f.list->at(0), first);
        EXPECT_TRUE(f.list->isFull());
        SSample* fifth = f.add(4, 10);
        EXPECT_TRUE(f.downsampled);
        EXPECT_TRUE(fifth->downsamplingHappened());
        EXPECT_EQ(f.list->size(), 3u);
        EXPECT_EQ(f.list->numDownsamples(), 1u);
        EXPECT_TRUE(f.list->verifySanity(false));
        // Each survivor now stands for its pair.
        EXPECT_EQ(f.list->at(0).getWindow().tv_nsec, 20);
        f.list->clear();
        EXPECT_EQ(f.list->numDownsamples(), 0u);
        EXPECT_DEATH(f.list->at(0), "Assertion `index<mSize' failed");
    }
}

TEST(SSampleList, LimitOneAndOddPasses)
{
    ListFixture one(1), five(8);
    one.add(1, 10);
    one.add(2, 10);
    EXPECT_TRUE(one.downsampled);
    EXPECT_EQ(std::make_pair(one.list->size(), one.tid(0)), std::make_pair(1u, 2));

    for (int i = 0; i < 5; ++i)
        five.add(i, 10);
    five.list->downsample();
    // Pairs (0,1) and (2,3) merged, sample 4 into the second: all the time
    // is still there.
    ASSERT_EQ(five.list->size(), 2u);
    EXPECT_LT(five.tid(0), 2);
    EXPECT_TRUE(five.tid(1) >= 2 && five.tid(1) <= 4);
    EXPECT_EQ(five.list->at(0).getWindow().tv_nsec + five.list->at(1).getWindow().tv_nsec, 50);
    EXPECT_TRUE(five.list->verifySanity(false));
}

TEST(SSampleList, ChooseBetweenEdgeWeights)
{
    for (unsigned seed = 1; seed <= 20; ++seed) {
        ListFixture f(6, seed);
        for (long window : {0, 0, 1, 0, 0, 1})
            f.add(1, window);
        EXPECT_EQ(f.list->chooseBetween(0, 1), 1u); // both empty: b
        EXPECT_EQ(f.list->chooseBetween(2, 3), 2u); // 1 ns against nothing: a
        EXPECT_EQ(f.list->chooseBetween(4, 5), 5u); // nothing against 1 ns: b
        EXPECT_FALSE(f.list->verifySanity(false));  // invalid samples below the size now
    }
}

// The dropped sample's kernel hits go with it (nothing asks for them to be
// merged into the kept one's).
TEST(SSampleList, KernelHitsOfDroppedSamplesGoWithThem)
{
    ListFixture f(2, 11);
    SSample* a = f.add(1, 1, 1);
    SSample* b = f.add(2, 1, 2);
    zor_shared_ptr<SGpuKernelHit> shared(new SGpuKernelHit(1, 1, timespec{1, 0}, timespec{2, 0}));
    zor_shared_ptr<SGpuKernelHit> own(new SGpuKernelHit(2, 2, timespec{1, 0}, timespec{1, 0}));
    a->addKernelHit(shared);
    a->addKernelHit(own);
    b->addKernelHit(shared);
    const std::size_t kept = f.list->chooseBetween(0, 1);
    EXPECT_EQ(f.list->at(static_cast<unsigned>(kept)).kernelHits().size(), kept == 0 ? 2u : 1u);
}

// With a limit of 4 and 8 samples, samples 0 to 3 end as one survivor and
// 4 and 5 as another; each must survive in proportion to its window.
TEST(SSampleList, ThinningIsUnbiasedByWindow)
{
    const long windows[8] = {1, 2, 3, 6, 5, 15, 1, 1};
    const int trials = 20000;
    int survived[8] = {};
    for (int trial = 0; trial < trials; ++trial) {
        ListFixture f(4, static_cast<unsigned>(trial + 1));
        for (int i = 0; i < 8; ++i)
            f.add(i, windows[i] * 1000);
        ASSERT_EQ(f.list->size(), 4u);
        ++survived[f.tid(0)];
        ++survived[f.tid(1)];
        ASSERT_EQ(f.list->at(0).getWindow().tv_nsec, 12000);
        ASSERT_EQ(f.list->at(1).getWindow().tv_nsec, 20000);
    }
    const double groups[6] = {12, 12, 12, 12, 20, 20};
    for (int i = 0; i < 6; ++i) {
        const double p = windows[i] / groups[i];
        const double sigma = std::sqrt(trials * p * (1 - p));
        EXPECT_NEAR(survived[i], p * trials, 5 * sigma) << "sample " << i;
    }
}
