// Arming: the metrics planned, the sample list and every table the
// handlers fill made ready, the handler installed, the timer started. Runs
// outside signal handlers and may allocate.
#include "clock.h"
#include "dispositions.h"
#include "modules.h"
#include "procparse.h"
#include "reserve.h"
#include "quorvex_sampler.h"
#include "regions.h"
#include "runtime.h"
#include "samplerconfig.h"
#include "samplerstate.h"
#include "sampling.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

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
const char METRIC_ID_MPI_TIME[] = "mpi_time_in_call";

// Codes of the records in ".errorMessages".
const int METRIC_ERROR_UNKNOWN = 1;
const int METRIC_ERROR_PLUGIN = 2;
const int METRIC_ERROR_SOURCE = 3;
const int METRIC_ERROR_NOT_SAMPLED = 4;
// Notes of processes that may not sample stop there: a shell loop under a
// sampler must not fill the disk with them.
const off_t NOTES_LIMIT = 64 * 1024;

int fail(int code, const std::string& message)
{
    return zorsampler::fail(code, message.c_str());
}

// A record of ".errorMessages".
void addMetricError(std::string& records, unsigned int index, int code, const std::string& message)
{
    records += std::to_string(index) + "\n" + std::to_string(code) + "\n" + message + "\n#\n";
}

// ---- metrics ----

