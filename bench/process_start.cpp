// What the sampler costs a process that starts, runs 1 ms and ends: the
// program is started RUNS times without the sampler and RUNS times with it
// loaded and armed (the data file named by the environment), interleaved,
// and the means per start are compared: wall-clock time, CPU time (user and
// system), peak resident memory and minor page faults, as wait4 reports
// them for the child.
//
//   bench-process-start [RUNS]      default: 200
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

void runOnce(bool sampled, const std::string& dir, Totals& totals)
{
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        if (std::strncmp(*e, "LD_PRELOAD=", 11) != 0 && std::strncmp(*e, "ZOR_SAMPLER_", 12) != 0)
            env.push_back(*e);
    }
    if (sampled) {
        env.push_back(std::string("LD_PRELOAD=") + ZOR_SAMPLER_LIBRARY);
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
        for (const char* suffix : {"", ".errorMessages", ".mpi", ".modules"})
            unlink((base + suffix).c_str());
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 200;
    if (runs <= 0) {
        std::fprintf(stderr, "usage: bench-process-start [RUNS]\n");
        return 2;
    }
    char dirTemplate[] = "/tmp/zor-process-start-XXXXXX";
    if (!mkdtemp(dirTemplate)) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string dir = dirTemplate;
    Totals plain, sampled;
    for (int i = 0; i < runs; ++i) {
        runOnce(false, dir, plain);
        runOnce(true, dir, sampled);
    }
    rmdir(dir.c_str());
    if (plain.failed || sampled.failed) {
        std::fprintf(stderr, "%d plain and %d sampled runs failed\n", plain.failed, sampled.failed);
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
    row("sampled", sampled);
    std::printf("%-10s %10.3f %10.3f %12.2f %10.0f\n", "added", (sampled.wallMs - plain.wallMs) / n,
                (sampled.cpuMs - plain.cpuMs) / n, (sampled.rssKb - plain.rssKb) / n / 1024,
                (sampled.faults - plain.faults) / n);
    return 0;
}
