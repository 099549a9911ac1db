// Small pure functions that the analysis of a run shares.
#ifndef ZOR_PRELOADSAMPLESOURCEUTILS_H
#define ZOR_PRELOADSAMPLESOURCEUTILS_H

#include <QStringList>
#include <ctime>

#include "debuggertypes.h"

class MetricDefinitions;
namespace quorvex {
class SSampleList;
}

class PreloadSampleSourceUtils
{
public:
    // Milliseconds from b to a. The nanosecond difference is divided on its
    // own, with no borrow between the fields.
    static long long msFromTimespec(timespec a, timespec b);
    static long long nsFromTimespec(timespec t);
    // Into [0, 100]; a NaN gives 100.
    static double clampPercentage(double x);
    // The factor that scales a quantity over the interval up to one second;
    // 1 for an empty interval.
    static double calculateScaleUpFactor(timespec a);

    // Sparse metrics are reported only now and then, a value covering the
    // time since the last report: spreads each value over the empty samples
    // before it, by their intervals for rates, as a copy otherwise.
    static void correctSparseMetrics(quorvex::SSampleList* samples, const MetricDefinitions& definitions);

    // Memory of the whole node, from /proc/meminfo; defined in
    // host/sysmeminfo.cpp beside the self-measuring that uses them.
    // The lines of the file, ending in an empty string; an empty list when
    // it can't be read.
    static QStringList readSysMemInfo();
    // Sets `total` from "MemTotal:" if there is such a line, and `free` to
    // the sum of "MemFree:", "Buffers:" and "Cached:", in the file's units.
    static void parseSysMemInfo(const QStringList& lines, unsigned long long& total, unsigned long long& free);
    // The percentage of memory in use, buffers and cache counted as free;
    // 0 when the lines don't tell.
    static short calcSysMemUsage(const QStringList& lines);
    // The same from the file's text, and from the file itself, read as it
    // is now (false when it can't be read).
    static void parseSysMemInfo(const char* text, unsigned long long& total, unsigned long long& free);
    static bool readSysMem(unsigned long long& total, unsigned long long& free);
    static short sysMemUsage(unsigned long long total, unsigned long long free);

    // The objects of the sampler's "PATH.modules" list, each over the span
    // its file's loadable segments cover from its load address. Objects
    // whose file can't be read now are left out; a missing or damaged list
    // gives none.
    static QList<SharedLibrary> readModulesList(const QString& path);
    // The sampler's "PATH.threads": "TID NAME" lines, of the threads that
    // named themselves. Lines that aren't such are passed over; a missing
    // file gives none.
    static QMap<int, QString> readThreadNames(const QString& path);
    // `libraries` with those of `more` that overlap none of them added.
    static QList<SharedLibrary> withModules(QList<SharedLibrary> libraries, const QList<SharedLibrary>& more);
};

#endif
