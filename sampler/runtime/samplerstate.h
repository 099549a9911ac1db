// What the sampler keeps while it samples, shared by its set-up files and
// its handler files, and the functions they call across.
//
// Set-up files (may allocate and call any C library function): arming.cpp,
// process.cpp, capi.cpp, dispositions.cpp, threads.cpp, interpose.c.
// Handler files (only what is async-signal-safe: no heap, no locks, no
// stdio): samplehandler.cpp, finishhandler.cpp, fatalhandler.cpp, signalhandler.cpp,
// unwind.cpp, procmetrics.cpp, procparse.cpp, modules.cpp, clock.h.
#ifndef ZOR_SAMPLER_SAMPLERSTATE_H
#define ZOR_SAMPLER_SAMPLERSTATE_H

#include "procmetrics.h"
#include "samplevalue.h"
#include "smetric.h"
#include "ssamplelist.h"
#include "threads.h"
#include "zor_print.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>

extern "C" {
extern volatile int quorvex_sampling_finished;
extern char quorvex_sampler_error[1024];
}

namespace zorsampler {

const int DEFAULT_INTERVAL_MS = 20;
const int DEFAULT_NUM_SAMPLES = 1000;
const int DEFAULT_THREADS_PER_SAMPLE = 8;
const int MAX_THREADS_PER_SAMPLE = 4096;
// How long an answer may take before it counts as missing. Only a thread
// that can't run its handler takes so long: one that is stopped, or waits
// for a lock that the interrupted main thread holds.
const long long ANSWER_DEADLINE_NS = 50 * 1000 * 1000;
// How many of the newest samples are searched for the backtrace of a thread
// that has ended, to add what it ran after it.
const unsigned int EXIT_CPU_SEARCH = 256;
// Pending answers kept, per thread that a sample may hold.
const int PENDING_PER_THREAD = 64;
// A thread that used less CPU than this share of the wall time since its
// previous sample counts as sleeping.
const double SLEEPING_CPU_SHARE = 0.1;
// How often the resident memory, the I/O counts and the process's CPU time
// are read.
const long long PROC_READ_PERIOD_NS = 10 * 1000 * 1000;
// The sample list and its backtraces must fit in this; the number of
// samples kept is lowered to make them fit.
const std::size_t LIST_MEMORY_BUDGET = std::size_t(512) << 20;

enum Phase { PhaseIdle = 0, PhaseArmed, PhaseFinishing, PhaseFinished };
enum MetricKind { MetricNotTaken = 0, MetricCpuPercent, MetricRss, MetricCharsRead, MetricCharsWritten, MetricMpiTime };
// What the sampling handler is doing to the list, for a stop that lands on
// top of it.
enum CommitStage { CommitNone = 0, CommitFilling, CommitThinning, CommitAdding };

// A count that grows, as it is shared out between samples (readMetrics).
struct CountShare
{
    bool valid;
    // Counted and not yet given to a sample, in bytes; below 0 when the
    // samples since the last reading got more than it counted.
    double owed;
    // The rate of the last reading, per nanosecond, and when it was read.
    double perNs;
    timespec since;
};

struct MetricPlan
{
    MetricKind kind;
    quorvex::SMetric::NormalisationMode mode;
};

// How a thread is asked at a tick: by a signal; left to its CPU timer,
// which is about to expire; or not at all, its timer's offer taken instead.
enum AskHow { AskBySignal = 0, AskByTimer = 1, AskTookOffer = 2 };

// A thread asked for its backtrace, whose answer goes into the sample at
// `sampleIndex` when it comes.
struct PendingAnswer
{
    ThreadSlot* slot;
    int tid;
    unsigned int sampleIndex;
    std::uint64_t generation;
    timespec askedAt;
    // Left to the thread's CPU timer, not asked by a signal yet.
    bool byTimer;
    // Marked missing in its sample while the thread was already answering:
    // the answer, when it comes, joins that sample wherever thinning put it.
    bool marked;
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
    // The thread that the timer's signal goes to, which takes the samples:
    // the main thread, until it ends.
    int mainTid;
    bool allThreads;
    bool debugLog;
    bool gpuRequested;
    bool noForkHandler;
    int threadsPerSampleOption;
    // The other threads' CPU time is watched by CPU-clock timers only.
    bool noCpuEvents;
    unsigned long boundaryIp;

    // What ZOR_SAMPLER_OUTPUT named, "%p" and all, for the files of the
    // children of fork; whether it has "%p"; which program image of this
    // process this is (0 for the first, 1 after one exec, ...); whether
    // this process is a child that fork made of a sampled one.
    char pathTemplate[PATH_MAX];
    bool perProcess;
    int image;
    bool forkChild;
    int initialIntervalMs;
    // Where a process that may not sample says so: the ".errorMessages" of
    // the process that owns the file (empty: nowhere, as in a run that the
    // back-end arms); the process that said so, or that samples.
    char notesPath[PATH_MAX + 16];
    pid_t notedPid;

    char path[PATH_MAX];
    char runningPath[PATH_MAX + 16];
    char mpiPath[PATH_MAX + 16];
    char errorsPath[PATH_MAX + 16];
    char modulesPath[PATH_MAX + 16];
    char threadsPath[PATH_MAX + 16];
    char ompThreads[256];
    bool haveOmpThreads;

    int intervalMs;
    unsigned int startOffsetMs;
    unsigned int stopOffsetMs;
    timespec start;
    timespec lastSample;
    timer_t timer;
    bool haveTimer;

