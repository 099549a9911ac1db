/* zor-example: a small program whose hot spots are known, for demos, tests
 * and the overhead benchmark.
 *
 * The main thread spends its time in spin_alpha, spin_beta and spin_gamma,
 * in the proportion 50 : 30 : 20; a worker thread spends its time in
 * spin_delta and spin_epsilon, 75 : 25.
 *
 *   zor-example [--seconds S]   run for S seconds (default 3)
 *   zor-example --work N        do a fixed amount of work (N rounds) and
 *                               print the elapsed time and each thread's CPU
 *                               time: the same work with and without a
 *                               profiler shows its overhead
 *
 * The shares are of the thread's CPU time: each function does its share of
 * a fixed amount of arithmetic, so the shares hold however busy the machine
 * is and however long a profiler keeps a thread waiting. The functions make
 * no system calls and burn in their own loops, not in a shared helper, so
 * that a sample taken in one of them has its instruction inside that
 * function. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* One unit of work: a few microseconds of arithmetic. */
#define STEPS_PER_UNIT 4096

static volatile uint64_t sink;

static int64_t now_ns(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000000000LL + t.tv_nsec;
}

/* A step that the compiler can't fold away. */
#define STEP(x) ((x) = (x) * 6364136223846793005ULL + 1442695040888963407ULL, (x) ^= (x) >> 29)

#define BURN(units) \
    do { \
        uint64_t x_ = sink + 1; \
        for (long u_ = 0; u_ < (units); ++u_) \
            for (int i_ = 0; i_ < STEPS_PER_UNIT; ++i_) \
                STEP(x_); \
        sink = x_; \
    } while (0)

__attribute__((noinline)) void spin_alpha(long units) { BURN(units); }
__attribute__((noinline)) void spin_beta(long units) { BURN(units); }
__attribute__((noinline)) void spin_gamma(long units) { BURN(units); }
__attribute__((noinline)) void spin_delta(long units) { BURN(units); }
__attribute__((noinline)) void spin_epsilon(long units) { BURN(units); }

typedef void (*spin_fn)(long);

struct plan
{
    const spin_fn* functions;
    const int* percent;
    int count;
    int64_t end_ns; /* time mode */
    long rounds;    /* work mode, 0 in time mode */
    unsigned seed;
    double cpu_seconds; /* the thread's own CPU time for the plan, work mode */
};

/* A small generator of our own, so that both threads draw alike on every C
 * library. */
static double next_random(unsigned* state)
{
    *state = *state * 1103515245u + 12345u;
    return (double)(*state >> 8) / (double)(1u << 24);
}

static void run_plan(struct plan* p)
{
    if (p->rounds > 0) {
        /* 100 units per round, shared out by percent. */
        for (long r = 0; r < p->rounds; ++r)
            for (int f = 0; f < p->count; ++f)
                p->functions[f](p->percent[f]);
        struct timespec cpu;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        p->cpu_seconds = cpu.tv_sec + 1e-9 * cpu.tv_nsec;
        return;
    }
    /* Rounds of 50 to 150 units, drawn at random so that they never keep
     * step with a sampling interval; every function gets its share of each
     * round. */
    while (now_ns() < p->end_ns) {
        const double scale = 0.5 + next_random(&p->seed);
        for (int f = 0; f < p->count; ++f)
            p->functions[f]((long)(p->percent[f] * scale + 0.5));
    }
}

static const spin_fn main_functions[] = {spin_alpha, spin_beta, spin_gamma};
static const int main_percent[] = {50, 30, 20};
static const spin_fn worker_functions[] = {spin_delta, spin_epsilon};
static const int worker_percent[] = {75, 25};

static void* worker(void* argument)
{
    pthread_setname_np(pthread_self(), "worker");
    run_plan((struct plan*)argument);
    return NULL;
}

static void usage(const char* unknown)
{
    if (unknown)
        fprintf(stderr, "zor-example: unknown argument %s\n", unknown);
    fprintf(stderr, "usage: zor-example [--seconds S | --work N]\n");
    exit(2);
}

int main(int argc, char** argv)
{
    double seconds = 3;
    long rounds = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc)
            seconds = atof(argv[++i]);
        else if (strcmp(argv[i], "--work") == 0 && i + 1 < argc)
            rounds = atol(argv[++i]);
        else
            usage(argv[i]);
    }
    if (seconds <= 0 || rounds < 0)
        usage(NULL);

    const int64_t start = now_ns();
    const int64_t end = start + (int64_t)(seconds * 1e9);
    struct plan main_plan = {main_functions, main_percent, 3, end, rounds, 12345u, 0};
    struct plan worker_plan = {worker_functions, worker_percent, 2, end, rounds, 67890u, 0};

    pthread_t thread;
    if (pthread_create(&thread, NULL, worker, &worker_plan) != 0) {
        fprintf(stderr, "zor-example: can't start the worker thread\n");
        return 1;
    }
    run_plan(&main_plan);
    pthread_join(thread, NULL);

    const double elapsed = (double)(now_ns() - start) / 1e9;
    if (rounds > 0)
        printf("zor-example: %ld rounds of work in %.3f s; CPU main %.4f s, worker %.4f s\n", rounds, elapsed,
               main_plan.cpu_seconds, worker_plan.cpu_seconds);
    else
        printf("zor-example: ran %.3f s; main thread spin_alpha 50%%, spin_beta 30%%, spin_gamma 20%%; "
               "worker spin_delta 75%%, spin_epsilon 25%%\n",
               elapsed);
    return 0;
}
