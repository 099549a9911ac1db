// OpenMP parallel regions: their call sites, and the marks that let a
// worker's backtrace stop where the region's code was called by the
// runtime.
//
// GCC's libgomp: the sampler stands in front of the functions that open a
// region (GOMP_parallel and its loop, sections and reductions forms). The
// region's function is handed to libgomp behind gompRegionEntry, which
// marks each worker for as long as it runs the function; the unwinder
// stops at gompRegionEntry's frame.
//
// LLVM's libomp: the sampler is a tool of the OpenMP tools interface. The
// start of a parallel region records its call site on the thread that opens
// it; the start of an implicit task marks the worker, and the unwinder
// stops at the first frame of libomp above the region's code. The mark goes
// when the worker reaches the barrier that ends the region: libomp tells
// the implicit task's end only once the worker is released into the next
// region, and a worker that waits in between, yielding in the C library,
// would otherwise look like the opening function calling sched_yield.
#include "regions.h"
#include "runtime.h"
#include "samplerstate.h"
#include "sampling.h"
#include "scallsite.h"
#include "threads.h"

#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <pthread.h>
#include <unistd.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#ifdef ZOR_OMP_TOOLS_H
#include ZOR_OMP_TOOLS_H
#endif

#define ZS_EXPORT extern "C" __attribute__((visibility("default")))

namespace zorsampler {

namespace {

struct TextRange
{
    unsigned long low = 0;
    unsigned long high = 0;
    bool contains(unsigned long ip) const { return ip >= low && ip < high; }
};

// The executable segment of the loaded object that holds `address`.
TextRange textRangeOf(const void* address)
{
    struct Search
    {
        unsigned long address;
        TextRange range;
    } search{reinterpret_cast<unsigned long>(address), TextRange()};
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            Search* s = static_cast<Search*>(data);
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const ElfW(Phdr)& segment = info->dlpi_phdr[i];
                if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X))
                    continue;
                const unsigned long low = info->dlpi_addr + segment.p_vaddr;
                if (s->address >= low && s->address < low + segment.p_memsz) {
                    s->range = TextRange{low, low + segment.p_memsz};
                    return 1;
                }
            }
            return 0;
        },
        &search);
    return search.range;
}

TextRange gSamplerText;
pthread_once_t gSamplerTextOnce = PTHREAD_ONCE_INIT;

std::uint64_t hashFrames(const unsigned long* frames, std::uint32_t size)
{
    std::uint64_t hash = 1469598103934665603ULL ^ size;
    for (std::uint32_t i = 0; i < size; ++i)
        hash = (hash ^ frames[i]) * 1099511628211ULL;
    return hash;
}

int findSite(std::uint64_t hash, const unsigned long* frames, std::uint32_t size, int from, int to)
{
    for (int i = from; i < to; ++i) {
        const CallSiteEntry& e = gCallSites[i];
        if (e.hash == hash && e.size == size && std::memcmp(e.frames, frames, size * sizeof *frames) == 0)
            return i;
    }
    return -1;
}

pthread_mutex_t gAddLock = PTHREAD_MUTEX_INITIALIZER;

int callingTid()
{
    ThreadSlot* slot = currentSlot();
    return slot ? slot->tid.load(std::memory_order_relaxed) : currentTid();
}

// The site of a region being opened on this thread: the stack from the
// first frame outside the sampler and `runtime` (the return address into
// the function that opens the region) up to the boundary frame. 0 if the
// table is full.
quorvex_parallel_id_t recordCallSite(const TextRange& runtime)
{
    pthread_once(&gSamplerTextOnce, [] { gSamplerText = textRangeOf(reinterpret_cast<const void*>(&textRangeOf)); });
    const OwnUnwinding busy;
    unsigned long frames[MAX_BACKTRACE_DEPTH];
    std::uint32_t size = 0;
    unw_context_t context;
    unw_cursor_t cursor;
    if (unw_getcontext(&context) != 0 || unw_init_local(&cursor, &context) != 0)
        return 0;
    const unsigned long boundary = gState.boundaryIp;
    bool leading = true;
    do {
        unw_word_t ip = 0;
        if (unw_get_reg(&cursor, UNW_REG_IP, &ip) < 0)
            break;
        if (leading && (gSamplerText.contains(ip) || runtime.contains(ip)))
            continue;
        leading = false;
        if (boundary != 0 && ip == boundary)
            break;
        frames[size++] = ip;
    } while (size < MAX_BACKTRACE_DEPTH && unw_step(&cursor) > 0);
    return size ? callSiteId(frames, size, callingTid()) : 0;
}

// Marks the calling thread as a worker of a region, or restores what it was;
// a handler on this thread sees either the old or the new region whole.
void setWorkerRegion(const WorkerRegion& region)
{
    zs_worker_region.id = 0;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    zs_worker_region.low = region.low;
    zs_worker_region.high = region.high;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    zs_worker_region.id = region.id;
}

// ---- libgomp ----

struct GompRegion
{
    void (*fn)(void*);
    void* data;
    quorvex_parallel_id_t id;
    int openerTid;
};

