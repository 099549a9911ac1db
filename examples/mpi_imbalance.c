/* zor-mpi-example: an MPI program whose time in MPI is known to be uneven.
 *
 * Each of ITERATIONS rounds: every rank computes for a while, all ranks sum
 * COUNT doubles with MPI_Allreduce, then rank r computes (r + 1) times
 * longer and all meet in MPI_Barrier. The ranks with less work wait in the
 * barrier for the one with the most: rank 0 spends the most time in MPI,
 * the last rank the least.
 *
 *   zor-mpi-example [ITERATIONS [UNITS [COUNT]]]   (defaults 20, 400, 16)
 *
 * UNITS is the work of one compute step. On stdout it prints, per rank, the
 * calls it made: "rank R calls MPI_Allreduce N MPI_Barrier N", and the time
 * it spent in MPI_Barrier by its own clock: "rank R spent NS ns in
 * MPI_Barrier".
 *
 *   --abort R      rank R calls MPI_Abort in the second round, before its
 *                  barrier and a fifth of a second after the others reach it
 *   --crash R      the same, but rank R dies of SIGSEGV */
#include <mpi.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static volatile uint64_t sink;

__attribute__((noinline)) void compute(long units)
{
    uint64_t x = sink + 1;
    for (long u = 0; u < units; ++u)
        for (int i = 0; i < 4096; ++i) {
            x = x * 6364136223846793005ULL + 1442695040888963407ULL;
            x ^= x >> 29;
        }
    sink = x;
}

static long long now_ns(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

__attribute__((noinline)) void uneven_compute(int rank, long units)
{
    compute((rank + 1) * units);
}

int main(int argc, char** argv)
{
    long numbers[3] = {20, 400, 16};
    int abortRank = -1, crashRank = -1, count = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--abort") == 0 && i + 1 < argc)
            abortRank = atoi(argv[++i]);
        else if (strcmp(argv[i], "--crash") == 0 && i + 1 < argc)
            crashRank = atoi(argv[++i]);
        else if (count < 3)
            numbers[count++] = atol(argv[i]);
    }
    MPI_Init(&argc, &argv);
    int rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    double local[64], global[64];
    const int n = numbers[2] > 0 && numbers[2] <= 64 ? (int)numbers[2] : 16;
    long allreduces = 0, barriers = 0;
    long long barrierNs = 0;
    for (long round = 0; round < numbers[0]; ++round) {
        compute(numbers[1]);
        for (int i = 0; i < n; ++i)
            local[i] = rank + i + (double)sink * 0;
        MPI_Allreduce(local, global, n, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
        ++allreduces;
        uneven_compute(rank, numbers[1]);
        if (round > 0 && (rank == abortRank || rank == crashRank)) {
            /* Long enough for the others' wait in the barrier to be sampled. */
            const struct timespec fifth = { 0, 200000000L };
            nanosleep(&fifth, NULL);
            if (rank == abortRank)
                MPI_Abort(MPI_COMM_WORLD, 3);
            raise(SIGSEGV);
        }
        const long long before = now_ns();
        MPI_Barrier(MPI_COMM_WORLD);
        barrierNs += now_ns() - before;
        ++barriers;
    }
    printf("rank %d calls MPI_Allreduce %ld MPI_Barrier %ld\n", rank, allreduces, barriers);
    printf("rank %d spent %lld ns in MPI_Barrier\n", rank, barrierNs);
    fflush(stdout);
    MPI_Finalize();
    return global[0] < 0;
}
