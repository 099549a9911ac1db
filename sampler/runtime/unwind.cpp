// Backtraces with libunwind, from the context that the kernel hands to a
// signal handler: the first frame is the instruction the thread was at, the
// others are return addresses.
//
// The usual way is libunwind's frame cache for the whole stack, walked from
// the handler itself through the signal frame: it keeps the rule of each
// code address it has met once, per thread, without a lock. A stepwise
// unwind through the DWARF rules (a lock and two sigprocmask calls for every
// frame) is left for the stacks that the cache can't walk, and for the
// threads beyond the first FAST_WALK_THREADS: each cache takes 256 KiB,
// written when the thread first walks, and a program with a thousand
// threads shouldn't grow by a quarter of a gigabyte.
#include <cerrno>
#include "regions.h"
#include "sampling.h"

#include "runtime.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <ucontext.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace zorsampler {

namespace {

// Where the handlers return to through sigreturn: the return address of
// the signal frame. 0 while unknown.
unsigned long gSignalReturn;

const int FAST_WALK_THREADS = 64;
std::atomic<int> gFastWalkers{0};

// The first cached walk of the process makes libunwind's thread-specific
// key, inside a pthread_once, and fills the walking thread's cache: 256 KiB,
// a fifth of a millisecond that a program ending before its first sample
// shouldn't pay. So it waits for the first sample, and a key slot among the
// first ones, whose values glibc stores without allocating, is held for it
// until then. A thread stopped in libunwind, the C library or the dynamic
// loader may be inside that very pthread_once (a program that unwinds by
// itself): its handler would wait for itself, so it walks stepwise.
std::atomic<bool> gCacheKeyMade{false};
std::atomic<bool> gHoldingKey{false};
pthread_key_t gHeldKey;
CodeSpan gOnceSpans[MAX_ONCE_SPANS];
int gOnceSpanCount;

bool mayMakeCacheKey(unsigned long pc)
{
    for (int i = 0; i < gOnceSpanCount; ++i) {
        if (pc >= gOnceSpans[i].low && pc < gOnceSpans[i].high)
            return false;
    }
    bool holding = true;
    if (gHoldingKey.compare_exchange_strong(holding, false, std::memory_order_acq_rel))
        pthread_key_delete(gHeldKey);
    return true;
}
// 0: not decided yet; 1: this thread walks with a cache; -1: stepwise.
ZS_TLS signed char tlsFastWalk;
ZS_TLS bool tlsOwnUnwinding;

bool mayWalkFast(unsigned long pc)
{
    if (!gCacheKeyMade.load(std::memory_order_acquire) && !mayMakeCacheKey(pc))
        return false;
    if (tlsFastWalk == 0) {
        tlsFastWalk = -1;
        int n = gFastWalkers.load(std::memory_order_relaxed);
        while (n < FAST_WALK_THREADS) {
            if (gFastWalkers.compare_exchange_weak(n, n + 1, std::memory_order_relaxed)) {
                tlsFastWalk = 1;
                break;
            }
        }
    }
    return tlsFastWalk > 0;
}

// Whether all of the walk fits the frames array, which has to take the
// handler's own frames too.
bool fastWalk(BacktraceData& bt, const ucontext_t* context)
{
    const unsigned long interrupted = static_cast<unsigned long>(context->uc_mcontext.gregs[REG_RIP]);
    const int n = unw_backtrace(reinterpret_cast<void**>(bt.frames), MAX_BACKTRACE_DEPTH);
    gCacheKeyMade.store(true, std::memory_order_release);
    if (n >= MAX_BACKTRACE_DEPTH)
        return false; // maybe cut short: too deep to tell
    for (int i = 1; i < n; ++i) {
        if (bt.frames[i] != interrupted || (gSignalReturn != 0 && bt.frames[i - 1] != gSignalReturn))
            continue;
        const int kept = n - i;
        std::memmove(bt.frames, bt.frames + i, static_cast<std::size_t>(kept) * sizeof bt.frames[0]);
        bt.size = static_cast<std::uint32_t>(kept);
        return true;
    }
    return false;
}

void stepwiseWalk(BacktraceData& bt, void* ucontext)
{
    unw_cursor_t cursor;
    // On this platform a libunwind context is the ucontext_t of a signal.
    int result = unw_init_local2(&cursor, static_cast<unw_context_t*>(ucontext), UNW_INIT_SIGNAL_FRAME);
    if (result < 0) {
        bt.unwindStatus = -result;
        return;
    }
    for (;;) {
        unw_word_t ip = 0;
        result = unw_get_reg(&cursor, UNW_REG_IP, &ip);
        if (result < 0) {
            bt.unwindStatus = -result;
            return;
        }
        if (bt.size == MAX_BACKTRACE_DEPTH) {
            bt.unwindStatus = UNWIND_TOO_DEEP;
            return;
        }
        bt.frames[bt.size++] = ip;
        result = unw_step(&cursor);
        if (result < 0)
            bt.unwindStatus = -result;
        if (result <= 0)
            return;
    }
}

} // namespace

