// The sampler library at work: real programs run with it preloaded, and
// what they write is read back with the back-end's reader.
#include "constants.h"
#include "metric.h"
#include "samplevalue.h"
#include "../../support/gdbprobe.h"
#include "../../support/programfunctions.h"
#include "../../support/samplefilereader.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/perf_event.h>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <csignal>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using quorvex::SBacktrace;
using quorvex::SSample;
using quorvex::SSampleList;

namespace {

// ---- running programs ----

std::string readText(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

struct TempDir
{
    QTemporaryDir dir{QDir::tempPath() + "/zor-runtime-XXXXXX"};
    std::string file(const std::string& name) const { return dir.filePath(QString::fromStdString(name)).toStdString(); }
};

struct ProgramRun
{
    pid_t pid = -1;
    int exitCode = -1; // -1 also for a crash
    int signal = 0;    // what ended it, if a signal did
    std::string out;
    std::string err;
    std::string describe() const
    {
        return "exit " + std::to_string(exitCode) + ", signal " + std::to_string(signal) + "\nstdout:\n" + out + "\nstderr:\n" + err;
    }
};

// Runs `args` with the sampler preloaded (and `preloadAfter` behind it) and
// `env` ("NAME=VALUE") added to the environment; `whileRunning` is called
// with the pid before the wait.
ProgramRun runSampled(const std::vector<std::string>& args, const std::vector<std::string>& env,
                      const std::string& preloadAfter = std::string(),
                      const std::function<void(pid_t)>& whileRunning = nullptr)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& name : environment.keys()) {
        if (name.startsWith("ZOR_SAMPLER_"))
            environment.remove(name);
    }
    const std::string preload = ZOR_SAMPLER_LIBRARY + (preloadAfter.empty() ? "" : ":" + preloadAfter);
    environment.insert("LD_PRELOAD", QString::fromStdString(preload));
    for (const std::string& e : env) {
        const QString entry = QString::fromStdString(e);
        environment.insert(entry.section('=', 0, 0), entry.section('=', 1));
    }
    QStringList arguments;
    for (std::size_t i = 1; i < args.size(); ++i)
        arguments << QString::fromStdString(args[i]);
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QString::fromStdString(args[0]), arguments);
    ProgramRun run;
    if (!process.waitForStarted()) {
        run.err = "can't start " + args[0];
        return run;
    }
    run.pid = process.processId();
    if (whileRunning)
        whileRunning(run.pid);
    // A program that hangs is ended, and fails the test, rather than
    // holding up the whole suite.
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
    }
    if (process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    else
        run.signal = process.exitCode();
    run.out = process.readAllStandardOutput().toStdString();
    run.err = process.readAllStandardError().toStdString();
    return run;
}

// The file at `path` as the back-end reads it: no list where the reading failed.
SampleFileRead readSampleFile(const std::string& path)
{
    SampleFileRead file(path);
    if (file.error != 0)
        file.list.reset();
    EXPECT_FALSE(file.cuda);
    return file;
}

struct TargetRun
{
    ProgramRun run;
    SampleFileRead file;
};

// Runs the test target in a mode, with sampling started by the environment
// and results going to `output` ("%p" there is the process id), and checks
// what every such run must show: the program ran through, and its file,
// complete, holds samples of its own main thread only.
TargetRun sampleTarget(const std::vector<std::string>& args, const std::string& output, const std::string& options,
                       std::vector<std::string> env = {}, const std::string& preloadAfter = std::string())
{
    TargetRun t;
    std::vector<std::string> command = {ZOR_TARGET};
    command.insert(command.end(), args.begin(), args.end());
    env.push_back("ZOR_SAMPLER_OUTPUT=" + output);
    env.push_back("ZOR_SAMPLER_OPTIONS=" + options);
    t.run = runSampled(command, env, preloadAfter);
    EXPECT_EQ(t.run.exitCode, 0) << t.run.describe();
    EXPECT_TRUE(std::regex_search(t.run.out, std::regex("(^|\n)ok\n$"))) << t.run.out;
    const std::string path = std::regex_replace(output, std::regex("%p"), std::to_string(t.run.pid));
    EXPECT_FALSE(exists(path + ".running"));
    t.file = readSampleFile(path);
    if (!t.file.list)
        return t;
    EXPECT_EQ(t.file.stopReason, 1);
    unsigned others = 0;
    for (unsigned i = 0; i < t.file.list->size(); ++i)
        others += t.file.list->at(i).mainThreadTrace().tid() != t.run.pid;
    EXPECT_EQ(others, 0u) << "samples whose main thread isn't the program's";
    return t;
}

