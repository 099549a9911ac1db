/* Time arithmetic of the sampler, for its C and C++ files alike. Only
 * clock_gettime and integer arithmetic: safe in a signal handler. */
#ifndef ZOR_SAMPLER_CLOCK_H
#define ZOR_SAMPLER_CLOCK_H

#include <time.h>

#define ZS_NS_PER_SECOND 1000000000LL

static inline struct timespec zs_now(clockid_t clock)
{
    struct timespec t;
    clock_gettime(clock, &t);
    return t;
}

static inline long long zs_nanoseconds(struct timespec t)
{
    return (long long)t.tv_sec * ZS_NS_PER_SECOND + t.tv_nsec;
}

static inline struct timespec zs_from_ns(long long ns)
{
    struct timespec t;
    t.tv_sec = (time_t)(ns / ZS_NS_PER_SECOND);
    t.tv_nsec = (long)(ns % ZS_NS_PER_SECOND);
    return t;
}

static inline struct timespec zs_from_ms(long long ms)
{
    return zs_from_ns(ms * 1000000LL);
}

/* later - earlier, never negative. Field by field, so that timeouts of
 * any size can't overflow. */
static inline struct timespec zs_difference(struct timespec later, struct timespec earlier)
{
    struct timespec d;
    d.tv_sec = later.tv_sec - earlier.tv_sec;
    d.tv_nsec = later.tv_nsec - earlier.tv_nsec;
    if (d.tv_nsec < 0) {
        d.tv_sec -= 1;
        d.tv_nsec += ZS_NS_PER_SECOND;
    }
    if (d.tv_sec < 0) {
        d.tv_sec = 0;
        d.tv_nsec = 0;
    }
    return d;
}

static inline struct timespec zs_add(struct timespec a, struct timespec b)
{
    struct timespec t;
    t.tv_sec = a.tv_sec + b.tv_sec;
    t.tv_nsec = a.tv_nsec + b.tv_nsec;
    if (t.tv_nsec >= ZS_NS_PER_SECOND) {
        t.tv_sec += 1;
        t.tv_nsec -= ZS_NS_PER_SECOND;
    }
    return t;
}

/* The monotonic time `span` from now. */
static inline struct timespec zs_deadline_after(struct timespec span)
{
    return zs_add(zs_now(CLOCK_MONOTONIC), span);
}

/* Time left until the monotonic `deadline`, never negative. */
static inline struct timespec zs_time_left(struct timespec deadline)
{
    return zs_difference(deadline, zs_now(CLOCK_MONOTONIC));
}

/* The CPU clock of any thread of the process, by its kernel thread id. */
static inline clockid_t zs_thread_cpu_clock(int tid)
{
    return (clockid_t)((~(unsigned int)tid << 3) | 6);
}

#endif
