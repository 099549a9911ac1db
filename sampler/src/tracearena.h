// Memory for the frames of backtraces read from a file. A run's file holds
// tens of thousands of traces; giving each its own heap block makes reading
// and, above all, freeing the list cost more than reading the bytes. While a
// TraceArena::Scope lives on a thread, the traces read on it take their
// frames from large shared blocks instead, which go back in one piece when
// the last trace that uses them is gone.
//
// The sampler never installs a scope: its traces take their frames from an
// arena over a region reserved before sampling (overRegion), which never
// allocates, or keep plain heap memory; a default TraceAllocator is the
// standard one.
#ifndef ZOR_TRACEARENA_H
#define ZOR_TRACEARENA_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

namespace quorvex {

template <typename T>
class TraceAllocator;

class TraceArena
{
public:
    // Installs a fresh arena for the traces read on this thread while it
    // lives; the arena itself lives on in the traces that use it.
    class Scope;

    // The arena of this thread's innermost scope, or null.
    static TraceArena* current();

    // An arena over the `bytes` at `region`, which stay the caller's for as
    // long as the arena is used: it never allocates, and lives for good.
    static TraceArena* overRegion(void* region, std::size_t bytes);
    // Whether allocate(bytes) can be served; always so for an arena that
    // may allocate.
    bool fits(std::size_t bytes) const;

    void* allocate(std::size_t bytes);
    void retain() { mReferences.fetch_add(1, std::memory_order_relaxed); }
    void release()
    {
        if (mReferences.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    TraceArena();
    ~TraceArena();
    TraceArena(const TraceArena&) = delete;
    TraceArena& operator=(const TraceArena&) = delete;

    struct Block;
    Block* mBlocks;
    char* mNext;
    std::size_t mLeft;
    std::atomic<long> mReferences;
    bool mFixed;
};

template <typename T>
class TraceAllocator
{
public:
    using value_type = T;
    // A swap takes the memory's owner along; assignments copy into the
    // target's own memory.
    using propagate_on_container_swap = std::true_type;
    using propagate_on_container_copy_assignment = std::false_type;
    using propagate_on_container_move_assignment = std::false_type;
    using is_always_equal = std::false_type;

    TraceAllocator() noexcept : mArena(nullptr) {}
    explicit TraceAllocator(TraceArena* arena) noexcept : mArena(arena) { hold(); }
    TraceAllocator(const TraceAllocator& other) noexcept : mArena(other.mArena) { hold(); }
    template <typename U>
    TraceAllocator(const TraceAllocator<U>& other) noexcept : mArena(other.arena())
    {
        hold();
    }
    TraceAllocator& operator=(const TraceAllocator& other) noexcept
    {
        if (other.mArena)
            other.mArena->retain();
        drop();
        mArena = other.mArena;
        return *this;
    }
    ~TraceAllocator() { drop(); }

    T* allocate(std::size_t n)
    {
        if (mArena)
            return static_cast<T*>(mArena->allocate(n * sizeof(T)));
        return std::allocator<T>().allocate(n);
    }
    // Arena memory goes back with its arena.
    void deallocate(T* p, std::size_t n) noexcept
    {
        if (!mArena)
            std::allocator<T>().deallocate(p, n);
    }
    // Frames are always written right after a resize, by a copy or a read:
    // zeroing them first would cost a pass over every trace.
    template <typename U>
    void construct(U* p) noexcept(std::is_nothrow_default_constructible<U>::value)
    {
        ::new (static_cast<void*>(p)) U;
    }
    template <typename U, typename... Args>
    void construct(U* p, Args&&... args)
    {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }

    TraceArena* arena() const noexcept { return mArena; }
    // Exchanging owners takes no count.
    friend void swap(TraceAllocator& a, TraceAllocator& b) noexcept
    {
        TraceArena* arena = a.mArena;
        a.mArena = b.mArena;
        b.mArena = arena;
    }
    friend bool operator==(const TraceAllocator& a, const TraceAllocator& b) noexcept { return a.mArena == b.mArena; }
    friend bool operator!=(const TraceAllocator& a, const TraceAllocator& b) noexcept { return a.mArena != b.mArena; }

private:
    void hold() noexcept
    {
        if (mArena)
            mArena->retain();
    }
    void drop() noexcept
    {
        if (mArena)
            mArena->release();
    }

    TraceArena* mArena;
};

class TraceArena::Scope
{
public:
    Scope();
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    // This thread's innermost scope, or null.
    static const Scope* current();
    TraceArena* arena() const { return mArena; }
    // Copied into every trace made under the scope: one count each.
    const TraceAllocator<unsigned long>& allocator() const { return mAllocator; }

private:
    TraceArena* mArena;
    TraceAllocator<unsigned long> mAllocator;
    const Scope* mOuter;
};

} // namespace quorvex

#endif
