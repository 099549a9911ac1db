// The sampler library at work: real programs run with it preloaded, and
// what they write is read back with the back-end's reader.
#include "constants.h"
#include "metric.h"
#include "readsamples.h"
#include "samplevalue.h"

#include <QFile>
#include <QString>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <spawn.h>
#include <signal.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using quorvex::SBacktrace;
using quorvex::SSample;
using quorvex::SSampleBacktraceIterator;
using quorvex::SSampleList;

namespace {

// ---- running programs ----

class TempDir
{
public:
    TempDir()
    {
        char name[] = "/tmp/zor-runtime-XXXXXX";
        mPath = mkdtemp(name) ? name : "";
    }
    ~TempDir()
    {
        if (DIR* dir = opendir(mPath.c_str())) {
            while (dirent* entry = readdir(dir)) {
                if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                    unlink((mPath + "/" + entry->d_name).c_str());
            }
            closedir(dir);
        }
        rmdir(mPath.c_str());
    }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

std::string readText(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

struct ProgramRun
{
    pid_t pid = -1;
    int status = -1;
    std::string out;
    std::string err;
    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
};

// Runs `args` with the sampler preloaded (and `preloadAfter` behind it) and
// `env` added to the environment; `whileRunning` is called with the pid
// before the wait.
ProgramRun runSampled(const std::vector<std::string>& args, const std::vector<std::string>& env,
               const std::string& preloadAfter = std::string(),
               const std::function<void(pid_t)>& whileRunning = nullptr)
{
    TempDir outputs;
    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e) {
        const std::string entry(*e);
        if (entry.rfind("LD_PRELOAD=", 0) != 0 && entry.rfind("ZOR_SAMPLER_", 0) != 0)
            environment.push_back(entry);
    }
    std::string preload = std::string("LD_PRELOAD=") + ZOR_SAMPLER_LIBRARY;
    if (!preloadAfter.empty())
        preload += ":" + preloadAfter;
    environment.push_back(preload);
    environment.insert(environment.end(), env.begin(), env.end());

    std::vector<char*> argv, envp;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const std::string& e : environment)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outputs.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, outputs.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ProgramRun run;
    const int spawned = posix_spawn(&run.pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        run.err = std::string("can't start ") + args[0] + ": " + strerror(spawned);
        return run;
    }
    if (whileRunning)
        whileRunning(run.pid);
    // A program that hangs is ended, and fails the test, rather than
    // holding up the whole suite.
    for (int waited = 0; waitpid(run.pid, &run.status, WNOHANG) == 0; ++waited) {
        if (waited == 60 * 100) {
            kill(run.pid, SIGKILL);
            waitpid(run.pid, &run.status, 0);
            break;
        }
        usleep(10000);
    }
    run.out = readText(outputs.file("out"));
    run.err = readText(outputs.file("err"));
    return run;
}

std::string describe(const ProgramRun& run)
{
    return "status " + std::to_string(run.status) + "\nstdout:\n" + run.out + "\nstderr:\n" + run.err;
}

// ---- reading results ----

struct SampleFile
{
    std::unique_ptr<SSampleList> list;
    timespec start = {0, 0};
    int stopReason = 0;
    unsigned long downsamples = 0;
    std::uint64_t takenInTotal = 0;
};

SampleFile readSampleFile(const std::string& path)
{
    SampleFile file;
    unsigned long rebuilds = 0, checks = 0;
    std::uint64_t skipped = 0, resuming = 0;
    unsigned int spare1 = 0, spare2 = 0;
    QString omp;
    bool cuda = true, mpiMultiple = true;
    QMap<int, quorvex::SCallSite> callSites;
    errno = 0;
    file.list.reset(quorvex_read_samples(path.c_str(), &file.start, &file.stopReason, &rebuilds, &checks,
                                         &file.downsamples, &skipped, &resuming, &file.takenInTotal, &spare1, &spare2, omp,
                                         &cuda, callSites, &mpiMultiple));
    if (errno != 0)
        file.list.reset();
    EXPECT_FALSE(cuda);
    EXPECT_FALSE(mpiMultiple);
    EXPECT_TRUE(callSites.isEmpty());
    return file;
}

// ---- symbols of the example ----

struct Range
{
    std::uint64_t start;
    std::uint64_t end;
};

// The lines that `command` prints.
std::vector<std::string> outputOf(const std::string& command)
{
    std::vector<std::string> lines;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[512];
        while (fgets(line, sizeof line, pipe))
            lines.push_back(line);
        pclose(pipe);
    }
    return lines;
}

