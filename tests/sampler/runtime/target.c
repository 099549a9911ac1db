// The program that the tests run under the sampler, one mode per check. It
// prints "ok" at the end and exits 0, or prints what went wrong and exits 1.
//   eintr          sleeps, waits and reads come back whole, never with EINTR,
//                  while the program's own signals still interrupt
//   handlers       the program's handlers, masks and sigwait work as without
//                  the sampler
//   fork RUNNING   children of fork, one exec'ing, leave RUNNING alone
//   threads        200 short threads, ending in every way a thread can;
//                  prints how many got to the end of their work, and how
//                  many descriptors more than before the threads it has
//   stop PATH      drives the sampler as the back-end does, refusals first,
//                  with the configuration at PATH, and stops it; prints the
//                  boundary frame it gave, its caller's return address
//   stop-offset PATH   the same, but the sampler stops itself at 300 ms
//   die HOW        a worker and the main thread busy, then the process dies:
//                  HOW is segv (a fault), abort, or wait (busy until a signal
//                  from outside ends it); prints "dying" first
//   masked         two busy workers made while every signal is blocked, as
//                  some libraries make theirs; they see the mask they got
//   sigwait        the main thread blocks every signal and waits for them in
//                  sigwait and through a signalfd while a worker is busy
//   main-exit      the main thread leaves with pthread_exit; two busy
//                  workers go on, the last one prints the result
//   exec           busy, then execs itself in mode exec-done, which loads
//                  libz, loads and unloads libBrokenLocale, and is busy again
//   fork-children  two children of fork alone, busy
//   children       as a shell: children that fork and exec, a program
//                  spawned, and one that starts its program after the
//                  parent has ended; then it stops sampling and starts
//                  more through system and popen; all in mode quiet-busy,
//                  which prints nothing
#define _GNU_SOURCE
#include "quorvex_sampler.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
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

static int64_t now_ns(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (int64_t)t.tv_sec * 1000000000LL + t.tv_nsec;
}

static volatile uint64_t sink;

static int64_t clock_ns(clockid_t clock)
{
    struct timespec t;
    clock_gettime(clock, &t);
    return (int64_t)t.tv_sec * 1000000000LL + t.tv_nsec;
}

static void burn_on(clockid_t clock, int ms)
{
    const int64_t end = clock_ns(clock) + (int64_t)ms * 1000000;
    uint64_t x = sink;
    while (clock_ns(clock) < end)
        for (int i = 0; i < 1000; ++i)
            x = x * 6364136223846793005ULL + 1;
    sink = x;
}

static void burn_ms(int ms)
{
    burn_on(CLOCK_MONOTONIC, ms);
}

// The thread's own CPU time, for a program whose file must hold some
// samples: a busy machine makes it run longer, not sample less.
static void burn_cpu_ms(int ms)
{
    burn_on(CLOCK_THREAD_CPUTIME_ID, ms);
}

static volatile sig_atomic_t handled[NSIG];

static void count(int sig)
{
    ++handled[sig];
}

static int exists(const char* path)
{
    return access(path, F_OK) == 0;
}

// ---- eintr ----

// Each call must take its whole time and succeed.
#define TIMED(name, ms, call, ok) \
    do { \
        const int64_t start_ = now_ns(); \
        errno = 0; \
        const long result_ = (long)(call); \
        const int error_ = errno; \
        const int64_t took_ = now_ns() - start_; \
        CHECK(ok, "%s returned %ld (%s)", name, result_, strerror(error_)); \
        CHECK(took_ >= (int64_t)(ms) * 1000000 - 200000, "%s came back early: %lld ns", name, (long long)took_); \
    } while (0)

static int pipe_fds[2];

static void* reader(void* unused)
{
    char byte = 0;
    const ssize_t n = read(pipe_fds[0], &byte, 1);
    CHECK(n == 1 && byte == 'x', "the worker's read returned %zd (%s)", n, strerror(errno));
    return unused;
}

