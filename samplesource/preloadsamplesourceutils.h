// Small pure functions that the analysis of a run shares.
#ifndef ZOR_PRELOADSAMPLESOURCEUTILS_H
#define ZOR_PRELOADSAMPLESOURCEUTILS_H

#include <ctime>

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
};

#endif
