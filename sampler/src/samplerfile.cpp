#include "samplerfile.h"
#include "sfileio.h"

#include <cstring>

namespace quorvex {

void quorvex_write_sampler_file_header(int fd, const SamplerFileHeader& header)
{
    QUORVEX_WRITE_WIDE(fd, -header.version);
    QUORVEX_WRITE_WIDE(fd, header.startTime.tv_sec);
    QUORVEX_WRITE_WIDE(fd, header.startTime.tv_nsec);
    QUORVEX_WRITE(fd, &header.mpiThreadMultiple, sizeof header.mpiThreadMultiple);
    QUORVEX_WRITE(fd, &header.stopReason, sizeof header.stopReason);
    QUORVEX_WRITE(fd, &header.numPhdrCacheRebuilds, sizeof header.numPhdrCacheRebuilds);
    QUORVEX_WRITE(fd, &header.numPhdrCacheChecks, sizeof header.numPhdrCacheChecks);
    QUORVEX_WRITE(fd, &header.numDownsamples, sizeof header.numDownsamples);
    QUORVEX_WRITE(fd, &header.numSkippedWhileSuspended, sizeof header.numSkippedWhileSuspended);
    QUORVEX_WRITE(fd, &header.numTakenWhileResuming, sizeof header.numTakenWhileResuming);
    QUORVEX_WRITE(fd, &header.numTakenInTotal, sizeof header.numTakenInTotal);
    QUORVEX_WRITE(fd, &header.firstSpareWord, sizeof header.firstSpareWord);
    QUORVEX_WRITE(fd, &header.secondSpareWord, sizeof header.secondSpareWord);
    const std::uint32_t length =
        header.ompThreadsText ? static_cast<std::uint32_t>(std::strlen(header.ompThreadsText) + 1) : 0;
    QUORVEX_WRITE(fd, &length, sizeof length);
    if (length > 0)
        QUORVEX_WRITE(fd, header.ompThreadsText, length);
    QUORVEX_WRITE(fd, &header.cudaProfilingEnabled, sizeof header.cudaProfilingEnabled);
}

void quorvex_write_sampler_file(int fd, const SamplerFileHeader& header, const SSampleList& samples,
                                const SCallSite* callSites, std::size_t numCallSites)
{
    quorvex_write_sampler_file_header(fd, header);
    samples.writeToFile(fd);
    const std::uint32_t count = static_cast<std::uint32_t>(numCallSites);
    QUORVEX_WRITE(fd, &count, sizeof count);
    for (std::size_t i = 0; i < numCallSites; ++i)
        callSites[i].writeToFile(fd);
}

} // namespace quorvex
