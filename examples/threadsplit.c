/* zor-threads: several threads whose time splits between four functions in
 * a known way, for checking how accurately a profiler shares out the time.
 *
 * Every thread runs rounds of work. Thread i gives each round to the four
 * functions in its own proportion (the table below), so that the split of
 * one thread differs from the split of the program. The program measures
 * the truth itself: each call is timed with the thread's CPU clock, and the
 * share of each function in the CPU time of all threads is printed at the
 * end, as
 *
 *   truth: work_alpha 40.1% work_beta 29.9% work_gamma 20.0% work_delta 10.0%
 *
 * A call lasts about a millisecond, so the clock costs nothing to speak of.
 *
 *   zor-threads [--threads T] [--seconds S | --work N]
 *     T threads (default 4); run for S seconds (default 3), or do N rounds
 *     on each thread and print the elapsed time, so that the same work with
 *     and without a profiler shows its overhead. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define FUNCTIONS 4
#define MAX_THREADS 64
/* One unit: a few microseconds of arithmetic. */
#define STEPS_PER_UNIT 4096

static volatile uint64_t sink;

static int64_t clock_ns(clockid_t clock)
{
    struct timespec t;
    clock_gettime(clock, &t);
    return (int64_t)t.tv_sec * 1000000000LL + t.tv_nsec;
}

/* A step that the compiler can't fold away. */
#define STEP(x) ((x) = (x) * 6364136223846793005ULL + 1442695040888963407ULL, (x) ^= (x) >> 29)

/* Each function burns in a loop of its own, so that a sample taken in it has
 * its instruction inside it. */
#define BURN(units) \
    do { \
        uint64_t x_ = sink + 1; \
        for (long u_ = 0; u_ < (units); ++u_) \
            for (int i_ = 0; i_ < STEPS_PER_UNIT; ++i_) \
                STEP(x_); \
        sink = x_; \
    } while (0)

__attribute__((noinline)) void work_alpha(long units) { BURN(units); }
__attribute__((noinline)) void work_beta(long units) { BURN(units); }
__attribute__((noinline)) void work_gamma(long units) { BURN(units); }
__attribute__((noinline)) void work_delta(long units) { BURN(units); }

static void (*const functions[FUNCTIONS])(long) = {work_alpha, work_beta, work_gamma, work_delta};
static const char* const names[FUNCTIONS] = {"work_alpha", "work_beta", "work_gamma", "work_delta"};

/* Units per round by thread (rows repeat past the fourth thread). Over four
 * threads the program's split is 40 : 30 : 20 : 10. */
static const int units[4][FUNCTIONS] = {
    {70, 10, 10, 10},
    {10, 70, 10, 10},
    {40, 20, 30, 10},
    {40, 20, 30, 10},
};

struct worker
{
    int index;
    int64_t end_ns; /* time mode */
    long rounds;    /* work mode, 0 in time mode */
    unsigned seed;
    int64_t cpu_ns[FUNCTIONS];
};

/* A generator of our own, so that runs draw alike on every C library. */
static double next_random(unsigned* state)
{
    *state = *state * 1103515245u + 12345u;
    return (double)(*state >> 8) / (double)(1u << 24);
}

static void timed_call(struct worker* w, int f, long n)
{
    const int64_t start = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    functions[f](n);
    w->cpu_ns[f] += clock_ns(CLOCK_THREAD_CPUTIME_ID) - start;
}

static void* run_worker(void* argument)
{
    struct worker* w = argument;
    const int* share = units[w->index % 4];
    for (long r = 0; w->rounds > 0 ? r < w->rounds : clock_ns(CLOCK_MONOTONIC) < w->end_ns; ++r) {
        /* In time mode rounds are 50% to 150% long, drawn at random, so that
         * they never keep step with a sampling interval. */
        const double scale = w->rounds > 0 ? 1.0 : 0.5 + next_random(&w->seed);
        for (int f = 0; f < FUNCTIONS; ++f)
            timed_call(w, f, (long)(share[f] * scale + 0.5));
    }
    return NULL;
}

static void usage(void)
{
    fprintf(stderr, "usage: zor-threads [--threads T] [--seconds S | --work N]\n");
    exit(2);
}

int main(int argc, char** argv)
{
    int threads = 4;
    double seconds = 3;
    long rounds = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--threads") == 0 && i + 1 < argc)
            threads = atoi(argv[++i]);
        else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc)
            seconds = atof(argv[++i]);
        else if (strcmp(argv[i], "--work") == 0 && i + 1 < argc)
            rounds = atol(argv[++i]);
        else
            usage();
    }
    if (threads < 1 || threads > MAX_THREADS || seconds <= 0 || rounds < 0)
        usage();

    static struct worker workers[MAX_THREADS];
    pthread_t ids[MAX_THREADS];
    const int64_t start = clock_ns(CLOCK_MONOTONIC);
    for (int t = 0; t < threads; ++t) {
        workers[t].index = t;
        workers[t].end_ns = start + (int64_t)(seconds * 1e9);
        workers[t].rounds = rounds;
        workers[t].seed = 1234u + 7u * (unsigned)t;
        if (pthread_create(&ids[t], NULL, run_worker, &workers[t]) != 0) {
            fprintf(stderr, "zor-threads: can't start thread %d\n", t);
            return 1;
        }
    }
    int64_t total[FUNCTIONS] = {0};
    int64_t all = 0;
    for (int t = 0; t < threads; ++t) {
        pthread_join(ids[t], NULL);
        for (int f = 0; f < FUNCTIONS; ++f) {
            total[f] += workers[t].cpu_ns[f];
            all += workers[t].cpu_ns[f];
        }
    }
    const double elapsed = (double)(clock_ns(CLOCK_MONOTONIC) - start) / 1e9;
    printf("zor-threads: %d threads, %s %.3f s\ntruth:", threads, rounds > 0 ? "work done in" : "ran", elapsed);
    for (int f = 0; f < FUNCTIONS; ++f)
        printf(" %s %.1f%%", names[f], all > 0 ? 100.0 * (double)total[f] / (double)all : 0.0);
    printf("\n");
    return 0;
}
