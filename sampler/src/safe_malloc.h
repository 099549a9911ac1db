// An allocator for places where malloc can't be trusted: signal handlers in
// the profiled program, or while its own allocator is being intercepted.
// Memory comes from mmap and is kept in lock-free free lists of power-of-two
// size classes; nothing blocks and no lock is taken that a handler could
// deadlock on. Misuse ends the process with a short message on fd 2.
#ifndef ZOR_SAFE_MALLOC_H
#define ZOR_SAFE_MALLOC_H

#include <cstddef>
#include <cstdint>

#define BLOCK_LIVE_MAGIC 0x0BADF00DU
#define BLOCK_FREED_MAGIC 0xF154F00DU

// Stands directly before every pointer handed out.
struct BlockHeader
{
    std::uint32_t magic;
    std::uint32_t unused;
    std::uint64_t size; // bytes, header included
};

void* quorvex_safe_malloc(std::size_t size);
void quorvex_safe_free(void* p);
void* quorvex_safe_calloc(std::size_t n, std::size_t size);
void* quorvex_safe_realloc(void* p, std::size_t size);

#endif
