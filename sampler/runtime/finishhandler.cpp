// The end of sampling: the last answers are collected and the results
// written. It may run in the sampling handler (a stop offset that has
// passed), on top of an interrupted handler (a debugger's call), or at the
// program's exit: it allocates nothing and waits for no lock for long.
#include "clock.h"
#include "mpihooks.h"
#include "regions.h"
#include "modules.h"
#include "quorvex_sampler.h"
#include "runtime.h"
#include "samplerfile.h"
#include "samplerstate.h"
#include "sampling.h"
#include "sfileio.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static_assert(quorvex::QUORVEX_STOP_REASON_PROGRAM_ENDED == QUORVEX_STOP_PROGRAM_ENDED
                  && quorvex::QUORVEX_STOP_REASON_ON_REQUEST == QUORVEX_STOP_ON_REQUEST,
              "the header and the C interface number stop reasons alike");

namespace zorsampler {

namespace {

// At the end: the answers still out get a little time to come in.
void collectLastAnswers()
{
    State& s = gState;
    const timespec deadline = zs_add(zs_now(CLOCK_MONOTONIC), zs_from_ns(ANSWER_DEADLINE_NS));
    std::atomic<int>& sequence = answerSequence();
    askPendingBySignal();
    answerWaiters().fetch_add(1, std::memory_order_acq_rel);
    for (;;) {
        const int seen = sequence.load(std::memory_order_acquire);
        const timespec current = zs_now(CLOCK_MONOTONIC);
        const bool late = zs_nanoseconds(current) >= zs_nanoseconds(deadline);
        collectAnswers(current, late);
        if (s.pendingCount == 0 || late)
            break;
        timespec left = zs_difference(deadline, current);
        syscall(SYS_futex, reinterpret_cast<int*>(&sequence), FUTEX_WAIT_PRIVATE, seen, &left, nullptr, 0);
    }
    answerWaiters().fetch_sub(1, std::memory_order_acq_rel);
}

// The first `count` samples but the one at `skip`.
void writeSamplesUpTo(int fd, const quorvex::SamplerFileHeader& header, unsigned int count, unsigned int skip)
{
    quorvex::quorvex_write_sampler_file_header(fd, header);
    quorvex::SSampleList::writeOpening(fd, skip < count ? count - 1 : count);
    for (unsigned int i = 0; i < count; ++i) {
        if (i != skip)
            gState.list->at(i).writeToFile(fd);
    }
    quorvex::SSampleList::writeClosing(fd);
    writeCallSites(fd);
}

void reportFileError(const char* what, const char* path)
{
    quorvex::SafeMessage message = logLine();
    message.str("can't write ").str(what).str(" ").str(path).str(" (error ").dec(errno).str(")\n");
    writeLog(message);
}

// Writes the data file, ".errorMessages" when some metric can't be taken,
// ".mpi" when an MPI wrapper is loaded, ".modules" when there are addresses
// and ".threads" when threads named themselves; then deletes ".running".
// Allocates nothing and takes no lock, since it may run on top of an
// interrupted handler.
void writeResults(int stopReason, int stage)
{
    State& s = gState;
    quorvex::SamplerFileHeader header;
    header.startTime = s.start;
    header.stopReason = stopReason;
    header.numDownsamples = s.list->numDownsamples();
    header.numSkippedWhileSuspended = s.skipped;
    header.numTakenInTotal = s.taken;
    // The spare words: the sampling interval at the end, in milliseconds,
    // and the mean time of the sampling handler, in microseconds.
    header.firstSpareWord = static_cast<std::uint32_t>(s.intervalMs);
    header.secondSpareWord = s.taken ? static_cast<std::uint32_t>(s.handlerNs / s.taken / 1000) : 0;
    header.ompThreadsText = s.haveOmpThreads ? s.ompThreads : nullptr;
    header.cudaProfilingEnabled = 0;
    header.mpiThreadMultiple = mpiThreadMultiple() ? 1 : 0;

    // Emptied when sampling started, so not truncated again: on ext4 a
    // file truncated to nothing is flushed to disk when it is closed.
    int fd = open(s.path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        reportFileError("the data file", s.path);
    } else {
        // The records write field by field: gathered, they take a few large
        // writes instead of dozens of system calls per sample.
        static char buffer[256 * 1024];
        quorvex::fileio::WriteBehind behind(fd, buffer, sizeof buffer);
        if (stage == CommitFilling) {
            // The newest sample is half made; the ones before it are whole.
            writeSamplesUpTo(fd, header, s.sizeBeforeCommit, UINT_MAX);
        } else if (stage == CommitAdding) {
            // One sample is getting a thread's backtrace.
            writeSamplesUpTo(fd, header, s.list->size(), s.sampleBeingAddedTo);
        } else if (stage == CommitThinning) {
            quorvex::SafeMessage message = logLine();
            message.str("stopped while the sample list was being thinned; no samples are kept\n");
            writeLog(message);
            writeSamplesUpTo(fd, header, 0, UINT_MAX);
        } else {
            quorvex::quorvex_write_sampler_file_header(fd, header);
            s.list->writeToFile(fd);
            writeCallSites(fd);
        }
        if (!behind.flush())
            reportFileError("the data file", s.path);
        // Whatever somebody else put there meanwhile goes.
        const off_t end = lseek(fd, 0, SEEK_CUR);
        struct stat status;
        if (end >= 0 && fstat(fd, &status) == 0 && status.st_size > end)
            ftruncate(fd, end);
        close(fd);
    }

    // Side files only with something in them: every file made costs a
    // process that runs a millisecond a good part of its start. Arming took
    // ".errorMessages" away: what it holds now are the notes of processes
    // that may not sample, which stay.
    if (s.errorRecordsSize > 0) {
        fd = open(s.errorsPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0) {
            reportFileError("the metric errors", s.errorsPath);
        } else {
            quorvex::safe_write_all(fd, s.errorRecords, s.errorRecordsSize);
            close(fd);
        }
    }

    if (mpiWrapperLoaded()) {
        fd = open(s.mpiPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            writeMpiFile(fd);
            close(fd);
        } else {
            reportFileError("the MPI figures", s.mpiPath);
        }
    }

    // The module list turns addresses into functions: a run that has none
    // (one shorter than a sampling interval, most often) needs none.
    if ((s.list->size() > 0 || gCallSiteCount.load(std::memory_order_acquire) > 0)
        && !writeModulesFile(s.modulesPath))
        reportFileError("the module list", s.modulesPath);
    if (s.list->size() > 0 && !writeThreadNames(s.threadsPath))
        reportFileError("the thread names", s.threadsPath);

    unlink(s.runningPath);
}

} // namespace

int finish(int stopReason, bool inSamplingHandler)
{
    State& s = gState;
    if (s.phase.load(std::memory_order_acquire) == PhaseIdle)
        return fail(QUORVEX_SAMPLER_NOT_ARMED, "sampling was never armed");
    if (getpid() != s.pid)
        return fail(QUORVEX_SAMPLER_OTHER_PROCESS, "this process is a child of the sampled one");
    int expected = PhaseArmed;
    if (!s.phase.compare_exchange_strong(expected, PhaseFinishing, std::memory_order_acq_rel)) {
        // Another thread is finishing: wait until the results are on disk.
        const int self = currentTid();
        while (s.phase.load(std::memory_order_acquire) == PhaseFinishing
               && s.finisherTid.load(std::memory_order_relaxed) != self) {
            const timespec pause = {0, 200000};
            zs_real_nanosleep(&pause, nullptr);
        }
        return QUORVEX_SAMPLER_OK;
    }
    s.finisherTid.store(currentTid(), std::memory_order_relaxed);
    quorvex_sampling_finished = 1;
    if (s.haveTimer) {
        timer_delete(s.timer);
        s.haveTimer = false;
    }
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next)
        stopCpuTimer(slot);