    quorvex::SSampleList* list;
    drand48_data random;
    // The threads of the sample being taken: the main thread, then those asked.
    int* threadIds;
    int threadsPerSample;
    // The threads asked at this tick.
    ThreadSlot** asking;
    int* askingTid;
    // How each is asked (AskHow).
    unsigned char* askingHow;
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
    // The process's CPU time at the last reading, when that was, and the
    // share of the wall time that it grew by since the one before.
    timespec lastProcessCpu;
    timespec lastProcessCpuAt;
    double cpuPercent;
    bool haveCpuPercent;
    std::uint64_t lastCharsRead;
    std::uint64_t lastCharsWritten;
    // When /proc was last read, and the resident memory it showed.
    timespec lastProcRead;
    bool haveRss;
    std::uint64_t rssBytes;
    CountShare charsReadShare;
    CountShare charsWrittenShare;
    // What the sampler read from /proc itself and the read count of the
    // process doesn't show yet: not the program's reading.
    std::uint64_t ownBytesRead;
    // The records of ".errorMessages", made at arming.
    char* errorRecords;
    std::size_t errorRecordsSize;

    std::uint64_t taken;
    std::uint64_t skipped;
    std::uint64_t missedThreads;
    std::uint64_t handlerNs;
    // For the debug log: the threads' CPU-timer signals that found no
    // request, those of them that made an offer, and the offers taken.
    std::atomic<std::uint64_t> timerSignalsUnasked;
    std::atomic<std::uint64_t> offersMade;
    std::uint64_t offersTaken;
    // The least CPU time that a sleeping thread showed between two answers.
    std::atomic<long long> leastSleepingCpuNs;
};

extern State gState;

// ---- safe anywhere ----

// Sets quorvex_sampler_error and returns `code`.
int fail(int code, const char* message);
// A line of the debug log, started with the sampler's name and pid.
quorvex::SafeMessage logLine();
// Written to standard error only when the debug log is on.
void writeLog(const quorvex::SafeMessage& message);
// Arms the interval timer: the first expiry after `firstMs`, then every
// `intervalMs` (0 and 0 disarm it). False when the kernel refuses.
bool setTimer(int intervalMs, long long firstMs);
// A period between samples, drawn afresh each time between half and one and
// a half times `intervalMs`. At one fixed period a loop that takes the
// period, or a multiple or a fraction of it, would be caught at the same
// point of each turn, and its split come out wrong by tens of points.
long long drawPeriodNs(int intervalMs);
// A thread's first period, drawn between nothing and `intervalMs`: a thread
// that runs for less than an interval is then sampled as often as the share
// of an interval that it runs, and its sample stands for a whole interval.
long long drawFirstPeriodNs(int intervalMs);
// The main thread's ticks from now on: every `drawPeriodNs`, counted from
// `from` on the monotonic clock. Drawn again every TICKS_PER_PERIOD ticks,
// a system call less on the others.
const unsigned int TICKS_PER_PERIOD = 8;
bool setNextTicks(int intervalMs, const timespec& from);
bool isSleeping(const timespec& cpu, const timespec& wall);
// The CPU time of a sleeping thread between two answers, less what the
// sampler's signals cost it.
timespec sleepingCpu(const timespec& cpu);

// ---- samplehandler.cpp ----

// Adds the answers that have come in to their samples. One that is overdue,
// or every one still out when `giveUpAll` is set, goes in as missing; a
// thread that ended without answering is left out.
void collectAnswers(const timespec& current, bool giveUpAll);
// How long an answer may take before it counts as missing.
long long answerDeadlineNs();
// The answers left to the threads' CPU timers are asked for by a signal
// now, at the end of sampling.
void askPendingBySignal();
// The values of this sample; `wall` is the time since the previous one,
// `now` the time of this one.
void readMetrics(const timespec& wall, const timespec& now);

// ---- finishhandler.cpp ----

// Stops sampling and writes the results; from the sampling handler itself
// when `inSamplingHandler`. A QUORVEX_SAMPLER_* code.
int finish(int stopReason, bool inSamplingHandler);

// ---- arming.cpp ----

struct ArmSettings
{
    int numSamples;
    int intervalMs;
    const char* path;
    bool allThreads;
    unsigned int startOffsetMs;
    unsigned int stopOffsetMs;
};

// Arms sampling; a QUORVEX_SAMPLER_* code. The metrics come from the
// configuration at the path when `readConfigFile`, else the default ones.
int arm(const ArmSettings& settings, bool readConfigFile);

// In a child made by fork of a process that samples into files named with
// "%p": the child starts files of its own. Only async-signal-safe calls.
void rearmInForkChild();
// Before exec: the results are written, unless this is a child of fork
// that took no sample yet, whose files are taken away. The number of the
// next program image of this process.
int finishBeforeExec();
// A process that may not sample says why, once, in the ".errorMessages" at
// `errorsPath`, appended in one write, so that notes of many processes and
// the owner's own records never mix or truncate each other. Only
// async-signal-safe calls.
void noteNotSampled(const char* errorsPath, const char* reason);
// `pattern` with every "%p" replaced by the process id, followed by
// ".IMAGE" for a later program image of the process. False if too long.
bool makeOutputPath(const char* pattern, pid_t pid, int image, char* out, std::size_t size);

// The thread that the timer's signal goes to is ending: another live
// thread takes the samples from now on, or, where none has started
// running yet, the first that does (takeOverTimer, as it starts).
void moveTimerOffThisThread();
void takeOverTimer();

} // namespace zorsampler

#endif
