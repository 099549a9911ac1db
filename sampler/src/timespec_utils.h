// Time arithmetic of the raw records. Every helper checks that its operands
// are normalised before it touches them.
#ifndef ZOR_TIMESPEC_UTILS_H
#define ZOR_TIMESPEC_UTILS_H

#include <ctime>

namespace quorvex {

constexpr long ONE_SECOND_NS = 1000000000L;

void timespec_add(timespec& a, const timespec& b);
// A negative overall result is not detected.
void timespec_subtract(timespec& a, const timespec& b);
bool timespec_less_than(const timespec& a, const timespec& b);
// Nanoseconds, not seconds.
double timespec_toDouble(const timespec& a);

inline bool timespec_equal(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace quorvex

#endif
