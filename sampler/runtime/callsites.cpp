// The call sites as the data file ends, written from a handler if need be;
// and the worker's region that the unwinder reads in the worker's own
// handler.
#include "regions.h"

#include "scallsite.h"
#include "sfileio.h"

#include <atomic>
#include <cstring>

namespace zorsampler {

ZS_TLS WorkerRegion zs_worker_region;
CallSiteEntry gCallSites[MAX_CALL_SITES];
std::atomic<int> gCallSiteCount{0};
std::atomic<quorvex::SCallSite*> gCallSiteRecord{nullptr};

namespace {

BacktraceData gRecordTrace;

} // namespace

void writeCallSites(int fd)
{
    quorvex::SCallSite* record = gCallSiteRecord.load(std::memory_order_acquire);
    const std::uint32_t count = record ? static_cast<std::uint32_t>(gCallSiteCount.load(std::memory_order_acquire)) : 0;
    QUORVEX_WRITE(fd, &count, sizeof count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const CallSiteEntry& e = gCallSites[i];
        gRecordTrace.size = e.size;
        gRecordTrace.unwindStatus = 0;
        gRecordTrace.stopsAtCallingFrame = false;
        std::memcpy(gRecordTrace.frames, e.frames, e.size * sizeof *e.frames);
        // The tag: how often a region was opened from the site.
        record->set(static_cast<int>(i + 1), e.tid, gRecordTrace, e.opened.load(std::memory_order_relaxed));
        record->writeToFile(fd);
    }
}

} // namespace zorsampler