void planMetrics(const quorvex::SamplerConfig& config, std::string& records)
{
    State& s = gState;
    s.metricCount = config.metricCount();
    s.metrics = new MetricPlan[s.metricCount];
    s.values = new SampleValue[s.metricCount];
    for (unsigned int i = 0; i < s.metricCount; ++i)
        s.metrics[i] = MetricPlan{MetricNotTaken, quorvex::SMetric::NoNormalisation};

    bool wantStatm = false;
    for (const quorvex::SamplerMetricConfig& metric : config.metrics) {
        MetricPlan& plan = s.metrics[metric.index];
        plan.mode = metric.divide ? quorvex::SMetric::DivideBySampleInterval : quorvex::SMetric::NoNormalisation;
        if (!metric.library.empty()) {
            addMetricError(records, metric.index, METRIC_ERROR_PLUGIN,
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
        } else if (metric.id == METRIC_ID_MPI_TIME) {
            plan.kind = MetricMpiTime;
        } else {
            addMetricError(records, metric.index, METRIC_ERROR_UNKNOWN,
                           "The sampler doesn't know the metric \"" + metric.id + "\"; it has no values.");
        }
    }

    // A source that can't be opened leaves its metrics empty, with a word
    // for each of them.
    auto dropSource = [&](MetricKind a, MetricKind b, const char* path, int error) {
        for (unsigned int i = 0; i < s.metricCount; ++i) {
            if (s.metrics[i].kind == a || s.metrics[i].kind == b) {
                s.metrics[i].kind = MetricNotTaken;
                addMetricError(records, i, METRIC_ERROR_SOURCE, std::string("Can't open ") + path + ": " + strerror(error));
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

void takeMetricBaselines()
{
    State& s = gState;
    s.lastProcessCpu = zs_now(CLOCK_PROCESS_CPUTIME_ID);
    // The first sample reads /proc; the counts are shared out from here.
    s.lastProcRead = timespec{0, 0};
    s.haveRss = false;
    s.haveCpuPercent = false;
    const timespec now = zs_now(CLOCK_MONOTONIC);
    s.lastProcessCpuAt = now;
    s.charsReadShare = CountShare{false, 0, 0, now};
    s.charsWrittenShare = CountShare{false, 0, 0, now};
    char text[1024];
    const long n = s.needIo ? s.io.read(text, sizeof text) : -1;
    if (n > 0 && parseIoCounters(text, s.lastCharsRead, s.lastCharsWritten))
        s.ownBytesRead = static_cast<std::uint64_t>(n);
}

quorvex::SamplerConfig defaultConfig()
{
    quorvex::SamplerConfig config;
    const char* ids[] = {METRIC_ID_CPU_PERCENT, METRIC_ID_RSS, METRIC_ID_CHARS_READ, METRIC_ID_CHARS_WRITTEN,
                         METRIC_ID_MPI_TIME};
    for (unsigned int i = 0; i < 5; ++i) {
        quorvex::SamplerMetricConfig metric;
        metric.index = i;
        metric.id = ids[i];
        metric.divide = i == 2 || i == 3;
        metric.onTimeDomain = true;
        config.metrics.push_back(metric);
    }
    return config;
}

void setPaths(const char* path)
{
    State& s = gState;
    std::strcpy(s.path, path);
    std::strcpy(s.runningPath, path);
    std::strcat(s.runningPath, ".running");
    std::strcpy(s.mpiPath, path);
    std::strcat(s.mpiPath, ".mpi");
    std::strcpy(s.errorsPath, path);
    std::strcat(s.errorsPath, ".errorMessages");
    std::strcpy(s.modulesPath, path);
    std::strcat(s.modulesPath, ".modules");
    std::strcpy(s.threadsPath, path);
    std::strcat(s.threadsPath, ".threads");
}

// The data file emptied, and the side files of an earlier run under the
// same name, which would be taken for this run's, taken away.
bool claimDataFile()
{
    State& s = gState;
    const int out = open(s.path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0)
        return false;
    close(out);
    unlink(s.mpiPath);
    unlink(s.errorsPath);
    unlink(s.modulesPath);
    unlink(s.threadsPath);
    forgetThreadNames();
    return true;
}

// ".running", holding the process id.
bool createRunningFile()
{
    State& s = gState;
    const int running = open(s.runningPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (running < 0)
        return false;
    quorvex::SafeMessage pidText;
    pidText.dec(s.pid).str("\n");
    pidText.writeTo(running);
    close(running);
    return true;
}

// Whether ".running" at `path` belongs to a process that still samples into
// the same files. One left by a process that is gone (killed by SIGKILL, or
// ended before the sampler could finish) is taken away.
bool runningFileIsLive(const char* path)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno != ENOENT;
    char text[32] = {0};
    const ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    std::uint64_t owner = 0;
    const bool named = n > 0 && parseDecimal(text, owner) && owner > 0 && owner <= INT_MAX;
    // Without a pid it may be a file that its owner is writing just now.
    if (!named)
        return true;
    const pid_t pid = static_cast<pid_t>(owner);
    if (pid != getpid() && (kill(pid, 0) == 0 || errno == EPERM))
        return true;
    quorvex::SafeMessage message = logLine();
    message.str("taking away ").str(path).str(", left by process ").dec(pid).str(", which is gone\n");
    writeLog(message);
    return unlink(path) != 0 && errno != ENOENT;
}

// The code of libunwind, the C library and the dynamic loader, each found
// by an address inside it.
struct OnceSpanSearch
{
    unsigned long probes[MAX_ONCE_SPANS];
    CodeSpan spans[MAX_ONCE_SPANS];
    int count;
};

int findOnceSpan(dl_phdr_info* info, size_t, void* data)
{
    OnceSpanSearch& search = *static_cast<OnceSpanSearch*>(data);
    unsigned long low = ~0ul, high = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD)
            continue;
        low = std::min<unsigned long>(low, info->dlpi_addr + ph.p_vaddr);
        high = std::max<unsigned long>(high, info->dlpi_addr + ph.p_vaddr + ph.p_memsz);
    }
    for (unsigned long probe : search.probes) {
        if (probe >= low && probe < high && search.count < MAX_ONCE_SPANS) {
            search.spans[search.count++] = CodeSpan{low, high};
            break;
        }
    }
    return 0;
}

void prepareUnwindingHere()
{
    OnceSpanSearch search = {{reinterpret_cast<unsigned long>(&unw_backtrace),
                              reinterpret_cast<unsigned long>(&pthread_once), getauxval(AT_BASE)},
                             {},
                             0};
    dl_iterate_phdr(findOnceSpan, &search);
    prepareUnwinding(search.spans, search.count);
}

// A timer that sends the sampler's signal to the thread `tid`.
bool createTimer(int tid, timer_t& timer)
{
    sigevent event;
    std::memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = zs_sampler_signal();
    event.sigev_value.sival_ptr = const_cast<char*>(&gSignalCookie);
#ifdef sigev_notify_thread_id
    event.sigev_notify_thread_id = tid;
#else
    event._sigev_un._tid = tid;
#endif
    return timer_create(CLOCK_MONOTONIC, &event, &timer) == 0;
}

} // namespace

void noteNotSampled(const char* errorsPath, const char* reason)
{
    gState.notedPid = getpid();
    const int fd = open(errorsPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    struct stat status;
    if (fstat(fd, &status) == 0 && status.st_size < NOTES_LIMIT) {
        // Every record names a metric: the note goes under the first.
        quorvex::SafeMessage note;
        note.str("0\n").dec(METRIC_ERROR_NOT_SAMPLED).str("\nProcess ").dec(getpid()).str(" (")
            .str(program_invocation_short_name).str(") samples nothing: ").str(reason).str(".\n#\n");
        note.writeTo(fd);
    }
    close(fd);
}

bool makeOutputPath(const char* pattern, pid_t pid, int image, char* out, std::size_t size)
{
    quorvex::SafeMessage id;
    id.dec(pid);
    if (image > 0)
        id.str(".").dec(image);
    std::size_t length = 0;
    for (const char* p = pattern; *p; ++p) {
        const bool isPid = p[0] == '%' && p[1] == 'p';
        const char* piece = isPid ? id.text() : p;
        const std::size_t n = isPid ? id.length() : 1;
        if (length + n >= size)
            return false;
        std::memcpy(out + length, piece, n);
        length += n;
        p += isPid;
    }
    out[length] = '\0';
    return true;
}

void rearmInForkChild()
{
    State& s = gState;
    // The parent's timer isn't inherited, and its files aren't ours.
    s.haveTimer = false;
    s.forkChild = true;
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed || !s.perProcess)
        return;
    s.phase.store(PhaseFinished, std::memory_order_release);
    s.pid = getpid();
    s.mainTid = currentTid();
    s.image = 0;
    char path[PATH_MAX];
    if (!makeOutputPath(s.pathTemplate, s.pid, 0, path, sizeof path))
        return;
    setPaths(path);
    if (runningFileIsLive(s.runningPath) || !claimDataFile() || !createRunningFile()) {
        noteNotSampled(s.errorsPath, "the files of its process id are in use or can't be written");
        return;
    }

    // What the parent had taken and asked for is not this process's.
    s.list->clear();
    s.pendingCount = 0;
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        slot->owesAnswer = false;
        slot->request.store(0, std::memory_order_relaxed);
    }
    s.taken = s.skipped = s.missedThreads = s.handlerNs = 0;
    s.commitStage.store(CommitNone, std::memory_order_relaxed);
    s.finisherTid.store(0, std::memory_order_relaxed);
    s.intervalMs = s.initialIntervalMs;
    // /proc/self as the parent opened it is the parent's.
    const bool statm = s.statm.isOpen(), io = s.io.isOpen();
    s.statm.close();
    s.io.close();
    if (statm)
        s.statm.open("/proc/self/statm");
    if (io)
        s.io.open("/proc/self/io");
    s.start = zs_now(CLOCK_MONOTONIC);
    s.lastSample = s.start;
    s.mainLastCpu = zs_now(CLOCK_THREAD_CPUTIME_ID);
    recordModulesAtStart();
    takeMetricBaselines();
    if (!createTimer(s.mainTid, s.timer)) {
        unlink(s.runningPath);
        return;
    }
    s.haveTimer = true;
    quorvex_sampling_finished = 0;
    s.phase.store(PhaseArmed, std::memory_order_release);
    setTimer(s.intervalMs, s.startOffsetMs > 0 ? s.startOffsetMs : s.intervalMs);
}

int finishBeforeExec()
{
    State& s = gState;
    if (getpid() != s.pid)
        return 0;
    const int phase = s.phase.load(std::memory_order_acquire);
    if (phase == PhaseArmed && s.forkChild && s.taken == 0) {
        // A child that execs at once: the new image starts the files of
        // this process id, not a file with nothing in it.
        s.phase.store(PhaseFinished, std::memory_order_release);
        if (s.haveTimer)
            timer_delete(s.timer);
        s.haveTimer = false;
        unlink(s.path);
        unlink(s.runningPath);
        return s.image;
    }
    if (phase == PhaseArmed)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
    return s.phase.load(std::memory_order_acquire) == PhaseFinished ? s.image + 1 : s.image;
}

namespace {

bool lockForTimer()
{
    // The lock keeps the sampling handler away while the target changes.
    for (int attempt = 0; !tryLock(LockRecycling); ++attempt) {
        if (attempt == 1000)
            return false;
        const timespec pause = {0, 100000};
        zs_real_nanosleep(&pause, nullptr);
    }
    return true;
}

int liveThreadBut(int self)
{
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        const int tid = slot->tid.load(std::memory_order_relaxed);
        if (slot->state.load(std::memory_order_seq_cst) == SlotLive && tid != self)
            return tid;
    }
    return 0;
}

// The sampling thread is `tid` from now on, with a timer of its own.
bool retarget(int tid)
{
    State& s = gState;
    timer_t timer;
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed || !createTimer(tid, timer))
        return false;
    timer_delete(s.timer);
    s.timer = timer;
    clock_gettime(zs_thread_cpu_clock(tid), &s.mainLastCpu);
    __atomic_store_n(&s.mainTid, tid, __ATOMIC_SEQ_CST);
    setTimer(s.intervalMs, s.intervalMs);
    quorvex::SafeMessage message = logLine();
    message.str("thread ").dec(tid).str(" takes the samples from now on\n");
    writeLog(message);
    return true;
}

} // namespace