std::map<std::string, Range> functionsOf(const std::string& binary)
{
    std::map<std::string, Range> functions;
    for (const std::string& line : outputOf("nm -S --defined-only '" + binary + "'")) {
        char name[256];
        unsigned long long address = 0, size = 0;
        char type = 0;
        if (sscanf(line.c_str(), "%llx %llx %c %255s", &address, &size, &type, name) == 4 && (type == 'T' || type == 't'))
            functions[name] = Range{address, address + size};
    }
    return functions;
}

// Where a position-independent program was loaded: read from its maps while
// it runs.
std::uint64_t loadBaseOf(pid_t pid, const std::string& binary)
{
    char resolved[4096];
    if (!realpath(binary.c_str(), resolved))
        return 0;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
        std::string line;
        while (std::getline(maps, line)) {
            unsigned long long start = 0, end = 0, offset = 0;
            char path[4096] = {0};
            if (sscanf(line.c_str(), "%llx-%llx %*s %llx %*s %*s %4095s", &start, &end, &offset, path) == 4
                && offset == 0 && std::strcmp(path, resolved) == 0)
                return start;
        }
        usleep(2000);
    }
    return 0;
}

bool isPositionIndependent(const std::string& binary)
{
    std::ifstream in(binary, std::ios::binary);
    char header[18] = {0};
    in.read(header, sizeof header);
    return header[16] == 3; // ET_DYN
}

std::string sharesText(const std::map<std::string, int>& counts, int total)
{
    std::string text;
    for (const auto& c : counts)
        text += c.first + " " + std::to_string(100.0 * c.second / std::max(total, 1)) + "% ";
    return text + "of " + std::to_string(total);
}

// ---- the tests ----

TEST(SamplerLibrary, NeedsOnlyTheCLibraryAndLibunwindAndShowsOnlyItsOwnNames)
{
    const std::set<std::string> allowed = {"libc.so.6", "libm.so.6", "libunwind.so.8", "ld-linux-x86-64.so.2"};
    int needed = 0;
    for (const std::string& line : outputOf(std::string("readelf -d ") + ZOR_SAMPLER_LIBRARY)) {
        const std::size_t open = line.find("Shared library: [");
        if (open == std::string::npos)
            continue;
        ++needed;
        const std::string name = line.substr(open + 17, line.find(']') - open - 17);
        EXPECT_TRUE(allowed.count(name)) << "needs " << name;
    }
    EXPECT_GT(needed, 0);

    int exported = 0;
    for (const std::string& line : outputOf(std::string("nm -D --defined-only ") + ZOR_SAMPLER_LIBRARY)) {
        char name[256];
        if (sscanf(line.c_str(), "%*s %*c %255s", name) != 1)
            continue;
        ++exported;
        // No C++ name gets out, or the program's own C++ runtime could bind
        // to ours.
        EXPECT_NE(std::string(name).rfind("_Z", 0), 0u) << name;
    }
    EXPECT_GT(exported, 10);
}

