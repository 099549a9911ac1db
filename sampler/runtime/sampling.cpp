// Arming, taking samples and writing the results.
//
// A POSIX timer on the monotonic clock sends the sampler's signal to the
// main thread at every interval. Its handler unwinds the main thread from
// the signal context, asks every other live thread for its backtrace with a
// signal of the same number carrying a request, reads the per-sample
// metrics and puts the sample into the list. It doesn't wait for the other
// threads: each takes its backtrace when its own handler runs, and the
// handler at the next tick adds the answers that have come in to the
// samples they belong to. An answer that is overdue counts as missing.
// Nothing in the handlers allocates: the sample list, every backtrace in it
// and the table of pending answers are sized when sampling is armed.
#include "procmetrics.h"
#include "quorvex_sampler.h"
#include "runtime.h"
#include "samplerconfig.h"
#include "samplerfile.h"
#include "sampling.h"
#include "samplevalue.h"
#include "sfileio.h"
#include "ssamplelist.h"
#include "threads.h"
#include "zor_print.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>

extern "C" {
__attribute__((visibility("default"))) volatile int quorvex_sampling_finished;
__attribute__((visibility("default"))) char quorvex_sampler_error[1024];
}

using quorvex::SMetric;
using quorvex::SSample;
using quorvex::SSampleList;

namespace zorsampler {

namespace {

// Identifiers of the metrics this sampler takes itself.
const char METRIC_ID_CPU_PERCENT[] = "cpu_time_percent";
const char METRIC_ID_RSS[] = "rss_bytes";
const char METRIC_ID_CHARS_READ[] = "chars_read";
const char METRIC_ID_CHARS_WRITTEN[] = "chars_written";

// Codes of the records in ".errorMessages".
const int METRIC_ERROR_UNKNOWN = 1;
const int METRIC_ERROR_PLUGIN = 2;
const int METRIC_ERROR_SOURCE = 3;

const int DEFAULT_INTERVAL_MS = 20;
const int DEFAULT_NUM_SAMPLES = 1000;
const int DEFAULT_THREADS_PER_SAMPLE = 8;
const int MAX_THREADS_PER_SAMPLE = 4096;
// How long an answer may take before it counts as missing. Only a thread
// that can't run its handler takes so long: one that is stopped, or waits
// for a lock that the interrupted main thread holds.
const long long ANSWER_DEADLINE_NS = 50 * 1000 * 1000;
// Pending answers kept, per thread that a sample may hold.
const int PENDING_PER_THREAD = 64;
// A thread that used less CPU than this share of the wall time since its
// previous sample counts as sleeping.
const double SLEEPING_CPU_SHARE = 0.1;
// The sample list and its backtraces must fit in this; the number of
// samples kept is lowered to make them fit.
const std::size_t LIST_MEMORY_BUDGET = std::size_t(512) << 20;

enum Phase { PhaseIdle = 0, PhaseArmed, PhaseFinishing, PhaseFinished };
enum MetricKind { MetricNotTaken = 0, MetricCpuPercent, MetricRss, MetricCharsRead, MetricCharsWritten };
// What the sampling handler is doing to the list, for a stop that lands on
// top of it.
enum CommitStage { CommitNone = 0, CommitFilling, CommitThinning, CommitAdding };

struct MetricPlan
{
    MetricKind kind;
    SMetric::NormalisationMode mode;
};

// A thread asked for its backtrace, whose answer goes into the sample at
// `sampleIndex` when it comes.
struct PendingAnswer
{
    ThreadSlot* slot;
    int tid;
    unsigned int sampleIndex;
    std::uint64_t generation;
    timespec askedAt;
};

// Everything the sampler keeps. Zero-initialised, with no constructor to
// run: the program may start threads or set handlers before the library's
// constructors have run.
struct State
{
    std::atomic<int> phase;
    std::atomic<int> commitStage;
    std::atomic<int> finisherTid;
    pid_t pid;
    int mainTid;
    bool allThreads;
    bool debugLog;
    bool gpuRequested;
    int threadsPerSampleOption;
    unsigned long boundaryIp;

    char path[PATH_MAX];
    char runningPath[PATH_MAX + 16];
    char mpiPath[PATH_MAX + 16];
    char errorsPath[PATH_MAX + 16];
    char ompThreads[256];
    bool haveOmpThreads;

    int intervalMs;
    unsigned int startOffsetMs;
    unsigned int stopOffsetMs;
    timespec start;
    timespec lastSample;
    timer_t timer;
    bool haveTimer;

    SSampleList* list;
    drand48_data random;
    quorvex::threadlist_t* threadList;
    int threadsPerSample;
    // The threads asked at this tick.
    ThreadSlot** asking;
    int* askingTid;
    PendingAnswer* pending;
    unsigned int pendingCount;
    unsigned int pendingCapacity;
    std::uint64_t generation;
    unsigned int rotation;
    unsigned int sizeBeforeCommit;
    unsigned int sampleBeingAddedTo;

