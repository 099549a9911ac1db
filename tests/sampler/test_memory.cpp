#include "lockfree_stack.h"
#include "safe_malloc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct Node
{
    SStackNode link;
    int id;
    std::atomic<int> holders;
};

BlockHeader* headerOf(void* p)
{
    return reinterpret_cast<BlockHeader*>(static_cast<char*>(p) - sizeof(BlockHeader));
}

bool isMapped(void* p, size_t length)
{
    return msync(p, length, MS_ASYNC) == 0;
}

} // namespace

TEST(Stacks, LastInFirstOutAndEmptyPops)
{
    Node a{}, b{};
    spsc_stack_t spsc = SPSC_STACK_INITIALIZER;
    EXPECT_TRUE(spsc_stack_empty(&spsc));
    EXPECT_EQ(spsc_stack_pop(&spsc), nullptr);
    spsc_stack_push(&spsc, &a.link);
    spsc_stack_push(&spsc, &b.link);
    EXPECT_EQ(spsc_stack_top(&spsc), &b.link);
    EXPECT_EQ(spsc_stack_pop(&spsc), &b.link);
    EXPECT_EQ(spsc_stack_pop(&spsc), &a.link);
    EXPECT_TRUE(spsc_stack_empty(&spsc));

    mpmc_stack_t mpmc = MPMC_STACK_INITIALIZER;
    EXPECT_EQ(mpmc_stack_pop(&mpmc), nullptr);
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), nullptr);
    EXPECT_EQ(mpmc.lock, 0u);
    mpmc_stack_push(&mpmc, &a.link);
    mpmc_stack_push(&mpmc, &b.link);
    EXPECT_EQ(mpmc_stack_pop(&mpmc), &b.link);

    // A pop in progress elsewhere: trypop gives up and leaves both the stack
    // and the lock to their owner.
    mpmc.lock = 1;
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), nullptr);
    EXPECT_EQ(mpmc.lock, 1u);
    EXPECT_EQ(mpmc.head, &a.link);
    mpmc.lock = 0;
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), &a.link);
}

// Pushers and poppers at once: every node comes out exactly once.
TEST(Stacks, ConcurrentPushAndPopLoseAndRepeatNothing)
{
    const int pushers = 4;
    const int perPusher = 50000;
    std::vector<Node> nodes(pushers * perPusher);
    for (size_t i = 0; i < nodes.size(); ++i)
        nodes[i].id = static_cast<int>(i);

    mpmc_stack_t mpmc = MPMC_STACK_INITIALIZER;
    std::vector<std::atomic<int>> seen(nodes.size());
    std::atomic<int> pushing{pushers};
    std::vector<std::thread> threads;
    for (int p = 0; p < pushers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < perPusher; ++i)
                mpmc_stack_push(&mpmc, &nodes[static_cast<size_t>(p * perPusher + i)].link);
            --pushing;
        });
    // Poppers stop once the pushers are done and the stack is drained, so a
    // lost node shows as a count of 0 rather than a hang.
    for (int c = 0; c < 2; ++c)
        threads.emplace_back([&, c] {
            for (;;) {
                const bool done = pushing.load() == 0;
                SStackNode* n = c == 0 ? mpmc_stack_pop(&mpmc) : mpmc_stack_trypop(&mpmc);
                if (n)
                    ++seen[static_cast<size_t>(reinterpret_cast<Node*>(n)->id)];
                else if (done && c == 0)
                    break;
                else if (done && __atomic_load_n(&mpmc.head, __ATOMIC_ACQUIRE) == nullptr)
                    break;
            }
        });
    for (std::thread& t : threads)
        t.join();
    int wrong = 0;
    for (std::atomic<int>& count : seen)
        wrong += count.load() != 1;
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(mpmc.head, nullptr);

    // The single-consumer kind under the same load from several pushers.
    spsc_stack_t spsc = SPSC_STACK_INITIALIZER;
    for (std::atomic<int>& count : seen)
        count = 0;
    threads.clear();
    for (int p = 0; p < pushers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < perPusher; ++i)
                spsc_stack_push(&spsc, &nodes[static_cast<size_t>(p * perPusher + i)].link);
        });
    size_t received = 0;
    while (received < nodes.size()) {
        if (SStackNode* n = spsc_stack_pop(&spsc)) {
            ++seen[static_cast<size_t>(reinterpret_cast<Node*>(n)->id)];
            ++received;
        }
    }
    for (std::thread& t : threads)
        t.join();
    wrong = 0;
    for (std::atomic<int>& count : seen)
        wrong += count.load() != 1;
    EXPECT_EQ(wrong, 0);
}