static void run_eintr(void)
{
    pthread_t read_thread;
    if (pipe(pipe_fds) != 0 || pthread_create(&read_thread, NULL, reader, NULL) != 0) {
        CHECK(0, "can't set up the reader");
        return;
    }
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    sigprocmask(SIG_BLOCK, &usr2, NULL);
    for (const int64_t end = now_ns() + 1500000000LL; now_ns() < end;) {
        TIMED("nanosleep", 3, nanosleep(&(struct timespec){0, 3000000}, NULL), result_ == 0);
        TIMED("clock_nanosleep", 3, clock_nanosleep(CLOCK_MONOTONIC, 0, &(struct timespec){0, 3000000}, NULL),
              result_ == 0);
        TIMED("poll", 3, poll(NULL, 0, 3), result_ == 0);
        struct timeval tv = {0, 3000};
        TIMED("select", 3, select(0, NULL, NULL, NULL, &tv), result_ == 0);
        TIMED("sigtimedwait", 3, sigtimedwait(&usr2, NULL, &(struct timespec){0, 3000000}),
              result_ < 0 && error_ == EAGAIN);
    }
    CHECK(write(pipe_fds[1], "x", 1) == 1, "can't write to the pipe");
    pthread_join(read_thread, NULL);

    // The program's own signals interrupt as they always did.
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = count;
    sigaction(SIGALRM, &action, NULL);
    struct itimerval once = {{0, 0}, {0, 200000}};
    setitimer(ITIMER_REAL, &once, NULL);
    const int paused = pause();
    CHECK(paused == -1 && errno == EINTR && handled[SIGALRM], "pause: %d, SIGALRM handled %d times", paused,
          (int)handled[SIGALRM]);
}

// ---- handlers ----

static void run_handlers(void)
{
    const int ours = quorvex_sampler_signal();

    struct sigaction action, seen;
    memset(&action, 0, sizeof action);
    action.sa_handler = count;
    sigaction(SIGUSR1, &action, NULL);
    sigaction(SIGUSR1, NULL, &seen);
    CHECK(seen.sa_handler == count && !(seen.sa_flags & SA_SIGINFO), "SIGUSR1's handler reads back changed");
    CHECK(signal(SIGUSR2, count) == SIG_DFL, "signal() didn't give back the default action");

    sigset_t usr2, mask;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    sigprocmask(SIG_BLOCK, &usr2, NULL);
    burn_ms(600);
    sigprocmask(SIG_BLOCK, NULL, &mask);
    CHECK(sigismember(&mask, SIGUSR2) == 1, "SIGUSR2 is no longer blocked");
    CHECK(sigismember(&mask, ours) == 0, "the mask gained the sampler's signal");
    raise(SIGUSR2);
    CHECK(handled[SIGUSR2] == 0, "a blocked SIGUSR2 was handled");
    sigprocmask(SIG_UNBLOCK, &usr2, NULL);
    CHECK(handled[SIGUSR2] == 1, "SIGUSR2 was handled %d times after unblocking", (int)handled[SIGUSR2]);

    // Waiting for every signal, with all blocked, hands out the program's
    // own and none of the sampler's, which keep coming meanwhile.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
    const int none = sigtimedwait(&all, NULL, &(struct timespec){0, 100000000});
    CHECK(none == -1 && errno == EAGAIN, "sigtimedwait for every signal got %d (%s)", none, strerror(errno));
    raise(SIGUSR1);
    const int got = sigwaitinfo(&all, NULL);
    CHECK(got == SIGUSR1 && handled[SIGUSR1] == 0, "sigwaitinfo got signal %d, the handler ran %d times", got,
          (int)handled[SIGUSR1]);
    pthread_sigmask(SIG_SETMASK, &saved, NULL);

    // The program's own handler for the sampler's signal.
    CHECK(sigaction(ours, &action, NULL) == 0, "can't set a handler for signal %d", ours);
    raise(ours);
    burn_ms(300);
    CHECK(handled[ours] == 1, "the program's handler for signal %d ran %d times", ours, (int)handled[ours]);

    // A one-shot handler falls back to the default once it has run.
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGWINCH, &action, NULL);
    raise(SIGWINCH);
    sigaction(SIGWINCH, NULL, &seen);
    CHECK(handled[SIGWINCH] == 1 && seen.sa_handler == SIG_DFL, "SA_RESETHAND: ran %d times, then %s",
          (int)handled[SIGWINCH], seen.sa_handler == SIG_DFL ? "default" : "not default");
}

