// The program's dispositions of the signals, as it set them, kept by the
// sampler in a table that handlers read without a lock.
#ifndef ZOR_SAMPLER_DISPOSITIONS_H
#define ZOR_SAMPLER_DISPOSITIONS_H

#include "runtime.h"

#include <csignal>

namespace zorsampler {

// A consistent copy of the program's disposition of `sig`, from any
// context; false when the program never set one.
bool loadDisposition(int sig, struct sigaction& action);
// What SA_RESETHAND does, in the table.
void resetDispositionToDefault(int sig);
struct sigaction defaultAction();

// Whether the default action of `sig` ends the process.
bool endsTheProcess(int sig);
// While sampling, a signal that would end the process by its default
// action has the sampler's fatal handler in the kernel, which writes the
// results and then lets the signal end the process as it would have.
bool installFatalHandlers();

// Set while the sampler's own handler runs on this thread: mask changes
// made there (libunwind blocks signals around some look-ups) are not the
// program's.
extern ZS_TLS bool tlsInSamplerHandler;

} // namespace zorsampler

#endif
