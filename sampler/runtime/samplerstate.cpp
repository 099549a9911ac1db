// The sampler's state and the helpers that every file may call, from a
// signal handler too.
#include "samplerstate.h"
#include "clock.h"
#include "runtime.h"
#include "sampling.h"

#include <cstdint>
#include <cstring>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>

namespace zorsampler {

State gState;
static_assert(std::is_trivially_default_constructible<State>::value, "the state must need no constructor");

int fail(int code, const char* message)
{
    std::strncpy(quorvex_sampler_error, message, sizeof quorvex_sampler_error - 1);
    quorvex_sampler_error[sizeof quorvex_sampler_error - 1] = '\0';
    return code;
}

quorvex::SafeMessage logLine()
{
    quorvex::SafeMessage message;
    message.str("zor sampler[").dec(getpid()).str("]: ");
    return message;
}

void writeLog(const quorvex::SafeMessage& message)
{
    if (gState.debugLog)
        message.writeTo(2);
}

bool setTimer(int intervalMs, long long firstMs)
{
    itimerspec timing;
    timing.it_value = zs_from_ms(firstMs);
    timing.it_interval = zs_from_ms(intervalMs);
    return timer_settime(gState.timer, 0, &timing, nullptr) == 0;
}

namespace {

std::uint64_t drawRandom()
{
    static ZS_TLS std::uint64_t state;
    if (state == 0)
        state = (static_cast<std::uint64_t>(zs_nanoseconds(zs_now(CLOCK_MONOTONIC))) * 0x9E3779B97F4A7C15ull)
            ^ (static_cast<std::uint64_t>(syscall(SYS_gettid)) << 32) ^ 1u;
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

} // namespace

long long drawPeriodNs(int intervalMs)
{
    const std::uint64_t base = static_cast<std::uint64_t>(intervalMs > 0 ? intervalMs : 1) * 1000000u;
    return static_cast<long long>(base / 2 + drawRandom() % base);
}

long long drawFirstPeriodNs(int intervalMs)
{
    const std::uint64_t base = static_cast<std::uint64_t>(intervalMs > 0 ? intervalMs : 1) * 1000000u;
    return static_cast<long long>(1 + drawRandom() % base);
}

bool setNextTicks(int intervalMs, const timespec& from)
{
    const timespec period = zs_from_ns(drawPeriodNs(intervalMs));
    itimerspec timing;
    timing.it_value = zs_add(from, period);
    timing.it_interval = period;
    return timer_settime(gState.timer, TIMER_ABSTIME, &timing, nullptr) == 0;
}

bool isSleeping(const timespec& cpu, const timespec& wall)
{
    const long long wallNs = zs_nanoseconds(wall);
    return wallNs > 0 && static_cast<double>(zs_nanoseconds(cpu)) < SLEEPING_CPU_SHARE * static_cast<double>(wallNs);
}

timespec sleepingCpu(const timespec& cpu)
{
    // A thread that sleeps runs only to answer: it is woken, the signal's
    // frame is made, and it goes back to sleep, which the handler's own
    // clock doesn't see. The least that any sleeping thread showed is no
    // more than that and is taken off, so that the waits of idle threads
    // aren't charged with the sampler's cost.
    const long long ns = zs_nanoseconds(cpu);
    std::atomic<long long>& least = gState.leastSleepingCpuNs;
    long long seen = least.load(std::memory_order_relaxed);
    while (ns > 0 && (seen <= 0 || ns < seen)
           && !least.compare_exchange_weak(seen, ns, std::memory_order_relaxed, std::memory_order_relaxed)) {
    }
    seen = least.load(std::memory_order_relaxed);
    return zs_from_ns(ns > seen ? ns - seen : 0);
}

} // namespace zorsampler