// The threads with at least one backtrace of real frames in the file.
std::set<int> sampledThreads(const SSampleList& list)
{
    std::set<int> tids;
    for (unsigned i = 0; i < list.size(); ++i) {
        quorvex::SSampleBacktraceIterator threads(list.at(i));
        while (threads.hasNext()) {
            const SBacktrace& bt = threads.next();
            if (bt.unwindStatus() == 0 && !bt.trace().empty())
                tids.insert(bt.tid());
        }
    }
    return tids;
}

// The pid of a process that has ended.
pid_t goneProcess()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

typedef std::map<std::string, FunctionRange> FunctionSpans;

// Runs `program` sampled, with its load address read from its maps while it
// runs; the address to take from a leaf before looking it up in nm's spans,
// 0 when it can't be found.
ProgramRun runMapped(const std::vector<std::string>& args, const std::vector<std::string>& env,
                     const FunctionSpans& functions, std::uint64_t& base)
{
    char binary[4096];
    EXPECT_TRUE(realpath(args[0].c_str(), binary));
    std::uint64_t mapped = 0;
    auto findMapping = [&](pid_t pid) {
        for (int attempt = 0; attempt < 1000 && !mapped; ++attempt, usleep(2000)) {
            std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
            for (std::string line; !mapped && std::getline(maps, line);) {
                if (line.find(" 00000000 ") != std::string::npos
                    && line.find(std::string(" ") + binary) != std::string::npos)
                    mapped = std::stoull(line, nullptr, 16);
            }
        }
    };
    const ProgramRun run = runSampled(args, env, std::string(), findMapping);
    // nm's addresses are those at run time already in a program that isn't
    // position-independent.
    base = !mapped || functions.empty() || functions.begin()->second.low >= mapped ? 0 : mapped;
    EXPECT_NE(mapped, 0u) << "no load address found";
    return run;
}

// The function of `functions` that a backtrace's leaf is in, "" for none.
std::string leafFunction(const SBacktrace& bt, const FunctionSpans& functions, std::uint64_t base)
{
    const std::uint64_t leaf = bt.trace().front() - base;
    for (const auto& f : functions) {
        if (f.second.contains(leaf))
            return f.first;
    }
    return std::string();
}

double seconds(const timespec& t)
{
    return t.tv_sec + 1e-9 * t.tv_nsec;
}

// Why the kernel won't let the sampler watch a thread's CPU time with an
// event, "" where it will.
std::string cpuEventsRefused()
{
    perf_event_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.size = sizeof attr;
    attr.type = PERF_TYPE_SOFTWARE;
    attr.config = PERF_COUNT_SW_TASK_CLOCK;
    attr.sample_period = 1000000;
    attr.exclude_kernel = 1;
    const int probe = static_cast<int>(syscall(SYS_perf_event_open, &attr, 0, -1, -1, PERF_FLAG_FD_CLOEXEC));
    if (probe < 0)
        return std::string("the kernel refuses events on a thread's CPU time: ") + strerror(errno);
    close(probe);
    return std::string();
}

// ---- the tests ----

// The two threads of zor-example do equal work (the shares of their hot
// functions: frontend_test): at a short interval, with a list short enough
// to be thinned several times, each still holds its share of the CPU time
// as its own clock measured it, though the worker answers at its own pace
// and so only in some samples, what it ran after its last answer comes only
// as it ends, and on a busy machine an answer may be under way while its
// sample is thinned; and its pace slows down with the main thread's, its
// signals (counted by the handler counter) no more than one a tick.
TEST(SamplerRun, AThinnedListKeepsEachThreadsShareOfTheCpuTime)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const ProgramRun run = runSampled({ZOR_EXAMPLE, "--work", "1000"},
                                      {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1,samples=100",
                                       "ZOR_ALLOC_COUNT_OUTPUT=" + output + ".counts"},
                                      ZOR_ALLOC_COUNT_LIBRARY);
    ASSERT_EQ(run.exitCode, 0) << run.describe();
    const SampleFileRead thinned = readSampleFile(output);
    ASSERT_TRUE(thinned.list);
    EXPECT_GE(thinned.downsamples, 2u);
    unsigned long handlers = 0, allocations = 0;
    ASSERT_EQ(sscanf(readText(output + ".counts").c_str(), "handlers %lu allocations %lu", &handlers, &allocations), 2);
    EXPECT_LT(handlers, 3 * thinned.total) << thinned.total << " ticks";
    std::map<int, double> cpu;
    for (unsigned i = 0; i < thinned.list->size(); ++i) {
        quorvex::SSampleBacktraceIterator threads(thinned.list->at(i));
        while (threads.hasNext()) {
            const SBacktrace& bt = threads.next();
            cpu[bt.tid()] += seconds(bt.cpuTime());
        }
    }
    ASSERT_EQ(cpu.size(), 2u);
    // Equal work need not take equal CPU time on a busy machine (a thread
    // that has a core to itself runs faster), so the share to match is the
    // one the threads measured on their own clocks.
    double ownMain = 0, ownWorker = 0;
    const std::size_t own = run.out.find("CPU main ");
    ASSERT_NE(own, std::string::npos) << run.describe();
    ASSERT_EQ(sscanf(run.out.c_str() + own, "CPU main %lf s, worker %lf s", &ownMain, &ownWorker), 2) << run.out;
    EXPECT_NEAR(100 * cpu[run.pid] / (cpu.begin()->second + cpu.rbegin()->second), 100 * ownMain / (ownMain + ownWorker), 2.0)
        << "main " << cpu[run.pid] << " s of " << cpu.begin()->second + cpu.rbegin()->second << " s; on its own clock "
        << ownMain << " s of " << ownMain + ownWorker << " s";
}

