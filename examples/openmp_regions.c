/* zor-omp-example: a program whose hot loop runs in OpenMP parallel
 * regions, for tests of region call sites. Built twice: with GCC's libgomp
 * and with LLVM's libomp.
 *
 *   zor-omp-example [ROUNDS [ITERATIONS]]   (defaults 40, 64)
 *
 * main calls open_region ROUNDS times; each call opens a parallel region
 * whose threads share ITERATIONS calls of hot_body. Nearly all the time of
 * every thread is in hot_body, under open_region. Prints "ok" at the end. */
#include <omp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static volatile uint64_t sink;

__attribute__((noinline)) void hot_body(long i)
{
    uint64_t x = sink + (uint64_t)i;
    for (int k = 0; k < 200000; ++k) {
        x = x * 6364136223846793005ULL + 1442695040888963407ULL;
        x ^= x >> 29;
    }
    sink = x;
}

__attribute__((noinline)) void open_region(long iterations)
{
#pragma omp parallel for schedule(dynamic, 1)
    for (long i = 0; i < iterations; ++i)
        hot_body(i);
}

int main(int argc, char** argv)
{
    const long rounds = argc > 1 ? atol(argv[1]) : 40;
    const long iterations = argc > 2 ? atol(argv[2]) : 64;
    for (long r = 0; r < rounds; ++r)
        open_region(iterations);
    printf("threads %d\nok\n", omp_get_max_threads());
    return 0;
}
