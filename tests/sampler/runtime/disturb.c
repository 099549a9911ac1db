/* Checks, from inside a sampled program, that sampling doesn't disturb it.
 * Each mode prints "ok" and exits 0, or prints what went wrong and exits 1.
 *
 *   disturb eintr      sleeps, waits and blocking reads of the main thread
 *                      and a worker come back whole, never with EINTR,
 *                      while the program's own signals still interrupt
 *   disturb handlers   the program's handlers, masks and sigwait see what
 *                      they would see without the sampler
 *   disturb fork PATH  children made by fork, one of them exec'ing, leave
 *                      PATH (the parent's ".running") alone */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/select.h>
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

static void burn_ms(int ms)
{
    const int64_t end = now_ns() + (int64_t)ms * 1000000;
    uint64_t x = sink;
    while (now_ns() < end)
        for (int i = 0; i < 2000; ++i)
            x = x * 6364136223846793005ULL + 1;
    sink = x;
}

/* ---- eintr ---- */

static volatile sig_atomic_t alarm_seen;
static volatile sig_atomic_t usr1_seen;

static void on_alarm(int sig)
{
    (void)sig;
    alarm_seen = 1;
}

static void on_usr1(int sig)
{
    (void)sig;
    usr1_seen = 1;
}

/* Each call must take its whole time and succeed. */
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

static void* reader(void* argument)
{
    (void)argument;
    char byte = 0;
    const ssize_t n = read(pipe_fds[0], &byte, 1);
    CHECK(n == 1 && byte == 'x', "the worker's read returned %zd (%s)", n, strerror(errno));
    return NULL;
}

static int run_eintr(void)
{
    if (pipe(pipe_fds) != 0)
        return 1;
    pthread_t read_thread;
    const int64_t end = now_ns() + 1500000000LL;
    pthread_create(&read_thread, NULL, reader, NULL);

    const int epfd = epoll_create1(0);
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    sigprocmask(SIG_BLOCK, &usr2, NULL);
    while (now_ns() < end) {
        TIMED("nanosleep", 3, nanosleep(&(struct timespec){0, 3000000}, NULL), result_ == 0);
        TIMED("clock_nanosleep", 3, clock_nanosleep(CLOCK_MONOTONIC, 0, &(struct timespec){0, 3000000}, NULL),
              result_ == 0);
        TIMED("usleep", 2, usleep(2000), result_ == 0);
        TIMED("poll", 3, poll(NULL, 0, 3), result_ == 0);
        struct timeval tv = {0, 3000};
        TIMED("select", 3, select(0, NULL, NULL, NULL, &tv), result_ == 0);
        struct epoll_event event;
        TIMED("epoll_wait", 3, epoll_wait(epfd, &event, 1, 3), result_ == 0);
        TIMED("sigtimedwait", 3, sigtimedwait(&usr2, NULL, &(struct timespec){0, 3000000}),
              result_ < 0 && error_ == EAGAIN);
    }
    if (write(pipe_fds[1], "x", 1) != 1)
        return 1;
    pthread_join(read_thread, NULL);

    /* The program's own signals interrupt as they always did. */
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_alarm;
    sigaction(SIGALRM, &action, NULL);
    struct itimerval once = {{0, 0}, {0, 200000}};
    setitimer(ITIMER_REAL, &once, NULL);
    const int paused = pause();
    CHECK(paused == -1 && errno == EINTR && alarm_seen, "pause: %d, alarm seen %d", paused, (int)alarm_seen);

    action.sa_handler = on_usr1;
    sigaction(SIGUSR1, &action, NULL);
    sigset_t blocked, during;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigprocmask(SIG_BLOCK, &blocked, NULL);
    sigprocmask(SIG_BLOCK, NULL, &during);
    sigdelset(&during, SIGUSR1);
    /* SIGUSR1 arrives 200 ms into the wait, from a timer of our own. */
    timer_t timer;
    struct sigevent event;
    memset(&event, 0, sizeof event);
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    timer_create(CLOCK_MONOTONIC, &event, &timer);
    struct itimerspec in200 = {{0, 0}, {0, 200000000}};
    timer_settime(timer, 0, &in200, NULL);
    const int64_t before = now_ns();
    const int suspended = sigsuspend(&during);
    CHECK(suspended == -1 && errno == EINTR && usr1_seen && now_ns() - before > 150000000,
          "sigsuspend: %d, SIGUSR1 seen %d after %lld ns", suspended, (int)usr1_seen, (long long)(now_ns() - before));
    return 0;
}

/* ---- handlers ---- */

static volatile sig_atomic_t usr1_count, usr2_count, own_count, once_count;

static void count_usr1(int sig, siginfo_t* info, void* context)
{
    (void)sig;
    (void)info;
    (void)context;
    ++usr1_count;
}

static void count_usr2(int sig)
{
    (void)sig;
    ++usr2_count;
}