TextRange gEntryText;
pthread_once_t gEntryTextOnce = PTHREAD_ONCE_INIT;

__attribute__((noinline)) void gompRegionEntry(void* argument)
{
    const GompRegion* region = static_cast<const GompRegion*>(argument);
    // The thread that opened the region runs it too; its stack goes on into
    // the opening function by itself.
    const bool worker = region->id != 0 && callingTid() != region->openerTid;
    const WorkerRegion saved = zs_worker_region;
    if (worker)
        setWorkerRegion(WorkerRegion{region->id, gEntryText.low, gEntryText.high});
    region->fn(region->data);
    if (worker)
        setWorkerRegion(saved);
    // The call above must stay a call: its return address is the mark.
    asm volatile("" ::: "memory");
}

GompRegion openGompRegion(void (*fn)(void*), void* data)
{
    pthread_once(&gEntryTextOnce, [] {
        const OwnUnwinding busy;
        unw_proc_info_t info;
        if (unw_get_proc_info_by_ip(unw_local_addr_space, reinterpret_cast<unw_word_t>(&gompRegionEntry), &info,
                                    nullptr)
            == 0)
            gEntryText = TextRange{static_cast<unsigned long>(info.start_ip), static_cast<unsigned long>(info.end_ip)};
    });
    GompRegion region{fn, data, 0, callingTid()};
    if (gEntryText.high != 0)
        region.id = recordCallSite(TextRange());
    return region;
}

template <typename F>
F realGomp(std::atomic<F>& cache, const char* name)
{
    F real = cache.load(std::memory_order_acquire);
    if (!real) {
        real = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
        cache.store(real, std::memory_order_release);
    }
    return real;
}

// ---- libomp, through the OpenMP tools interface ----

#ifdef ZOR_OMP_TOOLS_H

TextRange gOmpText;

// The regions this thread is a worker of, innermost last.
const int MAX_NESTED_REGIONS = 16;
ZS_TLS WorkerRegion tlsOuterRegions[MAX_NESTED_REGIONS];
ZS_TLS int tlsNestedRegions;

void onParallelBegin(ompt_data_t*, const ompt_frame_t*, ompt_data_t* parallel, unsigned int, int, const void*)
{
    if (parallel)
        parallel->value = static_cast<std::uint64_t>(recordCallSite(gOmpText));
}

// What an implicit task's data holds: whether it marked its thread.
enum : std::uint64_t { TaskUnmarked = 0, TaskMarked = 1, TaskMarkGone = 2 };

void unmarkWorker(ompt_data_t* task)
{
    if (task && task->value == TaskMarked && tlsNestedRegions > 0) {
        setWorkerRegion(tlsOuterRegions[--tlsNestedRegions]);
        task->value = TaskMarkGone;
    }
}

void onImplicitTask(ompt_scope_endpoint_t endpoint, ompt_data_t* parallel, ompt_data_t* task, unsigned int,
                    unsigned int index, int flags)
{
    if ((flags & ompt_task_initial) || !task)
        return;
    if (endpoint == ompt_scope_begin) {
        // The thread that opened the region is its thread 0.
        task->value = TaskUnmarked;
        if (index == 0 || !parallel || parallel->value == 0 || tlsNestedRegions == MAX_NESTED_REGIONS)
            return;
        tlsOuterRegions[tlsNestedRegions++] = zs_worker_region;
        setWorkerRegion(WorkerRegion{static_cast<quorvex_parallel_id_t>(parallel->value), gOmpText.low, gOmpText.high});
        task->value = TaskMarked;
    } else if (endpoint == ompt_scope_end) {
        unmarkWorker(task);
    }
}

void onSyncRegion(ompt_sync_region_t kind, ompt_scope_endpoint_t endpoint, ompt_data_t*, ompt_data_t* task,
                  const void* codeptr)
{
    // Runtimes before OpenMP 5.1's kinds call every implicit barrier
    // "implicit"; the one that ends the region is the one a worker reaches
    // from no code of the program's.
    const bool endOfRegion = kind == ompt_sync_region_barrier_implicit_parallel
        || (kind == ompt_sync_region_barrier_implicit && !codeptr);
    if (endOfRegion && endpoint == ompt_scope_begin)
        unmarkWorker(task);
}

int omptInitialize(ompt_function_lookup_t lookup, int, ompt_data_t*)
{
    auto setCallback = reinterpret_cast<ompt_set_callback_t>(lookup("ompt_set_callback"));
    if (!setCallback)
        return 0;
    gOmpText = textRangeOf(reinterpret_cast<const void*>(lookup));
    setCallback(ompt_callback_parallel_begin, reinterpret_cast<ompt_callback_t>(&onParallelBegin));
    setCallback(ompt_callback_implicit_task, reinterpret_cast<ompt_callback_t>(&onImplicitTask));
    setCallback(ompt_callback_sync_region, reinterpret_cast<ompt_callback_t>(&onSyncRegion));
    return 1;
}

void omptFinalize(ompt_data_t*)
{
}

#endif

} // namespace

