#include "threads.h"
#include "runtime.h"
#include "safe_malloc.h"
#include "samplerstate.h"
#include "sampling.h"

#include "clock.h"
#include "zor_print.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <linux/perf_event.h>
#include <sys/prctl.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zorsampler {

namespace {

std::atomic<ThreadSlot*> gRegistry{nullptr};
std::atomic<int> gLock{LockFree};
std::atomic<int> gLockOwner{0};
std::atomic<int> gAnswerSequence{0};
std::atomic<int> gAnswerWaiters{0};

ZS_TLS ThreadSlot* tlsSlot;

// Whether the threads' CPU time is counted by events: not tried yet, yes
// (the kernel's time of the thread included, or its own only), or refused.
enum CpuEvents { CpuEventsUntried, CpuEventsAll, CpuEventsUserOnly, CpuEventsRefused };
std::atomic<int> gCpuEvents{CpuEventsUntried};

// Expiries an event may have before its thread's handler arms it again.
// Arming costs a system call and a timer's restart, as dear as the signal
// itself on some machines, so it is done once a batch; a thread that holds
// the signal back gathers no more than a batch of them, far from the
// queue's limit, beyond which the kernel would send a SIGIO.
const int CPU_EVENT_BATCH = 8;

// Every descriptor number that ever held one of the events.
const int MAX_EVENT_FD = 1 << 16;
std::atomic<std::uint64_t> gEventFds[MAX_EVENT_FD / 64];

// The names of ended threads; a program that makes more named threads than
// this keeps the rest unnamed. A name holds at most 15 bytes.
const int MAX_ENDED_NAMES = 4096;
struct EndedName
{
    std::atomic<bool> ready{false};
    int tid = 0;
    char name[16] = {};
};
EndedName gEndedNames[MAX_ENDED_NAMES];
std::atomic<int> gEndedNameCount{0};
char gProcessName[16];

// The name of a thread as /proc tells it, without its newline; false for a
// thread gone or a name that can't be read.
bool readThreadName(int pid, int tid, char (&name)[16])
{
    quorvex::SafeMessage path;
    path.str("/proc/").dec(pid).str("/task/").dec(tid).str("/comm");
    const int fd = open(path.text(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const ssize_t got = read(fd, name, sizeof name - 1);
    close(fd);
    if (got <= 0)
        return false;
    name[got] = '\0';
    if (char* end = std::strchr(name, '\n'))
        *end = '\0';
    return name[0] != '\0';
}

void noteEndingThreadName(int tid)
{
    char name[16] = {};
    if (prctl(PR_GET_NAME, name, 0, 0, 0) != 0 || !name[0] || std::strncmp(name, gProcessName, sizeof name) == 0)
        return;
    const int i = gEndedNameCount.fetch_add(1, std::memory_order_relaxed);
    if (i >= MAX_ENDED_NAMES)
        return;
    gEndedNames[i].tid = tid;
    std::memcpy(gEndedNames[i].name, name, sizeof name);
    gEndedNames[i].ready.store(true, std::memory_order_release);
}

void writeNameLine(int& fd, const char* path, int tid, const char* name)
{
    // -1: not opened yet; -2: can't be.
    if (fd == -1 && (fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) < 0)
        fd = -2;
    if (fd < 0)
        return;
    quorvex::SafeMessage line;
    line.dec(tid).str(" ").str(name).str("\n");
    line.writeTo(fd);
}

void markEventFd(int fd)
{
    gEventFds[fd / 64].fetch_or(std::uint64_t(1) << (fd % 64), std::memory_order_release);
}

int openCpuEvent(int tid, std::uint64_t periodNs, bool userOnly)
{
    perf_event_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.size = sizeof attr;
    attr.type = PERF_TYPE_SOFTWARE;
    attr.config = PERF_COUNT_SW_TASK_CLOCK;
    attr.sample_period = periodNs;
    attr.disabled = 1;
    // Without the kernel's time a thread's system calls would go unsampled;
    // an unprivileged user may have to do with that.
    attr.exclude_kernel = userOnly;
    attr.exclude_hv = 1;
    return static_cast<int>(syscall(SYS_perf_event_open, &attr, tid, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

// Closes the event of `slot` unless the program closed its descriptor and
// made another of the same number meanwhile.
void closeCpuEvent(const ThreadSlot* slot)
{
    std::uint64_t id = 0;
    if (ioctl(slot->cpuEventFd, PERF_EVENT_IOC_ID, &id) == 0 && id == slot->cpuEventId)
        close(slot->cpuEventFd);
}

// An event on the CPU time of the thread `tid` whose every `intervalMs`
// sends the sampler's signal to that thread; false where the kernel or the
// descriptors left to the program say no.
bool startCpuEvent(ThreadSlot* slot, int tid, int intervalMs)
{
    int mode = gCpuEvents.load(std::memory_order_acquire);
    if (mode == CpuEventsRefused || gState.noCpuEvents)
        return false;
    // The first period alone, at a random length; the batches that follow
    // are drawn as the signal of each batch's end rearms the event.
    const std::uint64_t first = static_cast<std::uint64_t>(drawFirstPeriodNs(intervalMs));
    int fd = openCpuEvent(tid, first, mode == CpuEventsUserOnly);
    if (fd < 0 && mode == CpuEventsUntried && (errno == EACCES || errno == EPERM)) {
        fd = openCpuEvent(tid, first, true);
        mode = CpuEventsUserOnly;
    }
    if (fd < 0) {
        // A lack of descriptors or memory, or a thread gone, is this
        // thread's; anything else holds for every thread.
        if (errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ESRCH)
            gCpuEvents.store(CpuEventsRefused, std::memory_order_release);
        return false;
    }
    if (mode == CpuEventsUntried)
        mode = CpuEventsAll;
    gCpuEvents.store(mode, std::memory_order_release);
    // The program's descriptors come first: one event per thread must not
    // use up its limit.
    rlimit files;
    const bool roomy = getrlimit(RLIMIT_NOFILE, &files) == 0 && static_cast<rlim_t>(fd) < files.rlim_cur / 2;
    f_owner_ex owner;
    owner.type = F_OWNER_TID;
    owner.pid = tid;
    std::uint64_t id = 0;
    const int flags = fcntl(fd, F_GETFL);
    if (!roomy || fd >= MAX_EVENT_FD || flags < 0 || ioctl(fd, PERF_EVENT_IOC_ID, &id) != 0
        || fcntl(fd, F_SETOWN_EX, &owner) != 0 || fcntl(fd, F_SETSIG, zs_sampler_signal()) != 0) {
        close(fd);
        return false;
    }
    markEventFd(fd);
    // The first expiry may come before the enabling call returns, or at
    // once to a thread this one arms: its handler rearms the event only if
    // the slot knows it by then, or the thread goes unsampled for good.
    slot->cpuEventFd = fd;
    slot->cpuEventId = id;
    slot->haveCpuTimer.store(true, std::memory_order_release);
    if (fcntl(fd, F_SETFL, flags | O_ASYNC) != 0 || ioctl(fd, PERF_EVENT_IOC_REFRESH, 1) != 0) {
        slot->haveCpuTimer.store(false, std::memory_order_release);
        slot->cpuEventFd = -1;
        close(fd);
        return false;
    }
    return true;
}

// What the ending thread ran since its last backtrace, an offer that no
// tick will take now included, left for the next tick.
void leaveExitCpu(ThreadSlot* slot)
{
    const State& s = gState;
    const int tid = slot->tid.load(std::memory_order_relaxed);
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed || !s.allThreads || tid == s.mainTid || tid == s.pid)
        return;
    timespec since = slot->lastCpu;
    timespec now;
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now) != 0)
        return;
    int full = OfferFull;
    if (slot->offer.compare_exchange_strong(full, OfferEmpty, std::memory_order_acq_rel)) {
        // An offer no tick has taken yet is the thread's last sample, with
        // all it ran since the previous one: a thread that lives between
        // two ticks has no other.
        const timespec ran = zs_difference(now, slot->offerPrevCpu);
        if (zs_nanoseconds(zs_difference(ran, slot->offerCpuInterval)) > 0)
            slot->offerCpuInterval = ran;
        slot->exitOffer.store(true, std::memory_order_relaxed);
        slot->offer.store(OfferFull, std::memory_order_release);
        return;
    }
    if (zs_nanoseconds(zs_difference(now, since)) <= 0)
        return;
    slot->exitCpu = zs_difference(now, since);
    slot->exitCpuOwed.store(true, std::memory_order_release);
}

void resetSlot(ThreadSlot* slot)
{
    slot->exitCpuOwed.store(false, std::memory_order_relaxed);
    slot->exitOffer.store(false, std::memory_order_relaxed);
    slot->tid.store(0, std::memory_order_relaxed);
    slot->programBlocksSignal.store(false, std::memory_order_relaxed);
    slot->inMpi.store(false, std::memory_order_relaxed);
    slot->mpiCallStart.store(0, std::memory_order_relaxed);
    slot->mpiTicks.store(0, std::memory_order_relaxed);
    slot->mpiTicksCounted = 0;
    slot->request.store(0, std::memory_order_relaxed);
    slot->done.store(0, std::memory_order_relaxed);
    slot->owesAnswer = false;
    slot->offer.store(OfferEmpty, std::memory_order_relaxed);
    slot->startRoutine = nullptr;
    slot->startArg = nullptr;
    slot->state.store(SlotStarting, std::memory_order_release);
}

} // namespace

ThreadSlot* firstSlot()
{
    return gRegistry.load(std::memory_order_acquire);
}

ThreadSlot* currentSlot()
{
    return tlsSlot;
}

int currentTid()
{
    return static_cast<int>(syscall(SYS_gettid));
}

void startCurrentThread(ThreadSlot* slot)
{
    slot->tid.store(currentTid(), std::memory_order_relaxed);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &slot->lastCpu);
    clock_gettime(CLOCK_MONOTONIC, &slot->lastWall);
    // A mask set some way the sampler doesn't see (inherited across exec,
    // or a raw system call) counts as the program's too.
    sigset_t mask;
    const bool blocked = zs_real_pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0
        && sigismember(&mask, zs_sampler_signal()) == 1;
    zs_program_blocks_ours = blocked || slot->programBlocksSignal.load(std::memory_order_relaxed);
    zs_unblock_ours();
    tlsSlot = slot;
    // Seen live by a sampling thread that ends, or seeing that it has ended
    // without finding another to take the samples.
    slot->state.store(SlotLive, std::memory_order_seq_cst);
    takeOverTimer();
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && gState.allThreads && getpid() == gState.pid)
        startCpuTimer(slot, gState.intervalMs);
}

