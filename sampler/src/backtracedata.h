// What the sampler's unwinder hands to the raw records for one thread.
#ifndef ZOR_BACKTRACEDATA_H
#define ZOR_BACKTRACEDATA_H

#include <cstdint>

#define MAX_BACKTRACE_DEPTH 500

// The stack went on beyond the frames kept.
#define UNW_ZOR_CUT_SHORT 100
// No unwind was recorded for this backtrace.
#define UNW_ZOR_NOT_SET 102

typedef int quorvex_parallel_id_t;

struct BacktraceData
{
    unsigned long frames[MAX_BACKTRACE_DEPTH];
    std::uint32_t size;
    int unwindStatus;
    bool stopsAtCallingFrame;
};

struct ExtendedBacktraceData : BacktraceData
{
    quorvex_parallel_id_t parallelId;
};

#endif
