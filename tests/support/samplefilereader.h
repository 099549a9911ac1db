// A sampler data file as the back-end's reader gives it, with every figure of
// its header.
#ifndef ZOR_TEST_SAMPLEFILEREADER_H
#define ZOR_TEST_SAMPLEFILEREADER_H

#include "readsamples.h"

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

struct SampleFileRead
{
    SampleFileRead() = default;
    explicit SampleFileRead(const std::string& path)
    {
        errno = 0;
        list.reset(quorvex_read_samples(path.c_str(), &startTime, &stopReason, &rebuilds, &checks, &downsamples,
                                        &skipped, &resuming, &total, &spare1, &spare2, ompText, &cuda, callSites,
                                        &mpiMultiple));
        error = errno;
    }

    std::unique_ptr<quorvex::SSampleList> list;
    timespec startTime = {-1, -1};
    int stopReason = -1;
    unsigned long rebuilds = 0, checks = 0, downsamples = 0;
    std::uint64_t skipped = 0, resuming = 0, total = 0;
    unsigned int spare1 = 0, spare2 = 0;
    QString ompText;
    // Not what a file holds, so that a reader that leaves them shows.
    bool cuda = true, mpiMultiple = true;
    QMap<int, quorvex::SCallSite> callSites;
    int error = 0; // errno after the reading
};

#endif