bool startCpuTimer(ThreadSlot* slot, int intervalMs)
{
    if (slot->haveCpuTimer.load(std::memory_order_acquire) || intervalMs <= 0)
        return true;
    slot->cpuEventFd = -1;
    timespec now = slot->lastCpu;
    clock_gettime(zs_thread_cpu_clock(slot->tid.load(std::memory_order_relaxed)), &now);
    slot->firstPeriodEnd = zs_add(now, zs_from_ms(intervalMs));
    slot->timerExpired = false;
    if (startCpuEvent(slot, slot->tid.load(std::memory_order_relaxed), intervalMs)) {
        slot->haveCpuTimer.store(true, std::memory_order_release);
        return true;
    }
    sigevent event;
    std::memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = zs_sampler_signal();
    event.sigev_value.sival_ptr = const_cast<char*>(&gCpuTimerCookie);
    const int tid = slot->tid.load(std::memory_order_relaxed);
#ifdef sigev_notify_thread_id
    event.sigev_notify_thread_id = tid;
#else
    event._sigev_un._tid = tid;
#endif
    if (timer_create(zs_thread_cpu_clock(tid), &event, &slot->cpuTimer) != 0)
        return false;
    itimerspec spec;
    spec.it_value = zs_from_ns(drawFirstPeriodNs(intervalMs));
    spec.it_interval = zs_from_ms(intervalMs);
    if (timer_settime(slot->cpuTimer, 0, &spec, nullptr) != 0) {
        timer_delete(slot->cpuTimer);
        return false;
    }
    slot->haveCpuTimer.store(true, std::memory_order_release);
    return true;
}

