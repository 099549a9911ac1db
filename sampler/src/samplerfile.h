// The sampler data file as a whole: the header, one sample list, then the
// call sites. The back-end reads it with quorvex_read_samples; this is the
// writing side, for the sampler and for tests.
#ifndef ZOR_SAMPLERFILE_H
#define ZOR_SAMPLERFILE_H

#include "scallsite.h"
#include "ssamplelist.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace quorvex {

// The format version, the one definition for writers, readers and the
// sampler's answer to the back-end; the file stores it negated.
const int QUORVEX_SAMPLER_FILE_VERSION = 700;
// The header's stop reasons, as the sampler's C interface numbers them.
const int QUORVEX_STOP_REASON_PROGRAM_ENDED = 1;
const int QUORVEX_STOP_REASON_ON_REQUEST = 2;

struct SamplerFileHeader
{
    std::int64_t version = QUORVEX_SAMPLER_FILE_VERSION;
    timespec startTime = {0, 0};
    std::int32_t mpiThreadMultiple = 0;
    std::int32_t stopReason = 0;
    std::uint64_t numPhdrCacheRebuilds = 0;
    std::uint64_t numPhdrCacheChecks = 0;
    std::uint64_t numDownsamples = 0;
    std::uint64_t numSkippedWhileSuspended = 0;
    std::uint64_t numTakenWhileResuming = 0;
    std::uint64_t numTakenInTotal = 0;
    std::uint32_t firstSpareWord = 0;
    std::uint32_t secondSpareWord = 0;
    // Written with its terminating NUL; null writes a length of 0.
    const char* ompThreadsText = nullptr;
    std::uint32_t cudaProfilingEnabled = 0;
};

// Writes the header fields. The version goes out negated.
void quorvex_write_sampler_file_header(int fd, const SamplerFileHeader& header);

// The whole file: header, list, call-site count and call sites.
void quorvex_write_sampler_file(int fd, const SamplerFileHeader& header, const SSampleList& samples,
                                const SCallSite* callSites, std::size_t numCallSites);

} // namespace quorvex

#endif
