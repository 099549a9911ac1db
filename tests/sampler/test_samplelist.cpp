#include "recordio.h"
#include "ssamplelist.h"
#include "timespec_utils.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace quorvex;
using namespace zortest;

namespace {

const timespec ZERO = {0, 0};

struct ListFixture
{
    explicit ListFixture(int limit, unsigned seed = 7)
    {
        srand48_r(seed, &random);
        list.reset(new SSampleList(limit, 2, random));
        list->setMetricCount(1);
    }

    // A sample told apart by its tid, standing for `window` nanoseconds.
    SSample* add(int tid, long window, long atSecond = 0)
    {
        const timespec span = {0, window};
        SSample* s = list->createSample(makeBacktraceData({static_cast<unsigned long>(tid)}), timespec{atSecond, 0},
                                        span, span, downsampled, false, tid, {tid}, ZERO, false);
        s->metrics().setValid();
        return s;
    }

    std::vector<int> tids() const
    {
        std::vector<int> out;
        for (unsigned i = 0; i < list->size(); ++i)
            out.push_back(list->at(i).mainThreadTrace().tid());
        return out;
    }

    drand48_data random;
    std::unique_ptr<SSampleList> list;
    bool downsampled = false; // by the last add
};

} // namespace

TEST(SSampleList, FullListHalvesBeforeTheNextSample)
{
    ListFixture f(4);
    for (int i = 0; i < 4; ++i) {
        f.add(i, 10);
        EXPECT_FALSE(f.downsampled);
    }
    EXPECT_TRUE(f.list->isFull());
    SSample* fifth = f.add(4, 10);
    EXPECT_TRUE(f.downsampled);
    EXPECT_TRUE(fifth->downsamplingHappened());
    EXPECT_EQ(f.list->size(), 3u);
    EXPECT_EQ(f.list->numDownsamples(), 1u);
    EXPECT_EQ(&f.list->getLatestSample(), fifth);
    EXPECT_TRUE(f.list->verifySanity(false));
    // Each survivor now stands for its pair.
    EXPECT_EQ(f.list->at(0).getWindow().tv_nsec, 20);

    f.list->clear();
    EXPECT_TRUE(f.list->isEmpty());
    EXPECT_EQ(f.list->numDownsamples(), 0u);
    EXPECT_DEATH(f.list->at(0), "Assertion `index<mSize' failed");
}

