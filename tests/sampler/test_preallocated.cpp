// Runs with the storage policy of the sampler, chosen before any backtrace
// exists, and counts every heap allocation made while sampling.
#include "samplefilebuilder.h"
#include "ssamplelist.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace quorvex;
using namespace zortest;

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t n, size_t size);
extern "C" void* __libc_realloc(void* p, size_t size);
extern "C" void* __libc_memalign(size_t alignment, size_t size);

namespace {
volatile bool g_counting = false;
volatile long g_allocations = 0;

void* counted(void* block)
{
    if (g_counting)
        g_allocations = g_allocations + 1;
    return block;
}

template <typename F>
long allocationsIn(F f)
{
    g_allocations = 0;
    g_counting = true;
    f();
    g_counting = false;
    return g_allocations;
}

const std::size_t ARENA_BYTES = std::size_t(16) << 20;
TraceArena* const g_arena = [] {
    SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyArena);
    TraceArena* arena = TraceArena::overRegion(std::malloc(ARENA_BYTES), ARENA_BYTES);
    SSimpleBacktrace::setFrameArena(arena);
    return arena;
}();
} // namespace

// Every allocation of the process passes here; the count is taken only while
// the code under test runs.
extern "C" void* malloc(size_t size) noexcept { return counted(__libc_malloc(size)); }
extern "C" void* calloc(size_t n, size_t size) noexcept { return counted(__libc_calloc(n, size)); }
extern "C" void* realloc(void* p, size_t size) noexcept { return counted(__libc_realloc(p, size)); }
extern "C" void* memalign(size_t alignment, size_t size) noexcept { return counted(__libc_memalign(alignment, size)); }
extern "C" void* aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }
extern "C" int posix_memalign(void** out, size_t alignment, size_t size) noexcept
{
    *out = memalign(alignment, size);
    return *out ? 0 : ENOMEM;
}

TEST(ArenaPolicy, RoomGrowsInPowersOfTwoAndARunOutArenaCutsShort)
{
    ASSERT_TRUE(g_arena);
    SSimpleBacktrace bt;
    // Frames wanted: the room a backtrace has after holding them.
    for (const auto& step : std::vector<std::pair<std::size_t, std::size_t>>{
             {3, 16}, {16, 16}, {17, 32}, {5, 32}, {300, 500}, {MAX_BACKTRACE_DEPTH, MAX_BACKTRACE_DEPTH}}) {
        bt.set(makeBacktraceData(std::vector<unsigned long>(step.first, 7)), 1);
        EXPECT_EQ(std::make_pair(bt.trace().size(), bt.trace().capacity()), step) << step.first;
        EXPECT_EQ(bt.unwindStatus(), 0);
    }
    ExtendedBacktraceData data = makeBacktraceData(std::vector<unsigned long>(MAX_BACKTRACE_DEPTH, 1));
    data.size = MAX_BACKTRACE_DEPTH + 1;
    EXPECT_DEATH(bt.set(data, 1), "Assertion `bt\\.size <= MAX_BACKTRACE_DEPTH' failed");

    // Room for 48 frames and a little: 20 frames take room for 32, 3 for
    // 16; a copy of the 20 over the 3 and a set of 40 keep the innermost
    // frames that fit, and say so.
    alignas(16) char region[512];
    TraceArena* small = TraceArena::overRegion(region, sizeof region);
    ASSERT_TRUE(small);
    SSimpleBacktrace::setFrameArena(small);
    SSimpleBacktrace twenty, copy, forty;
    twenty.set(makeBacktraceData({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}), 1);
    copy.set(makeBacktraceData({1, 2, 3}), 1);
    copy = twenty;
    forty.set(makeBacktraceData(std::vector<unsigned long>(40, 9)), 1);
    SSimpleBacktrace::setFrameArena(g_arena);
    EXPECT_EQ(twenty.trace().size(), 20u) << "the first fits";
    EXPECT_EQ(copy.trace(), backtrace_t({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}));
    EXPECT_EQ(copy.unwindStatus(), UNW_ZOR_CUT_SHORT);
    EXPECT_TRUE(forty.trace().empty());
    EXPECT_EQ(forty.unwindStatus(), UNW_ZOR_CUT_SHORT);
}

TEST(ArenaPolicy, SamplingWithThinningAllocatesNothing)
{
    const int threads = 8;
    drand48_data random;
    srand48_r(5, &random);
    SSampleList list(64, threads - 1, random);
    list.setMetricCount(4);

    std::vector<ExtendedBacktraceData> traces;
    threadlist_t tids;
    for (int t = 0; t < threads; ++t) {
        traces.push_back(makeBacktraceData(std::vector<unsigned long>(10 + 60 * t, 0x400000UL + t), 0, false, t));
        tids.push_back(100 + t);
    }
    const SMetric rate(SampleValue(3L), timespec{0, 1000}, SMetric::DivideBySampleInterval);
    const SMetric level(SampleValue(2.5), timespec{0, 0}, SMetric::NoNormalisation);

    unsigned passes = 0;
    auto sampling = [&] {
        for (int i = 0; i < 5000; ++i) {
            bool downsampled = false;
            const timespec now = {i / 1000, (i % 1000) * 1000000L};
            const timespec window = {0, 1000000L * (1 + i % 7)};
            SSample* s = list.createSample(traces[0], now, window, window, downsampled, i % 2 == 0, tids[0], tids,
                                           timespec{0, i}, false);
            for (size_t t = 1; t < traces.size(); ++t)
                s->addThreadBacktrace(traces[t], false, tids[t], timespec{0, 1}, t % 3 == 0);
            s->metrics().setValid();
            s->metrics().setMetric(0, rate);
            s->metrics().setMetric(i % 3 + 1, level);
            passes += downsampled;
            if (i % 1000 == 500) {
                s->invalidate();
                s->makeValid(traces[0], now, window, window, downsampled, false, tids[0], tids, timespec{0, 0}, false);
                s->metrics().setValid();
            }
        }
    };
    EXPECT_EQ(allocationsIn(sampling), 0);
    EXPECT_GT(passes, 100u);
    EXPECT_TRUE(list.verifySanity(false));

    // The counter does see allocations: a thread beyond the pool needs one.
    SSample& latest = list.getLatestSample();
    ASSERT_EQ(latest.otherThreads().count(), static_cast<size_t>(threads - 1));
    EXPECT_GT(allocationsIn([&] { latest.addThreadBacktrace(traces[0], false, 999, timespec{0, 0}, false); }), 0);
}
