// What this machine charges a thread for a signal that interrupts it and
// returns, before the sampler does anything in its handler: the floor under
// the sampler's cost per thread sampled.
//
//   bench-signal-floor [RUNS [PERIOD_US]]   defaults: 5 runs, 1000 us
//
// A thread spins on the monotonic clock and notes each gap in its progress
// that a signal's delivery fell into; the gap is what the interrupt, the
// signal's frame, the handler and its return cost the thread, as the wall
// clock sees it (a preemption that falls into the same gap makes it longer:
// hence medians). Each way of raising the signal runs in turn, all of them
// again each run, with the handler empty or doing what the sampler's
// handler can't do without (the refresh of the event). Then the calls that
// a sample makes, one by one.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/perf_event.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

const int SIGNAL = SIGRTMIN + 2;

std::int64_t nowNs(clockid_t clock = CLOCK_MONOTONIC)
{
    timespec t;
    clock_gettime(clock, &t);
    return static_cast<std::int64_t>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

int threadId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

enum Way { CpuTimer, CpuEvent, CpuEventBatch, WallTimer, Request, WayCount };
const char* const kWayNames[WayCount] = {
    "timer on the thread's CPU clock",
    "event on the thread's CPU time",
    "  the same, refreshed every 8th",
    "timer on the wall clock",
    "signal from another thread",
};

std::atomic<unsigned> gHandled{0};
// How many expiries the event is allowed at a time: 1 as the sampler
// does, each refreshed by the handler, or a batch of them.
int gEventBatch = 1;
int gEventFd = -1;

void handler(int, siginfo_t* info, void*)
{
    // The last expiry allowed comes as POLL_HUP, the others as POLL_IN.
    if (info->si_code == POLL_HUP)
        ioctl(info->si_fd, PERF_EVENT_IOC_REFRESH, gEventBatch);
    gHandled.fetch_add(1, std::memory_order_relaxed);
}

int openEvent(int tid, long periodUs)
{
    perf_event_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.size = sizeof attr;
    attr.type = PERF_TYPE_SOFTWARE;
    attr.config = PERF_COUNT_SW_TASK_CLOCK;
    attr.sample_period = static_cast<std::uint64_t>(periodUs) * 1000u;
    attr.disabled = 1;
    attr.exclude_hv = 1;
    int fd = static_cast<int>(syscall(SYS_perf_event_open, &attr, tid, -1, -1, PERF_FLAG_FD_CLOEXEC));
    if (fd < 0 && (errno == EACCES || errno == EPERM)) {
        attr.exclude_kernel = 1;
        fd = static_cast<int>(syscall(SYS_perf_event_open, &attr, tid, -1, -1, PERF_FLAG_FD_CLOEXEC));
    }
    if (fd < 0)
        return -1;
    f_owner_ex owner;
    owner.type = F_OWNER_TID;
    owner.pid = tid;
    if (fcntl(fd, F_SETOWN_EX, &owner) != 0 || fcntl(fd, F_SETSIG, SIGNAL) != 0
        || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_ASYNC) != 0 || ioctl(fd, PERF_EVENT_IOC_REFRESH, gEventBatch) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool startTimer(clockid_t clock, int tid, long periodUs, timer_t& timer)
{
    sigevent event;
    std::memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = SIGNAL;
#ifdef sigev_notify_thread_id
    event.sigev_notify_thread_id = tid;
#else
    event._sigev_un._tid = tid;
#endif
    if (timer_create(clock, &event, &timer) != 0)
        return false;
    itimerspec spec;
    spec.it_value = {0, periodUs * 1000};
    spec.it_interval = spec.it_value;
    return timer_settime(timer, 0, &spec, nullptr) == 0;
}

struct Spin
{
    Way way;
    long periodUs;
    std::int64_t durationNs;
    std::atomic<int> tid{0};
    std::atomic<bool> ready{false};
    std::atomic<bool> done{false};
    std::vector<double> gapsUs;
    // Gaps of 5 us or more that no signal fell into: the kernel's own
    // tick, mostly, and preemptions.
    std::vector<double> otherGapsUs;
    unsigned signals = 0;
    bool failed = false;
};

void* spin(void* argument)
{
    Spin& s = *static_cast<Spin*>(argument);
    s.tid = threadId();
    timer_t timer;
    bool haveTimer = false;
    gEventBatch = s.way == CpuEventBatch ? 8 : 1;
    if (s.way == CpuTimer || s.way == WallTimer) {
        const clockid_t clock = s.way == CpuTimer ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
        haveTimer = startTimer(clock, s.tid, s.periodUs, timer);
        s.failed = !haveTimer;
    } else if (s.way == CpuEvent || s.way == CpuEventBatch) {
        gEventFd = openEvent(s.tid, s.periodUs);
        s.failed = gEventFd < 0;
    }
    s.ready = true;
    const unsigned before = gHandled.load();
    unsigned seen = before;
    const std::int64_t start = nowNs();
    std::int64_t previous = start;
    while (!s.failed) {
        const std::int64_t t = nowNs();
        const unsigned handled = gHandled.load(std::memory_order_relaxed);
        if (handled != seen) {
            // The signal came before the count was read: since the previous
            // reading of the clock, and before this one or after it.
            const std::int64_t after = nowNs();
            if (handled == seen + 1)
                s.gapsUs.push_back(static_cast<double>(after - previous) / 1000.0);
            seen = handled;
            previous = nowNs();
            continue;
        }
        if (t - previous >= 5000)
            s.otherGapsUs.push_back(static_cast<double>(t - previous) / 1000.0);
        previous = t;
        if (t - start >= s.durationNs)
            break;
    }
    if (haveTimer)
        timer_delete(timer);
    if (gEventFd >= 0)
        close(gEventFd);
    gEventFd = -1;
    s.done = true;
    s.signals = gHandled.load() - before;
    return nullptr;
}

// The sampler's request: a signal queued to the thread with a value.
bool sendRequest(int tid)
{
    siginfo_t info;
    std::memset(&info, 0, sizeof info);
    info.si_signo = SIGNAL;
    info.si_code = SI_QUEUE;
    info.si_pid = getpid();
    return syscall(SYS_rt_tgsigqueueinfo, getpid(), tid, SIGNAL, &info) == 0;
}

bool runWay(Way way, long periodUs, std::vector<double>& gaps, std::vector<double>& otherGaps,
            std::vector<double>& sendUs)
{
    Spin s;
    s.way = way;
    s.periodUs = periodUs;
    s.durationNs = 300000000LL;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, spin, &s) != 0)
        return false;
    while (!s.ready)
        sched_yield();
    if (way == Request) {
        timespec next;
        clock_gettime(CLOCK_MONOTONIC, &next);
        while (!s.done) {
            next.tv_nsec += periodUs * 1000;
            while (next.tv_nsec >= 1000000000L) {
                next.tv_nsec -= 1000000000L;
                ++next.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            const std::int64_t before = nowNs();
            if (!s.done && sendRequest(s.tid))
                sendUs.push_back(static_cast<double>(nowNs() - before) / 1000.0);
        }
    }
    pthread_join(thread, nullptr);
    gaps.insert(gaps.end(), s.gapsUs.begin(), s.gapsUs.end());
    otherGaps.insert(otherGaps.end(), s.otherGapsUs.begin(), s.otherGapsUs.end());
    return !s.failed;
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

// The median time of one call of `call`, in batches.
template <typename F> double perCallNs(F call)
{
    std::vector<double> batches;
    for (int b = 0; b < 21; ++b) {
        const std::int64_t start = nowNs();
        for (int i = 0; i < 1000; ++i)
            call();
        batches.push_back(static_cast<double>(nowNs() - start) / 1000.0);
    }
    return percentile(batches, 0.5);
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? atoi(argv[1]) : 5;
    const long periodUs = argc > 2 ? atol(argv[2]) : 1000;
    if (runs < 1 || periodUs < 50 || periodUs > 999999) {
        fprintf(stderr, "usage: bench-signal-floor [RUNS [PERIOD_US]]   (PERIOD_US from 50 to 999999)\n");
        return 2;
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGNAL, &action, nullptr);

    std::vector<double> gaps[WayCount], otherGaps, sendUs;
    bool works[WayCount];
    std::fill(works, works + WayCount, true);
    for (int r = 0; r < runs; ++r) {
        for (int w = 0; w < WayCount; ++w) {
            if (works[w])
                works[w] = runWay(static_cast<Way>(w), periodUs, gaps[w], otherGaps, sendUs);
        }
    }
    printf("a thread interrupted every %ld us, %d runs of 0.3 s each way, interleaved\n", periodUs, runs);
    printf("%-34s %9s %12s %12s %12s\n", "signal", "signals", "p10 us", "median us", "p90 us");
    for (int w = 0; w < WayCount; ++w) {
        if (!works[w] || gaps[w].empty()) {
            printf("%-34s %9s\n", kWayNames[w], "refused");
            continue;
        }
        printf("%-34s %9zu %12.2f %12.2f %12.2f\n", kWayNames[w], gaps[w].size(), percentile(gaps[w], 0.1),
               percentile(gaps[w], 0.5), percentile(gaps[w], 0.9));
    }
    if (!sendUs.empty())
        printf("%-34s %9zu %12.2f %12.2f %12.2f\n", "  the sender's call", sendUs.size(), percentile(sendUs, 0.1),
               percentile(sendUs, 0.5), percentile(sendUs, 0.9));
    printf("%-34s %9zu %12.2f %12.2f %12.2f\n", "no signal, gaps over 5 us", otherGaps.size(),
           percentile(otherGaps, 0.1), percentile(otherGaps, 0.5), percentile(otherGaps, 0.9));

    // The calls a sample makes, one at a time, in a thread of their own.
    timespec t;
    const int self = threadId();
    printf("one call, median of batches of 1000:\n");
    printf("  clock_gettime(monotonic)           %8.3f us\n",
           perCallNs([&] { clock_gettime(CLOCK_MONOTONIC, &t); }) / 1000.0);
    printf("  clock_gettime(the thread's CPU)    %8.3f us\n",
           perCallNs([&] { clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t); }) / 1000.0);
    printf("  clock_gettime(a thread's CPU, id)  %8.3f us\n",
           perCallNs([&] { clock_gettime(static_cast<clockid_t>((~static_cast<unsigned>(self) << 3) | 6), &t); })
               / 1000.0);
    printf("  getpid (a system call's floor)     %8.3f us\n", perCallNs([] { syscall(SYS_getpid); }) / 1000.0);
    // A signal to itself, taken on the way out of the call: the signal's
    // frame and return without any interrupt.
    const unsigned before = gHandled.load();
    const double selfUs = perCallNs([&] { syscall(SYS_tgkill, getpid(), self, SIGNAL); }) / 1000.0;
    printf("  a signal to itself, handled         %8.3f us (%u handled)\n", selfUs, gHandled.load() - before);
    return 0;
}
