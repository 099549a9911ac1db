// Preloaded after the sampler: stands in front of sigaction, so that every
// handler (the sampler's own too) runs inside a wrapper that marks the
// thread; allocations made while the mark is set are counted. At exit the
// counts go to $ZOR_ALLOC_COUNT_OUTPUT: "handlers N\nallocations M\n".
// With $ZOR_LATE_THREAD_START_MS, it stands in front of pthread_create too,
// and every new thread starts (the sampler's part of its start included)
// that many milliseconds late, as on a machine too busy to run it.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void* __libc_memalign(size_t, size_t);
extern void __libc_free(void*);

static __thread int in_handler;
static atomic_ulong handler_runs, allocations;

static struct sigaction wrapped[NSIG];

static void note_allocation(void)
{
    if (in_handler)
        atomic_fetch_add(&allocations, 1);
}

void* malloc(size_t n) { note_allocation(); return __libc_malloc(n); }
void* calloc(size_t n, size_t s) { note_allocation(); return __libc_calloc(n, s); }
void* realloc(void* p, size_t n) { note_allocation(); return __libc_realloc(p, n); }
void* aligned_alloc(size_t a, size_t n) { note_allocation(); return __libc_memalign(a, n); }
int posix_memalign(void** out, size_t a, size_t n)
{
    note_allocation();
    return (*out = __libc_memalign(a, n)) ? 0 : 12;
}
void free(void* p) { __libc_free(p); }

struct late_start
{
    void* (*start)(void*);
    void* arg;
    useconds_t delay;
};

static void* start_late(void* argument)
{
    const struct late_start late = *(struct late_start*)argument;
    __libc_free(argument);
    usleep(late.delay);
    return late.start(late.arg);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    static int (*next)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    if (!next)
        next = (int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*))dlsym(RTLD_NEXT, "pthread_create");
    const char* ms = getenv("ZOR_LATE_THREAD_START_MS");
    struct late_start* late = ms ? __libc_malloc(sizeof *late) : NULL;
    if (!late)
        return next(thread, attr, start, arg);
    *late = (struct late_start){start, arg, (useconds_t)(1000 * atoi(ms))};
    const int result = next(thread, attr, start_late, late);
    if (result != 0)
        __libc_free(late);
    return result;
}

static void wrapper(int sig, siginfo_t* info, void* context)
{
    ++in_handler;
    atomic_fetch_add(&handler_runs, 1);
    if (wrapped[sig].sa_flags & SA_SIGINFO)
        wrapped[sig].sa_sigaction(sig, info, context);
    else
        wrapped[sig].sa_handler(sig);
    --in_handler;
}

int sigaction(int sig, const struct sigaction* act, struct sigaction* old)
{
    static int (*next)(int, const struct sigaction*, struct sigaction*);
    if (!next)
        next = (int (*)(int, const struct sigaction*, struct sigaction*))dlsym(RTLD_NEXT, "sigaction");
    if (sig <= 0 || sig >= NSIG)
        return next(sig, act, old);
    const struct sigaction saved = wrapped[sig];
    const int wrap = act && act->sa_handler != SIG_DFL && act->sa_handler != SIG_IGN;
    struct sigaction installed, previous;
    if (wrap) {
        installed = *act;
        installed.sa_sigaction = wrapper;
        installed.sa_flags |= SA_SIGINFO;
        wrapped[sig] = *act;
    }
    const int result = next(sig, wrap ? &installed : act, &previous);
    if (result != 0 && wrap)
        wrapped[sig] = saved;
    if (result == 0 && old)
        *old = previous.sa_sigaction == wrapper ? saved : previous;
    return result;
}

__attribute__((destructor)) static void report(void)
{
    const char* path = getenv("ZOR_ALLOC_COUNT_OUTPUT");
    FILE* out = path ? fopen(path, "w") : NULL;
    if (out) {
        fprintf(out, "handlers %lu\nallocations %lu\n", atomic_load(&handler_runs), atomic_load(&allocations));
        fclose(out);
    }
}
