// The ".mpi" side file: one record per MPI call that the program made, with
// the four figures of that call. Every field is a SampleValue in its file
// form: the record count, then per record the name's length in bytes, the
// name (no terminating NUL), and the four figures in the order below.
#ifndef ZOR_MPICALLFILE_H
#define ZOR_MPICALLFILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorvex {

struct MpiCallFigures
{
    const char* name;
    std::uint64_t calls;
    std::uint64_t nanoseconds;      // time inside the call, all calls together
    std::uint64_t bytesSent;        // what the calls took from send buffers
    std::uint64_t bytesReceived;    // the size of the receive buffers they were given
};

// Writes `count` records. Async-signal-safe: one write(2) per field and no
// allocation. False if a write failed.
bool quorvex_write_mpi_calls(int fd, const MpiCallFigures* calls, std::size_t count);

struct MpiCallRecord
{
    std::string name;
    std::uint64_t calls = 0;
    std::uint64_t nanoseconds = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
};

// Reads a whole file; false on a truncated or malformed one, with what was
// read so far left in `calls`.
bool quorvex_read_mpi_calls(int fd, std::vector<MpiCallRecord>& calls);

} // namespace quorvex

#endif
