// Backtraces with libunwind, from the context that the kernel hands to a
// signal handler: the first frame is the instruction the thread was at, the
// others are return addresses.
#include "regions.h"
#include "sampling.h"

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace zorsampler {

void unwindFromSignalContext(ExtendedBacktraceData& bt, void* ucontext, unsigned long boundaryIp)
{
    bt.size = 0;
    bt.unwindStatus = 0;
    bt.stopsAtCallingFrame = false;
    bt.parallelId = 0;

    unw_cursor_t cursor;
    // On this platform a libunwind context is the ucontext_t of a signal.
    int result = unw_init_local2(&cursor, static_cast<unw_context_t*>(ucontext), UNW_INIT_SIGNAL_FRAME);
    if (result < 0) {
        bt.unwindStatus = -result;
        return;
    }
    // A worker of a parallel region: its stack stops where the runtime
    // called the region's code, and the region's call site continues it.
    const WorkerRegion region = zs_worker_region;
    bool pastRuntime = false;
    for (;;) {
        unw_word_t ip = 0;
        result = unw_get_reg(&cursor, UNW_REG_IP, &ip);
        if (result < 0) {
            bt.unwindStatus = -result;
            break;
        }
        if (boundaryIp != 0 && ip == boundaryIp)
            break;
        if (region.id != 0) {
            const bool inRuntime = ip >= region.low && ip < region.high;
            if (inRuntime && pastRuntime) {
                bt.stopsAtCallingFrame = true;
                bt.parallelId = region.id;
                break;
            }
            pastRuntime = pastRuntime || !inRuntime;
        }
        if (bt.size == MAX_BACKTRACE_DEPTH) {
            bt.unwindStatus = UNWIND_TOO_DEEP;
            break;
        }
        bt.frames[bt.size++] = ip;
        result = unw_step(&cursor);
        if (result < 0)
            bt.unwindStatus = -result;
        if (result <= 0)
            break;
    }
    if (bt.size == 0 && bt.unwindStatus == 0)
        bt.unwindStatus = UNWIND_NO_FRAMES;
}

void prepareUnwinding()
{
    // A cache per thread: no lock between threads that unwind at once.
    unw_set_caching_policy(unw_local_addr_space, UNW_CACHE_PER_THREAD);
    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) == 0 && unw_init_local(&cursor, &context) == 0) {
        while (unw_step(&cursor) > 0) {
        }
    }
}

} // namespace zorsampler
