#include "safe_malloc.h"
#include "lockfree_stack.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

const int NUM_SIZE_CLASSES = 16;
const std::size_t HEADER_BYTES = sizeof(BlockHeader);

static_assert(sizeof(BlockHeader) == 16, "the header keeps blocks 16-byte aligned");

// A free block's descriptor. It lives apart from the block, so a freed
// block keeps its header and a second free of it is caught.
struct FreeNode
{
    SStackNode link;
    void* block;
    std::size_t size;
};

static_assert(sizeof(FreeNode) == 24, "free nodes are packed three words to a slot");

// Entry 0: spare FreeNodes. Entry k + 1: free blocks of size class k.
mpmc_stack_t g_stacks[NUM_SIZE_CLASSES + 1];
long g_pageSize = 0;

std::size_t pageSize()
{
    if (g_pageSize == 0)
        g_pageSize = sysconf(_SC_PAGESIZE);
    return static_cast<std::size_t>(g_pageSize);
}

// The messages go out with their terminating NUL.
[[noreturn]] void die(const char* message, std::size_t lengthWithNul)
{
    (void)!write(2, message, lengthWithNul);
    raise(6);
    _exit(1);
}

#define DIE(literal) die(literal, sizeof(literal))

int bitCount(std::size_t value)
{
    return value == 0 ? 0 : 64 - __builtin_clzll(value);
}

void* mapPages(std::size_t length)
{
    const int savedErrno = errno;
    void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
        if (errno == ENOMEM)
            DIE("Out of memory\n");
        DIE("mmap failed\n");
    }
    errno = savedErrno;
    return p;
}

FreeNode* allocFreeNode()
{
    if (SStackNode* node = mpmc_stack_trypop(&g_stacks[0]))
        return reinterpret_cast<FreeNode*>(node);
    const std::size_t page = pageSize();
    char* slots = static_cast<char*>(mapPages(page));
    for (std::size_t offset = sizeof(FreeNode); offset + sizeof(FreeNode) <= page; offset += sizeof(FreeNode))
        mpmc_stack_push(&g_stacks[0], reinterpret_cast<SStackNode*>(slots + offset));
    return reinterpret_cast<FreeNode*>(slots);
}

BlockHeader* headerOf(void* p)
{
    return reinterpret_cast<BlockHeader*>(static_cast<char*>(p) - HEADER_BYTES);
}

} // namespace

void* quorvex_safe_malloc(std::size_t size)
{
    const std::size_t t = (size + 15) | 15;
    const int k = t == 15 ? 0 : bitCount(t >> 4);
    const std::size_t page = pageSize();

    void* block = nullptr;
    std::size_t blockSize = 0;
    if (k >= NUM_SIZE_CLASSES) {
        blockSize = ((t + page) / page) * page;
        block = mapPages(blockSize);
    } else if (SStackNode* popped = mpmc_stack_trypop(&g_stacks[k + 1])) {
        // An empty list, or one whose pop lock is held by the thread we may
        // have interrupted: either way fresh pages are taken instead of
        // waiting.
        FreeNode* node = reinterpret_cast<FreeNode*>(popped);
        block = node->block;
        blockSize = node->size;
        mpmc_stack_push(&g_stacks[0], &node->link);
    } else {
        const std::size_t classSize = std::size_t(1) << (k + 4);
        const std::size_t mapped = ((classSize + page - 1) / page) * page;
        char* memory = static_cast<char*>(mapPages(mapped));
        for (std::size_t offset = classSize; offset + classSize <= mapped; offset += classSize) {
            FreeNode* node = allocFreeNode();
            node->block = memory + offset;
            node->size = classSize;
            mpmc_stack_push(&g_stacks[k + 1], &node->link);
        }
        block = memory;
        blockSize = classSize;
    }

    if (!block) {
        errno = ENOMEM;
        return nullptr;
    }
    BlockHeader* header = static_cast<BlockHeader*>(block);
    header->size = blockSize;
    header->magic = BLOCK_LIVE_MAGIC;
    return static_cast<char*>(block) + HEADER_BYTES;
}

void quorvex_safe_free(void* p)
{
    if (!p)
        return;
    BlockHeader* header = headerOf(p);
    if (header->magic == BLOCK_FREED_MAGIC)
        DIE("double free\n");
    if (header->magic != BLOCK_LIVE_MAGIC)
        DIE("bad free\n");
    header->magic = BLOCK_FREED_MAGIC;

    const std::size_t size = header->size;
    // Deliberately not the test of the malloc side: a lone mapping below
    // 1 MiB joins the largest class with its own size rather than going
    // back to the kernel.
    const int c = size <= 15 ? 0 : bitCount(size >> 4) - 1;
    if (c >= NUM_SIZE_CLASSES) {
        const int savedErrno = errno;
        if (munmap(header, size) != 0)
            DIE("munmap failed\n");
        errno = savedErrno;
        return;
    }
    FreeNode* node = allocFreeNode();
    node->block = header;
    node->size = size;
    mpmc_stack_push(&g_stacks[c + 1], &node->link);
}

void* quorvex_safe_calloc(std::size_t n, std::size_t size)
{
    const std::size_t total = n * size;
    void* p = quorvex_safe_malloc(total);
    if (p)
        std::memset(p, 0, total);
    return p;
}

void* quorvex_safe_realloc(void* p, std::size_t size)
{
    if (!p)
        return quorvex_safe_malloc(size);
    BlockHeader* header = headerOf(p);
    if (header->magic != BLOCK_LIVE_MAGIC)
        DIE("bad realloc\n");
    const std::size_t usable = header->size - HEADER_BYTES;
    if (size <= usable)
        return p;
    void* fresh = quorvex_safe_malloc(size);
    if (!fresh)
        return nullptr;
    std::memcpy(fresh, p, usable);
    quorvex_safe_free(p);
    return fresh;
}
