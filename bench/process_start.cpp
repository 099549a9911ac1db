// What the sampler costs a process that starts, runs 1 ms and ends: the
// program is started RUNS times without the sampler and RUNS times with it
// loaded and armed (the data file named by the environment), interleaved,
// and the means per start are compared: wall-clock time, CPU time (user and
// system), peak resident memory and minor page faults, as wait4 reports
// them for the child.
//
//   bench-process-start [RUNS [LIBRARY...]]      default: 200, the built sampler
//
// Given libraries (an older build, say) are each taken in turn within every
// round, so that a change is compared under the same load.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

struct Totals
{
    double wallMs = 0;
    double cpuMs = 0;
    double rssKb = 0;
    double faults = 0;
    int failed = 0;
};

double nowMs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

double ms(const timeval& t)
{
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3;
}

void runOnce(const char* library, const std::string& dir, Totals& totals)
{
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (std::strncmp(*e, "LD_PRELOAD=", 11) != 0 && std::strncmp(*e, "ZOR_SAMPLER_", 12) != 0)
            env.push_back(*e);
    }
    const bool sampled = library != nullptr;
    if (sampled) {
        env.push_back(std::string("LD_PRELOAD=") + library);
        env.push_back("ZOR_SAMPLER_OUTPUT=" + dir + "/samples.%p");
    }
    std::vector<char*> envp;
    for (std::string& e : env)
        envp.push_back(&e[0]);
    envp.push_back(nullptr);
    char* argv[] = {const_cast<char*>(ZOR_TINY_PROGRAM), nullptr};
    const double started = nowMs();
    pid_t pid;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv, envp.data()) != 0) {
        ++totals.failed;
        return;
    }
    int status = 0;
    rusage usage;
    if (wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        ++totals.failed;
        return;
    }
    totals.wallMs += nowMs() - started;
    totals.cpuMs += ms(usage.ru_utime) + ms(usage.ru_stime);
    totals.rssKb += static_cast<double>(usage.ru_maxrss);
    totals.faults += static_cast<double>(usage.ru_minflt);
    if (sampled) {
        // The files of this run, so that the directory stays small.
        const std::string base = dir + "/samples." + std::to_string(pid);
        for (const char* suffix : {"", ".errorMessages", ".mpi", ".modules", ".running"})
            unlink((base + suffix).c_str());
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 200;
    if (runs <= 0) {
        std::fprintf(stderr, "usage: bench-process-start [RUNS [LIBRARY...]]\n");
        return 2;
    }
    char dirTemplate[] = "/tmp/zor-process-start-XXXXXX";
    if (!mkdtemp(dirTemplate)) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string dir = dirTemplate;
    std::vector<const char*> libraries;
    for (int i = 2; i < argc; ++i)
        libraries.push_back(argv[i]);
    if (libraries.empty())
        libraries.push_back(ZOR_SAMPLER_LIBRARY);
    Totals plain;
    std::vector<Totals> sampled(libraries.size());
    for (int i = 0; i < runs; ++i) {
        runOnce(nullptr, dir, plain);
        for (std::size_t k = 0; k < libraries.size(); ++k)
            runOnce(libraries[k], dir, sampled[k]);
    }
    rmdir(dir.c_str());
    int failed = plain.failed;
    for (const Totals& t : sampled)
        failed += t.failed;
    if (failed) {
        std::fprintf(stderr, "%d runs failed\n", failed);
        return 1;
    }
    const double n = runs;
    std::printf("%d starts of a 1 ms program each, means per start\n", runs);
    std::printf("%-10s %10s %10s %12s %10s\n", "", "wall ms", "CPU ms", "peak RSS MB", "faults");
    auto row = [&](const char* name, const Totals& t) {
        std::printf("%-10s %10.3f %10.3f %12.2f %10.0f\n", name, t.wallMs / n, t.cpuMs / n, t.rssKb / n / 1024,
                    t.faults / n);
    };
    row("plain", plain);
    for (std::size_t k = 0; k < libraries.size(); ++k) {
        const Totals& t = sampled[k];
        if (libraries.size() > 1)
            std::printf("with %s\n", libraries[k]);
        row("sampled", t);
        std::printf("%-10s %10.3f %10.3f %12.2f %10.0f\n", "added", (t.wallMs - plain.wallMs) / n,
                    (t.cpuMs - plain.cpuMs) / n, (t.rssKb - plain.rssKb) / n / 1024, (t.faults - plain.faults) / n);
    }
    return 0;
}
