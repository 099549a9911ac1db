#include "threads.h"
#include "runtime.h"
#include "safe_malloc.h"
#include "samplerstate.h"
#include "sampling.h"

#include "clock.h"

#include <climits>
#include <cstring>
#include <linux/futex.h>
#include <new>
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

void resetSlot(ThreadSlot* slot)
{
    slot->tid.store(0, std::memory_order_relaxed);
    slot->programBlocksSignal.store(false, std::memory_order_relaxed);
    slot->inMpi.store(false, std::memory_order_relaxed);
    slot->mpiCallStart.store(0, std::memory_order_relaxed);
    slot->mpiTicks.store(0, std::memory_order_relaxed);
    slot->mpiTicksCounted = 0;
    slot->request.store(0, std::memory_order_relaxed);
    slot->done.store(0, std::memory_order_relaxed);
    slot->owesAnswer = false;
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
    slot->state.store(SlotLive, std::memory_order_release);
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && gState.allThreads && getpid() == gState.pid)
        startCpuTimer(slot, gState.intervalMs);
}

bool startCpuTimer(ThreadSlot* slot, int intervalMs)
{
    if (slot->haveCpuTimer.load(std::memory_order_acquire) || intervalMs <= 0)
        return true;
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
    spec.it_value = zs_from_ms(intervalMs);
    spec.it_interval = spec.it_value;
    if (timer_settime(slot->cpuTimer, 0, &spec, nullptr) != 0) {
        timer_delete(slot->cpuTimer);
        return false;
    }
    slot->haveCpuTimer.store(true, std::memory_order_release);
    return true;
}

void stopCpuTimer(ThreadSlot* slot)
{
    if (slot->haveCpuTimer.exchange(false, std::memory_order_acq_rel))
        timer_delete(slot->cpuTimer);
}

void endCurrentThread()
{
    ThreadSlot* slot = tlsSlot;
    if (!slot)
        return;
    tlsSlot = nullptr;
    stopCpuTimer(slot);
    endThreadUnwinding();
    slot->state.store(SlotDead, std::memory_order_release);
    announceAnswer();
}

ThreadSlot* acquireSlot()
{
    if (tryLock(LockRecycling)) {
        for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
            if (slot->state.load(std::memory_order_acquire) == SlotDead && !slot->owesAnswer) {
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