    ExtendedBacktraceData mainTrace;
    ExtendedBacktraceData missingTrace;
    timespec mainLastCpu;

    MetricPlan* metrics;
    SampleValue* values;
    unsigned int metricCount;
    bool needProcessCpu;
    bool needIo;
    ProcFile statm;
    ProcFile io;
    long pageSize;
    timespec lastProcessCpu;
    std::uint64_t lastCharsRead;
    std::uint64_t lastCharsWritten;
    // What the sampler read from /proc itself and the read count of the
    // process doesn't show yet: not the program's reading.
    std::uint64_t ownBytesRead;
    std::string* errorRecords;

    std::uint64_t taken;
    std::uint64_t skipped;
    std::uint64_t missedThreads;
    std::uint64_t handlerNs;
};

State gState;
static_assert(std::is_trivially_default_constructible<State>::value, "the state must need no constructor");

// ---- small helpers ----

timespec now(clockid_t clock)
{
    timespec t;
    clock_gettime(clock, &t);
    return t;
}

timespec difference(const timespec& later, const timespec& earlier)
{
    timespec d = {later.tv_sec - earlier.tv_sec, later.tv_nsec - earlier.tv_nsec};
    if (d.tv_nsec < 0) {
        d.tv_sec -= 1;
        d.tv_nsec += 1000000000L;
    }
    if (d.tv_sec < 0)
        d = timespec{0, 0};
    return d;
}

long long nanoseconds(const timespec& t)
{
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

timespec fromMs(long long ms)
{
    return timespec{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
}

timespec add(const timespec& a, long long ns)
{
    long long total = nanoseconds(a) + ns;
    return timespec{static_cast<time_t>(total / 1000000000LL), static_cast<long>(total % 1000000000LL)};
}

bool isSleeping(const timespec& cpu, const timespec& wall)
{
    const long long wallNs = nanoseconds(wall);
    return wallNs > 0 && static_cast<double>(nanoseconds(cpu)) < SLEEPING_CPU_SHARE * static_cast<double>(wallNs);
}

void setError(const std::string& message)
{
    std::strncpy(quorvex_sampler_error, message.c_str(), sizeof quorvex_sampler_error - 1);
    quorvex_sampler_error[sizeof quorvex_sampler_error - 1] = '\0';
}

int fail(int code, const std::string& message)
{
    setError(message);
    return code;
}

void writeLog(const quorvex::SafeMessage& message)
{
    if (gState.debugLog)
        message.writeTo(2);
}

quorvex::SafeMessage logLine()
{
    quorvex::SafeMessage message;
    message.str("zor sampler[").dec(getpid()).str("]: ");
    return message;
}

void addMetricError(unsigned int index, int code, const std::string& message)
{
    *gState.errorRecords += std::to_string(index) + "\n" + std::to_string(code) + "\n" + message + "\n#\n";
}

// ---- metrics ----

void planMetrics(const quorvex::SamplerConfig& config)
{
    State& s = gState;
    s.metricCount = config.metricCount();
    s.metrics = new MetricPlan[s.metricCount];
    s.values = new SampleValue[s.metricCount];
    for (unsigned int i = 0; i < s.metricCount; ++i)
        s.metrics[i] = MetricPlan{MetricNotTaken, SMetric::NoNormalisation};

    bool wantStatm = false;
    for (const quorvex::SamplerMetricConfig& metric : config.metrics) {
        MetricPlan& plan = s.metrics[metric.index];
        plan.mode = metric.divide ? SMetric::DivideBySampleInterval : SMetric::NoNormalisation;
        if (!metric.library.empty()) {
            addMetricError(metric.index, METRIC_ERROR_PLUGIN,
                           "The sampler can't load metric plug-ins; \"" + metric.id + "\" from " + metric.library
                               + " has no values.");
        } else if (metric.id == METRIC_ID_CPU_PERCENT) {
            plan.kind = MetricCpuPercent;
            s.needProcessCpu = true;
        } else if (metric.id == METRIC_ID_RSS) {
            plan.kind = MetricRss;
            wantStatm = true;
        } else if (metric.id == METRIC_ID_CHARS_READ) {
            plan.kind = MetricCharsRead;
            s.needIo = true;
        } else if (metric.id == METRIC_ID_CHARS_WRITTEN) {
            plan.kind = MetricCharsWritten;
            s.needIo = true;
        } else {
            addMetricError(metric.index, METRIC_ERROR_UNKNOWN,
                           "The sampler doesn't know the metric \"" + metric.id + "\"; it has no values.");
        }
    }

    // A source that can't be opened leaves its metrics empty, with a word
    // for each of them.
    auto dropSource = [&](MetricKind a, MetricKind b, const char* path, int error) {
        for (unsigned int i = 0; i < s.metricCount; ++i) {
            if (s.metrics[i].kind == a || s.metrics[i].kind == b) {
                s.metrics[i].kind = MetricNotTaken;
                addMetricError(i, METRIC_ERROR_SOURCE, std::string("Can't open ") + path + ": " + strerror(error));
            }
        }
    };
    if (wantStatm && !s.statm.open("/proc/self/statm"))
        dropSource(MetricRss, MetricRss, "/proc/self/statm", errno);
    if (s.needIo && !s.io.open("/proc/self/io")) {
        dropSource(MetricCharsRead, MetricCharsWritten, "/proc/self/io", errno);
        s.needIo = false;
    }
    s.pageSize = sysconf(_SC_PAGESIZE);
}

// The values of this sample; `wall` is the time since the previous one.
void readMetrics(const timespec& wall)
{
    State& s = gState;
    if (s.metricCount == 0)
        return;
    double cpuPercent = 0;
    bool haveCpu = false;
    if (s.needProcessCpu) {
        const timespec cpu = now(CLOCK_PROCESS_CPUTIME_ID);
        const long long wallNs = nanoseconds(wall);
        if (wallNs > 0) {
            cpuPercent = 100.0 * static_cast<double>(nanoseconds(difference(cpu, s.lastProcessCpu)))
                / static_cast<double>(wallNs);
            haveCpu = true;
        }
        s.lastProcessCpu = cpu;
    }
    char text[1024];
    std::uint64_t residentPages = 0;
    bool haveRss = false;
    if (s.statm.isOpen()) {
        const long n = s.statm.read(text, sizeof text);
        haveRss = n > 0 && parseResidentPages(text, residentPages);
        s.ownBytesRead += n > 0 ? static_cast<std::uint64_t>(n) : 0;
    }
    std::uint64_t charsRead = 0, charsWritten = 0;
    bool haveIo = false;
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
    for (unsigned int i = 0; i < s.metricCount; ++i) {
        SampleValue value;
        switch (s.metrics[i].kind) {
        case MetricCpuPercent:
            if (haveCpu)
                value = SampleValue(cpuPercent);
            break;
        case MetricRss:
            if (haveRss)
                value = SampleValue(static_cast<unsigned long>(residentPages * static_cast<std::uint64_t>(s.pageSize)));
            break;
        case MetricCharsRead:
            if (haveIo)
                value = SampleValue(static_cast<unsigned long>(charsRead));
            break;
        case MetricCharsWritten:
            if (haveIo)
                value = SampleValue(static_cast<unsigned long>(charsWritten));
            break;
        case MetricNotTaken:
            break;
        }
        s.values[i] = value;
    }
}

void takeMetricBaselines()
{
    State& s = gState;
    s.lastProcessCpu = now(CLOCK_PROCESS_CPUTIME_ID);
    char text[1024];
    const long n = s.needIo ? s.io.read(text, sizeof text) : -1;
    if (n > 0 && parseIoCounters(text, s.lastCharsRead, s.lastCharsWritten))
        s.ownBytesRead = static_cast<std::uint64_t>(n);
}

// ---- asking the other threads ----

// The CPU clock of any thread of the process, by thread id, as the kernel
// numbers them.
clockid_t threadCpuClock(int tid)
{
    return static_cast<clockid_t>((~static_cast<unsigned int>(tid) << 3) | 6);
}

// Sends the request of this tick to the threads whose turn it is; returns
// how many were asked. A thread that still owes an answer isn't asked again.
int askOtherThreads(std::uint64_t generation)
{
    State& s = gState;
    auto askable = [&](ThreadSlot* slot) {
        return slot->state.load(std::memory_order_acquire) == SlotLive
            && slot->tid.load(std::memory_order_relaxed) != s.mainTid
            && !slot->blocksSignal.load(std::memory_order_relaxed) && !slot->owesAnswer;
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

    siginfo_t info;
    std::memset(&info, 0, sizeof info);
    info.si_signo = zs_sampler_signal();
    info.si_code = REQUEST_CODE;
    info.si_pid = s.pid;
    info.si_value.sival_ptr = const_cast<char*>(&gSignalCookie);

    int index = 0;
    int count = 0;
    for (ThreadSlot* slot = firstSlot(); slot && index < candidates; slot = slot->next) {
        if (!askable(slot))
            continue;
        const int position = (index++ - first + candidates) % candidates;
        if (position >= take)
            continue;
        const int tid = slot->tid.load(std::memory_order_relaxed);
        slot->request.store(generation, std::memory_order_release);
        if (syscall(SYS_rt_tgsigqueueinfo, s.pid, tid, info.si_signo, &info) != 0) {
            // Gone already, or the signal queue is full: not in this sample.
            slot->request.exchange(0, std::memory_order_acq_rel);
            continue;
        }
        slot->owesAnswer = true;
        s.asking[count] = slot;
        s.askingTid[count] = tid;
        ++count;
    }
    return count;
}

// Adds the answers that have come in to their samples. One that is overdue,
// or every one still out when `giveUpAll` is set, goes in as missing; a
// thread that ended without answering is left out.
void collectAnswers(const timespec& current, bool giveUpAll)
{
    State& s = gState;
    for (unsigned int i = 0; i < s.pendingCount;) {
        const PendingAnswer& answer = s.pending[i];
        ThreadSlot* slot = answer.slot;
        const bool inMpi = slot->inMpi.load(std::memory_order_relaxed);
        s.sampleBeingAddedTo = answer.sampleIndex;
        s.commitStage.store(CommitAdding, std::memory_order_release);
        if (slot->done.load(std::memory_order_acquire) == answer.generation) {
            s.list->at(answer.sampleIndex)
                .addThreadBacktrace(slot->data, inMpi, answer.tid, slot->cpuInterval, slot->sleeping);
        } else if (slot->state.load(std::memory_order_acquire) == SlotDead) {
            // Ended before it could answer.
        } else if (giveUpAll || nanoseconds(difference(current, answer.askedAt)) >= ANSWER_DEADLINE_NS) {
            // Withdraw the request, so that a late handler leaves the slot
            // alone, and say in the sample that the answer is missing.
            slot->request.exchange(0, std::memory_order_acq_rel);
            ++s.missedThreads;
            s.list->at(answer.sampleIndex).addThreadBacktrace(s.missingTrace, inMpi, answer.tid, timespec{0, 0}, false);
        } else {
            s.commitStage.store(CommitNone, std::memory_order_release);
            ++i;
            continue;
        }
        s.commitStage.store(CommitNone, std::memory_order_release);
        slot->owesAnswer = false;
        s.pending[i] = s.pending[--s.pendingCount];
    }
}

// At the end: the answers still out get a little time to come in.
void collectLastAnswers()
{
    State& s = gState;
    const timespec deadline = add(now(CLOCK_MONOTONIC), ANSWER_DEADLINE_NS);
    std::atomic<int>& sequence = answerSequence();
    answerWaiters().fetch_add(1, std::memory_order_acq_rel);
    for (;;) {
        const int seen = sequence.load(std::memory_order_acquire);
        const timespec current = now(CLOCK_MONOTONIC);
        const bool late = nanoseconds(current) >= nanoseconds(deadline);
        collectAnswers(current, late);
        if (s.pendingCount == 0 || late)
            break;
        timespec left = difference(deadline, current);
        syscall(SYS_futex, reinterpret_cast<int*>(&sequence), FUTEX_WAIT_PRIVATE, seen, &left, nullptr, 0);
    }
    answerWaiters().fetch_sub(1, std::memory_order_acq_rel);
}

void setTimer(int intervalMs, long long firstMs)
{
    itimerspec timing;
    timing.it_value = fromMs(firstMs);
    timing.it_interval = fromMs(intervalMs);
    timer_settime(gState.timer, 0, &timing, nullptr);
}

// ---- the end ----

// The first `count` samples but the one at `skip`.
void writeSamplesUpTo(int fd, const quorvex::SamplerFileHeader& header, unsigned int count, unsigned int skip)
{
    quorvex::quorvex_write_sampler_file_header(fd, header);
    QUORVEX_WRITE(fd, "sl", 2);
    QUORVEX_WRITE_UWIDE(fd, skip < count ? count - 1 : count);
    for (unsigned int i = 0; i < count; ++i) {
        if (i != skip)
            gState.list->at(i).writeToFile(fd);
    }
    QUORVEX_WRITE(fd, "/sl", 3);
    const std::uint32_t noCallSites = 0;
    QUORVEX_WRITE(fd, &noCallSites, sizeof noCallSites);
}

void reportFileError(const char* what, const char* path)
{
    quorvex::SafeMessage message;
    message.str("zor sampler: can't write ").str(what).str(" ").str(path).str(" (error ").dec(errno).str(")\n");
    message.writeTo(2);
}

// Writes the data file, ".errorMessages" and, unless an MPI wrapper has
// written one, ".mpi"; then deletes ".running". Allocates nothing and takes
// no lock, since it may run on top of an interrupted handler.
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

    int fd = open(s.path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        reportFileError("the data file", s.path);
    } else {
        if (stage == CommitFilling) {
            // The newest sample is half made; the ones before it are whole.
            writeSamplesUpTo(fd, header, s.sizeBeforeCommit, UINT_MAX);
        } else if (stage == CommitAdding) {
            // One sample is getting a thread's backtrace.
            writeSamplesUpTo(fd, header, s.list->size(), s.sampleBeingAddedTo);
        } else if (stage == CommitThinning) {
            quorvex::SafeMessage message;
            message.str("zor sampler: stopped while the sample list was being thinned; no samples are kept\n");
            message.writeTo(2);
            writeSamplesUpTo(fd, header, 0, UINT_MAX);
        } else {
            quorvex::quorvex_write_sampler_file(fd, header, *s.list, nullptr, 0);
        }
        close(fd);
    }

    fd = open(s.errorsPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        reportFileError("the metric errors", s.errorsPath);
    } else {
        quorvex::safe_write_all(fd, s.errorRecords->data(), s.errorRecords->size());
        close(fd);
    }

    fd = open(s.mpiPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
        SampleValue(0).writeToFile(fd);
        close(fd);
    } else if (errno != EEXIST) {
        reportFileError("the MPI figures", s.mpiPath);
    }

    unlink(s.runningPath);
}

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
            collectAnswers(now(CLOCK_MONOTONIC), true);
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
        .str(" thread backtraces missed; results in ").str(s.path).str("\n");
    writeLog(message);
    return QUORVEX_SAMPLER_OK;
}

// ---- arming ----

struct ArmSettings
{
    int numSamples;
    int intervalMs;
    const char* path;
    bool allThreads;
    unsigned int startOffsetMs;
    unsigned int stopOffsetMs;
};

quorvex::SamplerConfig defaultConfig()
{
    quorvex::SamplerConfig config;
    const char* ids[] = {METRIC_ID_CPU_PERCENT, METRIC_ID_RSS, METRIC_ID_CHARS_READ, METRIC_ID_CHARS_WRITTEN};
    for (unsigned int i = 0; i < 4; ++i) {
        quorvex::SamplerMetricConfig metric;
        metric.index = i;
        metric.id = ids[i];
        metric.divide = i >= 2;
        metric.onTimeDomain = true;
        config.metrics.push_back(metric);
    }
    return config;
}

int arm(const ArmSettings& settings, const quorvex::SamplerConfig* givenConfig)
{
    State& s = gState;
    if (s.phase.load(std::memory_order_acquire) != PhaseIdle)
        return fail(QUORVEX_SAMPLER_ALREADY_ARMED, "sampling has already been armed in this process");
    if (settings.numSamples <= 0)
        return fail(QUORVEX_SAMPLER_BAD_ARGUMENTS, "the number of samples must be positive, not "
                                                       + std::to_string(settings.numSamples));
    if (settings.intervalMs <= 0)
        return fail(QUORVEX_SAMPLER_BAD_ARGUMENTS, "the sampling interval must be positive, not "
                                                       + std::to_string(settings.intervalMs) + " ms");
    if (!settings.path || !*settings.path || std::strlen(settings.path) >= PATH_MAX)
        return fail(QUORVEX_SAMPLER_BAD_ARGUMENTS, "the output path is empty or too long");

    std::strcpy(s.path, settings.path);
    std::strcpy(s.runningPath, settings.path);
    std::strcat(s.runningPath, ".running");
    std::strcpy(s.mpiPath, settings.path);
    std::strcat(s.mpiPath, ".mpi");
    std::strcpy(s.errorsPath, settings.path);
    std::strcat(s.errorsPath, ".errorMessages");

    quorvex::SamplerConfig config;
    if (givenConfig) {
        config = *givenConfig;
    } else {
        std::string error;
        if (!quorvex::readSamplerConfigFile(settings.path, config, error))
            return fail(QUORVEX_SAMPLER_BAD_CONFIG, error);
    }

    if (access(s.runningPath, F_OK) == 0)
        return fail(QUORVEX_SAMPLER_RUNNING_FILE, std::string(s.runningPath) + " exists already");
    const int out = open(s.path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0)
        return fail(QUORVEX_SAMPLER_BAD_OUTPUT, std::string("can't write ") + s.path + ": " + strerror(errno));
    close(out);
    // Side files of an earlier run under the same name would be taken for
    // this run's.
    unlink(s.mpiPath);
    unlink(s.errorsPath);

    s.pid = getpid();
    s.mainTid = currentTid();
    s.allThreads = settings.allThreads;
    s.intervalMs = settings.intervalMs;
    s.startOffsetMs = settings.startOffsetMs;
    s.stopOffsetMs = settings.stopOffsetMs;
    s.threadsPerSample = settings.allThreads
        ? (s.threadsPerSampleOption > 0 ? s.threadsPerSampleOption : DEFAULT_THREADS_PER_SAMPLE)
        : 0;
    const char* omp = getenv("OMP_NUM_THREADS");
    s.haveOmpThreads = omp != nullptr;
    if (omp) {
        std::strncpy(s.ompThreads, omp, sizeof s.ompThreads - 1);
        s.ompThreads[sizeof s.ompThreads - 1] = '\0';
    }

    int numSamples = settings.numSamples;
    try {
        s.errorRecords = new std::string;
        planMetrics(config);

        // Every record must be filled without allocating, so each backtrace
        // keeps room for the deepest stack from the start.
        if (quorvex::SSimpleBacktrace::storagePolicy() != quorvex::SSimpleBacktrace::StoragePolicyPreallocated)
            quorvex::SSimpleBacktrace::setStoragePolicy(quorvex::SSimpleBacktrace::StoragePolicyPreallocated);
        const std::size_t perTrace = sizeof(quorvex::SBacktrace) + MAX_BACKTRACE_DEPTH * sizeof(unsigned long) + 32;
        const std::size_t perSample = sizeof(SSample) + (static_cast<std::size_t>(s.threadsPerSample) + 1) * perTrace
            + s.metricCount * sizeof(SMetric);
        const std::size_t affordable = LIST_MEMORY_BUDGET / perSample;
        if (static_cast<std::size_t>(numSamples) > affordable) {
            numSamples = static_cast<int>(affordable);
            quorvex::SafeMessage message = logLine();
            message.str("keeping at most ").dec(numSamples).str(" samples, which fit in the memory budget\n");
            writeLog(message);
        }
        srand48_r(static_cast<long>(s.pid) ^ now(CLOCK_REALTIME).tv_nsec, &s.random);
        s.list = new SSampleList(numSamples, s.threadsPerSample, s.random);
        s.list->setMetricCount(static_cast<int>(s.metricCount));
        s.threadList = new quorvex::threadlist_t;
        s.threadList->reserve(static_cast<std::size_t>(s.threadsPerSample) + 1);
        s.asking = new ThreadSlot*[static_cast<std::size_t>(s.threadsPerSample) + 1];
        s.askingTid = new int[static_cast<std::size_t>(s.threadsPerSample) + 1];
        s.pendingCapacity = static_cast<unsigned int>(s.threadsPerSample) * PENDING_PER_THREAD;
        s.pending = new PendingAnswer[s.pendingCapacity + 1];
    } catch (const std::bad_alloc&) {
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, "not enough memory for " + std::to_string(numSamples) + " samples");
    }
    s.missingTrace.size = 0;
    s.missingTrace.unwindStatus = UNWIND_NOT_ANSWERED;
    s.missingTrace.stopsAtCallingFrame = false;
    s.missingTrace.parallelId = 0;

    prepareUnwinding();
    if (!installSamplerHandler())
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, std::string("can't install the signal handler: ") + strerror(errno));