static void count_own(int sig)
{
    (void)sig;
    ++own_count;
}

static void count_once(int sig)
{
    (void)sig;
    ++once_count;
}

static volatile int waiter_got;

static void* waiter(void* argument)
{
    (void)argument;
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, NULL);
    siginfo_t info;
    waiter_got = sigwaitinfo(&all, &info);
    return NULL;
}

static int run_handlers(void)
{
    int (*sampler_signal)(void) = (int (*)(void))dlsym(RTLD_DEFAULT, "quorvex_sampler_signal");
    CHECK(sampler_signal != NULL, "the sampler isn't loaded");
    if (!sampler_signal)
        return 1;
    const int ours = sampler_signal();

    struct sigaction action, seen;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = count_usr1;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &action, NULL);
    sigaction(SIGUSR1, NULL, &seen);
    CHECK(seen.sa_sigaction == count_usr1 && (seen.sa_flags & SA_SIGINFO), "SIGUSR1's handler reads back changed");
    CHECK(signal(SIGUSR2, count_usr2) == SIG_DFL, "signal() didn't give back the default action");
    sigaction(SIGUSR2, NULL, &seen);
    CHECK(seen.sa_handler == count_usr2, "SIGUSR2's handler reads back changed");

    pthread_t waiting;
    pthread_create(&waiting, NULL, waiter, NULL);

    sigset_t usr2, mask;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    sigprocmask(SIG_BLOCK, &usr2, NULL);
    burn_ms(600);
    sigprocmask(SIG_BLOCK, NULL, &mask);
    CHECK(sigismember(&mask, SIGUSR2) == 1, "SIGUSR2 is no longer blocked");
    CHECK(sigismember(&mask, ours) == 0, "the mask gained the sampler's signal");
    raise(SIGUSR2);
    CHECK(usr2_count == 0, "a blocked SIGUSR2 was handled");
    sigprocmask(SIG_UNBLOCK, &usr2, NULL);
    CHECK(usr2_count == 1, "SIGUSR2 was handled %d times after unblocking", (int)usr2_count);

    /* A thread that blocks everything and waits for signals gets only what
     * the program sends it. */
    pthread_kill(waiting, SIGUSR1);
    pthread_join(waiting, NULL);
    CHECK(waiter_got == SIGUSR1, "sigwaitinfo got signal %d", waiter_got);
    CHECK(usr1_count == 0, "SIGUSR1 reached the handler as well");

    /* The program's own handler for the sampler's signal. */
    struct sigaction own;
    memset(&own, 0, sizeof own);
    own.sa_handler = count_own;
    CHECK(sigaction(ours, &own, NULL) == 0, "can't set a handler for signal %d", ours);
    sigaction(ours, NULL, &seen);
    CHECK(seen.sa_handler == count_own, "the handler for signal %d reads back changed", ours);
    raise(ours);
    burn_ms(300);
    CHECK(own_count == 1, "the program's handler for signal %d ran %d times", ours, (int)own_count);

    /* A one-shot handler falls back to the default once it has run. */
    memset(&action, 0, sizeof action);
    action.sa_handler = count_once;
    action.sa_flags = SA_RESETHAND;
    sigaction(SIGWINCH, &action, NULL);
    raise(SIGWINCH);
    sigaction(SIGWINCH, NULL, &seen);
    CHECK(once_count == 1 && seen.sa_handler == SIG_DFL, "SA_RESETHAND: ran %d times, then %s", (int)once_count,
          seen.sa_handler == SIG_DFL ? "default" : "not default");
    return 0;
}

/* ---- fork ---- */

static int run_fork(const char* running)
{
    burn_ms(300);
    const pid_t child = fork();
    if (child == 0) {
        burn_ms(300);
        exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the child ended badly");
    CHECK(access(running, F_OK) == 0, "%s is gone after the child's exit", running);

    const pid_t execer = fork();
    if (execer == 0) {
        execl("/bin/true", "true", (char*)NULL);
        _exit(127);
    }
    waitpid(execer, &status, 0);
    CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the exec'ing child ended badly");
    CHECK(access(running, F_OK) == 0, "%s is gone after the exec'ing child", running);

    burn_ms(300);
    printf("children %d %d\n", (int)child, (int)execer);
    return 0;
}

int main(int argc, char** argv)
{
    int result = 1;
    if (argc == 2 && strcmp(argv[1], "eintr") == 0)
        result = run_eintr();
    else if (argc == 2 && strcmp(argv[1], "handlers") == 0)
        result = run_handlers();
    else if (argc == 3 && strcmp(argv[1], "fork") == 0)
        result = run_fork(argv[2]);
    else
        fprintf(stderr, "usage: disturb eintr | handlers | fork RUNNING-FILE\n");
    if (result == 0 && failures == 0)
        printf("ok\n");
    return result != 0 || failures != 0;
}
