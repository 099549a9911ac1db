// Decompressed copies of separate debug files, kept between runs.
//
// Distributions ship separate debug files with their sections compressed
// (Debian's -dbg and -dbgsym packages); libdw inflates every debug section
// of such a file when it opens it, whichever parts are then read: some 50 ms
// of CPU for the C library alone, at every run. A copy with the sections
// stored plainly costs that once per machine.
//
// A copy is named by the build ID of the file it describes, so a library
// updated in place gets a copy of its own; copies are written to a temporary
// name and renamed, so that ranks of one run starting together never see
// half a file. The least recently used copies go when the directory grows
// beyond its budget.
//
// ZOR_DEBUG_CACHE: unset, copies live in $XDG_CACHE_HOME/zor/debug (or
// ~/.cache/zor/debug); "off" (or "no", "0") keeps none; a path keeps them
// there.
#ifndef ZOR_DEBUGCACHE_H
#define ZOR_DEBUGCACHE_H

#include <QString>
#include <elfutils/libdwfl.h>

namespace DebugCache {

// A libdwfl find_debuginfo callback: the cached copy where there is one,
// else what libdwfl's standard search finds, copied decompressed first when
// its sections are compressed.
int findDebuginfo(Dwfl_Module* module, void** userdata, const char* moduleName, Dwarf_Addr base,
                  const char* fileName, const char* debuglinkFile, GElf_Word debuglinkCrc,
                  char** debuginfoFileName);

// The directory of the copies; empty when caching is off.
QString directory();

// Bytes the copies may take together before the oldest go.
const qint64 Budget = 1024LL * 1024 * 1024;

} // namespace DebugCache

#endif