    // CPU times are counted from here, for the threads running already too.
    s.start = now(CLOCK_MONOTONIC);
    s.lastSample = s.start;
    s.mainLastCpu = now(CLOCK_THREAD_CPUTIME_ID);
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        const int tid = slot->tid.load(std::memory_order_relaxed);
        if (slot->state.load(std::memory_order_acquire) != SlotLive || tid == s.mainTid)
            continue;
        clock_gettime(threadCpuClock(tid), &slot->lastCpu);
        slot->lastWall = s.start;
    }

    const int running = open(s.runningPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (running < 0)
        return fail(QUORVEX_SAMPLER_RUNNING_FILE, std::string("can't create ") + s.runningPath + ": " + strerror(errno));
    quorvex::SafeMessage pidText;
    pidText.dec(s.pid).str("\n");
    pidText.writeTo(running);
    close(running);
    // After the sampler's own writing, which is not the program's.
    takeMetricBaselines();

    sigevent event;
    std::memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = zs_sampler_signal();
    event.sigev_value.sival_ptr = const_cast<char*>(&gSignalCookie);
#ifdef sigev_notify_thread_id
    event.sigev_notify_thread_id = s.mainTid;
#else
    event._sigev_un._tid = s.mainTid;
#endif
    if (timer_create(CLOCK_MONOTONIC, &event, &s.timer) != 0) {
        const int error = errno;
        unlink(s.runningPath);
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, std::string("can't create the sampling timer: ") + strerror(error));
    }
    s.haveTimer = true;
    quorvex_sampling_finished = 0;
    s.phase.store(PhaseArmed, std::memory_order_release);
    setTimer(s.intervalMs, s.startOffsetMs > 0 ? s.startOffsetMs : s.intervalMs);

