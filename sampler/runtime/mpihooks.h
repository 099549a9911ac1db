// The sampler's side of the MPI wrapper's hooks (quorvex_mpi_hooks.h), for
// the parts of the sampler that report on MPI.
#ifndef ZOR_SAMPLER_MPIHOOKS_H
#define ZOR_SAMPLER_MPIHOOKS_H

#include <cstdint>

namespace zorsampler {

// The sampler's clock: the time stamp counter where there is one, else
// nanoseconds of the monotonic clock. Cheap enough to read twice per MPI
// call.
std::uint64_t mpiTicks();
// Ticks to nanoseconds, at the rate measured since the library was loaded.
// Async-signal-safe.
std::uint64_t mpiTicksToNs(std::uint64_t ticks);

// The MPI time of the process's threads since the last call, the part of
// the calls still running included, in nanoseconds. Whoever holds the
// sampling lock calls it.
std::uint64_t takeMpiTimeNs();

// Whether MPI granted several threads the right to call it at once.
bool mpiThreadMultiple();

// Whether an MPI wrapper has registered its calls: only then is there an
// ".mpi" to write.
bool mpiWrapperLoaded();

// Writes ".mpi": the figures of every call that the wrapper saw made.
// Async-signal-safe.
void writeMpiFile(int fd);

} // namespace zorsampler

#endif
