/* What the MPI wrapper adds to each MPI call.
 *
 *   bench-mpi-wrapper-cost [RUNS [CALLS]]      defaults: 5 runs, 2000000 calls
 *
 * Starts itself on 2 ranks through mpirun, without anything preloaded and
 * with the sampler and the MPI wrapper preloaded (not sampling), RUNS times
 * each, interleaved. In each run every rank times CALLS calls of MPI_Iprobe
 * (nothing is ever sent, so each call only polls), and ranks 0 and 1 time
 * CALLS / 10 rounds of a zero-byte MPI_Send and MPI_Recv ping-pong. The
 * Iprobe time is CPU time of the calling thread, the least disturbed by
 * other work on a shared machine; the ping-pong time is wall time per call
 * (a round is four calls, two on each rank). Medians of the runs are
 * printed, and what the wrapper added. */
#define _GNU_SOURCE
#include <mpi.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static double now(clockid_t clock)
{
    struct timespec t;
    clock_gettime(clock, &t);
    return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}

/* On the ranks: prints "iprobe NS pingpong NS" from rank 0. */
static int measure(long calls)
{
    MPI_Init(NULL, NULL);
    int rank = 0, flag = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    double best = 1e30;
    for (int repeat = 0; repeat < 3; ++repeat) {
        const double start = now(CLOCK_THREAD_CPUTIME_ID);
        for (long i = 0; i < calls / 3; ++i)
            MPI_Iprobe(MPI_ANY_SOURCE, 12345, MPI_COMM_WORLD, &flag, MPI_STATUS_IGNORE);
        const double perCall = (now(CLOCK_THREAD_CPUTIME_ID) - start) / (double)(calls / 3);
        best = perCall < best ? perCall : best;
    }
    MPI_Barrier(MPI_COMM_WORLD);
    const long rounds = calls / 10;
    const double start = now(CLOCK_MONOTONIC);
    for (long i = 0; i < rounds && rank < 2; ++i) {
        if (rank == 0) {
            MPI_Send(NULL, 0, MPI_BYTE, 1, 1, MPI_COMM_WORLD);
            MPI_Recv(NULL, 0, MPI_BYTE, 1, 2, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
        } else {
            MPI_Recv(NULL, 0, MPI_BYTE, 0, 1, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            MPI_Send(NULL, 0, MPI_BYTE, 0, 2, MPI_COMM_WORLD);
        }
    }
    const double pingPong = (now(CLOCK_MONOTONIC) - start) / (double)(rounds * 2);
    if (rank == 0)
        printf("iprobe %.2f pingpong %.2f\n", best, pingPong);
    MPI_Finalize();
    return 0;
}

static int compare(const void* a, const void* b)
{
    const double x = *(const double*)a, y = *(const double*)b;
    return x < y ? -1 : x > y;
}

static double median(double* values, int count)
{
    qsort(values, (size_t)count, sizeof *values, compare);
    return count % 2 ? values[count / 2] : (values[count / 2 - 1] + values[count / 2]) / 2;
}

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? atoi(argv[1]) : 5;
    const long calls = argc > 2 ? atol(argv[2]) : 2000000;
    if (getenv("OMPI_COMM_WORLD_SIZE"))
        return measure(calls);
    if (runs < 1 || runs > 100 || calls < 30) {
        fprintf(stderr, "usage: %s [RUNS [CALLS]]\n", argv[0]);
        return 2;
    }
    if (getuid() == 0) {
        setenv("OMPI_ALLOW_RUN_AS_ROOT", "1", 1);
        setenv("OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1", 1);
    }
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0)
        return 1;
    self[length] = '\0';

    const char* names[2] = {"plain", "wrapped"};
    double iprobe[2][100], pingpong[2][100];
    for (int run = 0; run < runs; ++run) {
        for (int setting = 0; setting < 2; ++setting) {
            char command[12288];
            snprintf(command, sizeof command,
                     "mpirun --oversubscribe -n 2 %s%s%s%s %s %d %ld", setting ? "-x LD_PRELOAD=" : "",
                     setting ? ZOR_SAMPLER_LIBRARY : "", setting ? ":" : "", setting ? ZOR_MPIWRAPPER_LIBRARY : "",
                     self, runs, calls);
            FILE* out = popen(command, "r");
            double a = 0, b = 0;
            const int got = out ? fscanf(out, "iprobe %lf pingpong %lf", &a, &b) : 0;
            if (!out || pclose(out) != 0 || got != 2) {
                fprintf(stderr, "failed: %s\n", command);
                return 1;
            }
            iprobe[setting][run] = a;
            pingpong[setting][run] = b;
        }
    }
    double medians[2][2];
    printf("%-8s %14s %16s   (ns per call, medians of %d runs, %ld Iprobe calls each)\n", "", "MPI_Iprobe",
           "Send/Recv 0 B", runs, calls);
    for (int setting = 0; setting < 2; ++setting) {
        medians[setting][0] = median(iprobe[setting], runs);
        medians[setting][1] = median(pingpong[setting], runs);
        printf("%-8s %14.2f %16.2f\n", names[setting], medians[setting][0], medians[setting][1]);
    }
    printf("%-8s %14.2f %16.2f\n", "added", medians[1][0] - medians[0][0], medians[1][1] - medians[0][1]);
    return 0;
}