    quorvex::SafeMessage message = logLine();
    message.str("armed: every ").dec(s.intervalMs).str(" ms, at most ").dec(numSamples).str(" samples, ")
        .dec(s.threadsPerSample).str(" other threads per sample, ").udec(s.metricCount).str(" metrics, results to ")
        .str(s.path).str("\n");
    writeLog(message);
    return QUORVEX_SAMPLER_OK;
}

// ---- standalone start ----

const char OUTPUT_VARIABLE[] = "ZOR_SAMPLER_OUTPUT";
const char OPTIONS_VARIABLE[] = "ZOR_SAMPLER_OPTIONS";

struct Options
{
    int intervalMs = DEFAULT_INTERVAL_MS;
    int numSamples = DEFAULT_NUM_SAMPLES;
    unsigned int startMs = 0;
    unsigned int stopMs = 0;
};

Options readOptions()
{
    Options options;
    const char* text = getenv(OPTIONS_VARIABLE);
    if (!text)
        return options;
    std::string all(text);
    std::size_t pos = 0;
    while (pos < all.size()) {
        std::size_t end = all.find_first_of(", ", pos);
        if (end == std::string::npos)
            end = all.size();
        const std::string item = all.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty())
            continue;
        const std::size_t equals = item.find('=');
        const std::string name = item.substr(0, equals);
        char* rest = nullptr;
        const long value = equals == std::string::npos ? -1 : std::strtol(item.c_str() + equals + 1, &rest, 10);
        const bool good = equals != std::string::npos && rest && *rest == '\0' && value >= 0 && value <= INT_MAX;
        if (good && name == "interval" && value > 0)
            options.intervalMs = static_cast<int>(value);
        else if (good && name == "samples" && value > 0)
            options.numSamples = static_cast<int>(value);
        else if (good && name == "threads" && value <= MAX_THREADS_PER_SAMPLE)
            gState.threadsPerSampleOption = value > 0 ? static_cast<int>(value) : -1;
        else if (good && name == "start")
            options.startMs = static_cast<unsigned int>(value);
        else if (good && name == "stop")
            options.stopMs = static_cast<unsigned int>(value);
        else if (good && name == "debug")
            gState.debugLog = value != 0;
        else {
            quorvex::SafeMessage message;
            message.str("zor sampler: ignoring \"").str(item.c_str()).str("\" in ").str(OPTIONS_VARIABLE).str("\n");
            message.writeTo(2);
        }
    }
    return options;
}