// Nodes cycling between the stack and several threads: no node is ever held
// by two threads at once, and all are back at the end.
TEST(Stacks, RecycledNodesAreNeverHandedOutTwice)
{
    std::vector<Node> nodes(64);
    mpmc_stack_t mpmc = MPMC_STACK_INITIALIZER;
    for (size_t i = 0; i < nodes.size(); ++i) {
        nodes[i].id = static_cast<int>(i);
        mpmc_stack_push(&mpmc, &nodes[i].link);
    }
    std::atomic<int> doubleHeld{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200000; ++i) {
                SStackNode* n = t % 2 ? mpmc_stack_trypop(&mpmc) : mpmc_stack_pop(&mpmc);
                if (!n)
                    continue;
                Node* node = reinterpret_cast<Node*>(n);
                if (node->holders.fetch_add(1) != 0)
                    ++doubleHeld;
                node->holders.fetch_sub(1);
                mpmc_stack_push(&mpmc, n);
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(doubleHeld.load(), 0);
    std::vector<int> seen(nodes.size());
    while (SStackNode* n = mpmc_stack_pop(&mpmc))
        ++seen[static_cast<size_t>(reinterpret_cast<Node*>(n)->id)];
    EXPECT_EQ(seen, std::vector<int>(nodes.size(), 1));
}

TEST(SafeAllocator, SizeClassesAndAlignment)
{
    struct Case
    {
        size_t request;
        uint64_t block;
    };
    for (const Case& c : {Case{0, 16}, Case{1, 32}, Case{16, 32}, Case{17, 64}, Case{1000, 1024},
                          Case{524272, 524288}}) {
        void* p = quorvex_safe_malloc(c.request);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << c.request;
        EXPECT_EQ(headerOf(p)->magic, BLOCK_LIVE_MAGIC);
        EXPECT_EQ(headerOf(p)->size, c.block) << c.request;
        std::memset(p, 0xAB, c.request);
        quorvex_safe_free(p);
        EXPECT_EQ(headerOf(p)->magic, BLOCK_FREED_MAGIC);
    }
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* large = quorvex_safe_malloc(524273);
    EXPECT_EQ(headerOf(large)->size % page, 0u);
    EXPECT_GT(headerOf(large)->size, 524288u);
    quorvex_safe_free(large);
    quorvex_safe_free(nullptr);
}

TEST(SafeAllocator, LargeBlocksBelowOneMebibyteAreKeptAboveAreUnmapped)
{
    void* lone = quorvex_safe_malloc(600000);
    const uint64_t loneSize = headerOf(lone)->size;
    quorvex_safe_free(lone);
    void* reused = quorvex_safe_malloc(300000);
    EXPECT_EQ(reused, lone);
    EXPECT_EQ(headerOf(reused)->size, loneSize);
    quorvex_safe_free(reused);

    void* huge = quorvex_safe_malloc(2 << 20);
    BlockHeader* header = headerOf(huge);
    const size_t length = header->size;
    ASSERT_TRUE(isMapped(header, length));
    errno = EINTR;
    quorvex_safe_free(huge);
    EXPECT_EQ(errno, EINTR);
    EXPECT_FALSE(isMapped(header, length));
}

TEST(SafeAllocator, ReallocGrowsOnlyWhenNeededAndCallocZeroes)
{
    char* p = static_cast<char*>(quorvex_safe_malloc(20));
    std::strcpy(p, "kept across realloc");
    EXPECT_EQ(quorvex_safe_realloc(p, 5), p);
    EXPECT_EQ(quorvex_safe_realloc(p, 48), p); // a 64-byte block has 48 usable bytes
    char* q = static_cast<char*>(quorvex_safe_realloc(p, 49));
    EXPECT_NE(q, p);
    EXPECT_STREQ(q, "kept across realloc");
    EXPECT_EQ(headerOf(p)->magic, BLOCK_FREED_MAGIC);
    quorvex_safe_free(q);

    unsigned char* z = static_cast<unsigned char*>(quorvex_safe_malloc(100));
    std::memset(z, 0xFF, 100);
    quorvex_safe_free(z);
    unsigned char* c = static_cast<unsigned char*>(quorvex_safe_calloc(10, 10));
    EXPECT_EQ(c, z);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(c[i], 0) << i;
    quorvex_safe_free(c);

    void* fresh = quorvex_safe_realloc(nullptr, 10);
    EXPECT_EQ(headerOf(fresh)->size, 32u);
    quorvex_safe_free(fresh);
}

TEST(SafeAllocatorDeathTest, MisuseEndsTheProcess)
{
    void* p = quorvex_safe_malloc(10);
    quorvex_safe_free(p);
    EXPECT_DEATH(quorvex_safe_free(p), "double free\n");
    alignas(16) static char foreign[64] = {};
    EXPECT_DEATH(quorvex_safe_free(foreign + 16), "bad free\n");
    EXPECT_DEATH(quorvex_safe_realloc(foreign + 16, 10), "bad realloc\n");
}

// Several threads allocating and freeing at once: no block is handed to two
// owners, which would show as a torn fill pattern.
TEST(SafeAllocator, ConcurrentUseHandsEachBlockToOneOwner)
{
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 random(static_cast<unsigned>(t + 1));
            std::vector<std::pair<unsigned char*, size_t>> live;
            for (int i = 0; i < 30000; ++i) {
                if (live.size() < 64 && (live.empty() || random() % 2)) {
                    const size_t size = random() % 50 == 0 ? 700000 : random() % 3000;
                    unsigned char* p = static_cast<unsigned char*>(quorvex_safe_malloc(size));
                    std::memset(p, t * 16 + static_cast<int>(size % 16), size);
                    live.emplace_back(p, size);
                } else {
                    const size_t at = random() % live.size();
                    auto [p, size] = live[at];
                    const unsigned char expected = static_cast<unsigned char>(t * 16 + static_cast<int>(size % 16));
                    for (size_t b = 0; b < size; ++b) {
                        if (p[b] != expected) {
                            ++torn;
                            break;
                        }
                    }
                    quorvex_safe_free(p);
                    live[at] = live.back();
                    live.pop_back();
                }
            }
            for (auto& entry : live)
                quorvex_safe_free(entry.first);
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(torn.load(), 0);
}
