/* The C library functions that the sampler stands in front of, so that
 * sampling doesn't disturb the program:
 * - thread creation, so that every thread is known and can be sampled;
 * - sigaction, signal and the mask functions, so that the program's own
 *   handlers and masks stay as it set them;
 * - the calls that a signal handler interrupts with EINTR whatever
 *   SA_RESTART says (sleeps, waits for signals, fd multiplexing, System V
 *   IPC): when only the sampler's handler ran during the call, the call is
 *   made again for the time that is left, and the program never sees the
 *   interruption. A handler of the program's own still ends the call as
 *   usual;
 * - sigwait and friends, which hand out no instance of the sampler's
 *   signal;
 * - _exit and _Exit, which write the results first, as exit does;
 * - dlclose, so that an object loaded and unloaded during the run (an MPI
 *   library's components) is still in the module list at the end;
 * - pipe and pipe2, for libunwind's pipe (below);
 * - mmap, so that code mapped from a file away from its loaded place is
 *   known at the end even when it is gone by then.
 * Calls made inside the C library itself don't pass through here. */
#define _GNU_SOURCE
#include "clock.h"
#include "runtime.h"

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/msg.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <fcntl.h>
#include <sys/resource.h>

#define ZS_EXPORT __attribute__((visibility("default")))

/* Every function stood in front of. */
#define ZS_FOR_EACH_REAL(X) \
    X(pthread_create) X(sigaction) X(pthread_sigmask) X(sigprocmask) X(_exit) X(_Exit) X(nanosleep) \
    X(clock_nanosleep) X(pause) X(sigsuspend) X(sigtimedwait) X(poll) X(ppoll) X(select) X(pselect) \
    X(epoll_wait) X(epoll_pwait) X(msgsnd) X(msgrcv) X(semop) X(semtimedop) X(signalfd) X(pthread_exit) \
    X(execve) X(execvpe) X(fexecve) X(posix_spawn) X(posix_spawnp) X(dlclose) X(pipe) X(pipe2)

/* The next definition of each after this library. */
#define ZS_DECLARE_REAL(name) static __typeof__(&name) real_##name;
ZS_FOR_EACH_REAL(ZS_DECLARE_REAL)

