// Memory of the whole node, from /proc/meminfo.
#ifndef ZOR_SYSMEMINFO_H
#define ZOR_SYSMEMINFO_H

#include <QStringList>

namespace PreloadSampleSourceUtils {

// The lines of /proc/meminfo, ending in an empty string; an empty list when
// it can't be read.
QStringList readSysMemInfo();
// Sets `total` from "MemTotal:" if there is such a line, and `free` to the
// sum of "MemFree:", "Buffers:" and "Cached:", in the file's units.
void parseSysMemInfo(const QStringList& lines, unsigned long long& total, unsigned long long& free);
// The percentage of memory in use, buffers and cache counted as free; 0
// when the lines don't tell.
short calcSysMemUsage(const QStringList& lines);

} // namespace PreloadSampleSourceUtils

#endif
