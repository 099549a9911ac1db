// What sampling costs the sampled program: zor-example does a fixed amount
// of work on its two threads, without the sampler, with the sampler loaded
// but not sampling, and sampling every 20, 5 and 1 ms. The runs of the
// settings are interleaved, several of each, and the medians are compared.
//
//   bench-sampler-overhead [RUNS [ROUNDS [LIBRARY]]]   defaults: 7 runs, 3000 rounds
//
// With LIBRARY, another build of the sampler library (an older one, say),
// each sampling setting runs with it too, interleaved with the rest.
//
// "work" is the wall-clock time the example measures itself, from the start
// of main to the end of the work, so it leaves out arming and writing the
// results; "process" is the whole run as seen from outside; "CPU" is the
// user and system time of the whole process, which other work on a shared
// machine disturbs least. The time per sample is the extra CPU time divided
// by the samples taken, and by the backtraces taken of all threads.
// "handler" is the mean time that the tick's handler itself took, as the
// sampler measures it; the rest of the time per sample is spent around it:
// the timer's interrupt, the delivery of the signals and their return, and
// the other threads' answers. "threads" is the mean number of backtraces
// in a sample: the main thread's, and the worker's when it answered in time.
// Both figures per sample carry the cost of a run's arming and writing,
// shared out over its samples; "beyond 20 ms" leaves that out: the CPU
// time above the same library's run every 20 ms of the same round, divided
// by the backtraces above that run's (the median over the rounds).
#include "readsamples.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

struct Setting
{
    std::string name;
    bool preload;
    int intervalMs; // 0: not sampling
    std::string library;
};

struct Result
{
    double workSeconds = 0;
    double processSeconds = 0;
    double cpuSeconds = 0;
    double samples = 0;
    double backtraces = 0;
    double handlerUs = 0;
    double threadsPerSample = 0;
};

double seconds()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

