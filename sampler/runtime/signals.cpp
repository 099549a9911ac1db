// Signals: the sampler's own handler, and the program's dispositions kept
// as the program set them. Every handler that the program installs runs
// behind a small trampoline that counts its invocations per thread; the
// EINTR guards of interpose.c compare those counts with the sampler's own.
#include "runtime.h"
#include "sampling.h"
#include "threads.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

ZS_TLS unsigned int zs_our_signal_count;
ZS_TLS unsigned int zs_target_signal_count;

namespace {
// Inside the sampler's own handler on this thread. Mask changes made there
// (libunwind blocks signals around some look-ups) are not the program's.
ZS_TLS bool tlsInSamplerHandler;
}

namespace zorsampler {

const char gSignalCookie = 0;

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

struct sigaction defaultAction()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    return action;
}

void resetToDefault(int sig)
{
    WriteGuard guard;
    store(sig, defaultAction());
}

// Behind every handler the program installs.
void programTrampoline(int sig, siginfo_t* info, void* ucontext)
{
    ++zs_target_signal_count;
    deliverToProgram(sig, info, ucontext);
}

} // namespace

void deliverToProgram(int sig, siginfo_t* info, void* ucontext)
{
    struct sigaction action;
    if (!load(sig, action))
        return;
    if (action.sa_handler == SIG_IGN)
        return;
    if (action.sa_handler == SIG_DFL) {
        // Only the sampler's signal gets here with the default action: an
        // instance that somebody else sent ends the process, as it would
        // have done without the sampler. The signal is blocked while this
        // handler runs, so it takes effect on return.
        if (sig == zs_sampler_signal()) {
            struct sigaction dfl = defaultAction();
            zs_real_sigaction(sig, &dfl, nullptr);
            syscall(SYS_tgkill, getpid(), currentTid(), sig);
        }
        return;
    }
    if (action.sa_flags & SA_RESETHAND)
        resetToDefault(sig);
    if (action.sa_flags & SA_SIGINFO)
        action.sa_sigaction(sig, info, ucontext);
    else
        action.sa_handler(sig);
}

void samplerSignalHandler(int sig, siginfo_t* info, void* ucontext)
{
    const int savedErrno = errno;
    if (zs_is_sampler_instance(sig, info)) {
        ++zs_our_signal_count;
        tlsInSamplerHandler = true;
        // Some calls made here are cancellation points (pread, and the
        // memory checks of libunwind): a cancellation pending for the thread
        // must not take effect inside the sampler's handler.
        int cancelState = PTHREAD_CANCEL_DISABLE;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
        if (info->si_code == TIMER_CODE)
            takeSample(ucontext);
        else
            answerRequest(ucontext);
        pthread_setcancelstate(cancelState, nullptr);
        tlsInSamplerHandler = false;
    } else {
        ++zs_target_signal_count;
        deliverToProgram(sig, info, ucontext);
    }
    errno = savedErrno;
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

extern "C" int zs_sampler_signal(void)
{
    // Near the top of the real-time range, which programs use least.
    return SIGRTMAX - 3;
}

extern "C" int zs_is_sampler_instance(int sig, const siginfo_t* info)
{
    return sig == zs_sampler_signal() && info && (info->si_code == TIMER_CODE || info->si_code == REQUEST_CODE)
        && info->si_value.sival_ptr == &gSignalCookie;
}

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
            struct sigaction installed = *act;
            if (isFunction(*act)) {
                installed.sa_sigaction = programTrampoline;
                installed.sa_flags |= SA_SIGINFO;
            }
            if (zs_real_sigaction(sig, &installed, nullptr) != 0)
                return -1;
        }
        store(sig, *act);
    }
    if (old)
        *old = previous;
    return 0;
}

extern "C" void zs_note_mask_change(int how, const sigset_t* set)
{
    ThreadSlot* slot = currentSlot();
    if (!slot || !set || tlsInSamplerHandler)
        return;
    const bool named = sigismember(set, zs_sampler_signal()) == 1;
    if (how == SIG_SETMASK)
        slot->blocksSignal.store(named, std::memory_order_relaxed);
    else if (named && how == SIG_BLOCK)
        slot->blocksSignal.store(true, std::memory_order_relaxed);
    else if (named && how == SIG_UNBLOCK)
        slot->blocksSignal.store(false, std::memory_order_relaxed);
}
