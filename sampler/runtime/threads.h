// The threads of the program as the sampler knows them. Every thread made
// with pthread_create gets a slot before it starts; the slot carries the
// sampling requests to the thread and its answer back. Slots live as long
// as the process; a dead thread's slot is reused for a later thread, but
// never while a sample is being taken.
#ifndef ZOR_SAMPLER_THREADS_H
#define ZOR_SAMPLER_THREADS_H

#include "backtracedata.h"

#include <atomic>
#include <cstdint>
#include <ctime>

namespace zorsampler {

enum SlotState { SlotStarting = 0, SlotLive = 1, SlotDead = 2 };
// OfferTaking: the tick has claimed a full offer and is copying it.
enum OfferState { OfferEmpty = 0, OfferFull = 1, OfferTaking = 2 };

struct ThreadSlot
{
    // The registry: a list that only ever grows at its head.
    ThreadSlot* next = nullptr;
    std::atomic<int> state{SlotStarting};
    std::atomic<int> tid{0};
    // The creating thread believed that it blocked the sampler's signal,
    // so the new thread believes it too (its mask never really does).
    std::atomic<bool> programBlocksSignal{false};
    std::atomic<bool> inMpi{false};
    // The thread's MPI calls as the MPI wrapper reports them, in ticks of
    // the sampler's clock: when the running call began, and the time of the
    // finished ones. mpiTicksCounted is what the MPI time metric has taken
    // of the latter, kept by whoever holds the sampling lock.
    std::atomic<std::uint64_t> mpiCallStart{0};
    std::atomic<std::uint64_t> mpiTicks{0};
    std::uint64_t mpiTicksCounted = 0;
    // The sample generation that the thread is asked to answer, 0 for none;
    // the thread takes the request by swapping in 0.
    std::atomic<std::uint64_t> request{0};
    // The generation of the last answer written below.
    std::atomic<std::uint64_t> done{0};
    // Asked, and the answer not yet taken into its sample. Read and written
    // only by whoever holds the sampling lock; a slot that owes an answer
    // isn't reused.
    bool owesAnswer = false;

    // From the creating thread to the new one.
    void* (*startRoutine)(void*) = nullptr;
    void* startArg = nullptr;

    // The answer, written by the thread's own signal handler.
    ExtendedBacktraceData data;
    timespec cpuInterval = {0, 0};
    bool sleeping = false;

    // A backtrace that the thread's CPU timer took when no request was
    // waiting, as happens when the sampler's tick comes late: the next tick
    // takes it instead of asking, so that the timer's signal isn't wasted.
    // Written by the thread while OfferEmpty, read by the tick while
    // OfferFull; the thread takes a full one back when it answers a
    // request, which the tick makes only after looking here.
    std::atomic<int> offer{OfferEmpty};
    ExtendedBacktraceData offerData;
    timespec offerCpuInterval = {0, 0};
    bool offerSleeping = false;
    timespec offerTakenAt = {0, 0};
    // The thread's clocks before the offer, for an answer that takes it back.
    timespec offerPrevCpu = {0, 0};
    timespec offerPrevWall = {0, 0};

    // A timer on the thread's own CPU clock, whose signal takes the
    // thread's answer where it spends its CPU time. A signal sent to a
    // thread that waits for a core would be taken where it is let back in,
    // most often at the end of a system call: a running thread answers by
    // this timer, one that sleeps by a signal of the sampler's tick.
    // Where the kernel allows it, the timer is a counting event on the
    // thread's CPU time instead (cpuEventFd): the kernel looks at CPU-clock
    // timers only at its own tick, which caps their rate and lands their
    // signals at the system-call exits after a tick, while the event fires
    // on a high-resolution timer wherever the thread is.
    timer_t cpuTimer;
    int cpuEventFd = -1;
    std::uint64_t cpuEventId = 0;
    std::atomic<bool> haveCpuTimer{false};
    // The thread's CPU time when the sampler last looked, for telling a
    // thread that runs from one that waits.
    timespec cpuAtTick = {0, 0};