quorvex_parallel_id_t callSiteId(const unsigned long* frames, std::uint32_t size, int tid)
{
    if (size > MAX_BACKTRACE_DEPTH)
        size = MAX_BACKTRACE_DEPTH;
    const std::uint64_t hash = hashFrames(frames, size);
    const int known = gCallSiteCount.load(std::memory_order_acquire);
    int index = findSite(hash, frames, size, 0, known);
    if (index < 0) {
        pthread_mutex_lock(&gAddLock);
        const int count = gCallSiteCount.load(std::memory_order_relaxed);
        index = findSite(hash, frames, size, known, count);
        if (index < 0 && count < MAX_CALL_SITES) {
            CallSiteEntry& e = gCallSites[count];
            e.hash = hash;
            e.tid = tid;
            e.size = size;
            std::memcpy(e.frames, frames, size * sizeof *frames);
            gCallSiteCount.store(count + 1, std::memory_order_release);
            index = count;
        }
        pthread_mutex_unlock(&gAddLock);
        if (index < 0)
            return 0;
    }
    gCallSites[index].opened.fetch_add(1, std::memory_order_relaxed);
    return index + 1;
}

void prepareCallSiteWriting()
{
    alignas(quorvex::SCallSite) static unsigned char storage[sizeof(quorvex::SCallSite)];
    if (!gCallSiteRecord.load(std::memory_order_acquire))
        gCallSiteRecord.store(new (storage) quorvex::SCallSite(), std::memory_order_release);
}

} // namespace zorsampler

using namespace zorsampler;

// libgomp's entry points that open a parallel region. Each hands the
// region's function to libgomp behind gompRegionEntry. The region lives in
// this frame, so the call to libgomp must not become a jump: the empty asm
// behind it keeps the frame until libgomp returns, when the region is over.
#define ZS_GOMP_OPEN(name, result, parameters, arguments) \
    ZS_EXPORT result name parameters \
    { \
        static std::atomic<result(*) parameters> real{nullptr}; \
        GompRegion region = openGompRegion(fn, data); \
        if (region.id != 0) { \
            fn = gompRegionEntry; \
            data = &region; \
        } \
        result value = realGomp(real, #name) arguments; \
        asm volatile("" : : "r"(&region) : "memory"); \
        return value; \
    }
#define ZS_GOMP_OPEN_VOID(name, parameters, arguments) \
    ZS_EXPORT void name parameters \
    { \
        static std::atomic<void(*) parameters> real{nullptr}; \
        GompRegion region = openGompRegion(fn, data); \
        if (region.id != 0) { \
            fn = gompRegionEntry; \
            data = &region; \
        } \
        realGomp(real, #name) arguments; \
        asm volatile("" : : "r"(&region) : "memory"); \
    }

#define ZS_GOMP_LOOP(name) \
    ZS_GOMP_OPEN_VOID(name, \
                 (void (*fn)(void*), void* data, unsigned numThreads, long start, long end, long incr, long chunk, \
                  unsigned flags), \
                 (fn, data, numThreads, start, end, incr, chunk, flags))
#define ZS_GOMP_LOOP_RUNTIME(name) \
    ZS_GOMP_OPEN_VOID(name, \
                 (void (*fn)(void*), void* data, unsigned numThreads, long start, long end, long incr, unsigned flags), \
                 (fn, data, numThreads, start, end, incr, flags))

ZS_GOMP_OPEN_VOID(GOMP_parallel, (void (*fn)(void*), void* data, unsigned numThreads, unsigned flags),
             (fn, data, numThreads, flags))
ZS_GOMP_OPEN(GOMP_parallel_reductions, unsigned, (void (*fn)(void*), void* data, unsigned numThreads, unsigned flags),
             (fn, data, numThreads, flags))
ZS_GOMP_OPEN_VOID(GOMP_parallel_sections,
             (void (*fn)(void*), void* data, unsigned numThreads, unsigned count, unsigned flags),
             (fn, data, numThreads, count, flags))
ZS_GOMP_LOOP(GOMP_parallel_loop_static)
ZS_GOMP_LOOP(GOMP_parallel_loop_dynamic)
ZS_GOMP_LOOP(GOMP_parallel_loop_guided)
ZS_GOMP_LOOP(GOMP_parallel_loop_nonmonotonic_dynamic)
ZS_GOMP_LOOP(GOMP_parallel_loop_nonmonotonic_guided)
ZS_GOMP_LOOP_RUNTIME(GOMP_parallel_loop_runtime)
ZS_GOMP_LOOP_RUNTIME(GOMP_parallel_loop_nonmonotonic_runtime)
ZS_GOMP_LOOP_RUNTIME(GOMP_parallel_loop_maybe_nonmonotonic_runtime)

#ifdef ZOR_OMP_TOOLS_H
// libomp asks for this when it starts: the sampler becomes its tool.
ZS_EXPORT ompt_start_tool_result_t* ompt_start_tool(unsigned int, const char*)
{
    static ompt_start_tool_result_t result = {&omptInitialize, &omptFinalize, {0}};
    return &result;
}
#endif
