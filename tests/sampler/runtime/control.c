/* Drives the sampler through its functions, as the back-end does through
 * the debugger: looks them up by name, arms sampling with the configuration
 * found at PATH, works for a while on two threads, and stops.
 *
 *   control PATH stop          stops with quorvex_ui_stop_sampling
 *   control PATH stop-offset   lets the sampler stop itself after 300 ms
 *   control PATH refuse N MS   only arms, with N samples every MS
 *                              milliseconds, and prints the code and the
 *                              reason it gives
 * The return address of main is given as the boundary frame. Prints
 * "boundary ADDRESS" and then "ok" when everything went as the sampler
 * promises. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int failures;

#define CHECK(cond, ...) \
    do { \
        if (!(cond)) { \
            ++failures; \
            printf(__VA_ARGS__); \
            printf("\n"); \
        } \
    } while (0)

static volatile uint64_t sink;
static volatile int stop_work;

static void burn_ms(int ms)
{
    struct timespec start, now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    uint64_t x = sink;
    do {
        for (int i = 0; i < 2000; ++i)
            x = x * 6364136223846793005ULL + 1;
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000 < ms);
    sink = x;
}

static void* worker(void* argument)
{
    (void)argument;
    /* Some reading and writing, for the I/O metrics. */
    char buffer[4096] = {0};
    while (!stop_work) {
        burn_ms(5);
        FILE* f = tmpfile();
        if (f) {
            fwrite(buffer, 1, sizeof buffer, f);
            rewind(f);
            if (fread(buffer, 1, sizeof buffer, f) != sizeof buffer)
                printf("short read\n");
            fclose(f);
        }
    }
    return NULL;
}

static int exists(const char* path)
{
    return access(path, F_OK) == 0;
}

#define LOOKUP(type, name) type name = (type)dlsym(RTLD_DEFAULT, #name)

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: control PATH stop | stop-offset | refuse NUM-SAMPLES INTERVAL-MS\n");
        return 2;
    }
    const char* path = argv[1];
    const char* mode = argv[2];
    typedef int (*init_fn)(int, int, const char*, int, unsigned, unsigned);
    typedef int (*ulong_fn)(unsigned long);
    typedef int (*void_fn)(void);
    typedef int (*int2_fn)(int, int);
    LOOKUP(init_fn, quorvex_init_sampler_now);
    LOOKUP(ulong_fn, quorvex_set_boundary_frame_ip);
    LOOKUP(void_fn, quorvex_sampler_version);
    LOOKUP(int2_fn, quorvex_set_GPUProfiler_configuration);
    LOOKUP(void_fn, quorvex_ui_stop_sampling);
    LOOKUP(volatile int*, quorvex_sampling_finished);
    LOOKUP(const char*, quorvex_sampler_error);
    if (!quorvex_init_sampler_now || !quorvex_set_boundary_frame_ip || !quorvex_sampler_version
        || !quorvex_set_GPUProfiler_configuration || !quorvex_ui_stop_sampling || !quorvex_sampling_finished
        || !quorvex_sampler_error) {
        printf("the sampler's functions are missing\n");
        return 1;
    }
    char running[4096];
    snprintf(running, sizeof running, "%s.running", path);

    if (strcmp(mode, "refuse") == 0 && argc == 5) {
        const int runningBefore = exists(running);
        const int code = quorvex_init_sampler_now(atoi(argv[3]), atoi(argv[4]), path, 1, 0, 0);
        printf("code %d: %s\n", code, quorvex_sampler_error);
        CHECK(exists(running) == runningBefore, "a refusal changed %s", running);
        return failures != 0;
    }

    CHECK(quorvex_sampler_version() == 700, "version %d", quorvex_sampler_version());
    /* As a debugger would: main's backtraces end at main. */
    const unsigned long boundary = (unsigned long)__builtin_return_address(0);
    CHECK(quorvex_set_boundary_frame_ip(boundary) == 0, "the boundary was refused");
    printf("boundary %lx\n", boundary);
    CHECK(quorvex_set_GPUProfiler_configuration(0, 0) == 0, "no GPU profiling was refused");
    CHECK(quorvex_ui_stop_sampling() == 7, "stopping before arming didn't say so");

    const int stopSelf = strcmp(mode, "stop-offset") == 0;
    const int armed = quorvex_init_sampler_now(1000, 2, path, 1, 0, stopSelf ? 300 : 0);
    CHECK(armed == 0, "arming gave %d: %s", armed, quorvex_sampler_error);
    CHECK(exists(running), "%s wasn't created at arming", running);
    CHECK(quorvex_init_sampler_now(1000, 2, path, 1, 0, 0) == 1 && quorvex_sampler_error[0] != '\0',
          "arming twice wasn't refused with a reason");

    pthread_t thread;
    pthread_create(&thread, NULL, worker, NULL);
    burn_ms(500);
    if (stopSelf) {
        CHECK(!exists(running), "the sampler didn't stop by itself");
        burn_ms(100);
    } else {
        CHECK(exists(running), "%s went away while sampling", running);
        *quorvex_sampling_finished = 1;
        CHECK(quorvex_ui_stop_sampling() == 0, "stopping failed: %s", quorvex_sampler_error);
        CHECK(!exists(running), "%s is still there after the stop", running);
        CHECK(quorvex_ui_stop_sampling() == 0, "stopping twice failed");
    }
    stop_work = 1;
    pthread_join(thread, NULL);
    if (failures == 0)
        printf("ok\n");
    return failures != 0;
}