TEST(SamplerRun, HotFunctionSharesOnEveryThread)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const std::map<std::string, Range> functions = functionsOf(ZOR_EXAMPLE);
    const std::map<std::string, double> mainShares = {{"spin_alpha", 50}, {"spin_beta", 30}, {"spin_gamma", 20}};
    const std::map<std::string, double> workerShares = {{"spin_delta", 75}, {"spin_epsilon", 25}};
    for (const char* name : {"spin_alpha", "spin_beta", "spin_gamma", "spin_delta", "spin_epsilon"})
        ASSERT_TRUE(functions.count(name)) << name << " not found in " << ZOR_EXAMPLE;

    std::uint64_t base = 0;
    const ProgramRun run = runSampled({ZOR_EXAMPLE, "--seconds", "4"},
                               {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=3,samples=4000,threads=2"},
                               std::string(), [&](pid_t pid) {
                                   if (isPositionIndependent(ZOR_EXAMPLE))
                                       base = loadBaseOf(pid, ZOR_EXAMPLE);
                               });
    ASSERT_TRUE(run.exitedWith(0)) << describe(run);
    ASSERT_TRUE(!isPositionIndependent(ZOR_EXAMPLE) || base != 0) << "no load address found";

    const SampleFile file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    EXPECT_EQ(file.stopReason, 1);
    auto functionAt = [&](unsigned long address) -> std::string {
        for (const auto& f : functions) {
            if (address - base >= f.second.start && address - base < f.second.end)
                return f.first;
        }
        return "other";
    };
    std::map<int, std::map<std::string, int>> counts;
    std::map<int, int> totals;
    int mainTid = 0;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        SSampleBacktraceIterator threads(file.list->at(i));
        while (threads.hasNext()) {
            const SBacktrace& bt = threads.next();
            if (threads.wasMainThread())
                mainTid = bt.tid();
            if (bt.trace().empty())
                continue;
            ++counts[bt.tid()][functionAt(bt.trace().front())];
            ++totals[bt.tid()];
        }
    }
    ASSERT_EQ(totals.size(), 2u) << "expected the main thread and one worker";
    for (const auto& thread : totals) {
        const bool isMain = thread.first == mainTid;
        const std::map<std::string, double>& expected = isMain ? mainShares : workerShares;
        const std::string shares = sharesText(counts[thread.first], thread.second);
        ASSERT_GE(thread.second, 300) << "too few samples to judge: " << shares;
        for (const auto& e : expected) {
            const double share = 100.0 * counts[thread.first][e.first] / thread.second;
            EXPECT_NEAR(share, e.second, 5.0) << (isMain ? "main thread, " : "worker, ") << e.first << "; " << shares;
        }
    }
}

TEST(SamplerRun, NoHeapAllocationInsideSignalHandlers)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const std::string counts = dir.file("counts");
    // A short list, so that it is thinned several times on the way.
    const ProgramRun run = runSampled({ZOR_EXAMPLE, "--seconds", "2"},
                                      {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1,samples=200",
                                       "ZOR_ALLOC_COUNT_OUTPUT=" + counts},
                                      ZOR_ALLOC_COUNT_LIBRARY);
    ASSERT_TRUE(run.exitedWith(0)) << describe(run);
    unsigned long handlers = 0, allocations = 0;
    ASSERT_EQ(sscanf(readText(counts).c_str(), "handlers %lu allocations %lu", &handlers, &allocations), 2)
        << readText(counts);
    // Both the timer's handler on the main thread and the worker's answers.
    EXPECT_GT(handlers, 200u);
    EXPECT_EQ(allocations, 0u) << "in " << handlers << " handler runs";
    const SampleFile file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    EXPECT_GE(file.downsamples, 2u);
    EXPECT_GT(file.list->size(), 50u);
}

TEST(SamplerRun, TwoHundredShortThreads)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const ProgramRun run = runSampled({ZOR_SHORT_THREADS},
                               {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1,threads=4"});
    ASSERT_TRUE(run.exitedWith(0)) << describe(run);
    EXPECT_EQ(run.out, "done 200\n");
    EXPECT_FALSE(exists(output + ".running"));

    const SampleFile file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    EXPECT_EQ(file.stopReason, 1);
    std::set<int> sampledThreads;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        const SSample& sample = file.list->at(i);
        EXPECT_EQ(sample.mainThreadTrace().tid(), run.pid);
        const std::set<int> listed(sample.threadList().begin(), sample.threadList().end());
        for (std::size_t t = 0; t < sample.otherThreads().count(); ++t) {
            const SBacktrace& bt = sample.otherThreads()[t];
            EXPECT_TRUE(listed.count(bt.tid())) << "thread " << bt.tid() << " is not in its sample's list";
            if (bt.unwindStatus() == 0)
                sampledThreads.insert(bt.tid());
        }
    }
    EXPECT_GT(file.list->size(), 50u);
    EXPECT_GE(sampledThreads.size(), 20u) << "of 200 threads";
}

