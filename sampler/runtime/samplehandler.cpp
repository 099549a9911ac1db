// The sampling handler: at each expiry of the timer, in the main thread,
// it unwinds the interrupted thread from the signal context, asks other
// live threads for their backtraces with a signal of the same number
// carrying a request, reads the per-sample metrics and puts the sample into
// the list. It doesn't wait for the other threads: each takes its backtrace
// when its own handler runs (answerRequest), and the handler at the next
// tick adds the answers that have come in to the samples they belong to. An
// answer that is overdue counts as missing. Nothing here allocates: the
// sample list, every backtrace in it and the table of pending answers are
// sized when sampling is armed.
#include "clock.h"
#include "mpihooks.h"
#include "quorvex_sampler.h"
#include "reserve.h"
#include "runtime.h"
#include "samplerstate.h"
#include "sampling.h"

#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

using quorvex::SSample;

namespace zorsampler {

namespace {

// The sampler's signal to the thread `tid`, with a request; false when it
// is gone or its signal queue is full.
bool sendRequest(int tid)
{
    siginfo_t info;
    std::memset(&info, 0, sizeof info);
    info.si_signo = zs_sampler_signal();
    info.si_code = REQUEST_CODE;
    info.si_pid = gState.pid;
    info.si_value.sival_ptr = const_cast<char*>(&gSignalCookie);
    return syscall(SYS_rt_tgsigqueueinfo, gState.pid, tid, info.si_signo, &info) == 0;
}

// The CPU time of the thread `tid`; {-1, 0} when it can't be read.
timespec threadCpu(int tid)
{
    timespec t;
    if (clock_gettime(zs_thread_cpu_clock(tid), &t) != 0)
        return timespec{-1, 0};
    return t;
}

bool freshOffer(const ThreadSlot* slot)
{
    return slot->offer.load(std::memory_order_acquire) == OfferFull
        && zs_nanoseconds(zs_difference(slot->offerTakenAt, gState.lastSample)) > 0;
}

// Sends the request of this tick to the threads whose turn it is; returns
// how many were asked. A thread that still owes an answer isn't asked again.
int askOtherThreads(std::uint64_t generation)
{
    State& s = gState;
    // A thread that ended since the previous tick may have left an offer.
    auto askable = [&](ThreadSlot* slot) {
        const int state = slot->state.load(std::memory_order_acquire);
        return (state == SlotLive || (state == SlotDead && slot->exitOffer.load(std::memory_order_acquire)))
            && slot->tid.load(std::memory_order_relaxed) != s.mainTid && !slot->owesAnswer;
    };
    int candidates = 0;
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next)
        candidates += askable(slot);
    int take = candidates < s.threadsPerSample ? candidates : s.threadsPerSample;
    const int room = static_cast<int>(s.pendingCapacity - s.pendingCount);
    take = take < room ? take : room;
    if (take <= 0)
        return 0;
    // With more threads than room in a sample, a window that moves on each
    // time shares the room out between them.
    const int first = candidates > take ? static_cast<int>(s.rotation % static_cast<unsigned int>(candidates)) : 0;
    s.rotation += static_cast<unsigned int>(take);