#define ZS_RESOLVE_REAL(name) \
    if (!real_##name) \
        real_##name = (__typeof__(&name))dlsym(RTLD_NEXT, #name);

/* Looked up when the library is loaded, so that no handler ever has to:
 * dlsym takes the loader's lock. The look-up on use is for calls that come
 * before the library's constructor. */
__attribute__((constructor(101))) static void resolve_real_functions(void)
{
    ZS_FOR_EACH_REAL(ZS_RESOLVE_REAL)
}

#define ZS_REAL(name) ZS_RESOLVE_REAL(name)

/* Taken before the call; tells afterwards whether only the sampler's
 * handler ran on this thread meanwhile. */
typedef struct
{
    unsigned int ours;
    unsigned int theirs;
} handler_counts;

static handler_counts count_handlers(void)
{
    handler_counts counts = {zs_our_signal_count, zs_target_signal_count};
    return counts;
}

static int only_ours_ran(handler_counts before)
{
    return zs_target_signal_count == before.theirs && zs_our_signal_count != before.ours;
}

/* Milliseconds left, rounded up so that a wait never ends early. */
static int ms_left(struct timespec deadline)
{
    struct timespec left = zs_time_left(deadline);
    long long ms = (long long)left.tv_sec * 1000 + (left.tv_nsec + 999999) / 1000000;
    return ms > 0x7fffffff ? 0x7fffffff : (int)ms;
}

/* The timeout for the next attempt of a call given `timeout`: what is left
 * until `deadline`, or null (wait for ever) when there was none. */
static const struct timespec* remaining(const struct timespec* timeout, struct timespec deadline,
                                        struct timespec* left)
{
    if (!timeout)
        return NULL;
    *left = zs_time_left(deadline);
    return left;
}

/* Makes `call` again for as long as it fails with EINTR only because the
 * sampler's own handler ran, leaving errno as the program had it; `again`
 * runs before each new attempt. Any other result goes back to the program. */
#define ZS_RETRY_WHILE_OURS(type, call, again)                              \
    for (;;) {                                                              \
        const handler_counts before_ = count_handlers();                    \
        const int saved_errno_ = errno;                                     \
        const type result_ = (call);                                        \
        if (result_ < 0 && errno == EINTR && only_ours_ran(before_)) {      \
            errno = saved_errno_;                                           \
            again;                                                          \
            continue;                                                       \
        }                                                                   \
        return result_;                                                     \
    }

/* ---- the sampler's signal kept out of every mask and wait ---- */

ZS_TLS int zs_program_blocks_ours;
ZS_TLS int zs_readying_unwinder;

/* `set`, or a copy of it without the sampler's signal when it names it. */
static const sigset_t* without_ours(const sigset_t* set, sigset_t* copy)
{
    if (!set || sigismember(set, zs_sampler_signal()) != 1)
        return set;
    *copy = *set;
    sigdelset(copy, zs_sampler_signal());
    return copy;
}

/* A mask change of the program's: the sampler's signal stays unblocked,
 * and the program is told the mask it would have had. `set` and `old` may
 * be the same. */
static int change_mask(int (*real)(int, const sigset_t*, sigset_t*), int how, const sigset_t* set, sigset_t* old)
{
    if (zs_in_sampler_handler())
        return real(how, set, old);
    const int names_ours = set && sigismember(set, zs_sampler_signal()) == 1;
    const int believed = zs_program_blocks_ours;
    sigset_t copy;
    const int result = real(how, without_ours(set, &copy), old);
    /* sigprocmask answers -1 and errno, pthread_sigmask the error. */
    if (result != 0)
        return result;
    if (old && believed)
        sigaddset(old, zs_sampler_signal());
    if (set) {
        if (how == SIG_SETMASK)
            zs_program_blocks_ours = names_ours;
        else if (how == SIG_BLOCK && names_ours)
            zs_program_blocks_ours = 1;
        else if (how == SIG_UNBLOCK && names_ours)
            zs_program_blocks_ours = 0;
    }
    return result;
}

void zs_unblock_ours(void)
{
    sigset_t ours;
    sigemptyset(&ours);
    sigaddset(&ours, zs_sampler_signal());
    zs_real_pthread_sigmask(SIG_UNBLOCK, &ours, NULL);
}

/* ---- the functions the rest of the sampler calls directly ---- */

int zs_real_sigaction(int sig, const struct sigaction* act, struct sigaction* old)
{
    ZS_REAL(sigaction);
    return real_sigaction(sig, act, old);
}

int zs_real_pthread_sigmask(int how, const sigset_t* set, sigset_t* old)
{
    ZS_REAL(pthread_sigmask);
    return real_pthread_sigmask(how, set, old);
}

int zs_real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    ZS_REAL(pthread_create);
    return real_pthread_create(thread, attr, start, arg);
}

int zs_real_nanosleep(const struct timespec* req, struct timespec* rem)
{
    ZS_REAL(nanosleep);
    return real_nanosleep(req, rem);
}

/* ---- threads, dispositions, masks ---- */

ZS_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    return zs_pthread_create(thread, attr, start, arg);
}

ZS_EXPORT int sigaction(int sig, const struct sigaction* act, struct sigaction* old)
{
    return zs_sigaction(sig, act, old);
}

/* BSD semantics, as the C library's own signal(): the signal is blocked
 * while its handler runs, and interrupted calls restart. */
