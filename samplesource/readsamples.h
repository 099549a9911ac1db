// The back-end's reader of a whole sampler data file.
#ifndef ZOR_READSAMPLES_H
#define ZOR_READSAMPLES_H

#include "samplerfile.h"
#include "scallsite.h"
#include "ssamplelist.h"

#include <QMap>
#include <QString>

#include <cstdint>
#include <ctime>

// The oldest format this reader takes.
const int QUORVEX_REQUIRED_SAMPLER_VERSION = quorvex::QUORVEX_SAMPLER_FILE_VERSION;

// Reads the file at `path`. Header fields are stored as soon as they are
// read, so a later failure leaves the earlier ones set. Call sites are keyed
// by parallel id. Returns a new list owned by the caller, or null; the
// caller also treats a non-zero errno afterwards as a failure.
quorvex::SSampleList* quorvex_read_samples(const char* path, timespec* startTime, int* stopReason,
                                           unsigned long* numPhdrCacheRebuilds, unsigned long* numPhdrCacheChecks,
                                           unsigned long* numDownsamples, std::uint64_t* numSkippedWhileSuspended,
                                           std::uint64_t* numTakenWhileResuming, std::uint64_t* numTakenInTotal,
                                           unsigned int* firstSpareWord, unsigned int* secondSpareWord,
                                           QString& ompThreadsText, bool* cudaProfilingEnabled,
                                           QMap<int, quorvex::SCallSite>& callSites, bool* mpiThreadMultiple);

// The stop reason of the file's header alone, or -1 where it can't be read.
int quorvex_read_stop_reason(const char* path);

#endif
