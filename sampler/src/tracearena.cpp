#include "tracearena.h"

#include <cstdlib>
#include <new>

namespace quorvex {

namespace {

// A block holds a few thousand frames; a larger request gets a block of its
// own.
const std::size_t BLOCK_BYTES = 256 * 1024;

thread_local const TraceArena::Scope* tCurrent = nullptr;

} // namespace

struct TraceArena::Block
{
    Block* next;
};

// The allocator holds the arena's first count, given back when the scope
// ends; the traces that use the arena hold the others.
TraceArena::Scope::Scope() : mArena(new TraceArena), mAllocator(mArena), mOuter(tCurrent)
{
    mArena->release();
    tCurrent = this;
}

TraceArena::Scope::~Scope()
{
    tCurrent = mOuter;
}

const TraceArena::Scope* TraceArena::Scope::current()
{
    return tCurrent;
}

TraceArena* TraceArena::current()
{
    const Scope* scope = tCurrent;
    return scope ? scope->arena() : nullptr;
}

TraceArena::TraceArena() : mBlocks(nullptr), mNext(nullptr), mLeft(0), mReferences(1), mFixed(false) {}

TraceArena* TraceArena::overRegion(void* region, std::size_t bytes)
{
    const std::size_t align = alignof(std::max_align_t);
    const std::size_t header = (sizeof(TraceArena) + align - 1) / align * align;
    if (bytes < header)
        return nullptr;
    TraceArena* arena = new (region) TraceArena;
    arena->mFixed = true;
    arena->mNext = static_cast<char*>(region) + header;
    arena->mLeft = bytes - header;
    // A reference that nobody gives back: the region isn't the arena's to free.
    arena->retain();
    return arena;
}

bool TraceArena::fits(std::size_t bytes) const
{
    const std::size_t align = alignof(std::max_align_t);
    return !mFixed || (bytes + align - 1) / align * align <= mLeft;
}

TraceArena::~TraceArena()
{
    while (mBlocks) {
        Block* next = mBlocks->next;
        std::free(mBlocks);
        mBlocks = next;
    }
}

void* TraceArena::allocate(std::size_t bytes)
{
    const std::size_t align = alignof(std::max_align_t);
    bytes = (bytes + align - 1) / align * align;
    const std::size_t header = (sizeof(Block) + align - 1) / align * align;
    if (bytes > mLeft) {
        if (mFixed)
            return nullptr;
        const bool own = bytes > BLOCK_BYTES / 4;
        const std::size_t size = header + (own ? bytes : BLOCK_BYTES);
        Block* block = static_cast<Block*>(std::malloc(size));
        if (!block)
            throw std::bad_alloc();
        char* memory = reinterpret_cast<char*>(block) + header;
        if (own) {
            // Behind the current block, which keeps serving small requests.
            block->next = mBlocks ? mBlocks->next : nullptr;
            if (mBlocks)
                mBlocks->next = block;
            else
                mBlocks = block;
            return memory;
        }
        block->next = mBlocks;
        mBlocks = block;
        mNext = memory;
        mLeft = BLOCK_BYTES;
    }
    void* result = mNext;
    mNext += bytes;
    mLeft -= bytes;
    return result;
}

} // namespace quorvex