// Four busy threads on a machine of two cores, sampled every millisecond:
// where the kernel lets the sampler watch a thread's CPU time with an event,
// each thread answers about once a millisecond of its CPU time, wherever it
// is, and the program's split between its functions, weighed by CPU time as
// the back-end does, is what the program measured itself. (A timer on a
// thread's CPU clock fires at the kernel's tick only, at most 250 times a
// second on many kernels, and its signals gather at the system calls that
// follow a tick.)
TEST(SamplerRun, BusyThreadsAreSampledAtTheirOwnPace)
{
    if (const std::string why = cpuEventsRefused(); !why.empty())
        GTEST_SKIP() << why;

    const FunctionSpans functions = functionsOf(ZOR_THREADS);
    const char* const names[] = {"work_alpha", "work_beta", "work_gamma", "work_delta"};
    TempDir dir;
    const std::string output = dir.file("samples");
    std::uint64_t base = 0;
    const ProgramRun run = runMapped({ZOR_THREADS, "--threads", "4", "--work", "600"},
                                     {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1,samples=100000"},
                                     functions, base);
    ASSERT_EQ(run.exitCode, 0) << run.describe();
    std::map<std::string, double> truth;
    std::smatch match;
    for (std::string rest = run.out; std::regex_search(rest, match, std::regex("(work_\\w+) ([0-9.]+)%"));
         rest = match.suffix())
        truth[match[1]] = std::stod(match[2]);
    ASSERT_EQ(truth.size(), 4u) << run.out;

    const SampleFileRead file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    EXPECT_EQ(file.downsamples, 0u);
    std::map<int, std::pair<unsigned, double>> answers; // per worker: backtraces, CPU seconds
    std::map<std::string, double> cpu;                  // per function, "" for all
    for (unsigned i = 0; i < file.list->size(); ++i) {
        for (std::size_t n = 0; n < file.list->at(i).otherThreads().count(); ++n) {
            const SBacktrace& bt = file.list->at(i).otherThreads()[n];
            if (bt.trace().empty())
                continue;
            ++answers[bt.tid()].first;
            answers[bt.tid()].second += seconds(bt.cpuTime());
            cpu[leafFunction(bt, functions, base)] += seconds(bt.cpuTime());
            cpu["all"] += seconds(bt.cpuTime());
        }
    }
    ASSERT_EQ(answers.size(), 4u);
    for (const auto& a : answers)
        EXPECT_GT(a.second.first, 600 * a.second.second) << a.second.first << " answers in " << a.second.second
                                                           << " s of thread " << a.first << "'s CPU time";
    std::string shares;
    for (const auto& c : cpu)
        shares += (c.first.empty() ? "elsewhere" : c.first) + " " + std::to_string(100 * c.second / cpu["all"]) + "% ";
    for (const char* name : names)
        EXPECT_NEAR(100 * cpu[name] / cpu["all"], truth[name], 4.0) << name << "; " << shares;
    EXPECT_LT(100 * cpu[""] / cpu["all"], 5.0) << shares;
}

// A loop whose turn lasts exactly the interval of the thread's CPU time
// (the target's lockstep mode: 50, 30 and 20% of each turn in three
// functions): samples at a fixed period find much the same place every
// time (lockstep_a's share came out 55-60%); the periods drawn afresh
// spread them over the whole turn.
TEST(SamplerRun, ALoopThatKeepsStepWithTheIntervalIsSampledAllOver)
{
    if (const std::string why = cpuEventsRefused(); !why.empty())
        GTEST_SKIP() << why;
    const FunctionSpans functions = functionsOf(ZOR_TARGET);
    TempDir dir;
    const std::string output = dir.file("samples");
    std::uint64_t base = 0;
    const ProgramRun run = runMapped({ZOR_TARGET, "lockstep"},
                                     {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1,samples=100000"},
                                     functions, base);
    ASSERT_EQ(run.exitCode, 0) << run.describe();
    const SampleFileRead file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    std::map<std::string, double> cpu;
    double all = 0;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        for (std::size_t n = 0; n < file.list->at(i).otherThreads().count(); ++n) {
            const SBacktrace& bt = file.list->at(i).otherThreads()[n];
            if (bt.trace().empty())
                continue;
            // Most of a turn is spent reading the clock, below the three.
            for (std::uint64_t address : bt.trace()) {
                for (const auto& f : functions) {
                    if (f.first.rfind("lockstep_", 0) == 0 && f.second.contains(address - base))
                        cpu[f.first] += seconds(bt.cpuTime());
                }
            }
            all += seconds(bt.cpuTime());
        }
    }
    ASSERT_GT(all, 1.0) << run.describe();
    std::string shares;
    for (const auto& c : cpu)
        shares += c.first + " " + std::to_string(100 * c.second / all) + "% ";
    const std::pair<const char*, double> truth[] = {{"lockstep_a", 50}, {"lockstep_b", 30}, {"lockstep_c", 20}};
    for (const auto& t : truth)
        EXPECT_NEAR(100 * cpu[t.first] / all, t.second, 4.5) << t.first << "; " << shares;
}

// Threads far shorter than the interval: each is sampled as often as the
// share of an interval that it runs, and its sample stands for the whole
// interval, so that together they come out at the CPU time they took (the
// sampler used to see next to none of it).
TEST(SamplerRun, ThreadsShorterThanTheIntervalCountAsMuchAsTheyRan)
{
    if (const std::string why = cpuEventsRefused(); !why.empty())
        GTEST_SKIP() << why;
    const FunctionSpans functions = functionsOf(ZOR_TARGET);
    TempDir dir;
    const std::string output = dir.file("samples");
    std::uint64_t base = 0;
    const ProgramRun run = runMapped({ZOR_TARGET, "short-threads"},
                                     {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=5,samples=100000"},
                                     functions, base);
    ASSERT_EQ(run.exitCode, 0) << run.describe();
    double truth = 0;
    ASSERT_EQ(sscanf(run.out.c_str(), "short threads %lf s", &truth), 1) << run.out;
    const SampleFileRead file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    double sampled = 0, inWork = 0;
    std::set<int> threads;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        for (std::size_t n = 0; n < file.list->at(i).otherThreads().count(); ++n) {
            const SBacktrace& bt = file.list->at(i).otherThreads()[n];
            sampled += seconds(bt.cpuTime());
            // Mostly reading the clock, below short_work.
            const auto& work = functions.at("short_work");
            if (std::any_of(bt.trace().begin(), bt.trace().end(),
                            [&](std::uint64_t address) { return work.contains(address - base); }))
                inWork += seconds(bt.cpuTime());
            threads.insert(bt.tid());
        }
    }
    // Some 120 samples of 5 ms: a tenth is two standard deviations.
    EXPECT_NEAR(sampled, truth, 0.3 * truth) << threads.size() << " threads sampled";
    EXPECT_GT(inWork, 0.8 * sampled);
}

// A program that closes its descriptors and opens files, which take the
// lowest numbers: the sampler's unwinder once had a pipe there, and took
// the files for it (read from them, wrote into them, closed them).
TEST(SamplerRun, FilesOpenedAfterClosingEveryDescriptorStayTheProgramsOwn)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const ProgramRun run = runSampled({ZOR_TARGET, "reopen", dir.dir.path().toStdString()},
                                      {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1"});
    ASSERT_EQ(run.exitCode, 0) << run.describe();
    EXPECT_EQ(run.out, "files whole: 8 of 8\nok\n");
    const SampleFileRead file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    double worker = 0;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        for (std::size_t n = 0; n < file.list->at(i).otherThreads().count(); ++n) {
            const SBacktrace& bt = file.list->at(i).otherThreads()[n];
            if (bt.unwindStatus() == 0 && !bt.trace().empty())
                worker += seconds(bt.cpuTime());
        }
    }
    EXPECT_GT(worker, 0.2) << "CPU seconds of the worker in whole backtraces";
}

// With the allocation counter preloaded behind the sampler, and a list short
// enough to be thinned inside the handlers too.
TEST(SamplerRun, TwoHundredShortThreadsAndNoAllocationInHandlers)
{
    TempDir dir;
    const TargetRun t = sampleTarget({"threads"}, dir.file("samples"), "interval=1,threads=4,samples=200",
                                     {"ZOR_ALLOC_COUNT_OUTPUT=" + dir.file("counts")}, ZOR_ALLOC_COUNT_LIBRARY);
    EXPECT_EQ(t.run.out, "done 200\ndescriptors +0\nok\n");
    unsigned long handlers = 0, allocations = 0;
    ASSERT_EQ(sscanf(readText(dir.file("counts")).c_str(), "handlers %lu allocations %lu", &handlers, &allocations), 2);
    EXPECT_GT(handlers, 200u); // the timer's, and the other threads' answers
    EXPECT_EQ(allocations, 0u) << "in " << handlers << " handler runs";
    ASSERT_TRUE(t.file.list);
    EXPECT_GE(t.file.downsamples, 1u);
    std::set<int> sampled;
    unsigned unlisted = 0;
    for (unsigned i = 0; i < t.file.list->size(); ++i) {
        const SSample& sample = t.file.list->at(i);
        const std::set<int> listed(sample.threadList().begin(), sample.threadList().end());
        for (std::size_t n = 0; n < sample.otherThreads().count(); ++n) {
            const SBacktrace& bt = sample.otherThreads()[n];
            unlisted += !listed.count(bt.tid());
            if (bt.unwindStatus() == 0)
                sampled.insert(bt.tid());
        }
    }
    EXPECT_EQ(unlisted, 0u) << "backtraces of threads missing from their sample's list";
    EXPECT_GT(t.file.list->size(), 50u);
    EXPECT_GE(sampled.size(), 20u) << "of 200 threads";
}

// The target's own checks pass under the sampler, which keeps sampling: calls
// that come back whole, never with EINTR; the program's handlers, masks and
// signal waits as it set them; children of fork that leave the parent's
// ".running" alone.
TEST(SamplerRun, CallsHandlersAndChildrenOfForkAreAsWithoutTheSampler)
{
    TempDir dir;
    const std::vector<std::string> modes[] = {{"eintr"}, {"handlers"}, {"fork", dir.file("fork.running")}};
    for (const std::vector<std::string>& args : modes) {
        SCOPED_TRACE(args[0]);
        const TargetRun t = sampleTarget(args, dir.file(args[0]), "interval=1");
        ASSERT_TRUE(t.file.list);
        EXPECT_GT(t.file.list->size(), 100u);
        if (args[0] != "eintr")
            continue;
        // The calls were really interrupted: the main thread was sampled in
        // them, asleep, and the waiting workers were asked as well.
        unsigned sleeping = 0, withWorkers = 0;
        for (unsigned i = 0; i < t.file.list->size(); ++i) {
            sleeping += t.file.list->at(i).mainThreadTrace().isSleeping();
            withWorkers += t.file.list->at(i).otherThreads().count() > 0;
        }
        EXPECT_GT(sleeping, t.file.list->size() / 2);
        EXPECT_GT(withWorkers, t.file.list->size() / 2);
    }
}

// A program that dies by a signal, a fault of its own or one sent from
// outside, keeps what was sampled: the results are written, ".running"
// goes, and the signal still ends the process. A ".running" that a process
// which is gone left behind doesn't stand in the way.
TEST(SamplerRun, DeathBySignalKeepsTheSamples)
{
    const struct
    {
        const char* how;
        int sent;
        int ending;
    } cases[] = {{"segv", 0, SIGSEGV}, {"abort", 0, SIGABRT}, {"wait", SIGINT, SIGINT}, {"wait", SIGTERM, SIGTERM}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.how) + " " + strsignal(c.ending));
        TempDir dir;
        const std::string path = dir.file("samples");
        std::ofstream(path + ".running") << goneProcess() << "\n";
        const ProgramRun run = runSampled(
            {ZOR_TARGET, "die", c.how}, {"ZOR_SAMPLER_OUTPUT=" + path, "ZOR_SAMPLER_OPTIONS=interval=2"},
            std::string(), [&](pid_t pid) {
                if (!c.sent)
                    return;
                // Armed when the stale ".running" has been replaced by the
                // program's own; then some samples.
                const std::string own = std::to_string(pid) + "\n";
                for (int i = 0; i < 5000 && readText(path + ".running") != own; ++i)
                    usleep(1000);
                usleep(400000);
                kill(pid, c.sent);
            });
        EXPECT_EQ(run.signal, c.ending) << run.describe();
        EXPECT_EQ(run.out, "dying\n");
        EXPECT_EQ(run.err, "");
        EXPECT_FALSE(exists(path + ".running"));
        const SampleFileRead file = readSampleFile(path);
        ASSERT_TRUE(file.list);
        EXPECT_GT(file.list->size(), 10u);
        EXPECT_EQ(sampledThreads(*file.list).size(), 2u) << "the main thread and the worker";
    }
}