TEST(SamplerRun, InterruptedCallsComeBackWhole)
{
    TempDir dir;
    const ProgramRun run = runSampled({ZOR_DISTURB, "eintr"},
                                      {"ZOR_SAMPLER_OUTPUT=" + dir.file("run.%p"), "ZOR_SAMPLER_OPTIONS=interval=1"});
    EXPECT_TRUE(run.exitedWith(0)) << describe(run);
    EXPECT_EQ(run.out, "ok\n");

    // The calls were really interrupted: the main thread was sampled in
    // them, asleep, and the waiting workers were asked as well. "%p" in the
    // path stands for the process id.
    const SampleFile file = readSampleFile(dir.file("run." + std::to_string(run.pid)));
    ASSERT_TRUE(file.list);
    unsigned sleeping = 0, withWorkers = 0;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        sleeping += file.list->at(i).mainThreadTrace().isSleeping();
        withWorkers += file.list->at(i).otherThreads().count() > 0;
    }
    EXPECT_GT(file.list->size(), 100u);
    EXPECT_GT(sleeping, file.list->size() / 2);
    EXPECT_GT(withWorkers, file.list->size() / 2);
}

TEST(SamplerRun, ProgramHandlersMasksAndSignalWaitsAreKept)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const ProgramRun run = runSampled({ZOR_DISTURB, "handlers"}, {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=1"});
    EXPECT_TRUE(run.exitedWith(0)) << describe(run);
    EXPECT_EQ(run.out, "ok\n");
    const SampleFile file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    EXPECT_GT(file.list->size(), 100u);
}

TEST(SamplerRun, ChildrenOfForkLeaveTheParentsFilesAlone)
{
    TempDir dir;
    const std::string output = dir.file("samples");
    const ProgramRun run = runSampled({ZOR_DISTURB, "fork", output + ".running"},
                               {"ZOR_SAMPLER_OUTPUT=" + output, "ZOR_SAMPLER_OPTIONS=interval=2"});
    ASSERT_TRUE(run.exitedWith(0)) << describe(run);
    int child = 0, execer = 0;
    ASSERT_EQ(sscanf(run.out.c_str(), "children %d %d", &child, &execer), 2) << run.out;
    EXPECT_NE(run.out.find("ok\n"), std::string::npos) << run.out;
    EXPECT_FALSE(exists(output + ".running"));

    const SampleFile file = readSampleFile(output);
    ASSERT_TRUE(file.list);
    EXPECT_EQ(file.stopReason, 1);
    EXPECT_GT(file.list->size(), 100u);
    for (unsigned i = 0; i < file.list->size(); ++i)
        EXPECT_EQ(file.list->at(i).mainThreadTrace().tid(), run.pid);
}

// ---- driven through the functions the back-end calls ----

struct ErrorRecord
{
    unsigned index;
    int code;
    std::string message;
};

std::vector<ErrorRecord> readErrorRecords(const std::string& path)
{
    std::vector<ErrorRecord> records;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        ErrorRecord record{static_cast<unsigned>(std::stoul(line)), 0, std::string()};
        EXPECT_TRUE(std::getline(in, line));
        record.code = std::stoi(line);
        while (std::getline(in, line) && line != "#")
            record.message += line + "\n";
        EXPECT_EQ(line, "#");
        records.push_back(record);
    }
    return records;
}

void writeConfig(const std::string& path)
{
    MetricDefinitions definitions;
    Metric cpu(METRIC_CPU_TIME_PERCENT, 0);
    Metric rss(METRIC_RSS_BYTES, 1);
    Metric read(METRIC_CHARS_READ, 2);
    read.setDivideBySampleTime(true);
    Metric written(METRIC_CHARS_WRITTEN, 3);
    written.setDivideBySampleTime(true);
    Metric unknown("gpu_magic", 5);
    unknown.setDivideBySampleTime(true);
    Metric plugin("plugin_metric", 6);
    plugin.setSource(MetricSource(MetricSource::Library, "/nonexistent/libplugin.so"));
    for (const Metric& m : {cpu, rss, read, written, unknown, plugin})
        definitions.addMetric(m);
    QStringList temporaries;
    ASSERT_TRUE(definitions.writeConfigForSamplerInFile(QString::fromStdString(path), true, temporaries));
}

