#include "lockfree_stack.h"
#include "safe_malloc.h"

#include <gtest/gtest.h>

#include <algorithm>
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
    std::atomic<int> holders;
    std::atomic<int> seen;
};

int id(const std::vector<Node>& nodes, SStackNode* link)
{
    return static_cast<int>(reinterpret_cast<Node*>(link) - nodes.data());
}

BlockHeader* headerOf(void* p)
{
    return reinterpret_cast<BlockHeader*>(static_cast<char*>(p) - sizeof(BlockHeader));
}

} // namespace

// The allocator's free lists take nodes by trypop, which gives up where
// another thread holds the lock and leaves both the stack and the lock to it.
TEST(Stacks, LastInFirstOutAndATryPopThatFindsTheLockTaken)
{
    Node a{}, b{};
    mpmc_stack_t mpmc = MPMC_STACK_INITIALIZER;
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), nullptr);
    mpmc_stack_push(&mpmc, &a.link);
    mpmc_stack_push(&mpmc, &b.link);
    mpmc.lock = 1;
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), nullptr);
    EXPECT_EQ(mpmc.lock, 1u);
    EXPECT_EQ(mpmc.head, &b.link);
    mpmc.lock = 0;
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), &b.link);
    EXPECT_EQ(mpmc_stack_trypop(&mpmc), &a.link);
}

// Nodes cycling between the stack and several threads: no node is ever held
// by two threads at once, and each is back once.
TEST(Stacks, ConcurrentPopAndPushHandEachNodeToOneThread)
{
    std::vector<Node> nodes(64);
    mpmc_stack_t mpmc = MPMC_STACK_INITIALIZER;
    for (Node& n : nodes)
        mpmc_stack_push(&mpmc, &n.link);
    std::atomic<int> doubleHeld{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200000; ++i) {
                if (SStackNode* link = mpmc_stack_trypop(&mpmc)) {
                    Node& node = nodes[static_cast<size_t>(id(nodes, link))];
                    doubleHeld += node.holders.fetch_add(1) != 0;
                    node.holders.fetch_sub(1);
                    mpmc_stack_push(&mpmc, link);
                }
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(doubleHeld.load(), 0);
    while (SStackNode* link = mpmc_stack_trypop(&mpmc))
        ++nodes[static_cast<size_t>(id(nodes, link))].seen;
    EXPECT_EQ(std::count_if(nodes.begin(), nodes.end(), [](const Node& n) { return n.seen != 1; }), 0);
}

TEST(SafeAllocator, SizeClassesAlignmentAndLargeBlocks)
{
    const std::pair<size_t, uint64_t> requestAndBlock[] = {{0, 16},    {1, 32},      {16, 32},
                                                           {17, 64},   {1000, 1024}, {524272, 524288}};
    for (const auto& c : requestAndBlock) {
        void* p = quorvex_safe_malloc(c.first);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << c.first;
        EXPECT_EQ(headerOf(p)->magic, BLOCK_LIVE_MAGIC);
        EXPECT_EQ(headerOf(p)->size, c.second) << c.first;
        std::memset(p, 0xAB, c.first);
        quorvex_safe_free(p);
        EXPECT_EQ(headerOf(p)->magic, BLOCK_FREED_MAGIC);
    }
    quorvex_safe_free(nullptr);

    // Whole pages beyond the classes; below 1 MiB a freed one is kept for
    // reuse, above it is unmapped, errno untouched.
    void* lone = quorvex_safe_malloc(600000);
    const uint64_t loneSize = headerOf(lone)->size;
    EXPECT_EQ(loneSize % static_cast<size_t>(sysconf(_SC_PAGESIZE)), 0u);
    quorvex_safe_free(lone);
    void* reused = quorvex_safe_malloc(300000);
    EXPECT_EQ(reused, lone);
    EXPECT_EQ(headerOf(reused)->size, loneSize);
    quorvex_safe_free(reused);
    BlockHeader* huge = headerOf(quorvex_safe_malloc(2 << 20));
    const size_t length = huge->size;
    ASSERT_EQ(msync(huge, length, MS_ASYNC), 0);
    errno = EINTR;
    quorvex_safe_free(huge + 1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_NE(msync(huge, length, MS_ASYNC), 0);
}

TEST(SafeAllocator, ReallocGrowsOnlyWhenNeededAndCallocZeroes)
{
    char* p = static_cast<char*>(quorvex_safe_malloc(20));
    std::strcpy(p, "kept across realloc");
    EXPECT_EQ(quorvex_safe_realloc(p, 48), p); // a 64-byte block has 48 usable bytes
    char* q = static_cast<char*>(quorvex_safe_realloc(p, 49));
    EXPECT_STREQ(q, "kept across realloc");
    EXPECT_EQ(headerOf(p)->magic, BLOCK_FREED_MAGIC);
    quorvex_safe_free(q);
    EXPECT_EQ(headerOf(quorvex_safe_realloc(nullptr, 10))->size, 32u);

    // A freed block that held data comes back zeroed from calloc.
    unsigned char* z = static_cast<unsigned char*>(quorvex_safe_malloc(100));
    std::memset(z, 0xFF, 100);
    quorvex_safe_free(z);
    unsigned char* c = static_cast<unsigned char*>(quorvex_safe_calloc(10, 10));
    EXPECT_EQ(c, z);
    EXPECT_EQ(std::count(c, c + 100, 0), 100);
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
            auto pattern = [t](size_t size) { return static_cast<unsigned char>(t * 16 + static_cast<int>(size % 16)); };
            for (int i = 0; i < 30000; ++i) {
                if (live.size() < 64 && (live.empty() || random() % 2)) {
                    const size_t size = random() % 50 == 0 ? 700000 : random() % 3000;
                    live.emplace_back(static_cast<unsigned char*>(quorvex_safe_malloc(size)), size);
                    std::memset(live.back().first, pattern(size), size);
                    continue;
                }
                const size_t at = random() % live.size();
                auto [p, size] = live[at];
                torn += std::count(p, p + size, pattern(size)) != static_cast<long>(size);
                quorvex_safe_free(p);
                live[at] = live.back();
                live.pop_back();
            }
            for (auto& entry : live)
                quorvex_safe_free(entry.first);
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(torn.load(), 0);
}