    int index = 0;
    int count = 0;
    for (ThreadSlot* slot = firstSlot(); slot && index < candidates; slot = slot->next) {
        if (!askable(slot))
            continue;
        const int position = (index++ - first + candidates) % candidates;
        if (position >= take)
            continue;
        const int tid = slot->tid.load(std::memory_order_relaxed);
        // An offer made since the previous tick is this tick's answer. An
        // older one waits for the request below, whose answer takes it back;
        // one made while the request goes out answers it (answerRequest).
        const auto tookOffer = [&]() {
            // Claimed, or the thread, as it ends, takes it back.
            int full = OfferFull;
            if (!freshOffer(slot)
                || !slot->offer.compare_exchange_strong(full, OfferTaking, std::memory_order_acq_rel))
                return false;
            s.asking[count] = slot;
            s.askingTid[count] = tid;
            s.askingHow[count] = AskTookOffer;
            ++count;
            return true;
        };
        if (tookOffer())
            continue;
        if (slot->state.load(std::memory_order_acquire) == SlotDead) {
            // An offer older than the previous tick: what it ran goes to the
            // thread's last sample, as for a thread that left none.
            int full = OfferFull;
            if (slot->offer.compare_exchange_strong(full, OfferEmpty, std::memory_order_acq_rel)) {
                slot->exitCpu = slot->offerCpuInterval;
                slot->exitCpuOwed.store(true, std::memory_order_release);
            }
            slot->exitOffer.store(false, std::memory_order_release);
            continue;
        }
        // A thread that ran since the previous tick answers at its CPU
        // timer's next expiry; one that didn't is asked by a signal.
        // Since its last answer, which took some CPU time itself: a
        // twentieth of the interval counts. A thread that waits for a core
        // has run since, one that sleeps hasn't.
        // One whose first sample counted its time ahead has run too: its
        // timer runs on.
        const timespec cpu = slot->haveCpuTimer.load(std::memory_order_acquire) ? threadCpu(tid) : timespec{-1, 0};
        const long long sinceLast = zs_nanoseconds(zs_difference(cpu, slot->lastCpu));
        const bool ran = cpu.tv_sec >= 0 && (sinceLast > 50000LL * s.intervalMs || sinceLast < 0);
        // Or one made while its CPU time was read.
        if (tookOffer())
            continue;
        slot->request.store(generation, std::memory_order_release);
        if (!ran && !sendRequest(tid)) {
            // Gone already, or the signal queue is full: not in this sample.
            slot->request.exchange(0, std::memory_order_acq_rel);
            continue;
        }
        slot->cpuAtTick = cpu;
        slot->owesAnswer = true;
        s.asking[count] = slot;
        s.askingTid[count] = tid;
        s.askingHow[count] = ran ? AskByTimer : AskBySignal;
        ++count;
    }
    return count;
}

} // namespace

// Adds the answers that have come in to their samples. One that is overdue,
// or every one still out when `giveUpAll` is set, goes in as missing; a
// thread that ended without answering is left out.
long long answerDeadlineNs()
{
    // An answer left to a CPU timer comes after an interval of the thread's
    // CPU time, which a busy machine stretches.
    const long long intervals = 4LL * 1000000LL * gState.intervalMs;
    return intervals > ANSWER_DEADLINE_NS ? intervals : ANSWER_DEADLINE_NS;
}

void askPendingBySignal()
{
    State& s = gState;
    for (unsigned int i = 0; i < s.pendingCount; ++i) {
        if (s.pending[i].byTimer) {
            s.pending[i].byTimer = false;
            sendRequest(s.pending[i].tid);
        }
    }
}

namespace {

// The CPU time that threads ran between their last backtrace and their end
// goes to that backtrace, the nearest of what they did then.
void addExitCpuTimes()
{
    State& s = gState;
    const unsigned int size = s.list->size();
    const unsigned int oldest = size > EXIT_CPU_SEARCH ? size - EXIT_CPU_SEARCH : 0;
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (!slot->exitCpuOwed.load(std::memory_order_acquire))
            continue;
        const int tid = slot->tid.load(std::memory_order_relaxed);
        for (unsigned int k = size; k-- > oldest;) {
            if (s.list->at(k).addThreadCpuTime(tid, slot->exitCpu, UNWIND_NOT_ANSWERED))
                break;
        }
        slot->exitCpuOwed.store(false, std::memory_order_release);
    }
}

} // namespace

