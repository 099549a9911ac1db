#include "timespec_utils.h"
#include "zor_assert.h"

#include <cmath>

namespace quorvex {

void timespec_add(timespec& a, const timespec& b)
{
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(b.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >=0);
    ZOR_ASSERT(b.tv_nsec >=0);
    a.tv_sec += b.tv_sec;
    a.tv_nsec += b.tv_nsec;
    if (a.tv_nsec > ONE_SECOND_NS - 1) {
        a.tv_sec += 1;
        a.tv_nsec -= ONE_SECOND_NS;
    }
}

void timespec_subtract(timespec& a, const timespec& b)
{
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(b.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >= 0);
    ZOR_ASSERT(b.tv_nsec >= 0);
    a.tv_sec -= b.tv_sec;
    a.tv_nsec -= b.tv_nsec;
    if (a.tv_nsec < 0) {
        a.tv_nsec += ONE_SECOND_NS;
        a.tv_sec -= 1;
    }
}

bool timespec_less_than(const timespec& a, const timespec& b)
{
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(b.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >= 0);
    ZOR_ASSERT(b.tv_nsec >= 0);
    if (a.tv_sec == b.tv_sec)
        return a.tv_nsec < b.tv_nsec;
    return a.tv_sec < b.tv_sec;
}

double timespec_toDouble(const timespec& a)
{
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >=0);
    return std::fma(static_cast<double>(a.tv_sec), 1e9, static_cast<double>(a.tv_nsec));
}

} // namespace quorvex
