// What the MPI wrapper calls, and what the sampler makes of it: the in-MPI
// flag of each thread, the MPI time of the process, and ".mpi".
#include "mpihooks.h"

#include "clock.h"
#include "mpicallfile.h"
#include "quorvex_mpi_hooks.h"
#include "safe_malloc.h"
#include "threads.h"

#include <atomic>
#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace zorsampler {

namespace {

// The tick and monotonic readings taken at load, against which the tick
// rate is measured.
std::uint64_t gBaseTicks;
std::int64_t gBaseNs;

std::atomic<const char* const*> gCallNames{nullptr};
const quorvex_mpi_figures* gCallFigures;
int gCallCount;
// Room for the records of ".mpi", made when the wrapper registers.
quorvex::MpiCallFigures* gRecords;
std::atomic<bool> gThreadMultiple{false};

std::int64_t monotonicNs()
{
    return zs_nanoseconds(zs_now(CLOCK_MONOTONIC));
}

__attribute__((constructor)) void takeBase()
{
    gBaseNs = monotonicNs();
    gBaseTicks = mpiTicks();
}

} // namespace

std::uint64_t mpiTicks()
{
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return static_cast<std::uint64_t>(monotonicNs());
#endif
}

std::uint64_t mpiTicksToNs(std::uint64_t ticks)
{
#if defined(__x86_64__) || defined(__i386__)
    // The rate over less than 10 ms would be rough: wait for that much.
    std::int64_t elapsedNs = monotonicNs() - gBaseNs;
    while (elapsedNs < 10000000)
        elapsedNs = monotonicNs() - gBaseNs;
    const std::uint64_t elapsedTicks = mpiTicks() - gBaseTicks;
    if (elapsedTicks == 0)
        return 0;
    return static_cast<std::uint64_t>(static_cast<double>(ticks) * static_cast<double>(elapsedNs)
                                      / static_cast<double>(elapsedTicks));
#else
    return ticks;
#endif
}

std::uint64_t takeMpiTimeNs()
{
    if (!gCallNames.load(std::memory_order_acquire))
        return 0;
    const std::uint64_t now = mpiTicks();
    std::uint64_t ticks = 0;
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (slot->state.load(std::memory_order_acquire) != SlotLive)
            continue;
        // A running call counts up to now; when it ends, only its remainder
        // is still to count. The two readings are not atomic together, and
        // the clocks of two cores may differ slightly: a count never goes
        // back.
        std::uint64_t total = slot->mpiTicks.load(std::memory_order_acquire);
        if (slot->inMpi.load(std::memory_order_acquire)) {
            const std::uint64_t start = slot->mpiCallStart.load(std::memory_order_relaxed);
            if (now > start)
                total += now - start;
        }
        if (total > slot->mpiTicksCounted) {
            ticks += total - slot->mpiTicksCounted;
            slot->mpiTicksCounted = total;
        }
    }
    return ticks ? mpiTicksToNs(ticks) : 0;
}

bool mpiThreadMultiple()
{
    return gThreadMultiple.load(std::memory_order_relaxed);
}

bool mpiWrapperLoaded()
{
    return gCallNames.load(std::memory_order_acquire) != nullptr;
}

void writeMpiFile(int fd)
{
    const char* const* names = gCallNames.load(std::memory_order_acquire);
    std::size_t count = 0;
    for (int i = 0; names && gRecords && i < gCallCount; ++i) {
        const quorvex_mpi_figures& figures = gCallFigures[i];
        if (figures.calls == 0)
            continue;
        gRecords[count++] = quorvex::MpiCallFigures{names[i], figures.calls, mpiTicksToNs(figures.ticks),
                                                    figures.bytesSent, figures.bytesReceived};
    }
    quorvex::quorvex_write_mpi_calls(fd, gRecords, count);
}

} // namespace zorsampler

using namespace zorsampler;

#define ZS_API extern "C" __attribute__((visibility("default")))

ZS_API unsigned long long quorvex_mpi_enter(void)
{
    const std::uint64_t now = mpiTicks();
    if (ThreadSlot* slot = currentSlot()) {
        // The start first: a sample in between takes the flag with the
        // start of this call, never of the previous one.
        slot->mpiCallStart.store(now, std::memory_order_relaxed);
        slot->inMpi.store(true, std::memory_order_release);
    }
    return now;
}

ZS_API unsigned long long quorvex_mpi_leave(unsigned long long start)
{
    // Out of MPI before the end is read: a sample in between counts the call
    // up to its own reading, short of the end that the call's figures show,
    // and never the call twice (once in the total, once as still running),
    // however long the thread is kept from running here.
    ThreadSlot* slot = currentSlot();
    if (slot)
        slot->inMpi.store(false, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    const std::uint64_t now = mpiTicks();
    if (slot) {
        // Only this thread writes its total.
        const std::uint64_t spent = now > start ? now - start : 0;
        slot->mpiTicks.store(slot->mpiTicks.load(std::memory_order_relaxed) + spent, std::memory_order_release);
    }
    return now;
}

ZS_API void quorvex_mpi_register_calls(const char* const* names, const quorvex_mpi_figures* figures, int count)
{
    if (!names || !figures || count <= 0 || gCallNames.load(std::memory_order_acquire))
        return;
    void* memory = quorvex_safe_malloc(sizeof(quorvex::MpiCallFigures) * static_cast<std::size_t>(count));
    if (!memory)
        return;
    gRecords = static_cast<quorvex::MpiCallFigures*>(memory);
    gCallFigures = figures;
    gCallCount = count;
    gCallNames.store(names, std::memory_order_release);
}

ZS_API void quorvex_mpi_set_thread_multiple(int multiple)
{
    gThreadMultiple.store(multiple != 0, std::memory_order_relaxed);
}