void collectAnswers(const timespec& current, bool giveUpAll)
{
    State& s = gState;
    addExitCpuTimes();
    for (unsigned int i = 0; i < s.pendingCount;) {
        const PendingAnswer& answer = s.pending[i];
        ThreadSlot* slot = answer.slot;
        const bool inMpi = slot->inMpi.load(std::memory_order_relaxed);
        s.sampleBeingAddedTo = answer.sampleIndex;
        s.commitStage.store(CommitAdding, std::memory_order_release);
        bool keep = false;
        if (slot->done.load(std::memory_order_acquire) == answer.generation) {
            SSample& sample = s.list->at(answer.sampleIndex);
            if (answer.marked) {
                sample.mergeThreadBacktrace(slot->data, inMpi, answer.tid, slot->cpuInterval, slot->sleeping,
                                            s.random);
                --s.missedThreads;
            } else {
                sample.addThreadBacktrace(slot->data, inMpi, answer.tid, slot->cpuInterval, slot->sleeping);
            }
        } else if (slot->state.load(std::memory_order_acquire) == SlotDead) {
            // Ended before it could answer; what it ran since its last
            // backtrace it left as it ended.
        } else if (answer.marked) {
            keep = true;
        } else if (giveUpAll || zs_nanoseconds(zs_difference(current, answer.askedAt)) >= answerDeadlineNs()) {
            // Withdraw the request, so that a late handler leaves the slot
            // alone. One that the thread has taken already is being
            // answered: it is waited for, or, when its sample is about to
            // be thinned or written, marked missing there until it comes.
            const bool answering = slot->request.exchange(0, std::memory_order_acq_rel) == 0;
            keep = answering;
            if (!answering || giveUpAll) {
                ++s.missedThreads;
                s.list->at(answer.sampleIndex)
                    .addThreadBacktrace(s.missingTrace, inMpi, answer.tid, timespec{0, 0}, false);
                s.pending[i].marked = answering;
            }
        } else {
            PendingAnswer& waiting = s.pending[i];
            if (waiting.byTimer
                && zs_nanoseconds(zs_difference(current, waiting.askedAt)) >= answerDeadlineNs() / 2) {
                // Left to the thread's CPU timer, but it stopped running
                // long ago: a signal asks it where it waits.
                const timespec cpu = threadCpu(waiting.tid);
                if (cpu.tv_sec >= 0 && zs_nanoseconds(zs_difference(cpu, slot->cpuAtTick)) <= 0) {
                    waiting.byTimer = false;
                    sendRequest(waiting.tid);
                } else {
                    slot->cpuAtTick = cpu;
                }
            }
            keep = true;
        }
        s.commitStage.store(CommitNone, std::memory_order_release);
        if (keep) {
            ++i;
            continue;
        }
        slot->owesAnswer = false;
        s.pending[i] = s.pending[--s.pendingCount];
    }
}

namespace {

// Reads /proc/self/statm and /proc/self/io when their values are due; true
// when it did, with the resident pages and the counts since the previous
// reading. The kernel makes their text anew on each read, which costs more
// than the rest of a sample: a sample between two readings carries on the
// values of the last one.
bool readProcCounters(const timespec& now, bool& haveRss, std::uint64_t& residentPages, bool& haveIo,
                      std::uint64_t& charsRead, std::uint64_t& charsWritten)
{
    State& s = gState;
    const bool first = s.lastProcRead.tv_sec == 0 && s.lastProcRead.tv_nsec == 0;
    if (!first && zs_nanoseconds(zs_difference(now, s.lastProcRead)) < PROC_READ_PERIOD_NS)
        return false;
    s.lastProcRead = now;
    char text[1024];
    if (s.statm.isOpen()) {
        const long n = s.statm.read(text, sizeof text);
        haveRss = n > 0 && parseResidentPages(text, residentPages);
        s.ownBytesRead += n > 0 ? static_cast<std::uint64_t>(n) : 0;
    }
    const long n = s.needIo ? s.io.read(text, sizeof text) : -1;
    if (n > 0 && parseIoCounters(text, charsRead, charsWritten)) {
        // The counts only grow; a smaller one is a misreading. The text
        // was made before this read was counted: it shows next time.
        haveIo = charsRead >= s.lastCharsRead + s.ownBytesRead && charsWritten >= s.lastCharsWritten;
        const std::uint64_t totalRead = charsRead;
        const std::uint64_t totalWritten = charsWritten;
        charsRead = totalRead - s.lastCharsRead - s.ownBytesRead;
        charsWritten = totalWritten - s.lastCharsWritten;
        s.lastCharsRead = totalRead;
        s.lastCharsWritten = totalWritten;
        s.ownBytesRead = static_cast<std::uint64_t>(n);
    }
    return true;
}

// A count that grows, shared out between samples that only some readings
// refresh: between readings each sample gets the last rate for its time;
// at a reading what was handed out is set against what was counted, so
// that the samples add up to the count.
void shareOut(CountShare& share, bool fresh, bool have, std::uint64_t counted, const timespec& wall,
              SampleValue& value)
{
    if (fresh && have) {
        share.owed += static_cast<double>(counted);
        const long long spanNs = zs_nanoseconds(zs_difference(gState.lastProcRead, share.since));
        share.perNs = spanNs > 0 ? static_cast<double>(counted) / static_cast<double>(spanNs) : 0;
        share.since = gState.lastProcRead;
        share.valid = true;
    } else if (fresh) {
        share.valid = false;
    } else if (share.valid) {
        share.owed += share.perNs * static_cast<double>(zs_nanoseconds(wall));
    }
    if (!share.valid)
        return;
    const double given = share.owed > 0 ? share.owed : 0;
    // Whole bytes only; the fraction stays owed.
    const std::uint64_t whole = static_cast<std::uint64_t>(given);
    share.owed -= static_cast<double>(whole);
    value = SampleValue(static_cast<unsigned long>(whole));
}

} // namespace