void stopCpuTimer(ThreadSlot* slot)
{
    if (!slot->haveCpuTimer.exchange(false, std::memory_order_acq_rel))
        return;
    if (slot->cpuEventFd >= 0)
        closeCpuEvent(slot);
    else
        timer_delete(slot->cpuTimer);
}

void setCpuEventPeriods(int intervalMs)
{
    // A thread that ends meanwhile closes its descriptor, which a later
    // one of the program's may take: the request is the events' own and
    // means nothing to any other kind of descriptor.
    std::uint64_t period = static_cast<std::uint64_t>(intervalMs) * 1000000u;
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (slot->haveCpuTimer.load(std::memory_order_acquire) && slot->cpuEventFd >= 0)
            ioctl(slot->cpuEventFd, PERF_EVENT_IOC_PERIOD, &period);
    }
}

void rearmCpuEvent(int fd)
{
    const ThreadSlot* slot = tlsSlot;
    if (!slot || !slot->haveCpuTimer.load(std::memory_order_acquire) || slot->cpuEventFd != fd)
        return;
    // A period of its own for each batch: the step between two samples
    // varies from batch to batch by a good share of the interval, so that
    // their places in a loop of any length spread over the whole of it.
    std::uint64_t period = static_cast<std::uint64_t>(drawPeriodNs(__atomic_load_n(&gState.intervalMs, __ATOMIC_RELAXED)));
    ioctl(fd, PERF_EVENT_IOC_PERIOD, &period);
    ioctl(fd, PERF_EVENT_IOC_REFRESH, CPU_EVENT_BATCH);
}