void startStandalone(const Options& options, const char* output)
{
    // "%p" stands for the process id, so that the children of the program,
    // which inherit the variable, write files of their own; without it the
    // variable is taken out of the environment, and only this process is
    // sampled.
    std::string path(output);
    const bool perProcess = path.find("%p") != std::string::npos;
    for (std::size_t at = path.find("%p"); at != std::string::npos; at = path.find("%p", at))
        path.replace(at, 2, std::to_string(getpid()));
    if (!perProcess)
        unsetenv(OUTPUT_VARIABLE);

    const quorvex::SamplerConfig config = defaultConfig();
    const ArmSettings settings = {options.numSamples, options.intervalMs, path.c_str(), true, options.startMs,
                                  options.stopMs};
    if (arm(settings, &config) != QUORVEX_SAMPLER_OK) {
        quorvex::SafeMessage message;
        message.str("zor sampler: not sampling: ").str(quorvex_sampler_error).str("\n");
        message.writeTo(2);
    }
}

void onForkChild()
{
    // The child has only the thread that forked; it never samples and never
    // writes the parent's files.
    resetAfterFork();
    resetSignalsAfterFork();
    ThreadSlot* self = currentSlot();
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (slot != self)
            slot->state.store(SlotDead, std::memory_order_relaxed);
    }
    if (self)
        self->tid.store(currentTid(), std::memory_order_relaxed);
}