// The values of this sample; `wall` is the time since the previous one,
// `now` the time of this one.
void readMetrics(const timespec& wall, const timespec& now)
{
    State& s = gState;
    if (s.metricCount == 0)
        return;
    bool haveRss = false, haveIo = false;
    std::uint64_t residentPages = 0, charsRead = 0, charsWritten = 0;
    const bool fresh = readProcCounters(now, haveRss, residentPages, haveIo, charsRead, charsWritten);
    if (s.needProcessCpu && fresh) {
        // Read with /proc, not at every sample: the clock sums the times of
        // all threads, a system call dearer than the rest of a sample's
        // reading. A sample between two readings carries the last share.
        const timespec cpu = zs_now(CLOCK_PROCESS_CPUTIME_ID);
        const long long spanNs = zs_nanoseconds(zs_difference(now, s.lastProcessCpuAt));
        if (spanNs > 0) {
            s.cpuPercent = 100.0 * static_cast<double>(zs_nanoseconds(zs_difference(cpu, s.lastProcessCpu)))
                / static_cast<double>(spanNs);
            s.haveCpuPercent = true;
        }
        s.lastProcessCpu = cpu;
        s.lastProcessCpuAt = now;
    }
    if (fresh) {
        s.haveRss = haveRss;
        s.rssBytes = residentPages * static_cast<std::uint64_t>(s.pageSize);
    }
    SampleValue readValue, writtenValue;
    shareOut(s.charsReadShare, fresh, haveIo, charsRead, wall, readValue);
    shareOut(s.charsWrittenShare, fresh, haveIo, charsWritten, wall, writtenValue);
    // The MPI time since the previous sample.
    const std::uint64_t mpiNs = takeMpiTimeNs();
    for (unsigned int i = 0; i < s.metricCount; ++i) {
        SampleValue value;
        switch (s.metrics[i].kind) {
        case MetricCpuPercent:
            if (s.haveCpuPercent)
                value = SampleValue(s.cpuPercent);
            break;
        case MetricRss:
            if (s.haveRss)
                value = SampleValue(static_cast<unsigned long>(s.rssBytes));
            break;
        case MetricCharsRead:
            value = readValue;
            break;
        case MetricCharsWritten:
            value = writtenValue;
            break;
        case MetricMpiTime:
            value = SampleValue(static_cast<unsigned long>(mpiNs));
            break;
        case MetricNotTaken:
            break;
        }
        s.values[i] = value;
    }
}