bool isCpuEventFd(int fd)
{
    return fd >= 0 && fd < MAX_EVENT_FD
        && (gEventFds[fd / 64].load(std::memory_order_acquire) >> (fd % 64) & 1) != 0;
}

void dropCpuTimersAfterFork()
{
    // The parent's timers aren't inherited; its events are, as descriptors.
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (slot->haveCpuTimer.exchange(false, std::memory_order_relaxed) && slot->cpuEventFd >= 0)
            closeCpuEvent(slot);
    }
}

void endCurrentThread()
{
    ThreadSlot* slot = tlsSlot;
    if (!slot)
        return;
    tlsSlot = nullptr;
    // From here on the thread's handler leaves the slot alone.
    std::atomic_signal_fence(std::memory_order_seq_cst);
    stopCpuTimer(slot);
    endThreadUnwinding();
    leaveExitCpu(slot);
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && gState.pid == getpid())
        noteEndingThreadName(slot->tid.load(std::memory_order_relaxed));
    slot->state.store(SlotDead, std::memory_order_release);
    announceAnswer();
}

void forgetThreadNames()
{
    for (int i = 0; i < MAX_ENDED_NAMES; ++i)
        gEndedNames[i].ready.store(false, std::memory_order_relaxed);
    gEndedNameCount.store(0, std::memory_order_release);
    const pid_t pid = getpid();
    if (!readThreadName(pid, pid, gProcessName))
        gProcessName[0] = '\0';
}

bool writeThreadNames(const char* path)
{
    const pid_t pid = getpid();
    char mainName[16];
    if (!readThreadName(pid, pid, mainName))
        mainName[0] = '\0';
    int fd = -1;
    const int ended = std::min(gEndedNameCount.load(std::memory_order_acquire), MAX_ENDED_NAMES);
    for (int i = 0; i < ended; ++i) {
        const EndedName& entry = gEndedNames[i];
        if (entry.ready.load(std::memory_order_acquire) && std::strncmp(entry.name, mainName, sizeof mainName) != 0)
            writeNameLine(fd, path, entry.tid, entry.name);
    }
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        const int tid = slot->tid.load(std::memory_order_relaxed);
        char name[16];
        if (slot->state.load(std::memory_order_acquire) == SlotLive && tid > 0 && tid != pid
            && readThreadName(pid, tid, name) && std::strncmp(name, mainName, sizeof name) != 0)
            writeNameLine(fd, path, tid, name);
    }
    if (fd < 0)
        return fd == -1;
    return close(fd) == 0;
}

