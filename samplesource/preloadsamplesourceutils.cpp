#include "preloadsamplesourceutils.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <cmath>

using quorvex::ONE_SECOND_NS;

long long PreloadSampleSourceUtils::msFromTimespec(timespec a, timespec b)
{
    return static_cast<long long>(a.tv_sec - b.tv_sec) * 1000 + static_cast<long long>(a.tv_nsec - b.tv_nsec) / 1000000;
}

long long PreloadSampleSourceUtils::nsFromTimespec(timespec t)
{
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

double PreloadSampleSourceUtils::clampPercentage(double x)
{
    if (x < 0)
        return 0;
    if (x < 100)
        return x;
    return 100;
}

double PreloadSampleSourceUtils::calculateScaleUpFactor(timespec a)
{
    if (a.tv_sec == 0 && a.tv_nsec == 0)
        return 1.0;
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >=0);
    return 1e9 / std::fma(static_cast<double>(a.tv_sec), 1e9, static_cast<double>(a.tv_nsec));
}
