/* A program that is busy for 1 ms and ends: what a process start costs
 * with the sampler loaded is measured on it. */
#include <time.h>

int main(void)
{
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    do
        clock_gettime(CLOCK_MONOTONIC, &now);
    while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) < 1000000L);
    return 0;
}