// ---- fork ----

static void run_fork(const char* running)
{
    burn_ms(300);
    for (int execs = 0; execs < 2; ++execs) {
        const pid_t child = fork();
        if (child == 0 && execs) {
            execl("/bin/true", "true", (char*)NULL);
            _exit(127);
        }
        if (child == 0) {
            burn_ms(300);
            exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "child %d ended badly", execs);
        CHECK(exists(running), "%s is gone after child %d", running, execs);
    }
    burn_ms(300);
}

// ---- threads ----

#define THREADS 200
#define AT_ONCE 8

static volatile int finished;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void* short_thread(void* argument)
{
    const long n = (long)(intptr_t)argument;
    burn_ms(2 + n % 5);
    pthread_mutex_lock(&lock);
    ++finished;
    pthread_mutex_unlock(&lock);
    if (n % 4 == 1)
        pthread_exit(NULL);
    while (n % 4 == 2) /* waits to be cancelled */
        pthread_testcancel();
    return NULL;
}

static int open_descriptors(void)
{
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    for (struct dirent* entry; dir && (entry = readdir(dir));)
        count += entry->d_name[0] != '.';
    if (dir)
        closedir(dir);
    return count;
}

static void run_threads(void)
{
    const int descriptors = open_descriptors();
    for (int started = 0; started < THREADS;) {
        pthread_t batch[AT_ONCE];
        const int first = started;
        for (; started < first + AT_ONCE && started < THREADS; ++started) {
            if (pthread_create(&batch[started - first], NULL, short_thread, (void*)(intptr_t)started) != 0) {
                CHECK(0, "pthread_create failed");
                return;
            }
        }
        for (int n = first; n < started; ++n) {
            if (n % 4 == 2) {
                nanosleep(&(struct timespec){0, 8000000}, NULL);
                pthread_cancel(batch[n - first]);
            }
            if (n % 4 == 3)
                pthread_detach(batch[n - first]);
            else
                pthread_join(batch[n - first], NULL);
        }
    }
    // The detached ones may still be running; one that never gets to the
    // end shows in the count.
    int done = 0;
    for (int waited = 0; waited < 10000 && done < THREADS; ++waited) {
        nanosleep(&(struct timespec){0, 1000000}, NULL);
        pthread_mutex_lock(&lock);
        done = finished;
        pthread_mutex_unlock(&lock);
    }
    printf("done %d\n", done);
    // What the sampler opens for a thread goes with it; a detached one may
    // still be on its way out.
    int more = open_descriptors() - descriptors;
    for (int waited = 0; waited < 1000 && more > 0; ++waited) {
        nanosleep(&(struct timespec){0, 1000000}, NULL);
        more = open_descriptors() - descriptors;
    }
    printf("descriptors %+d\n", more);
}

// ---- stop, stop-offset ----

// Works for 500 ms, reading back all it writes, for the I/O metrics.
static void work_with_io(void)
{
    char buffer[4096] = {0};
    for (const int64_t end = now_ns() + 500000000LL; now_ns() < end;) {
        burn_ms(5);
        FILE* f = tmpfile();
        CHECK(f && fwrite(buffer, 1, sizeof buffer, f) == sizeof buffer && fseek(f, 0, SEEK_SET) == 0
                  && fread(buffer, 1, sizeof buffer, f) == sizeof buffer,
              "can't write and read back a temporary file");
        if (f)
            fclose(f);
    }
}

