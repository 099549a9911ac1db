// The sampler's operator new and delete: from the reservation while a
// ReserveScope is open on the thread, from the heap otherwise. They replace
// the ones of the C++ runtime linked into the sampler, and only there: the
// program keeps its own.
#include "reserve.h"
#include "runtime.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <sys/mman.h>

namespace zorsampler {

namespace {

// Small objects, which their constructors write, grow up from the start;
// the large buffers that samples fill grow down from the end. Kept apart, a
// small object never makes a page of a large buffer resident.
const std::size_t LARGE = 1024;
std::uintptr_t gBegin;
std::uintptr_t gEnd;
std::uintptr_t gLow;
std::uintptr_t gHigh;
std::atomic_flag gLock = ATOMIC_FLAG_INIT;
ZS_TLS bool tlsScopeOpen;

void* fromReserve(std::size_t size, std::size_t align)
{
    if (!tlsScopeOpen)
        return nullptr;
    const std::uintptr_t mask = ~(static_cast<std::uintptr_t>(align) - 1);
    while (gLock.test_and_set(std::memory_order_acquire)) {
    }
    void* p = nullptr;
    if (size < gHigh - gLow) {
        if (size >= LARGE) {
            const std::uintptr_t start = (gHigh - size) & mask;
            if (start >= gLow) {
                gHigh = start;
                p = reinterpret_cast<void*>(start);
            }
        } else {
            const std::uintptr_t start = (gLow + align - 1) & mask;
            if (start + size <= gHigh) {
                gLow = start + size;
                p = reinterpret_cast<void*>(start);
            }
        }
    }
    gLock.clear(std::memory_order_release);
    return p;
}

bool inReserve(void* p)
{
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
    return at >= gBegin && at < gEnd;
}

void* allocate(std::size_t size, std::size_t align, bool mayThrow)
{
    if (size == 0)
        size = 1;
    void* p = fromReserve(size, align < 16 ? 16 : align);
    if (!p)
        p = align <= 16 ? std::malloc(size) : std::aligned_alloc(align, (size + align - 1) / align * align);
    if (!p && mayThrow)
        throw std::bad_alloc();
    return p;
}

void release(void* p)
{
    if (p && !inReserve(p))
        std::free(p);
}

} // namespace

ReserveScope::ReserveScope(std::size_t bytes)
{
    if (gBegin == 0) {
        void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base != MAP_FAILED) {
            gBegin = reinterpret_cast<std::uintptr_t>(base);
            gEnd = gBegin + bytes;
            gLow = gBegin;
            gHigh = gEnd;
        }
    }
    tlsScopeOpen = gBegin != 0;
}

ReserveScope::~ReserveScope()
{
    tlsScopeOpen = false;
}

bool ReserveScope::reserved()
{
    return gBegin != 0;
}

ReserveReopen::ReserveReopen() : mWasOpen(tlsScopeOpen)
{
    tlsScopeOpen = gBegin != 0;
}

ReserveReopen::~ReserveReopen()
{
    tlsScopeOpen = mWasOpen;
}

} // namespace zorsampler

using zorsampler::allocate;
using zorsampler::release;

void* operator new(std::size_t size)
{
    return allocate(size, 16, true);
}

void* operator new[](std::size_t size)
{
    return allocate(size, 16, true);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size, 16, false);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size, 16, false);
}

void* operator new(std::size_t size, std::align_val_t align)
{
    return allocate(size, static_cast<std::size_t>(align), true);
}

void* operator new[](std::size_t size, std::align_val_t align)
{
    return allocate(size, static_cast<std::size_t>(align), true);
}

void operator delete(void* p) noexcept
{
    release(p);
}

void operator delete[](void* p) noexcept
{
    release(p);
}

void operator delete(void* p, std::size_t) noexcept
{
    release(p);
}

void operator delete[](void* p, std::size_t) noexcept
{
    release(p);
}

void operator delete(void* p, std::align_val_t) noexcept
{
    release(p);
}

void operator delete[](void* p, std::align_val_t) noexcept
{
    release(p);
}

void operator delete(void* p, std::size_t, std::align_val_t) noexcept
{
    release(p);
}

void operator delete[](void* p, std::size_t, std::align_val_t) noexcept
{
    release(p);
}