TEST(SamplerControl, ArmedAndStoppedAsTheBackEndDoesIt)
{
    TempDir dir;
    const std::string path = dir.file("smpls");
    writeConfig(path);
    const ProgramRun run = runSampled({ZOR_CONTROL, path, "stop"}, {});
    ASSERT_TRUE(run.exitedWith(0)) << describe(run);
    unsigned long boundary = 0;
    ASSERT_EQ(sscanf(run.out.c_str(), "boundary %lx", &boundary), 1) << run.out;
    EXPECT_NE(run.out.find("\nok\n"), std::string::npos) << run.out;

    const SampleFile file = readSampleFile(path);
    ASSERT_TRUE(file.list);
    EXPECT_EQ(file.stopReason, 2);
    ASSERT_GT(file.list->size(), 20u);
    EXPECT_EQ(file.takenInTotal, file.list->size());

    // Main's backtraces end inside main, before the frame it returns to.
    for (unsigned i = 0; i < file.list->size(); ++i) {
        const quorvex::backtrace_t& frames = file.list->at(i).mainThreadTrace().trace();
        EXPECT_FALSE(frames.empty());
        EXPECT_EQ(std::count(frames.begin(), frames.end(), boundary), 0) << "sample " << i;
    }

    const bool divides[] = {false, false, true, true, false, true, false};
    unsigned withCpu = 0, withRss = 0, withIo = 0;
    std::uint64_t read = 0, written = 0;
    for (unsigned i = 0; i < file.list->size(); ++i) {
        const quorvex::SMetrics& metrics = file.list->at(i).metrics();
        ASSERT_TRUE(metrics.isValid());
        ASSERT_EQ(metrics.size(), 7u);
        for (unsigned m = 0; m < 7; ++m)
            EXPECT_EQ(metrics.shouldDivideBySampleInterval(m), divides[m]) << "metric " << m;
        withCpu += metrics.getMetricValue(0).type() == SampleValue::Double && metrics.getMetricValue(0).to_double() > 0;
        withRss += metrics.getMetricValue(1).to_uint64_t() > 1000000;
        withIo += !metrics.getMetricValue(2).empty() && !metrics.getMetricValue(3).empty();
        read += metrics.getMetricValue(2).to_uint64_t();
        written += metrics.getMetricValue(3).to_uint64_t();
        for (unsigned m : {4u, 5u, 6u})
            EXPECT_TRUE(metrics.getMetricValue(m).empty()) << "metric " << m;
    }
    const unsigned n = file.list->size();
    EXPECT_GT(withCpu, n * 9 / 10);
    EXPECT_EQ(withRss, n);
    EXPECT_EQ(withIo, n);
    // The worker reads back all it writes, and nothing else is read: not
    // even the sampler's own reading of /proc counts.
    EXPECT_GT(written, 4096u * 10);
    EXPECT_NEAR(static_cast<double>(read), static_cast<double>(written), 0.01 * static_cast<double>(written));

    const std::vector<ErrorRecord> errors = readErrorRecords(path + ".errorMessages");
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0].index, 5u);
    EXPECT_EQ(errors[0].code, 1);
    EXPECT_NE(errors[0].message.find("gpu_magic"), std::string::npos) << errors[0].message;
    EXPECT_EQ(errors[1].index, 6u);
    EXPECT_EQ(errors[1].code, 2);
    EXPECT_NE(errors[1].message.find("/nonexistent/libplugin.so"), std::string::npos) << errors[1].message;

    const int mpi = open((path + ".mpi").c_str(), O_RDONLY);
    ASSERT_GE(mpi, 0);
    SampleValue count;
    EXPECT_GT(count.readFromFile(mpi), 0);
    EXPECT_EQ(count.to_int(), 0);
    char extra;
    EXPECT_EQ(::read(mpi, &extra, 1), 0);
    close(mpi);
}

