/* Creates and ends 200 short threads, eight at a time, while being sampled.
 * They end in every way a thread can: by returning, by pthread_exit, by
 * cancellation, and detached. Prints "done" and how many threads got to
 * the end of their work: 200. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#define THREADS 200
#define AT_ONCE 8

static volatile uint64_t sink;
static volatile int finished;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void burn(long ns)
{
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    uint64_t x = sink;
    do {
        for (int i = 0; i < 1000; ++i)
            x = x * 6364136223846793005ULL + 1;
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) < ns);
    sink = x;
}

static void count_finished(void)
{
    pthread_mutex_lock(&lock);
    ++finished;
    pthread_mutex_unlock(&lock);
}

static void* short_thread(void* argument)
{
    const long n = (long)(intptr_t)argument;
    burn(2000000 + (n % 5) * 1000000);
    count_finished();
    if (n % 4 == 1)
        pthread_exit(NULL);
    if (n % 4 == 2) {
        /* Waits to be cancelled. */
        for (;;)
            pthread_testcancel();
    }
    return NULL;
}

int main(void)
{
    int started = 0;
    while (started < THREADS) {
        pthread_t batch[AT_ONCE];
        int joinable[AT_ONCE];
        int n = 0;
        for (; n < AT_ONCE && started < THREADS; ++n, ++started) {
            pthread_attr_t attr;
            pthread_attr_init(&attr);
            joinable[n] = started % 4 != 3;
            if (!joinable[n])
                pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
            if (pthread_create(&batch[n], &attr, short_thread, (void*)(intptr_t)started) != 0) {
                printf("pthread_create failed\n");
                return 1;
            }
            pthread_attr_destroy(&attr);
        }
        for (int i = 0; i < n; ++i) {
            if (!joinable[i])
                continue;
            const long index = started - n + i;
            if (index % 4 == 2) {
                /* Let it burn first, then cancel it. */
                struct timespec wait = {0, 8000000};
                nanosleep(&wait, NULL);
                pthread_cancel(batch[i]);
            }
            pthread_join(batch[i], NULL);
        }
    }
    /* The detached ones may still be running; a thread that never gets to
     * the end shows in the count. */
    int count = 0;
    for (int waited = 0; waited < 10000; ++waited) {
        pthread_mutex_lock(&lock);
        count = finished;
        pthread_mutex_unlock(&lock);
        if (count == THREADS)
            break;
        struct timespec wait = {0, 1000000};
        nanosleep(&wait, NULL);
    }
    printf("done %d\n", count);
    return 0;
}
