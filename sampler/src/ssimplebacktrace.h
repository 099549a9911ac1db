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
    // How mTrace gets its memory. The sampler picks Arena before the first
    // backtrace exists so that filling one never touches the heap: frames
    // come from the arena set with setFrameArena, at about their real
    // length, in powers of two that a backtrace keeps for its next fillings.
    enum StoragePolicy {
        StoragePolicyExact = 0,
        StoragePolicyGrowing = 1,
        StoragePolicyArena = 2
    };

    SSimpleBacktrace();
    // Copies keep to the current policy, so that a copy made in a signal
    // handler takes its frames from the arena.
    SSimpleBacktrace(const SSimpleBacktrace& other);
    // Copies the frames into this trace's own memory.
    SSimpleBacktrace& operator=(const SSimpleBacktrace& other);

    static StoragePolicy storagePolicy();
    static void setStoragePolicy(StoragePolicy policy);
    // The arena of the Arena policy; one that never allocates. When it is
    // used up, a backtrace keeps the innermost frames that fit the room it
    // has, and says that it was cut short.
    static void setFrameArena(TraceArena* arena);

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
    // Room for `frames` under the Arena policy; false when the arena is
    // used up.
    bool makeRoom(std::size_t frames);

    static StoragePolicy mStoragePolicy;
    static bool mStoragePolicyLocked;
    static TraceArena* mFrameArena;
};

} // namespace quorvex

#endif
