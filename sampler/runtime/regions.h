// Parallel regions of OpenMP: where each was opened (its call site), and
// where a worker thread's stack leaves the region's code for the runtime's.
// A worker's backtrace stops there, marked with the region's id, and the
// analysis continues it with the frames of the call site.
#ifndef ZOR_SAMPLER_REGIONS_H
#define ZOR_SAMPLER_REGIONS_H

#include "backtracedata.h"
#include "runtime.h"

#include <atomic>
#include <cstdint>

namespace quorvex {
class SCallSite;
}

namespace zorsampler {

// The region the calling thread works in as a worker, id 0 for none. Its
// stack leaves the region's code at the first frame inside [low, high)
// that follows a frame outside it: the runtime's code that called the
// region's function.
struct WorkerRegion
{
    quorvex_parallel_id_t id;
    unsigned long low;
    unsigned long high;
};

extern ZS_TLS WorkerRegion zs_worker_region ZS_HIDDEN;

// The most distinct call sites kept; regions opened from further sites get
// id 0 and their workers' stacks are not cut.
const int MAX_CALL_SITES = 1024;

// One call site. Zero-initialised, with no constructor to run: entries
// below gCallSiteCount are complete and never change but for their count of
// openings. The id of gCallSites[i] is i + 1.
struct CallSiteEntry
{
    std::uint64_t hash;
    int tid;
    std::uint32_t size;
    std::atomic<std::uint64_t> opened;
    unsigned long frames[MAX_BACKTRACE_DEPTH];
};
extern CallSiteEntry gCallSites[MAX_CALL_SITES];
extern std::atomic<int> gCallSiteCount;
// The record that writing reuses; null until prepareCallSiteWriting.
extern std::atomic<quorvex::SCallSite*> gCallSiteRecord;

// The id of the site with these frames (the return address into the
// function that opened the region first), added if new; `tid` is the
// opening thread. 0 when the table is full. Not for signal handlers.
quorvex_parallel_id_t callSiteId(const unsigned long* frames, std::uint32_t size, int tid);

// Before the first sample: the record that writing reuses, made under the
// sampler's storage policy.
void prepareCallSiteWriting();

// The count and the records of the call sites, as the data file ends.
// Async-signal-safe; writes a count of 0 if prepareCallSiteWriting never ran.
void writeCallSites(int fd);

} // namespace zorsampler

#endif