ThreadSlot* acquireSlot()
{
    if (tryLock(LockRecycling)) {
        for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
            if (slot->state.load(std::memory_order_acquire) == SlotDead && !slot->owesAnswer
                && !slot->exitCpuOwed.load(std::memory_order_acquire)
                && !slot->exitOffer.load(std::memory_order_acquire)) {
                resetSlot(slot);
                unlock();
                return slot;
            }
        }
        unlock();
    }
    void* memory = quorvex_safe_malloc(sizeof(ThreadSlot));
    ThreadSlot* slot = new (memory) ThreadSlot();
    ThreadSlot* head = gRegistry.load(std::memory_order_relaxed);
    do {
        slot->next = head;
    } while (!gRegistry.compare_exchange_weak(head, slot, std::memory_order_release, std::memory_order_relaxed));
    return slot;
}

void releaseUnstartedSlot(ThreadSlot* slot)
{
    slot->state.store(SlotDead, std::memory_order_release);
}

std::atomic<int>& answerSequence()
{
    return gAnswerSequence;
}

std::atomic<int>& answerWaiters()
{
    return gAnswerWaiters;
}

void announceAnswer()
{
    gAnswerSequence.fetch_add(1, std::memory_order_acq_rel);
    if (gAnswerWaiters.load(std::memory_order_acquire) > 0)
        syscall(SYS_futex, reinterpret_cast<int*>(&gAnswerSequence), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

bool tryLock(LockHolder holder)
{
    int expected = LockFree;
    if (!gLock.compare_exchange_strong(expected, holder, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    // The thread's id as registered saves a system call in the handler.
    const ThreadSlot* slot = tlsSlot;
    gLockOwner.store(slot ? slot->tid.load(std::memory_order_relaxed) : currentTid(), std::memory_order_relaxed);
    return true;
}

void unlock()
{
    gLockOwner.store(0, std::memory_order_relaxed);
    gLock.store(LockFree, std::memory_order_release);
}

LockHolder lockHolder()
{
    return static_cast<LockHolder>(gLock.load(std::memory_order_acquire));
}

int lockOwner()
{
    return gLockOwner.load(std::memory_order_relaxed);
}

void resetAfterFork()
{
    gLockOwner.store(0, std::memory_order_relaxed);
    gLock.store(LockFree, std::memory_order_relaxed);
    resetUnwindingAfterFork();
}

} // namespace zorsampler

// ---- thread creation ----

namespace {

// Ends the thread's registration however the start routine leaves: by
// returning, by pthread_exit or by cancellation, which unwind through here.
struct ThreadEndGuard
{
    ~ThreadEndGuard()
    {
        zorsampler::moveTimerOffThisThread();
        zorsampler::endCurrentThread();
    }
};

void* startThread(void* argument)
{
    zorsampler::ThreadSlot* slot = static_cast<zorsampler::ThreadSlot*>(argument);
    void* (*routine)(void*) = slot->startRoutine;
    void* routineArg = slot->startArg;
    zorsampler::startCurrentThread(slot);
    ThreadEndGuard guard;
    return routine(routineArg);
}

} // namespace

extern "C" void zs_before_thread_exit(void)
{
    // The threads made through pthread_create end through ThreadEndGuard;
    // the main thread has none.
    if (zorsampler::currentTid() == getpid()) {
        zorsampler::moveTimerOffThisThread();
        zorsampler::endCurrentThread();
    }
}

extern "C" int zs_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    zorsampler::ThreadSlot* slot = zorsampler::acquireSlot();
    slot->startRoutine = start;
    slot->startArg = arg;
    slot->programBlocksSignal.store(zs_program_blocks_ours != 0, std::memory_order_relaxed);
    const int result = zs_real_pthread_create(thread, attr, startThread, slot);
    if (result != 0)
        zorsampler::releaseUnstartedSlot(slot);
    return result;
}