bool runOnce(const Setting& setting, long rounds, const std::string& dir, Result& result)
{
    const std::string output = dir + "/samples";
    const std::string log = dir + "/out";
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (std::strncmp(*e, "LD_PRELOAD=", 11) != 0 && std::strncmp(*e, "ZOR_SAMPLER_", 12) != 0)
            env.push_back(*e);
    }
    if (setting.preload)
        env.push_back("LD_PRELOAD=" + setting.library);
    if (setting.intervalMs > 0) {
        env.push_back("ZOR_SAMPLER_OUTPUT=" + output);
        // Room for every sample of a run of up to 12 seconds, so that the
        // interval stays as asked and no backtrace is thinned away from the
        // count even when a busy machine stretches a 3-second run; one
        // worker thread besides the main one.
        const int samples = 12000 / setting.intervalMs + 1;
        env.push_back("ZOR_SAMPLER_OPTIONS=interval=" + std::to_string(setting.intervalMs)
                      + ",samples=" + std::to_string(samples) + ",threads=1");
    }
    std::vector<char*> envp;
    for (std::string& e : env)
        envp.push_back(&e[0]);
    envp.push_back(nullptr);
    const std::string roundsText = std::to_string(rounds);
    char* argv[] = {const_cast<char*>(ZOR_EXAMPLE), const_cast<char*>("--work"), const_cast<char*>(roundsText.c_str()),
                    nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    const double start = seconds();
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        fprintf(stderr, "can't run %s: %s\n", argv[0], strerror(spawned));
        return false;
    }
    int status = 0;
    rusage usage;
    wait4(pid, &status, 0, &usage);
    result.processSeconds = seconds() - start;
    result.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "%s failed\n", argv[0]);
        return false;
    }

    char text[256] = {0};
    FILE* out = fopen(log.c_str(), "r");
    const bool parsed = out && fgets(text, sizeof text, out)
        && sscanf(text, "zor-example: %*d rounds of work in %lf s", &result.workSeconds) == 1;
    if (out)
        fclose(out);
    if (!parsed) {
        fprintf(stderr, "unexpected output: %s\n", text);
        return false;
    }

    result.samples = 0;
    if (setting.intervalMs > 0) {
        timespec startTime;
        int stopReason = 0;
        unsigned long rebuilds = 0, checks = 0, downsamples = 0;
        std::uint64_t skipped = 0, resuming = 0, total = 0;
        unsigned int spare1 = 0, spare2 = 0;
        QString omp;
        bool cuda = false, mpi = false;
        QMap<int, quorvex::SCallSite> callSites;
        errno = 0;
        quorvex::SSampleList* list = quorvex_read_samples(output.c_str(), &startTime, &stopReason, &rebuilds, &checks,
                                                          &downsamples, &skipped, &resuming, &total, &spare1, &spare2,
                                                          omp, &cuda, callSites, &mpi);
        if (!list || errno != 0) {
            fprintf(stderr, "the sample file can't be read\n");
            delete list;
            return false;
        }
        result.samples = static_cast<double>(total);
        // The sampler's own mean time in the handler of a tick, in whole us.
        result.handlerUs = spare2;
        // Every thread's backtrace counts: the main thread's in each sample
        // and the others' as they answered. The list is never thinned here.
        result.backtraces = 0;
        for (unsigned i = 0; i < list->size(); ++i)
            result.backtraces += 1 + static_cast<double>(list->at(i).otherThreads().count());
        result.threadsPerSample = list->size() > 0 ? result.backtraces / list->size() : 0;
        delete list;
    }
    for (const char* suffix : {"", ".mpi", ".errorMessages"})
        unlink((output + suffix).c_str());
    return true;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? atoi(argv[1]) : 7;
    const long rounds = argc > 2 ? atol(argv[2]) : 3000;
    if (runs < 1 || rounds < 1) {
        fprintf(stderr, "usage: bench-sampler-overhead [RUNS [ROUNDS [LIBRARY]]]\n");
        return 2;
    }
    char dirTemplate[] = "/tmp/zor-bench-XXXXXX";
    const char* dir = mkdtemp(dirTemplate);
    if (!dir)
        return 1;

    const std::string library = ZOR_SAMPLER_LIBRARY;
    std::vector<Setting> settings = {
        {"without the sampler", false, 0, library},
        {"loaded, not sampling", true, 0, library},
        {"sampling every 20 ms", true, 20, library},
        {"sampling every 5 ms", true, 5, library},
        {"sampling every 1 ms", true, 1, library},
    };
    if (argc > 3) {
        for (int interval : {20, 5, 1})
            settings.push_back({"other, every " + std::to_string(interval) + " ms", true, interval, argv[3]});
    }
    std::vector<std::vector<Result>> results(settings.size());
    for (int r = 0; r < runs; ++r) {
        for (std::size_t s = 0; s < settings.size(); ++s) {
            Result result;
            if (!runOnce(settings[s], rounds, dir, result))
                return 1;
            results[s].push_back(result);
        }
    }
    unlink((std::string(dir) + "/out").c_str());
    rmdir(dir);

    auto medianOf = [&](std::size_t s, double Result::*field) {
        std::vector<double> values;
        for (const Result& r : results[s])
            values.push_back(r.*field);
        return median(values);
    };
    const double baseWork = medianOf(0, &Result::workSeconds);
    const double baseProcess = medianOf(0, &Result::processSeconds);
    const double baseCpu = medianOf(0, &Result::cpuSeconds);
    printf("zor-example --work %ld, %d runs of each setting, medians\n", rounds, runs);
    printf("%-22s %8s %9s %10s %9s %8s %9s %8s %11s %11s %8s %8s %13s\n", "setting", "work s", "slowdown",
           "process s", "slowdown", "CPU s", "slowdown", "samples", "CPU/sample", "CPU/thread", "handler", "threads",
           "beyond 20 ms");
    for (std::size_t s = 0; s < settings.size(); ++s) {
        const double work = medianOf(s, &Result::workSeconds);
        const double process = medianOf(s, &Result::processSeconds);
        const double cpu = medianOf(s, &Result::cpuSeconds);
        const double samples = medianOf(s, &Result::samples);
        const double backtraces = medianOf(s, &Result::backtraces);
        printf("%-22s %8.3f %8.2f%% %10.3f %8.2f%% %8.3f %8.2f%% %8.0f", settings[s].name.c_str(), work,
               100 * (work / baseWork - 1), process, 100 * (process / baseProcess - 1), cpu, 100 * (cpu / baseCpu - 1),
               samples);
        if (samples > 0)
            printf(" %8.1f us %8.1f us %5.0f us %8.2f", (cpu - baseCpu) / samples * 1e6,
                   (cpu - baseCpu) / backtraces * 1e6, medianOf(s, &Result::handlerUs),
                   medianOf(s, &Result::threadsPerSample));
        // The same library's setting every 20 ms.
        std::size_t coarse = s;
        for (std::size_t c = 0; c < settings.size(); ++c) {
            if (settings[c].intervalMs == 20 && settings[c].library == settings[s].library)
                coarse = c;
        }
        if (samples > 0 && coarse != s) {
            std::vector<double> perThread;
            for (int r = 0; r < runs; ++r) {
                const Result& fine = results[s][static_cast<std::size_t>(r)];
                const Result& base = results[coarse][static_cast<std::size_t>(r)];
                if (fine.backtraces > base.backtraces)
                    perThread.push_back((fine.cpuSeconds - base.cpuSeconds) / (fine.backtraces - base.backtraces));
            }
            if (!perThread.empty())
                printf(" %10.1f us", median(perThread) * 1e6);
        }
        printf("\n");
    }
    return 0;
}