static void write_file(const char* path, const char* text)
{
    FILE* f = fopen(path, "w");
    CHECK(f && fputs(text, f) >= 0 && fclose(f) == 0, "can't write %s", path);
}

// Refusals come with a code and a reason.
static void refused(int code, int samples, int interval, const char* path, const char* reason)
{
    const int got = quorvex_init_sampler_now(samples, interval, path, 1, 0, 0);
    CHECK(got == code && quorvex_sampler_error[0] && strstr(quorvex_sampler_error, reason),
          "arming with %d, %d, %s: code %d: %s", samples, interval, path, got, quorvex_sampler_error);
}

static void run_control(const char* path, int stop_self)
{
    char running[4096], bad[4096];
    snprintf(running, sizeof running, "%s.running", path);
    snprintf(bad, sizeof bad, "%s.bad", path);

    CHECK(quorvex_sampler_version() == 700, "version %d", quorvex_sampler_version());
    // As a debugger does with main: backtraces end in the function that arms.
    const unsigned long boundary = (unsigned long)__builtin_return_address(0);
    CHECK(quorvex_set_boundary_frame_ip(boundary) == 0, "the boundary was refused");
    printf("boundary %lx\n", boundary);
    CHECK(quorvex_set_GPUProfiler_configuration(0, 0) == 0, "no GPU profiling was refused");
    CHECK(quorvex_ui_stop_sampling() == 7, "stopping before arming didn't say so");

    refused(2, 0, 20, path, "");
    refused(2, 100, 0, path, "");
    write_file(bad, "hello\n");
    refused(3, 100, 20, bad, "not a sampler configuration");
    refused(3, 100, 20, "/nonexistent/zor-config", "");
    CHECK(!exists(running), "a refusal left %s", running);
    write_file(running, "left over\n");
    refused(5, 100, 20, path, running);
    unlink(running);

    const int armed = quorvex_init_sampler_now(1000, 2, path, 1, 0, stop_self ? 300 : 0);
    CHECK(armed == 0, "arming gave %d: %s", armed, quorvex_sampler_error);
    CHECK(exists(running), "%s wasn't created at arming", running);
    refused(1, 1000, 2, path, "");

    work_with_io();
    if (stop_self) {
        CHECK(!exists(running), "the sampler didn't stop by itself");
    } else {
        CHECK(exists(running), "%s went away while sampling", running);
        quorvex_sampling_finished = 1;
        CHECK(quorvex_ui_stop_sampling() == 0, "stopping failed: %s", quorvex_sampler_error);
        CHECK(!exists(running), "%s is still there after the stop", running);
        CHECK(quorvex_ui_stop_sampling() == 0, "stopping twice failed");
    }
}

// ---- lockstep ----

// Rounds of exactly 1 ms of the thread's CPU time, each ending where the
// schedule says (no drift from round to round): 0.5 ms in lockstep_a, 0.3 in
// lockstep_b, 0.2 in lockstep_c. A sampler that fires at every millisecond
// of the thread's CPU time finds the same function each time.
static void spin_until(int64_t end)
{
    uint64_t x = sink;
    while (clock_ns(CLOCK_THREAD_CPUTIME_ID) < end)
        for (int i = 0; i < 50; ++i)
            x = x * 6364136223846793005ULL + 1;
    sink = x;
}

__attribute__((noinline)) void lockstep_a(int64_t end)
{
    spin_until(end);
}

__attribute__((noinline)) void lockstep_b(int64_t end)
{
    spin_until(end);
}

__attribute__((noinline)) void lockstep_c(int64_t end)
{
    spin_until(end);
}

static void* lockstep_worker(void* rounds)
{
    const int64_t start = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    for (long r = 0; r < (long)(intptr_t)rounds; ++r) {
        const int64_t round = start + r * 1000000;
        lockstep_a(round + 500000);
        lockstep_b(round + 800000);
        lockstep_c(round + 1000000);
    }
    return NULL;
}