void takeSample(void* ucontext)
{
    State& s = gState;
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed)
        return;
    if (quorvex_sampling_finished) {
        // The back-end is about to stop sampling: no more signals, which a
        // debugger would only have to pass on.
        setTimer(0, 0);
        return;
    }
    if (!tryLock(LockSampling)) {
        ++s.skipped;
        return;
    }
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed || s.mainTid == 0) {
        // A tick that came as the sampling thread ended without another.
        unlock();
        return;
    }
    // The thread's CPU time is taken before the handler's own work and
    // again after it, so that what the sampler costs counts for no thread.
    const timespec mainCpu = zs_now(CLOCK_THREAD_CPUTIME_ID);
    const timespec started = zs_now(CLOCK_MONOTONIC);
    if (s.stopOffsetMs > 0 && zs_nanoseconds(zs_difference(started, s.start)) >= 1000000LL * s.stopOffsetMs) {
        // The sampler's own decision to stop: the lock passes to the end.
        finish(QUORVEX_STOP_ON_REQUEST, true);
        return;
    }

    unwindFromSignalContext(s.mainTrace, ucontext, s.boundaryIp);
    const timespec mainCpuInterval = zs_difference(mainCpu, s.mainLastCpu);
    const timespec wall = zs_difference(started, s.lastSample);

    // Answers to earlier ticks first; all of them when the list is about to
    // be thinned, since thinning moves the samples they belong to.
    collectAnswers(started, s.list->isFull());
    const std::uint64_t generation = ++s.generation;
    const int count = s.allThreads ? askOtherThreads(generation) : 0;
    readMetrics(wall, started);

    s.threadIds[0] = s.mainTid;
    for (int k = 0; k < count; ++k)
        s.threadIds[k + 1] = s.askingTid[k];

    s.sizeBeforeCommit = s.list->size();
    s.commitStage.store(s.list->isFull() ? CommitThinning : CommitFilling, std::memory_order_release);
    bool downsampled = false;
    ThreadSlot* mainSlot = currentSlot();
    const ReserveReopen reserve;
    const bool mainSleeping = isSleeping(mainCpuInterval, wall);
    SSample* sample = s.list->createSample(s.mainTrace, started, wall, wall, downsampled,
                                           mainSlot && mainSlot->inMpi.load(std::memory_order_relaxed), s.mainTid,
                                           s.threadIds, static_cast<std::size_t>(count) + 1,
                                           mainSleeping ? sleepingCpu(mainCpuInterval) : mainCpuInterval,
                                           mainSleeping);
    sample->metrics().setValid();
    if (downsampled) {
        // The answers still awaited for thinned samples: each pair of
        // neighbours became one, at half the index.
        for (unsigned int i = 0; i < s.pendingCount; ++i) {
            const unsigned int moved = s.pending[i].sampleIndex / 2;
            const unsigned int kept = s.sizeBeforeCommit / 2;
            s.pending[i].sampleIndex = moved < kept || kept == 0 ? moved : kept - 1;
        }
    }
    for (unsigned int i = 0; i < s.metricCount; ++i)
        sample->metrics().setMetric(i, quorvex::SMetric(s.values[i], wall, s.metrics[i].mode));
    for (int k = 0; k < count; ++k) {
        ThreadSlot* slot = s.asking[k];
        if (s.askingHow[k] == AskTookOffer) {
            // Still filling: a stop now leaves this sample out, whole.
            sample->addThreadBacktrace(slot->offerData, slot->inMpi.load(std::memory_order_relaxed), s.askingTid[k],
                                       slot->offerCpuInterval, slot->offerSleeping);
            slot->offer.store(OfferEmpty, std::memory_order_release);
            slot->exitOffer.store(false, std::memory_order_release);
            ++s.offersTaken;
            continue;
        }
        s.pending[s.pendingCount++] = PendingAnswer{slot, s.askingTid[k], s.list->size() - 1, generation, started,
                                                    s.askingHow[k] == AskByTimer, false};
    }
    s.commitStage.store(CommitNone, std::memory_order_release);
    s.lastSample = started;
    ++s.taken;

    if (downsampled && s.intervalMs <= INT_MAX / 2) {
        // Half the samples are gone, each survivor standing for twice the
        // time: sample half as often from now on.
        s.intervalMs *= 2;
        // The other threads' answers too, or most of their signals would
        // find no request.
        setCpuEventPeriods(s.intervalMs);
        quorvex::SafeMessage message = logLine();
        message.str("sample list thinned, sampling every ").dec(s.intervalMs).str(" ms\n");
        writeLog(message);
    }
    if (downsampled || s.taken % TICKS_PER_PERIOD == 0)
        setNextTicks(s.intervalMs, started);
    // The handler's own time, as the clock on the wall sees it, stands for
    // its CPU time: a system call less.
    const timespec spent = zs_difference(zs_now(CLOCK_MONOTONIC), started);
    s.mainLastCpu = zs_add(mainCpu, spent);
    s.handlerNs += static_cast<std::uint64_t>(zs_nanoseconds(spent));
    unlock();
}