    // What the previous answer saw: the thread's CPU clock and the wall
    // clock, for the CPU time and the sleeping flag of the next one.
    timespec lastCpu = {0, 0};
    timespec lastWall = {0, 0};
    // The CPU time that the thread ran after its last backtrace, left by
    // the thread as it ends for the tick to add to that backtrace; the slot
    // isn't reused while it is owed.
    timespec exitCpu = {0, 0};
    std::atomic<bool> exitCpuOwed{false};
    // The thread's CPU clock at the end of its timer's first period, which
    // ends at a random point: a thread sampled there stands for the whole
    // period, and its first sample counts the CPU time up to this point,
    // so that threads shorter than a period count as much as they ran, on
    // average. Written before the timer starts, then by the thread.
    timespec firstPeriodEnd = {0, 0};
    bool timerExpired = false;
    // An offer that the thread left as it ended, for the next tick to take
    // as the thread's last sample; the slot isn't reused meanwhile.
    std::atomic<bool> exitOffer{false};
};

// The head of the registry.
ThreadSlot* firstSlot();

// The calling thread's slot, null for a thread the sampler doesn't know.
ThreadSlot* currentSlot();

// Registers the calling thread, at load (the main thread) or as the first
// thing a new thread does.
void startCurrentThread(ThreadSlot* slot);
// Marks the calling thread's slot dead; called as the thread ends.
void endCurrentThread();
// The names that threads gave themselves: forgotten when a process starts
// sampling, noted as each thread ends, and written with the live threads'
// as "TID NAME" lines to `path` at the end; only names other than the main
// thread's, which a thread has until it names itself. No file without one.
void forgetThreadNames();
bool writeThreadNames(const char* path);
// Starts the timer on the CPU clock of the thread of `slot`, ticking every
// `intervalMs`; false when the kernel refuses. Stops it, once.
bool startCpuTimer(ThreadSlot* slot, int intervalMs);
void stopCpuTimer(ThreadSlot* slot);
// Makes every thread's event fire each `intervalMs` of its CPU time from
// now on; their timers stay as they are. Safe in a signal handler.
void setCpuEventPeriods(int intervalMs);
// After the last signal of a batch of the calling thread's event from the
// descriptor `fd`: the next batch allowed, at a period drawn afresh.
void rearmCpuEvent(int fd);
// Whether the sampler's signal with POLL_IN or POLL_HUP from the descriptor
// `fd` is one of the events above. A descriptor stays known as the
// sampler's once it was one, so that a signal still queued as the thread
// ends is not taken for the program's.
bool isCpuEventFd(int fd);
// In a child made by fork: the events are the parent's threads'.
void dropCpuTimersAfterFork();

// A slot for a thread about to be created: a dead one if the registry can
// be walked now, a new one otherwise. Never called in a signal handler.
ThreadSlot* acquireSlot();
// Gives back a slot whose thread never started.
void releaseUnstartedSlot(ThreadSlot* slot);

// Bumped, with a futex wake-up, whenever a thread answers a request or
// ends, so that the end of sampling, waiting for the last answers, looks
// again.
std::atomic<int>& answerSequence();
void announceAnswer();
// How many wait on answerSequence(); without waiters no wake-up is sent.
std::atomic<int>& answerWaiters();

// One lock decides who may walk and change the registry and the sample
// list: the sampling handler, a thread reusing a dead slot, or the end of
// sampling, which keeps it for good. Taking it never waits.
enum LockHolder { LockFree = 0, LockSampling = 1, LockRecycling = 2, LockFinished = 3 };
bool tryLock(LockHolder holder);
void unlock();
LockHolder lockHolder();
// The thread id of the holder, 0 when free.
int lockOwner();
// In a child made by fork: the parent's other threads are gone, so is any
// lock they held.
void resetAfterFork();

int currentTid();

} // namespace zorsampler

#endif
