// The per-sample metrics that come from /proc: resident memory and the
// bytes that the process read and wrote. The files are opened once, when
// sampling is armed, and read from the signal handler with pread, which
// makes the kernel produce their text anew each time.
#ifndef ZOR_SAMPLER_PROCMETRICS_H
#define ZOR_SAMPLER_PROCMETRICS_H

#include "procparse.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace zorsampler {

class ProcFile
{
public:
    // Opens `path` read-only; false with errno set on failure.
    bool open(const char* path);
    // Reads the whole text afresh into `buffer`, NUL-terminated; the
    // length, or -1. Safe in a signal handler.
    long read(char* buffer, std::size_t size) const;
    // Closes the descriptor, unless the program closed it meanwhile and the
    // number now stands for a file of its own.
    void close();
    bool isOpen() const { return mOpen; }

private:
    // No initialisers: the object lives in the sampler's zero-initialised
    // state.
    bool mOpen;
    int mFd;
    dev_t mDevice;
    ino_t mInode;
};

} // namespace zorsampler

#endif
