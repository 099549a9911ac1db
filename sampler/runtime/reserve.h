// Memory for the sample list that costs nothing until samples are written
// into it. While a ReserveScope is open on a thread, the sampler's own C++
// allocations on that thread are carved out of one reservation of address
// space made with MAP_NORESERVE, by a bump pointer that writes nothing: a
// page becomes resident only when a sample first fills it. What is carved
// out is never given back; the list lives as long as the process.
#ifndef ZOR_SAMPLER_RESERVE_H
#define ZOR_SAMPLER_RESERVE_H

#include <cstddef>

namespace zorsampler {

class ReserveScope
{
public:
    // Reserves `bytes` of address space; without it (mmap refused) the
    // allocations fall back to the heap.
    explicit ReserveScope(std::size_t bytes);
    ~ReserveScope();
    ReserveScope(const ReserveScope&) = delete;
    ReserveScope& operator=(const ReserveScope&) = delete;

    // Whether the reservation was made.
    static bool reserved();
};

// Opens the reservation made before on this thread again, for the sampling
// handler, which makes each sample when it first fills it; the bump pointer
// takes a spin lock that nothing else holds by then, and writes nothing.
class ReserveReopen
{
public:
    ReserveReopen();
    ~ReserveReopen();
    ReserveReopen(const ReserveReopen&) = delete;
    ReserveReopen& operator=(const ReserveReopen&) = delete;

private:
    bool mWasOpen;
};

} // namespace zorsampler

#endif