TEST(SamplerControl, StopsByItselfAtTheStopOffset)
{
    TempDir dir;
    const std::string path = dir.file("smpls");
    writeConfig(path);
    const ProgramRun run = runSampled({ZOR_CONTROL, path, "stop-offset"}, {});
    ASSERT_TRUE(run.exitedWith(0)) << describe(run);
    EXPECT_NE(run.out.find("\nok\n"), std::string::npos) << run.out;
    const SampleFile file = readSampleFile(path);
    ASSERT_TRUE(file.list);
    EXPECT_EQ(file.stopReason, 2);
    ASSERT_GT(file.list->size(), 0u);
    const timespec last = file.list->at(file.list->size() - 1).getTimestamp();
    const long long ms = (last.tv_sec - file.start.tv_sec) * 1000 + (last.tv_nsec - file.start.tv_nsec) / 1000000;
    EXPECT_LT(ms, 300);
    EXPECT_TRUE(exists(path + ".errorMessages"));
    EXPECT_TRUE(exists(path + ".mpi"));
}

TEST(SamplerControl, RefusesWithACodeAndAReason)
{
    TempDir dir;
    const std::string path = dir.file("smpls");
    auto refusal = [&](const char* samples, const char* interval) {
        const ProgramRun run = runSampled({ZOR_CONTROL, path, "refuse", samples, interval}, {});
        EXPECT_TRUE(run.exitedWith(0)) << describe(run);
        return run.out;
    };
    writeConfig(path);
    EXPECT_EQ(refusal("0", "20").rfind("code 2: ", 0), 0u);
    EXPECT_EQ(refusal("100", "0").rfind("code 2: ", 0), 0u);

    std::ofstream(path) << "hello\n";
    std::string out = refusal("100", "20");
    EXPECT_EQ(out.rfind("code 3: ", 0), 0u) << out;
    EXPECT_NE(out.find("not a sampler configuration"), std::string::npos) << out;

    unlink(path.c_str());
    out = refusal("100", "20");
    EXPECT_EQ(out.rfind("code 3: ", 0), 0u) << out;

    writeConfig(path);
    std::ofstream(path + ".running") << "left over\n";
    out = refusal("100", "20");
    EXPECT_EQ(out.rfind("code 5: ", 0), 0u) << out;
    EXPECT_NE(out.find(path + ".running"), std::string::npos) << out;
}

// A debugger stops the program wherever it happens to be, on top of a
// half-taken sample too, and calls the sampler from there.
TEST(SamplerControl, StoppedByADebuggerInTheMiddleOfASample)
{
    if (system("gdb --version > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "no gdb";
    TempDir dir;
    const std::string path = dir.file("smpls");
    writeConfig(path);
    const std::string commands = dir.file("commands");
    std::ofstream(commands) << "set pagination off\n"
                               "set confirm off\n"
                               "set environment LD_PRELOAD=" ZOR_SAMPLER_LIBRARY "\n"
                               "handle SIG" << SIGRTMAX - 3 << " nostop noprint pass\n"
                               "break main\n"
                               "run\n"
                               "print (int)quorvex_init_sampler_now(1000, 2, \"" << path << "\", 1, 0, 0)\n"
                               // The sampling handler, about to put the 21st sample into the list.
                               "break quorvex::SSampleList::createSample\n"
                               "ignore 2 20\n"
                               "continue\n"
                               "print (int)quorvex_ui_stop_sampling()\n"
                               "kill\n";
    const std::string output = dir.file("gdb.out");
    const std::string command = std::string("gdb -nx -batch -x ") + commands + " --args " + ZOR_EXAMPLE
        + " --seconds 20 > " + output + " 2>&1";
    ASSERT_EQ(system(command.c_str()), 0) << readText(output);
    const std::string transcript = readText(output);
    EXPECT_NE(transcript.find("$1 = 0"), std::string::npos) << transcript;
    EXPECT_NE(transcript.find("$2 = 0"), std::string::npos) << transcript;
    EXPECT_FALSE(exists(path + ".running"));

    const SampleFile file = readSampleFile(path);
    ASSERT_TRUE(file.list) << transcript;
    EXPECT_EQ(file.stopReason, 2);
    // The 20 whole samples; the one being made is left out.
    EXPECT_EQ(file.list->size(), 20u);
}

} // namespace