static void run_lockstep(void)
{
    pthread_t worker;
    CHECK(pthread_create(&worker, NULL, lockstep_worker, (void*)(intptr_t)2000) == 0, "pthread_create failed");
    pthread_join(worker, NULL);
}

// ---- short threads ----

// 2,000 threads, four at a time, of 0.3 ms of CPU time each: far shorter
// than the interval. Prints the CPU time that they took together.
static _Atomic int64_t short_total;

__attribute__((noinline)) void short_work(int64_t end)
{
    spin_until(end);
}

static void* brief_thread(void* unused)
{
    const int64_t start = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    short_work(start + 300000);
    short_total += clock_ns(CLOCK_THREAD_CPUTIME_ID) - start;
    return unused;
}

static void run_short_threads(void)
{
    for (int i = 0; i < 2000; i += 4) {
        pthread_t t[4];
        for (int k = 0; k < 4; ++k)
            CHECK(pthread_create(&t[k], NULL, brief_thread, NULL) == 0, "pthread_create failed");
        for (int k = 0; k < 4; ++k)
            pthread_join(t[k], NULL);
    }
    printf("short threads %.6f s\n", (double)short_total / 1e9);
}

// ---- reopen ----

// As a daemon does: every descriptor above the standard ones closed, then
// files opened, which take the lowest numbers, while a worker is sampled.
// Each file must hold what was written to it, and nothing else.
static void* burning_worker(void* unused)
{
    burn_cpu_ms(400);
    return unused;
}

static void run_reopen(const char* dir)
{
    for (int fd = 3; fd < 1024; ++fd)
        close(fd);
    int fds[8];
    for (int i = 0; i < 8; ++i) {
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/file%d", dir, i);
        fds[i] = open(path, O_CREAT | O_TRUNC | O_RDWR, 0600);
        CHECK(fds[i] >= 0, "can't open %s", path);
    }
    pthread_t worker;
    CHECK(pthread_create(&worker, NULL, burning_worker, NULL) == 0, "pthread_create failed");
    burn_cpu_ms(400);
    pthread_join(worker, NULL);
    int whole = 0;
    for (int i = 0; i < 8; ++i) {
        struct stat st;
        whole += write(fds[i], "hello\n", 6) == 6 && fstat(fds[i], &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 6;
    }
    printf("files whole: %d of 8\n", whole);
}

// ---- die ----

static void* busy_worker(void* unused)
{
    for (;;)
        burn_ms(10);
    return unused;
}

static void run_die(const char* how)
{
    pthread_t worker;
    if (pthread_create(&worker, NULL, busy_worker, NULL) != 0) {
        CHECK(0, "can't start the worker");
        return;
    }
    // Said first: a signal sent from outside may come before the burn ends
    // on a busy machine.
    printf("dying\n");
    fflush(stdout);
    burn_ms(300);
    static int* volatile nowhere;
    if (strcmp(how, "segv") == 0)
        *nowhere = 1;
    else if (strcmp(how, "abort") == 0)
        abort();
    else
        burn_ms(30000);
    CHECK(0, "still alive");
}

// ---- the Go runtime's exit ----

// Go programs end through a routine of the Go runtime's that makes the exit
// system call itself, past the C library. Its name and bytes, in a program
// marked as the Go linker marks a Go program.
__attribute__((section(".go.buildinfo"), used)) static const char go_build_info[16] = "\xff Go buildinf:";
__asm__(".text\n"
        ".globl runtime.exit.abi0\n"
        ".type runtime.exit.abi0,@function\n"
        "runtime.exit.abi0:\n"
        "    movl 8(%rsp), %edi\n"
        "    movl $231, %eax\n"
        "    syscall\n"
        "    ret\n"
        ".size runtime.exit.abi0, .-runtime.exit.abi0\n");

static void run_go_exit(void)
{
    pthread_t worker;
    CHECK(pthread_create(&worker, NULL, busy_worker, NULL) == 0, "can't start the worker");
    printf("leaving\n");
    fflush(stdout);
    burn_ms(300);
    // Called as Go calls it: the status on the stack, above the return address.
    __asm__ volatile("subq $16, %%rsp\n"
                     "movl %0, (%%rsp)\n"
                     "call runtime.exit.abi0\n"
                     :
                     : "r"(7)
                     : "memory");
}

// ---- masks ----

static int blocks(int sig)
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, NULL, &mask);
    return sigismember(&mask, sig) == 1;
}