TEST(SSampleList, LimitOneAndOddPasses)
{
    ListFixture one(1);
    one.add(1, 10);
    one.add(2, 10);
    EXPECT_TRUE(one.downsampled);
    EXPECT_EQ(one.tids(), std::vector<int>{2});

    ListFixture five(8);
    for (int i = 0; i < 5; ++i)
        five.add(i, 10);
    five.list->downsample();
    // Pairs (0,1) and (2,3) merged; sample 4 dropped unmerged.
    const std::vector<int> kept = five.tids();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_TRUE(kept[0] == 0 || kept[0] == 1);
    EXPECT_TRUE(kept[1] == 2 || kept[1] == 3);
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

TEST(SSampleList, KernelHitsOfDroppedSamplesFollowTheMergeFlag)
{
    for (bool merge : {false, true}) {
        ListFixture f(2, 11);
        f.list->setMergeGpuKernelListsWhenDownsampling(merge);
        SSample* a = f.add(1, 1, 1);
        SSample* b = f.add(2, 1, 2);
        zor_shared_ptr<SGpuKernelHit> shared(new SGpuKernelHit(1, 1, timespec{1, 0}, timespec{2, 0}));
        zor_shared_ptr<SGpuKernelHit> own(new SGpuKernelHit(2, 2, timespec{1, 0}, timespec{1, 0}));
        a->addKernelHit(shared);
        a->addKernelHit(own);
        b->addKernelHit(shared);
        // Merging appends the dropped sample's hits to the kept one's.
        const std::size_t kept = f.list->chooseBetween(0, 1);
        const std::size_t keptOwn = kept == 0 ? 2 : 1;
        EXPECT_EQ(f.list->at(static_cast<unsigned>(kept)).kernelHits().size(), merge ? 3 : keptOwn) << merge;
    }
}

TEST(SSampleList, CudaKernelHitsAttachToTheirSpan)
{
    ListFixture f(8);
    for (int i = 0; i < 4; ++i)
        f.add(i, 10, 10 * (i + 1)); // samples at 10, 20, 30 and 40 s

    zor_shared_ptr<SGpuKernelHit> hit = f.list->createCudaKernelHit(1, 1, timespec{20, 0}, timespec{30, 0}, false);
    ASSERT_FALSE(hit.isNull());
    EXPECT_EQ(hit.refCount(), 3); // two samples and the caller
    EXPECT_FALSE(f.list->at(0).hasGpuKernelHit());
    EXPECT_TRUE(f.list->at(1).hasGpuKernelHit());
    EXPECT_TRUE(f.list->at(2).hasGpuKernelHit());
    EXPECT_FALSE(f.list->at(3).hasGpuKernelHit());

    // With no sample in its span, a kernel may go to the next sample after it.
    EXPECT_FALSE(f.list->createCudaKernelHit(2, 1, timespec{1, 0}, timespec{2, 0}, true).isNull());
    EXPECT_EQ(f.list->at(0).kernelHits().size(), 1u);
    f.list->createCudaKernelHit(3, 1, timespec{11, 0}, timespec{12, 0}, true);
    EXPECT_EQ(f.list->at(1).kernelHits().size(), 2u);
    EXPECT_TRUE(f.list->createCudaKernelHit(4, 1, timespec{50, 0}, timespec{60, 0}, true).isNull());
    EXPECT_TRUE(f.list->createCudaKernelHit(5, 1, timespec{11, 0}, timespec{12, 0}, false).isNull());

    ListFixture empty(2);
    EXPECT_TRUE(empty.list->createCudaKernelHit(1, 1, ZERO, ZERO, true).isNull());
}

TEST(SSampleList, ReadingResizesToTheFileAndChecksTheTag)
{
    SampleFileBuilder builder(16);
    RandomSampleShape shape;
    shape.numSamples = 5;
    builder.addRandom(shape);
    TempFile file;
    writeRecord(file, builder.list());

    drand48_data random = {};
    SSampleList small(2, 0, random), large(30, 0, random);
    ASSERT_TRUE(readRecord(file, small));
    ASSERT_TRUE(readRecord(file, large));
    EXPECT_EQ(compareLists(builder.list(), small), "");
    EXPECT_EQ(compareLists(builder.list(), large), "");
    EXPECT_TRUE(large.isFull());

    writePatched(file, builder.list(), 0, 'x');
    EXPECT_DEATH(readRecord(file, small), "Assertion `obuff\\[0\\] == 's'' failed");
}

// Random samples with many threads, deep traces, metrics and kernel hits,
// thinned on the way, come back equal field by field.
TEST(SSampleList, RandomRoundTrip)
{
    for (unsigned seed = 1; seed <= 5; ++seed) {
        SampleFileBuilder builder(64, 8, seed);
        RandomSampleShape shape;
        shape.numSamples = 150;
        shape.threadsPerSample = 12;
        shape.framesPerTrace = 200;
        shape.numMetrics = 6;
        shape.kernelHitEvery = 2;
        builder.list().setMergeGpuKernelListsWhenDownsampling(seed % 2 == 0);
        builder.addRandom(shape);
        ASSERT_GT(builder.list().numDownsamples(), 0u);
        drand48_data unused = {};
        SSampleList out(0, 0, unused);
        ASSERT_TRUE(roundTrip(builder.list(), out));
        EXPECT_EQ(compareLists(builder.list(), out), "") << "seed " << seed;
    }
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
        ++survived[f.list->at(0).mainThreadTrace().tid()];
        ++survived[f.list->at(1).mainThreadTrace().tid()];
        ASSERT_EQ(f.list->at(0).getWindow().tv_nsec, 12000);
        ASSERT_EQ(f.list->at(1).getWindow().tv_nsec, 20000);
    }
    const double groups[8] = {12, 12, 12, 12, 20, 20, 0, 0};
    for (int i = 0; i < 6; ++i) {
        const double p = windows[i] / groups[i];
        const double expected = p * trials;
        const double sigma = std::sqrt(trials * p * (1 - p));
        EXPECT_NEAR(survived[i], expected, 5 * sigma) << "sample " << i;
    }
}