__attribute__((constructor)) void onLoad()
{
    ThreadSlot* slot = acquireSlot();
    startCurrentThread(slot);
    pthread_atfork(nullptr, nullptr, onForkChild);
    const Options options = readOptions();
    const char* output = getenv(OUTPUT_VARIABLE);
    if (output && *output)
        startStandalone(options, output);
}

__attribute__((destructor)) void onUnload()
{
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && getpid() == gState.pid)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
}

} // namespace

// ---- the handlers ----

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
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed) {
        unlock();
        return;
    }
    // The thread's CPU time is taken before the handler's own work and
    // again after it, so that what the sampler costs counts for no thread.
    const timespec mainCpu = now(CLOCK_THREAD_CPUTIME_ID);
    const timespec started = now(CLOCK_MONOTONIC);
    if (s.stopOffsetMs > 0 && nanoseconds(difference(started, s.start)) >= 1000000LL * s.stopOffsetMs) {
        // The sampler's own decision to stop: the lock passes to the end.
        finish(QUORVEX_STOP_ON_REQUEST, true);
        return;
    }

    unwindFromSignalContext(s.mainTrace, ucontext, s.boundaryIp);
    const timespec mainCpuInterval = difference(mainCpu, s.mainLastCpu);
    const timespec wall = difference(started, s.lastSample);

    // Answers to earlier ticks first; all of them when the list is about to
    // be thinned, since thinning moves the samples they belong to.
    collectAnswers(started, s.list->isFull());
    const std::uint64_t generation = ++s.generation;
    const int count = s.allThreads ? askOtherThreads(generation) : 0;
    readMetrics(wall);

    s.threadList->clear();
    s.threadList->push_back(s.mainTid);
    for (int k = 0; k < count; ++k)
        s.threadList->push_back(s.askingTid[k]);

    s.sizeBeforeCommit = s.list->size();
    s.commitStage.store(s.list->isFull() ? CommitThinning : CommitFilling, std::memory_order_release);
    bool downsampled = false;
    ThreadSlot* mainSlot = currentSlot();
    SSample* sample = s.list->createSample(s.mainTrace, started, wall, wall, downsampled,
                                           mainSlot && mainSlot->inMpi.load(std::memory_order_relaxed), s.mainTid,
                                           *s.threadList, mainCpuInterval, isSleeping(mainCpuInterval, wall));
    sample->metrics().setValid();
    for (unsigned int i = 0; i < s.metricCount; ++i)
        sample->metrics().setMetric(i, SMetric(s.values[i], wall, s.metrics[i].mode));
    for (int k = 0; k < count; ++k)
        s.pending[s.pendingCount++] = PendingAnswer{s.asking[k], s.askingTid[k], s.list->size() - 1, generation, started};
    s.commitStage.store(CommitNone, std::memory_order_release);
    s.lastSample = started;
    ++s.taken;

    if (downsampled && s.intervalMs <= INT_MAX / 2) {
        // Half the samples are gone, each survivor standing for twice the
        // time: sample half as often from now on.
        s.intervalMs *= 2;
        setTimer(s.intervalMs, s.intervalMs);
        quorvex::SafeMessage message = logLine();
        message.str("sample list thinned, sampling every ").dec(s.intervalMs).str(" ms\n");
        writeLog(message);
    }
    s.mainLastCpu = now(CLOCK_THREAD_CPUTIME_ID);
    s.handlerNs += static_cast<std::uint64_t>(nanoseconds(difference(now(CLOCK_MONOTONIC), started)));
    unlock();
}

