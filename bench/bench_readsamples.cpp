// Reading a sampler data file against the physical floor: the same bytes
// taken with one read(2) per 64 KiB. Prints both times and their ratio;
// the reading includes freeing the list, which is shown on its own too.
//
//   bench-readsamples [samples] [threads] [frames] [repetitions]
#include "readsamples.h"
#include "samplefilebuilder.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {
// Time spent freeing the lists read, over all calls.
double gDelete = 0;

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

size_t readPlain(const std::string& path)
{
    static std::vector<char> buffer(64 * 1024);
    const int fd = open(path.c_str(), O_RDONLY);
    size_t total = 0;
    ssize_t n;
    while ((n = read(fd, buffer.data(), buffer.size())) > 0)
        total += static_cast<size_t>(n);
    close(fd);
    return total;
}

unsigned readRecords(const std::string& path)
{
    timespec start;
    int stopReason;
    unsigned long a, b, c;
    uint64_t d, e, f;
    unsigned int g, h;
    QString omp;
    bool cuda, mpi;
    QMap<int, quorvex::SCallSite> sites;
    quorvex::SSampleList* list = quorvex_read_samples(path.c_str(), &start, &stopReason, &a, &b, &c, &d, &e, &f, &g,
                                                      &h, omp, &cuda, sites, &mpi);
    if (!list) {
        fprintf(stderr, "bench-readsamples: the file could not be read\n");
        exit(1);
    }
    const unsigned n = list->size();
    auto t = std::chrono::steady_clock::now();
    delete list;
    gDelete += secondsSince(t);
    return n;
}

double processSeconds()
{
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

struct Timing
{
    double wall;   // median
    double cpu;    // least processor time of this process
};

template <typename F>
Timing measure(int repetitions, F f)
{
    std::vector<double> times;
    double cpu = 1e300;
    for (int i = 0; i < repetitions; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const double cpuStart = processSeconds();
        f();
        cpu = std::min(cpu, processSeconds() - cpuStart);
        times.push_back(secondsSince(start));
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], cpu};
}

} // namespace

int main(int argc, char** argv)
{
    const int samples = argc > 1 ? atoi(argv[1]) : 10000;
    const int threads = argc > 2 ? atoi(argv[2]) : 8;
    const int frames = argc > 3 ? atoi(argv[3]) : 64;
    const int repetitions = argc > 4 ? atoi(argv[4]) : 11;

    zortest::TempFile file("zor-bench");
    {
        zortest::SampleFileBuilder builder(samples, threads, 1);
        zortest::RandomSampleShape shape;
        shape.numSamples = samples;
        shape.threadsPerSample = threads;
        shape.framesPerTrace = frames;
        shape.numMetrics = 4;
        shape.kernelHitEvery = 0;
        shape.numCallSites = 16;
        shape.varySizes = false;
        builder.addRandom(shape);
        builder.writeTo(file);
    }
    const size_t bytes = readPlain(file.path()); // also warms the page cache

    unsigned read = 0;
    const Timing floor = measure(repetitions, [&] { readPlain(file.path()); });
    const Timing records = measure(repetitions, [&] { read = readRecords(file.path()); });

    printf("file: %d samples x %d threads x %d frames, %zu bytes\n", samples, threads, frames, bytes);
    // Wall time says what a user waits; processor time is what is left of
    // it on a machine that others keep busy.
    printf("                       wall (median)   processor (least)\n");
    printf("read(2) per 64 KiB:    %10.3f ms   %10.3f ms  (%.0f MB/s)\n", floor.wall * 1e3, floor.cpu * 1e3,
           bytes / floor.wall / 1e6);
    printf("quorvex_read_samples:  %10.3f ms   %10.3f ms  (%.0f MB/s, %u samples)\n", records.wall * 1e3,
           records.cpu * 1e3, bytes / records.wall / 1e6, read);
    printf("  of which freeing:    %10.3f ms  (mean wall)\n", gDelete / repetitions * 1e3);
    printf("ratio: %.1f wall, %.1f processor\n", records.wall / floor.wall, records.cpu / floor.cpu);
    return 0;
}