// A Go program ends through the exit system call itself, in a routine of the
// Go runtime's (the target's stands in for it), found by its name or, in a
// program stripped of its symbols, by its bytes: the samples are written
// first, and the process ends with the status that the routine was given.
TEST(SamplerRun, TheGoRuntimesOwnExitKeepsTheSamples)
{
    TempDir dir;
    const std::string stripped = dir.file("stripped-target");
    ASSERT_EQ(QProcess::execute(QStringLiteral("objcopy"), {QStringLiteral("--strip-all"), QStringLiteral(ZOR_TARGET),
                                                            QString::fromStdString(stripped)}),
              0);
    for (const std::string& program : {std::string(ZOR_TARGET), stripped}) {
        SCOPED_TRACE(program);
        const std::string path = dir.file("samples");
        const ProgramRun run
            = runSampled({program, "go-exit"}, {"ZOR_SAMPLER_OUTPUT=" + path, "ZOR_SAMPLER_OPTIONS=interval=2"});
        EXPECT_EQ(run.exitCode, 7) << run.describe();
        EXPECT_EQ(run.out, "leaving\n");
        EXPECT_FALSE(exists(path + ".running"));
        const SampleFileRead file = readSampleFile(path);
        ASSERT_TRUE(file.list);
        EXPECT_GT(file.list->size(), 10u);
        EXPECT_EQ(sampledThreads(*file.list).size(), 2u) << "the main thread and the worker";
    }
}