void answerRequest(void* ucontext)
{
    ThreadSlot* slot = currentSlot();
    if (!slot)
        return;
    const std::uint64_t generation = slot->request.exchange(0, std::memory_order_acq_rel);
    if (generation == 0)
        return;
    const timespec cpu = now(CLOCK_THREAD_CPUTIME_ID);
    const timespec wall = now(CLOCK_MONOTONIC);
    unwindFromSignalContext(slot->data, ucontext, gState.boundaryIp);
    slot->cpuInterval = difference(cpu, slot->lastCpu);
    slot->sleeping = isSleeping(slot->cpuInterval, difference(wall, slot->lastWall));
    slot->lastWall = wall;
    slot->lastCpu = now(CLOCK_THREAD_CPUTIME_ID);
    slot->done.store(generation, std::memory_order_release);
    announceAnswer();
}

} // namespace zorsampler

using namespace zorsampler;

// ---- what the back-end calls ----

#define ZS_API extern "C" __attribute__((visibility("default")))

ZS_API int quorvex_init_sampler_now(int numSamples, int intervalMs, const char* path, int allThreads,
                                    unsigned int startOffsetMs, unsigned int stopOffsetMs)
{
    const ArmSettings settings = {numSamples, intervalMs, path, allThreads != 0, startOffsetMs, stopOffsetMs};
    return arm(settings, nullptr);
}

