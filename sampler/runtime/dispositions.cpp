// The program's dispositions of the signals, kept as it set them: sigaction
// as the program sees it, the sampler's own handler put in place, and the
// program's view of its masks. Set-up code, but what handlers call
// (loadDisposition, resetDispositionToDefault) is async-signal-safe.
#include "dispositions.h"
#include "runtime.h"
#include "sampling.h"
#include "threads.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sched.h>
#include <unistd.h>

namespace zorsampler {

void programTrampoline(int sig, siginfo_t* info, void* ucontext);
void fatalSignalHandler(int sig, siginfo_t* info, void* ucontext);

namespace {

const int NUM_SIGNALS = _NSIG;

// The program's disposition of one signal, as it believes it to be.
// Written under the write lock with every signal blocked; read from
// handlers without a lock, by sequence number.
// Trivially constructible, so that the table is ready (all zero) before
// any constructor runs: the program may call sigaction from one.
struct Disposition
{
    std::atomic<unsigned> sequence;
    bool known;
    struct sigaction action;
};

Disposition gDispositions[NUM_SIGNALS];
std::atomic_flag gWriteLock = ATOMIC_FLAG_INIT;
std::atomic<bool> gSamplerHandlerInstalled{false};

bool isFunction(const struct sigaction& action)
{
    return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

// Blocks every signal of the calling thread and takes the write lock; a
// handler can't interrupt the writer, so the spin can't deadlock.
class WriteGuard
{
public:
    WriteGuard()
    {
        sigset_t all;
        sigfillset(&all);
        zs_real_pthread_sigmask(SIG_SETMASK, &all, &mSaved);
        while (gWriteLock.test_and_set(std::memory_order_acquire))
            sched_yield();
    }
    ~WriteGuard()
    {
        gWriteLock.clear(std::memory_order_release);
        const int savedErrno = errno;
        zs_real_pthread_sigmask(SIG_SETMASK, &mSaved, nullptr);
        errno = savedErrno;
    }

private:
    sigset_t mSaved;
};

void store(int sig, const struct sigaction& action)
{
    Disposition& d = gDispositions[sig];
    d.sequence.fetch_add(1, std::memory_order_acq_rel);
    std::atomic_thread_fence(std::memory_order_release);
    d.action = action;
    d.known = true;
    d.sequence.fetch_add(1, std::memory_order_release);
}

// A consistent copy, from any context.
bool load(int sig, struct sigaction& action)
{
    Disposition& d = gDispositions[sig];
    for (;;) {
        const unsigned before = d.sequence.load(std::memory_order_acquire);
        if (before & 1) {
            sched_yield();
            continue;
        }
        const bool known = d.known;
        std::memcpy(&action, &d.action, sizeof action);
        std::atomic_thread_fence(std::memory_order_acquire);
        if (d.sequence.load(std::memory_order_relaxed) == before)
            return known;
    }
}

} // namespace

struct sigaction defaultAction()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    return action;
}


bool loadDisposition(int sig, struct sigaction& action)
{
    return load(sig, action);
}

namespace {

std::atomic<bool> gFatalHandlersInstalled{false};

// What the kernel gets for the program's `action`: a function of the
// program's runs behind the trampoline, and the default action of a signal
// that ends the process runs behind the sampler's fatal handler, which
// writes the results first. SA_RESETHAND is the trampoline's to do, so that
// the reset goes through here too.
struct sigaction kernelAction(int sig, const struct sigaction& action)
{
    struct sigaction installed = action;
    if (isFunction(action)) {
        installed.sa_sigaction = programTrampoline;
        installed.sa_flags |= SA_SIGINFO;
        installed.sa_flags &= ~SA_RESETHAND;
        // The sampler's signal stays unblocked in the program's handlers too.
        sigdelset(&installed.sa_mask, zs_sampler_signal());
    } else if (action.sa_handler == SIG_DFL && endsTheProcess(sig)
               && gFatalHandlersInstalled.load(std::memory_order_acquire)) {
        std::memset(&installed, 0, sizeof installed);
        installed.sa_sigaction = fatalSignalHandler;
        // On the alternate stack where the thread has one: a stack
        // overflow's SIGSEGV still gets its results written.
        installed.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigfillset(&installed.sa_mask);
    }
    return installed;
}

} // namespace

void resetDispositionToDefault(int sig)
{
    WriteGuard guard;
    const struct sigaction dfl = defaultAction();
    const struct sigaction installed = kernelAction(sig, dfl);
    zs_real_sigaction(sig, &installed, nullptr);
    store(sig, dfl);
}

bool endsTheProcess(int sig)
{
    switch (sig) {
    case SIGHUP: case SIGINT: case SIGQUIT: case SIGILL: case SIGTRAP: case SIGABRT: case SIGBUS: case SIGFPE:
    case SIGUSR1: case SIGSEGV: case SIGUSR2: case SIGPIPE: case SIGALRM: case SIGTERM: case SIGSTKFLT:
    case SIGXCPU: case SIGXFSZ: case SIGVTALRM: case SIGPROF: case SIGIO: case SIGPWR: case SIGSYS:
        return true;
    default:
        return false;
    }
}

bool installFatalHandlers()
{
    WriteGuard guard;
    gFatalHandlersInstalled.store(true, std::memory_order_release);
    for (int sig = 1; sig < NUM_SIGNALS; ++sig) {
        if (!endsTheProcess(sig))
            continue;
        struct sigaction current;
        if (!load(sig, current)) {
            if (zs_real_sigaction(sig, nullptr, &current) != 0)
                return false;
            store(sig, current);
        }
        if (isFunction(current) || current.sa_handler == SIG_IGN)
            continue;
        const struct sigaction installed = kernelAction(sig, current);
        if (zs_real_sigaction(sig, &installed, nullptr) != 0)
            return false;
    }
    return true;
}

bool installSamplerHandler()
{
    const int sig = zs_sampler_signal();
    WriteGuard guard;
    if (!gDispositions[sig].known) {
        struct sigaction current;
        if (zs_real_sigaction(sig, nullptr, &current) != 0)
            return false;
        store(sig, current);
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_sigaction = samplerSignalHandler;
    // SA_RESTART: slow calls of the program carry on after a sample. All
    // signals are blocked meanwhile, so that no handler of the program can
    // leave ours half-way with a long jump.
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigfillset(&action.sa_mask);
    if (zs_real_sigaction(sig, &action, nullptr) != 0)
        return false;
    gSamplerHandlerInstalled.store(true, std::memory_order_release);
    return true;
}

void resetSignalsAfterFork()
{
    gWriteLock.clear(std::memory_order_relaxed);
}

} // namespace zorsampler

using namespace zorsampler;

extern "C" int zs_sigaction(int sig, const struct sigaction* act, struct sigaction* old)
{
    if (sig <= 0 || sig >= NUM_SIGNALS || sig == SIGKILL || sig == SIGSTOP)
        return zs_real_sigaction(sig, act, old);

    WriteGuard guard;
    struct sigaction previous;
    if (!load(sig, previous)) {
        if (zs_real_sigaction(sig, nullptr, &previous) != 0)
            return -1;
    }
    if (act) {
        const bool keepOurs = sig == zs_sampler_signal() && gSamplerHandlerInstalled.load(std::memory_order_acquire);
        if (!keepOurs) {
            const struct sigaction installed = kernelAction(sig, *act);
            if (zs_real_sigaction(sig, &installed, nullptr) != 0)
                return -1;
        }
        store(sig, *act);
    }
    if (old)
        *old = previous;
    return 0;
}