// Threads that block every signal, a main thread that waits for all of them
// in sigwait and a signalfd, a main thread that leaves before its workers,
// even before they have started to run: every thread that runs is sampled,
// and the program's signals and masks are as it set them; with CPU-clock
// timers too, where the kernel refuses events on the threads' CPU time.
TEST(SamplerRun, EveryThreadIsSampledWhateverItsMask)
{
    const struct
    {
        const char* mode;
        std::size_t threads;
        const char* options;
        int lateStartMs;
    } cases[] = {{"masked", 3, "interval=2", 0},
                 {"sigwait", 2, "interval=2", 0},
                 {"main-exit", 2, "interval=2", 0},
                 {"main-exit", 2, "interval=2", 100},
                 {"masked", 3, "interval=2,cpuevents=0", 0},
                 {"main-exit", 2, "interval=2,cpuevents=0", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " " + c.options + " threads late by " + std::to_string(c.lateStartMs));
        TempDir dir;
        const std::string path = dir.file("samples");
        std::vector<std::string> env = {"ZOR_SAMPLER_OUTPUT=" + path, std::string("ZOR_SAMPLER_OPTIONS=") + c.options};
        if (c.lateStartMs)
            env.push_back("ZOR_LATE_THREAD_START_MS=" + std::to_string(c.lateStartMs));
        const ProgramRun run
            = runSampled({ZOR_TARGET, c.mode}, env, c.lateStartMs ? ZOR_ALLOC_COUNT_LIBRARY : std::string());
        EXPECT_EQ(run.exitCode, 0) << run.describe();
        EXPECT_EQ(run.out, "ok\n");
        EXPECT_EQ(run.err, "");
        EXPECT_FALSE(exists(path + ".running"));
        const SampleFileRead file = readSampleFile(path);
        ASSERT_TRUE(file.list);
        std::set<int> threads = sampledThreads(*file.list);
        unsigned byMain = 0;
        for (unsigned i = 0; i < file.list->size(); ++i)
            byMain += file.list->at(i).mainThreadTrace().tid() == run.pid;
        if (std::string(c.mode) == "main-exit") {
            // Taken by a worker once the main thread is gone.
            EXPECT_GT(file.list->size() - byMain, 20u);
            threads.erase(run.pid);
        } else {
            EXPECT_EQ(byMain, file.list->size());
            EXPECT_GT(byMain, 20u);
        }
        EXPECT_EQ(threads.size(), c.threads);
    }
}

