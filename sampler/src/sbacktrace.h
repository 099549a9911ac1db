// One thread's backtrace in a sample, with the per-thread facts of that
// moment.
#ifndef ZOR_SBACKTRACE_H
#define ZOR_SBACKTRACE_H

#include "ssimplebacktrace.h"

#include <ctime>

namespace quorvex {

class SBacktrace : public SSimpleBacktrace
{
public:
    SBacktrace();

    void set(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime, bool sleeping);

    quorvex_parallel_id_t parallelId() const { return mParallelId; }
    bool inMpi() const;
    bool isSleeping() const;
    // Writable, so that fusing samples can add CPU time in place.
    timespec& cpuTime();
    const timespec& cpuTime() const;

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    bool readFrom(fileio::RecordInput& in);

private:
    quorvex_parallel_id_t mParallelId;
    bool mInMpi;
    bool mSleeping;
    timespec mCpuTime;
};

} // namespace quorvex

#endif
