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

const bool g_policyChosen = [] {
    SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyPreallocated);
    return true;
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

TEST(PreallocatedPolicy, ReservesTheDeepestTraceAndRejectsDeeperOnes)
{
    ASSERT_TRUE(g_policyChosen);
    SSimpleBacktrace bt;
    bt.set(makeBacktraceData({}), 1);
    EXPECT_GE(bt.trace().capacity(), static_cast<size_t>(MAX_BACKTRACE_DEPTH));
    ExtendedBacktraceData data = makeBacktraceData(std::vector<unsigned long>(MAX_BACKTRACE_DEPTH, 1));
    bt.set(data, 1);
    EXPECT_EQ(bt.trace().size(), static_cast<size_t>(MAX_BACKTRACE_DEPTH));
    data.size = MAX_BACKTRACE_DEPTH + 1;
    EXPECT_DEATH(bt.set(data, 1), "Assertion `bt\\.size <= MAX_BACKTRACE_DEPTH' failed");

    // A copy keeps the reservation, as the list's samples are copies.
    SSimpleBacktrace copy(bt);
    EXPECT_GE(copy.trace().capacity(), static_cast<size_t>(MAX_BACKTRACE_DEPTH));
}

TEST(PreallocatedPolicy, SamplingWithThinningAllocatesNothing)
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
