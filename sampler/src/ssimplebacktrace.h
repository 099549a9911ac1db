// The addresses of one thread's stack and the outcome of unwinding it.
#ifndef ZOR_SSIMPLEBACKTRACE_H
#define ZOR_SSIMPLEBACKTRACE_H

#include "backtracedata.h"
#include "sfileio.h"
#include "tracearena.h"

#include <vector>

namespace quorvex {

typedef std::vector<unsigned long, TraceAllocator<unsigned long>> backtrace_t;

class SSimpleBacktrace
{
public:
    // How mTrace gets its memory. The sampler picks Preallocated before the
    // first backtrace exists so that filling one never touches the heap.
    enum StoragePolicy {
        StoragePolicyExact = 0,
        StoragePolicyGrowing = 1,
        StoragePolicyPreallocated = 2
    };

    SSimpleBacktrace();
    // Copies keep the reservation of the current policy, so that a copy made
    // before sampling can be filled in a signal handler.
    SSimpleBacktrace(const SSimpleBacktrace& other);
    // Copies the frames into this trace's own memory.
    SSimpleBacktrace& operator=(const SSimpleBacktrace& other);

    static StoragePolicy storagePolicy();
    static void setStoragePolicy(StoragePolicy policy);

    void set(const BacktraceData& bt, int tid);
    void invalidate();
    bool isValid() const { return mValid; }

    int tid() const;
    int unwindStatus() const;
    const backtrace_t& trace() const;
    bool stopsAtCallingFrame() const;

    void appendTrace(const backtrace_t& other);
    void printTrace() const;

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    bool readFrom(fileio::RecordInput& in);

protected:
    backtrace_t mTrace;
    // The arena that mTrace's memory comes from, or null for the heap.
    TraceArena* mArena;
    int mUnwindStatus;
    int mTid;
    bool mValid;
    bool mStopsAtCallingFrame;

private:
    void reserveForPolicy();

    static StoragePolicy mStoragePolicy;
    static bool mStoragePolicyLocked;
};

} // namespace quorvex

#endif