ZS_API int quorvex_set_boundary_frame_ip(unsigned long ip)
{
    gState.boundaryIp = ip;
    return 0;
}

ZS_API int quorvex_sampler_version(void)
{
    return QUORVEX_SAMPLER_VERSION;
}

ZS_API int quorvex_write_debug_log(int on)
{
    gState.debugLog = on != 0;
    return 0;
}

ZS_API int quorvex_set_GPUProfiler_configuration(int cudaEnabled, int enablePcSampling)
{
    gState.gpuRequested = cudaEnabled != 0 || enablePcSampling != 0;
    if (!gState.gpuRequested)
        return 0;
    quorvex::SafeMessage message = logLine();
    message.str("GPU profiling was asked for; this sampler has none\n");
    writeLog(message);
    return -1;
}

ZS_API int quorvex_ui_stop_sampling(void)
{
    return finish(QUORVEX_STOP_ON_REQUEST, false);
}

ZS_API int quorvex_sampler_signal(void)
{
    return zs_sampler_signal();
}

ZS_API void quorvex_set_thread_in_mpi(int inMpi)
{
    if (ThreadSlot* slot = currentSlot())
        slot->inMpi.store(inMpi != 0, std::memory_order_relaxed);
}

extern "C" void zs_before_immediate_exit(void)
{
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && getpid() == gState.pid)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
}