// Every file in `dir`.
std::set<std::string> filesIn(const TempDir& dir)
{
    std::set<std::string> names;
    for (const QString& name : QDir(dir.dir.path()).entryList(QDir::Files))
        names.insert(name.toStdString());
    return names;
}

// A program image that exec starts writes a file of its own with "%p", as
// does a child of fork alone; without "%p" the programs that a sampled
// process starts, by any means and even after it has ended, sample nothing,
// print nothing and say so once each in the notes of the sampled one.
TEST(SamplerRun, ExecAndChildrenWriteFilesOfTheirOwnOrNone)
{
    const struct
    {
        const char* mode;
        const char* output;
        std::size_t dataFiles;
    } cases[] = {{"exec", "run.%p", 2}, {"fork-children", "run.%p", 3}, {"children", "run", 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        TempDir dir;
        const ProgramRun run = runSampled({ZOR_TARGET, c.mode}, {"ZOR_SAMPLER_OUTPUT=" + dir.file(c.output),
                                                                 "ZOR_SAMPLER_OPTIONS=interval=2"});
        EXPECT_EQ(run.exitCode, 0) << run.describe();
        EXPECT_EQ(run.out, "ok\n");
        EXPECT_EQ(run.err, "");
        usleep(700000); // the child that starts after its parent has ended
        std::set<std::string> data;
        for (const std::string& name : filesIn(dir)) {
            EXPECT_EQ(name.find(".running"), std::string::npos) << name;
            if (std::regex_match(name, std::regex("run(\\.[0-9]+)*")))
                data.insert(name);
        }
        EXPECT_EQ(data.size(), c.dataFiles);
        const std::string pid = std::to_string(run.pid);
        if (std::string(c.mode) == "exec") {
            EXPECT_EQ(data, (std::set<std::string>{"run." + pid, "run." + pid + ".1"}));
        }
        if (std::string(c.mode) == "children") {
            // Two children of fork, a spawned program, one started late,
            // and the shells of system and popen at least.
            const std::string notes = readText(dir.file("run.errorMessages"));
            const std::regex note("0\n4\nProcess ([0-9]+) \\([^)\n]+\\) samples nothing: [^#\n]*\n#\n");
            std::set<std::string> noted;
            std::size_t count = 0;
            for (std::sregex_iterator it(notes.begin(), notes.end(), note), end; it != end; ++it, ++count)
                noted.insert((*it)[1]);
            EXPECT_EQ(std::regex_replace(notes, note, ""), "") << notes;
            EXPECT_EQ(noted.size(), count) << "a process said it twice:\n" << notes;
            EXPECT_GE(count, 6u) << notes;
            EXPECT_EQ(noted.count(pid), 0u) << notes;
        }
        for (const std::string& name : data) {
            const SampleFileRead file = readSampleFile(dir.file(name));
            ASSERT_TRUE(file.list) << name;
            EXPECT_GT(file.list->size(), 5u) << name;
            // Side files only with something in them: no MPI wrapper, and
            // no metric that can't be taken nor notes of others with "%p".
            EXPECT_NE(access(dir.file(name + ".mpi").c_str(), F_OK), 0) << name;
            EXPECT_EQ(access(dir.file(name + ".errorMessages").c_str(), F_OK) == 0, c.output == std::string("run"))
                << name;
            // The program and the C library with their build ids, and
            // what the program loaded during the run.
            const std::string modules = readText(dir.file(name + ".modules"));
            EXPECT_TRUE(std::regex_search(modules, std::regex("\n0x[0-9a-f]+ [0-9a-f]{40} loaded /\\S*/zor-test-target\n")))
                << modules;
            EXPECT_TRUE(std::regex_search(modules, std::regex("\n0x[0-9a-f]+ [0-9a-f]{40} loaded /\\S*/libc\\.so\\.6\n")))
                << modules;
            const bool loadsLibz = name.size() > 2 && name.compare(name.size() - 2, 2, ".1") == 0;
            EXPECT_EQ(std::regex_search(modules, std::regex("\n0x[0-9a-f]+ [0-9a-f]+ added /\\S*/libz\\.so[.0-9]*\n")),
                      loadsLibz)
                << modules;
            EXPECT_EQ(std::regex_search(modules,
                                        std::regex("\n0x[0-9a-f]+ [0-9a-f]+ transient /\\S*/libBrokenLocale\\.so\\.1\n")),
                      loadsLibz)
                << modules;
        }
    }
}

// ---- driven through the functions the back-end calls ----

void writeConfig(const std::string& path)
{
    MetricDefinitions definitions;
    Metric metrics[] = {{METRIC_CPU_TIME_PERCENT, 0}, {METRIC_RSS_BYTES, 1}, {METRIC_CHARS_READ, 2},
                        {METRIC_CHARS_WRITTEN, 3},    {"gpu_magic", 5},      {"plugin_metric", 6}};
    for (int rate : {2, 3, 4})
        metrics[rate].setDivideBySampleTime(true);
    metrics[5].setSource(MetricSource(MetricSource::Library, "/nonexistent/libplugin.so"));
    for (const Metric& m : metrics)
        definitions.addMetric(m);
    QStringList temporaries;
    ASSERT_TRUE(definitions.writeConfigForSamplerInFile(QString::fromStdString(path), true, temporaries));
}

// The target arms the sampler, after the refusals that come first, and
// stops it or lets it stop by itself; the metrics it asked for are in every
// sample, and those it can't take are reported.
TEST(SamplerControl, ArmedAndStoppedAsTheBackEndDoesIt)
{
    for (const std::string mode : {"stop", "stop-offset"}) {
        SCOPED_TRACE(mode);
        TempDir dir;
        const std::string path = dir.file("smpls");
        writeConfig(path);
        const ProgramRun run = runSampled({ZOR_TARGET, mode, path}, {});
        ASSERT_EQ(run.exitCode, 0) << run.describe();
        unsigned long boundary = 0;
        ASSERT_EQ(sscanf(run.out.c_str(), "boundary %lx", &boundary), 1) << run.out;
        EXPECT_NE(run.out.find("\nok\n"), std::string::npos) << run.out;

        const SampleFileRead file = readSampleFile(path);
        ASSERT_TRUE(file.list);
        EXPECT_EQ(file.stopReason, 2);
        const unsigned n = file.list->size();
        ASSERT_GT(n, 20u);
        EXPECT_EQ(file.total, n);
        if (mode == "stop-offset") {
            const timespec last = file.list->at(n - 1).getTimestamp();
            EXPECT_LT((last.tv_sec - file.startTime.tv_sec) * 1000000000LL + (last.tv_nsec - file.startTime.tv_nsec),
                      300000000LL);
        }

        unsigned withCpu = 0, whole = 0, pastBoundary = 0;
        std::uint64_t read = 0, written = 0;
        for (unsigned i = 0; i < n; ++i) {
            // Backtraces end before the boundary frame the target gave.
            const quorvex::backtrace_t& frames = file.list->at(i).mainThreadTrace().trace();
            pastBoundary += frames.empty() || std::count(frames.begin(), frames.end(), boundary);
            const quorvex::SMetrics& m = file.list->at(i).metrics();
            ASSERT_TRUE(m.isValid() && m.size() == 7u);
            std::string divides;
            for (unsigned k = 0; k < 7; ++k)
                divides += m.shouldDivideBySampleInterval(k) ? 'd' : '-';
            EXPECT_EQ(divides, "--dd-d-");
            withCpu += m.getMetricValue(0).type() == SampleValue::Double && m.getMetricValue(0).to_double() > 0;
            // Resident memory and I/O always; nothing where no metric can be taken.
            whole += m.getMetricValue(1).to_uint64_t() > 1000000 && !m.getMetricValue(2).empty()
                && !m.getMetricValue(3).empty() && m.getMetricValue(4).empty() && m.getMetricValue(5).empty()
                && m.getMetricValue(6).empty();
            read += m.getMetricValue(2).to_uint64_t();
            written += m.getMetricValue(3).to_uint64_t();
        }
        EXPECT_EQ(pastBoundary, 0u);
        EXPECT_GT(withCpu, n * 9 / 10);
        EXPECT_EQ(whole, n);
        // The target reads back all it writes, and nothing else is read: not
        // even the sampler's own reading of /proc counts. A stop may fall
        // between one write and its read. A busy machine leaves the target
        // as few as 8 rounds in the 300 ms sampled.
        EXPECT_GT(written, 4096u * 4);
        EXPECT_NEAR(double(read), double(written), 4096 + 0.01 * double(written));

        // Index, code, message, "#", for each metric that can't be taken.
        const std::string errors = readText(path + ".errorMessages");
        EXPECT_TRUE(std::regex_match(errors, std::regex("5\n1\n[^#]*gpu_magic[^#]*\n#\n"
                                                        "6\n2\n[^#]*/nonexistent/libplugin\\.so[^#]*\n#\n")))
            << errors;
        // No MPI wrapper, no ".mpi".
        EXPECT_NE(access((path + ".mpi").c_str(), F_OK), 0);
    }
}

// A debugger stops the program wherever it happens to be, on top of a
// half-taken sample too, and calls the sampler from there.
TEST(SamplerControl, StoppedByADebuggerInTheMiddleOfASample)
{
    // Some containers forbid tracing, and gdb 13 can't call functions in a
    // program on CPUs with AMX state; then there is nothing to show here.
    if (const QString why = gdbCallProblem(ZOR_EXAMPLE); !why.isEmpty())
        GTEST_SKIP() << why.toStdString();
    TempDir dir;
    const std::string path = dir.file("smpls"), commands = dir.file("commands");
    writeConfig(path);
    std::ofstream(commands) << "set pagination off\nset confirm off\n"
                               "set environment LD_PRELOAD=" ZOR_SAMPLER_LIBRARY "\n"
                               "handle SIG" << SIGRTMAX - 3 << " nostop noprint pass\n"
                               "break main\nrun\n"
                               "print (int)quorvex_init_sampler_now(1000, 2, \"" << path << "\", 1, 0, 0)\n"
                               // The sampling handler, about to put the 21st sample into the list.
                               "break quorvex::SSampleList::createSample\nignore 2 20\ncontinue\n"
                               "print (int)quorvex_ui_stop_sampling()\nkill\n";
    QProcess gdb;
    gdb.setProcessChannelMode(QProcess::MergedChannels);
    gdb.start("gdb",
              {"-nx", "-batch", "-x", QString::fromStdString(commands), "--args", ZOR_EXAMPLE, "--seconds", "20"});
    ASSERT_TRUE(gdb.waitForFinished(60000));
    const std::string transcript = gdb.readAll().toStdString();
    ASSERT_EQ(gdb.exitCode(), 0) << transcript;
    EXPECT_NE(transcript.find("$1 = 0\n"), std::string::npos) << transcript;
    EXPECT_NE(transcript.find("$2 = 0\n"), std::string::npos) << transcript;
    EXPECT_FALSE(exists(path + ".running"));
    const SampleFileRead file = readSampleFile(path);
    ASSERT_TRUE(file.list) << transcript;
    EXPECT_EQ(file.stopReason, 2);
    EXPECT_EQ(file.list->size(), 20u); // the whole ones; the one being made is left out
}

} // namespace
