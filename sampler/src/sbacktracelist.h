// The backtraces of the other threads of one sample. The objects live in a
// pool made before sampling and are reused sample after sample, so that
// adding a thread in the signal handler costs no allocation while the pool
// lasts.
#ifndef ZOR_SBACKTRACELIST_H
#define ZOR_SBACKTRACELIST_H

#include "sbacktrace.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quorvex {

class SBacktraceList
{
public:
    explicit SBacktraceList(int preallocated);
    SBacktraceList(const SBacktraceList& other);
    SBacktraceList& operator=(const SBacktraceList& other);
    ~SBacktraceList();

    void addBacktrace(const ExtendedBacktraceData& bt, bool inMpi, int tid, const timespec& cpuTime, bool sleeping);
    // A copy of `bt`, into a pooled object if there is one free.
    void addBacktrace(const SBacktrace& bt);
    // Whether a backtrace can be added without allocating.
    bool hasRoom() const { return mNumTraces < mTraces.size(); }
    void clear();

    std::size_t size() const { return static_cast<std::size_t>(mNumTraces); }
    std::size_t count() const { return static_cast<std::size_t>(mNumTraces); }

    SBacktrace& operator[](std::size_t index);
    const SBacktrace& operator[](std::size_t index) const;

    bool isPreallocated(const SBacktrace* bt) const;
    // The only growth path; it allocates.
    SBacktrace* createNewSBacktrace();

    void writeToFile(int fd) const;
    bool readFromFile(int fd);
    bool readFrom(fileio::RecordInput& in);

private:
    void buildPool(int count);
    SBacktrace* entry(std::size_t index) const;

    SBacktrace* mPool;
    std::size_t mPoolBytes;
    int mPoolCount;
    std::uint64_t mNumTraces;
    std::vector<SBacktrace*> mTraces;
};

} // namespace quorvex

#endif