ZS_EXPORT sighandler_t signal(int sig, sighandler_t handler)
{
    struct sigaction act;
    struct sigaction old;
    memset(&act, 0, sizeof act);
    act.sa_handler = handler;
    sigemptyset(&act.sa_mask);
    if (sig > 0 && sig < NSIG)
        sigaddset(&act.sa_mask, sig);
    act.sa_flags = SA_RESTART;
    if (zs_sigaction(sig, &act, &old) < 0)
        return SIG_ERR;
    return old.sa_handler;
}

ZS_EXPORT int pthread_sigmask(int how, const sigset_t* set, sigset_t* old)
{
    ZS_REAL(pthread_sigmask);
    return change_mask(real_pthread_sigmask, how, set, old);
}

ZS_EXPORT int sigprocmask(int how, const sigset_t* set, sigset_t* old)
{
    ZS_REAL(sigprocmask);
    return change_mask(real_sigprocmask, how, set, old);
}

/* A signalfd never takes the sampler's instances away from its handler. */
ZS_EXPORT int signalfd(int fd, const sigset_t* mask, int flags)
{
    ZS_REAL(signalfd);
    sigset_t copy;
    return real_signalfd(fd, without_ours(mask, &copy), flags);
}

ZS_EXPORT void pthread_exit(void* value)
{
    ZS_REAL(pthread_exit);
    zs_before_thread_exit();
    real_pthread_exit(value);
    __builtin_unreachable();
}

ZS_EXPORT int dlclose(void* handle)
{
    ZS_REAL(dlclose);
    zs_before_unload();
    return real_dlclose(handle);
}

/* ---- exec and spawn ----
 * The results are written before an exec, and the program started finds a
 * mark in its environment that says who started it (see process.cpp). The
 * C library's own exec functions call execve without passing through here,
 * so each is stood in front of. */

extern char** environ;

/* Calls `call` with the environment to pass in `env_`, keeping errno. */
#define ZS_WITH_EXEC_ENV(file, search, envp, same, call)                   \
    do {                                                                   \
        char** prepared_ = zs_prepare_exec((file), (search), (envp), (same)); \
        char* const* env_ = prepared_ ? prepared_ : (envp);               \
        const int result_ = (call);                                        \
        const int error_ = errno;                                          \
        free(prepared_);                                                   \
        errno = error_;                                                    \
        return result_;                                                    \
    } while (0)

ZS_EXPORT int execve(const char* path, char* const argv[], char* const envp[])
{
    ZS_REAL(execve);
    ZS_WITH_EXEC_ENV(path, 0, envp, 1, real_execve(path, argv, env_));
}

ZS_EXPORT int execvpe(const char* file, char* const argv[], char* const envp[])
{
    ZS_REAL(execvpe);
    ZS_WITH_EXEC_ENV(file, 1, envp, 1, real_execvpe(file, argv, env_));
}

ZS_EXPORT int execv(const char* path, char* const argv[])
{
    return execve(path, argv, environ);
}

ZS_EXPORT int execvp(const char* file, char* const argv[])
{
    return execvpe(file, argv, environ);
}

ZS_EXPORT int fexecve(int fd, char* const argv[], char* const envp[])
{
    ZS_REAL(fexecve);
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    ZS_WITH_EXEC_ENV(path, 0, envp, 1, real_fexecve(fd, argv, env_));
}

/* The arguments of execl and friends as an array: `first`, then the
 * variadic ones up to the null. */
#define ZS_COLLECT_ARGS(first, last_named, argv)     \
    size_t count_ = 1;                               \
    va_list args_;                                   \
    va_start(args_, last_named);                     \
    while (va_arg(args_, const char*))               \
        ++count_;                                    \
    va_end(args_);                                   \
    char* argv[count_ + 1];                          \
    argv[0] = (char*)(first);                        \
    va_start(args_, last_named);                     \
    for (size_t i_ = 1; i_ <= count_; ++i_)          \
        argv[i_] = va_arg(args_, char*);             \
    char* const* after_ __attribute__((unused)) = va_arg(args_, char* const*); \
    va_end(args_);

