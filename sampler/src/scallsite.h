// Where a parallel region was opened: the backtrace of the opening thread,
// keyed by the region's parallel id.
#ifndef ZOR_SCALLSITE_H
#define ZOR_SCALLSITE_H

#include "ssimplebacktrace.h"

#include <cstdint>

namespace quorvex {

class SCallSite
{
public:
    SCallSite();
    SCallSite(int parallelId, int tid, BacktraceData* bt, unsigned long tag);

    // Makes this the site given, as the constructor would, reusing the
    // storage of the trace: under the preallocated policy nothing is
    // allocated, so that the sampler can write its sites from a handler.
    void set(int parallelId, int tid, const BacktraceData& bt, unsigned long tag);

    quorvex_parallel_id_t parallelId() const;
    const SSimpleBacktrace* callSite() const;
    int tid() const { return mTid; }
    std::uint64_t tag() const { return mTag; }
    bool isValid() const { return mValid; }

    void writeToFile(int fd) const;
    bool readFromFile(int fd);

private:
    quorvex_parallel_id_t mParallelId;
    int mTid;
    SSimpleBacktrace mCallSite;
    std::uint64_t mTag;
    bool mValid;
};

} // namespace quorvex

#endif