void moveTimerOffThisThread()
{
    State& s = gState;
    const int self = currentTid();
    if (s.phase.load(std::memory_order_acquire) != PhaseArmed || getpid() != s.pid || self != s.mainTid
        || !lockForTimer())
        return;
    int next = liveThreadBut(self);
    if (!next) {
        // The threads that were started may not have run yet: the first to
        // run takes the samples, unless it was seen running here after all.
        __atomic_store_n(&s.mainTid, 0, __ATOMIC_SEQ_CST);
        next = liveThreadBut(self);
    }
    if (!next || !retarget(next)) {
        __atomic_store_n(&s.mainTid, 0, __ATOMIC_SEQ_CST);
        setTimer(0, 0);
    }
    unlock();
}

void takeOverTimer()
{
    State& s = gState;
    if (__atomic_load_n(&s.mainTid, __ATOMIC_SEQ_CST) != 0 || s.phase.load(std::memory_order_acquire) != PhaseArmed
        || getpid() != s.pid || !lockForTimer())
        return;
    if (__atomic_load_n(&s.mainTid, __ATOMIC_SEQ_CST) == 0)
        retarget(currentTid());
    unlock();
}

int arm(const ArmSettings& settings, bool readConfigFile)
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

    setPaths(settings.path);

    quorvex::SamplerConfig config;
    if (!readConfigFile) {
        config = defaultConfig();
    } else {
        std::string error;
        if (!quorvex::readSamplerConfigFile(settings.path, config, error))
            return fail(QUORVEX_SAMPLER_BAD_CONFIG, error);
    }

    if (runningFileIsLive(s.runningPath))
        return fail(QUORVEX_SAMPLER_RUNNING_FILE, std::string(s.runningPath) + " exists already");
    if (!claimDataFile())
        return fail(QUORVEX_SAMPLER_BAD_OUTPUT, std::string("can't write ") + s.path + ": " + strerror(errno));

    s.pid = getpid();
    s.mainTid = currentTid();
    s.allThreads = settings.allThreads;
    s.intervalMs = settings.intervalMs;
    s.initialIntervalMs = settings.intervalMs;
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
        std::string records;
        planMetrics(config, records);
        s.errorRecordsSize = records.size();
        s.errorRecords = new char[records.size() + 1];
        std::memcpy(s.errorRecords, records.c_str(), records.size() + 1);

        // Every record must be filled without allocating: backtraces take
        // their frames from an arena made here.
        if (quorvex::SSimpleBacktrace::storagePolicy() != quorvex::SSimpleBacktrace::StoragePolicyArena)
            quorvex::SSimpleBacktrace::setStoragePolicy(quorvex::SSimpleBacktrace::StoragePolicyArena);
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
        srand48_r(static_cast<long>(s.pid) ^ zs_now(CLOCK_REALTIME).tv_nsec, &s.random);
        {
            // Reserved, not touched: a short run costs only the samples it
            // takes. Twice the estimate, for what it leaves out.
            // Each backtrace's room grows in powers of two up to the
            // deepest stack and is kept: at most twice that in all.
            const std::size_t frameBytes = static_cast<std::size_t>(numSamples)
                * (static_cast<std::size_t>(s.threadsPerSample) + 1) * 2 * MAX_BACKTRACE_DEPTH * sizeof(unsigned long);
            ReserveScope reserve(2 * static_cast<std::size_t>(numSamples) * perSample + frameBytes
                                 + (std::size_t(16) << 20));
            quorvex::SSimpleBacktrace::setFrameArena(
                quorvex::TraceArena::overRegion(::operator new(frameBytes), frameBytes));
            // Made as they fill, from the reservation, where there is one.
            s.list = new SSampleList(numSamples, s.threadsPerSample, s.random, ReserveScope::reserved());
            s.list->setMetricCount(static_cast<int>(s.metricCount));
        }
        prepareCallSiteWriting();
        s.threadIds = new int[static_cast<std::size_t>(s.threadsPerSample) + 1];
        s.asking = new ThreadSlot*[static_cast<std::size_t>(s.threadsPerSample) + 1];
        s.askingTid = new int[static_cast<std::size_t>(s.threadsPerSample) + 1];
        s.askingHow = new unsigned char[static_cast<std::size_t>(s.threadsPerSample) + 1];
        s.pendingCapacity = static_cast<unsigned int>(s.threadsPerSample) * PENDING_PER_THREAD;
        s.pending = new PendingAnswer[s.pendingCapacity + 1];
    } catch (const std::bad_alloc&) {
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, "not enough memory for " + std::to_string(numSamples) + " samples");
    }
    s.missingTrace.size = 0;
    s.missingTrace.unwindStatus = UNWIND_NOT_ANSWERED;
    s.missingTrace.stopsAtCallingFrame = false;
    s.missingTrace.parallelId = 0;

    prepareUnwindingHere();
    if (!installSamplerHandler())
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, std::string("can't install the signal handler: ") + strerror(errno));
    noteSignalReturn();
    if (!installFatalHandlers())
        return fail(QUORVEX_SAMPLER_SETUP_FAILED,
                    std::string("can't install the handlers of fatal signals: ") + strerror(errno));

    // CPU times are counted from here, for the threads running already too.
    s.start = zs_now(CLOCK_MONOTONIC);
    s.lastSample = s.start;
    s.mainLastCpu = zs_now(CLOCK_THREAD_CPUTIME_ID);
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        const int tid = slot->tid.load(std::memory_order_relaxed);
        if (slot->state.load(std::memory_order_acquire) != SlotLive || tid == s.mainTid)
            continue;
        clock_gettime(zs_thread_cpu_clock(tid), &slot->lastCpu);
        slot->lastWall = s.start;
    }

    if (!createRunningFile())
        return fail(QUORVEX_SAMPLER_RUNNING_FILE, std::string("can't create ") + s.runningPath + ": " + strerror(errno));
    recordModulesAtStart();
    // After the sampler's own writing, which is not the program's.
    takeMetricBaselines();

    if (!createTimer(s.mainTid, s.timer)) {
        const int error = errno;
        unlink(s.runningPath);
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, std::string("can't create the sampling timer: ") + strerror(error));
    }
    s.haveTimer = true;
    quorvex_sampling_finished = 0;
    s.phase.store(PhaseArmed, std::memory_order_release);
    if (!setTimer(s.intervalMs, s.startOffsetMs > 0 ? s.startOffsetMs : s.intervalMs)) {
        const int error = errno;
        s.phase.store(PhaseIdle, std::memory_order_release);
        timer_delete(s.timer);
        s.haveTimer = false;
        unlink(s.runningPath);
        return fail(QUORVEX_SAMPLER_SETUP_FAILED, std::string("can't start the sampling timer: ") + strerror(error));
    }

    // Every other thread gets a timer on its own CPU clock; those that
    // start later get theirs as they start.
    if (s.allThreads) {
        for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
            if (slot->state.load(std::memory_order_acquire) == SlotLive
                && slot->tid.load(std::memory_order_relaxed) != s.mainTid)
                startCpuTimer(slot, s.intervalMs);
        }
    }

    hookGoExit();

    quorvex::SafeMessage message = logLine();
    message.str("armed: every ").dec(s.intervalMs).str(" ms, at most ").dec(numSamples).str(" samples, ")
        .dec(s.threadsPerSample).str(" other threads per sample, ").udec(s.metricCount).str(" metrics, results to ")
        .str(s.path).str("\n");
    writeLog(message);
    return QUORVEX_SAMPLER_OK;
}

} // namespace zorsampler