    // The sampling handler may be running; wait for it to let go of the
    // list. If it is this very thread's, interrupted and held by a
    // debugger, it can't let go: write around what it is doing. The same
    // when it doesn't let go for long, as in a debugger that runs only the
    // thread it calls into.
    bool locked = inSamplingHandler;
    int stage = CommitNone;
    for (int waited = 0; !locked; ++waited) {
        if (tryLock(LockFinished)) {
            locked = true;
        } else if (lockOwner() == currentTid() || waited == 10000) {
            stage = s.commitStage.load(std::memory_order_acquire);
            break;
        } else {
            const timespec pause = {0, 200000};
            zs_real_nanosleep(&pause, nullptr);
        }
    }

    if (locked) {
        if (inSamplingHandler)
            collectAnswers(zs_now(CLOCK_MONOTONIC), true);
        else
            collectLastAnswers();
    }
    writeResults(stopReason, stage);
    s.statm.close();
    s.io.close();
    s.phase.store(PhaseFinished, std::memory_order_release);
    if (locked)
        unlock();

    quorvex::SafeMessage message = logLine();
    message.str("stopped (reason ").dec(stopReason).str("), ").udec(s.taken).str(" samples taken, ")
        .udec(s.list->size()).str(" kept, ").udec(s.skipped).str(" skipped, ").udec(s.missedThreads)
        .str(" thread backtraces missed; ").udec(s.timerSignalsUnasked.load(std::memory_order_relaxed))
        .str(" CPU-timer signals found no request, ").udec(s.offersMade.load(std::memory_order_relaxed))
        .str(" offered their backtrace, ").udec(s.offersTaken).str(" taken; results in ").str(s.path).str("\n");
    writeLog(message);
    return QUORVEX_SAMPLER_OK;
}

} // namespace zorsampler