ZS_EXPORT int execl(const char* path, const char* arg, ...)
{
    ZS_COLLECT_ARGS(arg, arg, argv)
    return execve(path, argv, environ);
}

ZS_EXPORT int execlp(const char* file, const char* arg, ...)
{
    ZS_COLLECT_ARGS(arg, arg, argv)
    return execvpe(file, argv, environ);
}

ZS_EXPORT int execle(const char* path, const char* arg, ...)
{
    ZS_COLLECT_ARGS(arg, arg, argv)
    return execve(path, argv, after_);
}

ZS_EXPORT int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attr, char* const argv[], char* const envp[])
{
    ZS_REAL(posix_spawn);
    ZS_WITH_EXEC_ENV(path, 0, envp, 0, real_posix_spawn(pid, path, actions, attr, argv, env_));
}

ZS_EXPORT int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attr, char* const argv[], char* const envp[])
{
    ZS_REAL(posix_spawnp);
    ZS_WITH_EXEC_ENV(file, 1, envp, 0, real_posix_spawnp(pid, file, actions, attr, argv, env_));
}

ZS_EXPORT void _exit(int status)
{
    ZS_REAL(_exit);
    zs_before_immediate_exit();
    real__exit(status);
    for (;;)
        syscall(SYS_exit_group, status);
}

ZS_EXPORT void _Exit(int status)
{
    ZS_REAL(_Exit);
    zs_before_immediate_exit();
    real__Exit(status);
    for (;;)
        syscall(SYS_exit_group, status);
}

/* ---- sleeps ---- */

ZS_EXPORT int nanosleep(const struct timespec* req, struct timespec* rem)
{
    ZS_REAL(nanosleep);
    if (!req)
        return real_nanosleep(req, rem);
    struct timespec want = *req;
    struct timespec left;
    for (;;) {
        const handler_counts before = count_handlers();
        const int saved_errno = errno;
        const int result = real_nanosleep(&want, &left);
        if (result < 0 && errno == EINTR && only_ours_ran(before)) {
            want = left;
            errno = saved_errno;
            continue;
        }
        if (result < 0 && errno == EINTR && rem)
            *rem = left;
        return result;
    }
}

ZS_EXPORT int clock_nanosleep(clockid_t clock, int flags, const struct timespec* req, struct timespec* rem)
{
    ZS_REAL(clock_nanosleep);
    if (!req)
        return real_clock_nanosleep(clock, flags, req, rem);
    struct timespec want = *req;
    struct timespec left;
    for (;;) {
        const handler_counts before = count_handlers();
        const int result = real_clock_nanosleep(clock, flags, &want, &left);
        if (result == EINTR && only_ours_ran(before)) {
            if (!(flags & TIMER_ABSTIME))
                want = left;
            continue;
        }
        if (result == EINTR && rem && !(flags & TIMER_ABSTIME))
            *rem = left;
        return result;
    }
}

ZS_EXPORT int usleep(useconds_t usec)
{
    struct timespec ts = {(time_t)(usec / 1000000), (long)(usec % 1000000) * 1000L};
    return nanosleep(&ts, NULL);
}

ZS_EXPORT unsigned int sleep(unsigned int seconds)
{
    struct timespec ts = {(time_t)seconds, 0};
    struct timespec left;
    if (nanosleep(&ts, &left) < 0)
        return (unsigned int)left.tv_sec;
    return 0;
}

/* ---- waiting for signals ---- */

ZS_EXPORT int pause(void)
{
    ZS_REAL(pause);
    ZS_RETRY_WHILE_OURS(int, real_pause(), (void)0)
}

ZS_EXPORT int sigsuspend(const sigset_t* mask)
{
    ZS_REAL(sigsuspend);
    sigset_t copy;
    const sigset_t* allowed = without_ours(mask, &copy);
    ZS_RETRY_WHILE_OURS(int, real_sigsuspend(allowed), (void)0)
}