static void* masked_worker(void* unused)
{
    CHECK(blocks(SIGRTMAX - 3) && blocks(SIGUSR1), "the worker's mask isn't the one it was made with");
    burn_ms(600);
    return unused;
}

static void run_masked(void)
{
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pthread_t workers[2];
    for (int i = 0; i < 2; ++i)
        CHECK(pthread_create(&workers[i], NULL, masked_worker, NULL) == 0, "can't start a worker");
    CHECK(blocks(SIGRTMAX - 3), "the main thread's mask isn't the one it set");
    pthread_sigmask(SIG_SETMASK, &saved, NULL);
    for (int i = 0; i < 2; ++i)
        pthread_join(workers[i], NULL);
}

static void* signalling_worker(void* unused)
{
    burn_ms(400);
    kill(getpid(), SIGUSR1);
    burn_ms(400);
    kill(getpid(), SIGUSR2);
    return unused;
}

static void run_sigwait(void)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, NULL);
    pthread_t worker;
    CHECK(pthread_create(&worker, NULL, signalling_worker, NULL) == 0, "can't start the worker");
    int sig = 0;
    CHECK(sigwait(&all, &sig) == 0 && sig == SIGUSR1, "sigwait gave %d", sig);
    const int fd = signalfd(-1, &all, SFD_CLOEXEC);
    struct signalfd_siginfo info;
    CHECK(fd >= 0 && read(fd, &info, sizeof info) == sizeof info && info.ssi_signo == SIGUSR2,
          "the signalfd gave %u", info.ssi_signo);
    close(fd);
    pthread_join(worker, NULL);
}

static pthread_t main_exit_workers[2];

static void* main_exit_worker(void* argument)
{
    burn_ms(600);
    if (argument) {
        pthread_join(main_exit_workers[0], NULL);
        if (failures == 0)
            printf("ok\n");
        exit(failures != 0);
    }
    return NULL;
}

static void run_main_exit(void)
{
    for (int i = 0; i < 2; ++i)
        CHECK(pthread_create(&main_exit_workers[i], NULL, main_exit_worker, i ? &main_exit_workers : NULL) == 0,
              "can't start a worker");
    burn_ms(50);
    pthread_exit(NULL);
}

// ---- exec and children ----

static const char self[] = "/proc/self/exe";

static void run_exec(void)
{
    burn_cpu_ms(200);
    execl(self, self, "exec-done", (char*)NULL);
    CHECK(0, "exec failed: %s", strerror(errno));
}

static void run_fork_children(void)
{
    pid_t children[2];
    for (int i = 0; i < 2; ++i) {
        children[i] = fork();
        if (children[i] == 0) {
            burn_cpu_ms(200);
            if (i)
                exit(0);
            _exit(0);
        }
    }
    for (int i = 0; i < 2; ++i) {
        int status = 1;
        waitpid(children[i], &status, 0);
        CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "child %d ended badly", i);
    }
}