namespace {

void copyBacktrace(ExtendedBacktraceData& to, const ExtendedBacktraceData& from)
{
    const std::uint32_t size = from.size < MAX_BACKTRACE_DEPTH ? from.size : MAX_BACKTRACE_DEPTH;
    std::memcpy(to.frames, from.frames, size * sizeof from.frames[0]);
    to.size = size;
    to.unwindStatus = from.unwindStatus;
    to.stopsAtCallingFrame = from.stopsAtCallingFrame;
    to.parallelId = from.parallelId;
}

// The calling thread's backtrace and its CPU time since the previous one;
// the time when it was taken.
timespec takeOwnBacktrace(ThreadSlot* slot, void* ucontext, ExtendedBacktraceData& data, timespec& cpuInterval,
                          bool& sleeping, bool timerExpiry)
{
    const timespec cpu = zs_now(CLOCK_THREAD_CPUTIME_ID);
    const timespec wall = zs_now(CLOCK_MONOTONIC);
    unwindFromSignalContext(data, ucontext, gState.boundaryIp);
    // The first expiry of the thread's timer stands for all of its first
    // period; the next samples count from where that period ends.
    timespec counted = cpu;
    if (timerExpiry && !slot->timerExpired) {
        slot->timerExpired = true;
        if (zs_nanoseconds(zs_difference(slot->firstPeriodEnd, cpu)) > 0)
            counted = slot->firstPeriodEnd;
    }
    const bool ahead = zs_nanoseconds(zs_difference(counted, slot->lastCpu)) < 0;
    cpuInterval = ahead ? timespec{0, 0} : zs_difference(counted, slot->lastCpu);
    // A thread whose time was counted ahead runs all the same.
    const bool inflated = counted.tv_sec != cpu.tv_sec || counted.tv_nsec != cpu.tv_nsec;
    sleeping = !ahead && !inflated && isSleeping(cpuInterval, zs_difference(wall, slot->lastWall));
    if (sleeping)
        cpuInterval = sleepingCpu(cpuInterval);
    slot->lastWall = wall;
    if (!ahead)
        slot->lastCpu = zs_add(counted, zs_difference(zs_now(CLOCK_MONOTONIC), wall));
    return wall;
}

} // namespace

void answerRequest(void* ucontext, bool ownTimer)
{
    ThreadSlot* slot = currentSlot();
    if (!slot)
        return;
    const std::uint64_t generation = slot->request.exchange(0, std::memory_order_acq_rel);
    if (generation == 0) {
        // The tick hasn't asked yet: what the thread does now is offered to
        // the next one, unless an offer waits there already.
        if (ownTimer)
            gState.timerSignalsUnasked.fetch_add(1, std::memory_order_relaxed);
        if (ownTimer && slot->offer.load(std::memory_order_acquire) == OfferEmpty
            && gState.phase.load(std::memory_order_acquire) == PhaseArmed) {
            slot->offerPrevCpu = slot->lastCpu;
            slot->offerPrevWall = slot->lastWall;
            slot->offerTakenAt = takeOwnBacktrace(slot, ucontext, slot->offerData, slot->offerCpuInterval,
                                                  slot->offerSleeping, true);
            slot->offer.store(OfferFull, std::memory_order_release);
            gState.offersMade.fetch_add(1, std::memory_order_relaxed);
            // Asked meanwhile, by a tick that found no offer yet: the offer
            // answers.
            const std::uint64_t late = slot->request.exchange(0, std::memory_order_acq_rel);
            if (late != 0) {
                copyBacktrace(slot->data, slot->offerData);
                slot->cpuInterval = slot->offerCpuInterval;
                slot->sleeping = slot->offerSleeping;
                slot->offer.store(OfferEmpty, std::memory_order_relaxed);
                slot->done.store(late, std::memory_order_release);
                announceAnswer();
            }
        }
        return;
    }
    // The tick looked at the offer before it asked, and left it: this
    // answer is newer and counts the offer's CPU time too.
    if (slot->offer.load(std::memory_order_acquire) == OfferFull) {
        slot->lastCpu = slot->offerPrevCpu;
        slot->lastWall = slot->offerPrevWall;
        slot->offer.store(OfferEmpty, std::memory_order_relaxed);
    }
    takeOwnBacktrace(slot, ucontext, slot->data, slot->cpuInterval, slot->sleeping, ownTimer);
    slot->done.store(generation, std::memory_order_release);
    announceAnswer();
}

} // namespace zorsampler