ZS_EXPORT int sigtimedwait(const sigset_t* set, siginfo_t* info, const struct timespec* timeout)
{
    ZS_REAL(sigtimedwait);
    /* The sampler's instances go to its handler and the wait goes on. */
    sigset_t copy;
    set = without_ours(set, &copy);
    const struct timespec deadline = timeout ? zs_deadline_after(*timeout) : zs_now(CLOCK_MONOTONIC);
    for (;;) {
        siginfo_t got;
        struct timespec left;
        if (timeout)
            left = zs_time_left(deadline);
        const handler_counts before = count_handlers();
        const int saved_errno = errno;
        const int result = real_sigtimedwait(set, &got, timeout ? &left : NULL);
        if (result < 0 && errno == EINTR && only_ours_ran(before)) {
            errno = saved_errno;
            continue;
        }
        /* One sent while the signal was blocked some other way (a raw
         * system call). */
        if (result > 0 && zs_is_sampler_instance(result, &got))
            continue;
        if (result > 0 && info)
            *info = got;
        return result;
    }
}

ZS_EXPORT int sigwaitinfo(const sigset_t* set, siginfo_t* info)
{
    return sigtimedwait(set, info, NULL);
}

ZS_EXPORT int sigwait(const sigset_t* set, int* sig)
{
    for (;;) {
        const int result = sigtimedwait(set, NULL, NULL);
        if (result < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        *sig = result;
        return 0;
    }
}

/* ---- fd multiplexing ---- */

ZS_EXPORT int poll(struct pollfd* fds, nfds_t n, int timeout)
{
    ZS_REAL(poll);
    const struct timespec deadline = zs_deadline_after(zs_from_ms(timeout > 0 ? timeout : 0));
    int wait = timeout;
    ZS_RETRY_WHILE_OURS(int, real_poll(fds, n, wait), if (timeout > 0) wait = ms_left(deadline))
}

ZS_EXPORT int ppoll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* mask)
{
    ZS_REAL(ppoll);
    sigset_t copy;
    mask = without_ours(mask, &copy);
    const struct timespec deadline = timeout ? zs_deadline_after(*timeout) : zs_now(CLOCK_MONOTONIC);
    struct timespec left;
    ZS_RETRY_WHILE_OURS(int, real_ppoll(fds, n, remaining(timeout, deadline, &left), mask), (void)0)
}

/* On an interruption Linux leaves the sets alone and brings the timeout
 * down to what is left, so the same arguments serve again. */
ZS_EXPORT int select(int n, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout)
{
    ZS_REAL(select);
    ZS_RETRY_WHILE_OURS(int, real_select(n, readfds, writefds, exceptfds, timeout), (void)0)
}

ZS_EXPORT int pselect(int n, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const struct timespec* timeout,
                      const sigset_t* mask)
{
    ZS_REAL(pselect);
    sigset_t copy;
    mask = without_ours(mask, &copy);
    const struct timespec deadline = timeout ? zs_deadline_after(*timeout) : zs_now(CLOCK_MONOTONIC);
    struct timespec left;
    ZS_RETRY_WHILE_OURS(int, real_pselect(n, readfds, writefds, exceptfds, remaining(timeout, deadline, &left), mask),
                        (void)0)
}

ZS_EXPORT int epoll_wait(int epfd, struct epoll_event* events, int max, int timeout)
{
    ZS_REAL(epoll_wait);
    const struct timespec deadline = zs_deadline_after(zs_from_ms(timeout > 0 ? timeout : 0));
    int wait = timeout;
    ZS_RETRY_WHILE_OURS(int, real_epoll_wait(epfd, events, max, wait), if (timeout > 0) wait = ms_left(deadline))
}

ZS_EXPORT int epoll_pwait(int epfd, struct epoll_event* events, int max, int timeout, const sigset_t* mask)
{
    ZS_REAL(epoll_pwait);
    sigset_t copy;
    mask = without_ours(mask, &copy);
    const struct timespec deadline = zs_deadline_after(zs_from_ms(timeout > 0 ? timeout : 0));
    int wait = timeout;
    ZS_RETRY_WHILE_OURS(int, real_epoll_pwait(epfd, events, max, wait, mask), if (timeout > 0) wait = ms_left(deadline))
}