static void run_children(void)
{
    burn_ms(100);
    for (int i = 0; i < 2; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            execl(self, self, "quiet-busy", (char*)NULL);
            _exit(127);
        }
        int status = 1;
        waitpid(child, &status, 0);
        CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "child %d ended badly", i);
    }
    extern char** environ;
    char* argv[] = {(char*)self, (char*)"quiet-busy", NULL};
    pid_t spawned;
    int status = 1;
    CHECK(posix_spawn(&spawned, self, NULL, NULL, argv, environ) == 0 && waitpid(spawned, &status, 0) == spawned
              && WIFEXITED(status) && WEXITSTATUS(status) == 0,
          "the spawned program failed");
    if (fork() == 0) {
        usleep(300000);
        execl(self, self, "quiet-busy", (char*)NULL);
        _exit(127);
    }
    burn_ms(100);

    // The C library spawns the shell of system and popen without passing
    // through the sampler's exec; they start after this process has stopped
    // sampling, when nothing stands in the way of a claim on its file.
    CHECK(quorvex_ui_stop_sampling() == 0, "can't stop sampling");
    char path[PATH_MAX] = "";
    char command[PATH_MAX + 32];
    CHECK(readlink(self, path, sizeof path - 1) > 0, "can't read %s", self);
    snprintf(command, sizeof command, "'%s' quiet-busy", path);
    CHECK(system(command) == 0, "system failed");
    FILE* pipe = popen(command, "r");
    CHECK(pipe && fgetc(pipe) == EOF && pclose(pipe) == 0, "popen failed");
}

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "";
    if (argc == 2 && strcmp(mode, "eintr") == 0)
        run_eintr();
    else if (argc == 2 && strcmp(mode, "handlers") == 0)
        run_handlers();
    else if (argc == 3 && strcmp(mode, "fork") == 0)
        run_fork(argv[2]);
    else if (argc == 2 && strcmp(mode, "threads") == 0)
        run_threads();
    else if (argc == 3 && (strcmp(mode, "stop") == 0 || strcmp(mode, "stop-offset") == 0))
        run_control(argv[2], strcmp(mode, "stop-offset") == 0);
    else if (argc == 3 && strcmp(mode, "die") == 0)
        run_die(argv[2]);
    else if (argc == 2 && strcmp(mode, "go-exit") == 0)
        run_go_exit();
    else if (argc == 2 && strcmp(mode, "masked") == 0)
        run_masked();
    else if (argc == 2 && strcmp(mode, "sigwait") == 0)
        run_sigwait();
    else if (argc == 3 && strcmp(mode, "reopen") == 0)
        run_reopen(argv[2]);
    else if (argc == 2 && strcmp(mode, "short-threads") == 0)
        run_short_threads();
    else if (argc == 2 && strcmp(mode, "lockstep") == 0)
        run_lockstep();
    else if (argc == 2 && strcmp(mode, "main-exit") == 0)
        run_main_exit();
    else if (argc == 2 && strcmp(mode, "exec") == 0)
        run_exec();
    else if (argc == 2 && strcmp(mode, "exec-done") == 0) {
        // An object loaded during the run, for the module list.
        CHECK(dlopen("libz.so.1", RTLD_NOW) != NULL, "can't load libz: %s", dlerror());
        burn_cpu_ms(100);
        // And one gone again before the end, as an MPI library's components go.
        void* passing = dlopen("libBrokenLocale.so.1", RTLD_NOW);
        CHECK(passing != NULL, "can't load libBrokenLocale: %s", dlerror());
        CHECK(dlclose(passing) == 0, "can't unload libBrokenLocale: %s", dlerror());
        burn_cpu_ms(100);
    }
    else if (argc == 2 && strcmp(mode, "fork-children") == 0)
        run_fork_children();
    else if (argc == 2 && strcmp(mode, "children") == 0)
        run_children();
    else if (argc == 2 && strcmp(mode, "quiet-busy") == 0) {
        burn_ms(100);
        return 0;
    }
    else {
        fprintf(stderr, "usage: target eintr | handlers | fork RUNNING | threads | stop PATH | stop-offset PATH"
                        " | die segv|abort|wait | go-exit | masked | sigwait | lockstep | main-exit | exec | fork-children | children\n");
        return 2;
    }
    if (failures == 0)
        printf("ok\n");
    return failures != 0;
}