void unwindFromSignalContext(ExtendedBacktraceData& bt, void* ucontext, unsigned long boundaryIp)
{
    bt.size = 0;
    bt.unwindStatus = 0;
    bt.stopsAtCallingFrame = false;
    bt.parallelId = 0;
    if (tlsOwnUnwinding) {
        bt.unwindStatus = UNWIND_CLASHED;
        return;
    }
    const ucontext_t* context = static_cast<const ucontext_t*>(ucontext);
    const unsigned long pc = static_cast<unsigned long>(context->uc_mcontext.gregs[REG_RIP]);
    // libunwind's check of an address loops while errno says EINTR, which
    // its own calls may not change: the program's EINTR would hold it
    // there for good. (The handler gives the program its errno back.)
    errno = 0;
    if (!mayWalkFast(pc) || !fastWalk(bt, context)) {
        bt.size = 0;
        stepwiseWalk(bt, ucontext);
    }

    // A worker of a parallel region: its stack stops where the runtime
    // called the region's code, and the region's call site continues it.
    const WorkerRegion region = zs_worker_region;
    bool pastRuntime = false;
    for (std::uint32_t k = 0; k < bt.size; ++k) {
        const unsigned long ip = bt.frames[k];
        bool cut = boundaryIp != 0 && ip == boundaryIp;
        if (!cut && region.id != 0) {
            const bool inRuntime = ip >= region.low && ip < region.high;
            if (inRuntime && pastRuntime) {
                bt.stopsAtCallingFrame = true;
                bt.parallelId = region.id;
                cut = true;
            }
            pastRuntime = pastRuntime || !inRuntime;
        }
        if (cut) {
            bt.size = k;
            bt.unwindStatus = 0;
            break;
        }
    }
    if (bt.size == 0 && bt.unwindStatus == 0)
        bt.unwindStatus = UNWIND_NO_FRAMES;
}

OwnUnwinding::OwnUnwinding()
{
    tlsOwnUnwinding = true;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

OwnUnwinding::~OwnUnwinding()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    tlsOwnUnwinding = false;
}

void prepareUnwinding(const CodeSpan* onceSpans, int count)
{
    // A cache per thread for the stepwise walk: no lock between threads
    // that unwind at once where libunwind was built with one.
    zs_readying_unwinder = 1;
    unw_set_caching_policy(unw_local_addr_space, UNW_CACHE_PER_THREAD);
    zs_readying_unwinder = 0;
    gOnceSpanCount = 0;
    for (int i = 0; i < count && i < MAX_ONCE_SPANS; ++i)
        gOnceSpans[gOnceSpanCount++] = onceSpans[i];
    if (!gCacheKeyMade.load(std::memory_order_acquire) && !gHoldingKey.load(std::memory_order_acquire)
        && pthread_key_create(&gHeldKey, nullptr) == 0)
        gHoldingKey.store(true, std::memory_order_release);
}

void endThreadUnwinding()
{
    // libunwind frees the thread's cache when the thread is gone.
    if (tlsFastWalk > 0)
        gFastWalkers.fetch_sub(1, std::memory_order_relaxed);
    tlsFastWalk = 0;
}

void resetUnwindingAfterFork()
{
    gFastWalkers.store(tlsFastWalk > 0 ? 1 : 0, std::memory_order_relaxed);
}

void noteSignalReturn()
{
    struct sigaction action;
    if (zs_real_sigaction(zs_sampler_signal(), nullptr, &action) == 0)
        gSignalReturn = reinterpret_cast<unsigned long>(action.sa_restorer);
}

} // namespace zorsampler