/* ---- System V IPC ---- */

ZS_EXPORT int msgsnd(int id, const void* message, size_t size, int flags)
{
    ZS_REAL(msgsnd);
    ZS_RETRY_WHILE_OURS(int, real_msgsnd(id, message, size, flags), (void)0)
}

ZS_EXPORT ssize_t msgrcv(int id, void* message, size_t size, long type, int flags)
{
    ZS_REAL(msgrcv);
    ZS_RETRY_WHILE_OURS(ssize_t, real_msgrcv(id, message, size, type, flags), (void)0)
}

ZS_EXPORT int semop(int id, struct sembuf* ops, size_t n)
{
    ZS_REAL(semop);
    ZS_RETRY_WHILE_OURS(int, real_semop(id, ops, n), (void)0)
}

ZS_EXPORT int semtimedop(int id, struct sembuf* ops, size_t n, const struct timespec* timeout)
{
    ZS_REAL(semtimedop);
    const struct timespec deadline = timeout ? zs_deadline_after(*timeout) : zs_now(CLOCK_MONOTONIC);
    struct timespec left;
    ZS_RETRY_WHILE_OURS(int, real_semtimedop(id, ops, n, remaining(timeout, deadline, &left)), (void)0)
}

/* libunwind checks addresses by writing them into a pipe of its own, made
 * when it starts and made again whenever a read from it fails, closing the
 * old numbers first. Made at the lowest free numbers, as pipes are, its
 * ends would be where a program that closes its descriptors opens its next
 * files: libunwind would read from them, write into them and close them.
 * The sampler's pipes go up, out of the program's way. */
static void move_up(int* fd)
{
    struct rlimit limit;
    int top = 1024;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < (rlim_t)top)
        top = (int)limit.rlim_cur;
    if (top <= 64 || *fd >= top - 64)
        return;
    const int flags = fcntl(*fd, F_GETFD);
    const int high = fcntl(*fd, flags >= 0 && (flags & FD_CLOEXEC) ? F_DUPFD_CLOEXEC : F_DUPFD, top - 32);
    if (high < 0)
        return;
    close(*fd);
    *fd = high;
}

static void move_own_pipe_up(int fds[2])
{
    if (!zs_in_sampler_handler() && !zs_readying_unwinder)
        return;
    const int saved = errno;
    move_up(&fds[0]);
    move_up(&fds[1]);
    errno = saved;
}

ZS_EXPORT int pipe(int fds[2])
{
    ZS_REAL(pipe);
    const int result = real_pipe(fds);
    if (result == 0)
        move_own_pipe_up(fds);
    return result;
}

ZS_EXPORT int pipe2(int fds[2], int flags)
{
    ZS_REAL(pipe2);
    const int result = real_pipe2(fds, flags);
    if (result == 0)
        move_own_pipe_up(fds);
    return result;
}

/* The system call itself: a look-up of the next definition could come
 * before this library's constructor, and may allocate. */
static void* map_and_note(void* address, size_t length, int prot, int flags, int fd, off_t offset)
{
    void* result = (void*)syscall(SYS_mmap, address, length, prot, flags, fd, offset);
    if (result != MAP_FAILED && fd >= 0 && (prot & PROT_EXEC))
        zs_note_file_mapping(result, length, prot, fd, (long long)offset);
    return result;
}

ZS_EXPORT void* mmap(void* address, size_t length, int prot, int flags, int fd, off_t offset)
{
    return map_and_note(address, length, prot, flags, fd, offset);
}

ZS_EXPORT void* mmap64(void* address, size_t length, int prot, int flags, int fd, off_t offset)
{
    return map_and_note(address, length, prot, flags, fd, offset);
}
