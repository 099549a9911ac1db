// The sampler's signal handler, and the trampoline behind every handler of
// the program's own. Every handler that the program installs runs behind
// the trampoline, which counts its invocations per thread; the EINTR guards
// of interpose.c compare those counts with the sampler's own.
#include "dispositions.h"
#include "runtime.h"
#include "sampling.h"
#include "threads.h"

#include <cerrno>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

ZS_TLS unsigned int zs_our_signal_count;
ZS_TLS unsigned int zs_target_signal_count;

namespace zorsampler {

const char gSignalCookie = 0;
const char gCpuTimerCookie = 0;
ZS_TLS bool tlsInSamplerHandler;

void programTrampoline(int sig, siginfo_t* info, void* ucontext)
{
    ++zs_target_signal_count;
    deliverToProgram(sig, info, ucontext);
}

void deliverToProgram(int sig, siginfo_t* info, void* ucontext)
{
    struct sigaction action;
    if (!loadDisposition(sig, action))
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
        resetDispositionToDefault(sig);
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
        if (info->si_code == TIMER_CODE && info->si_value.sival_ptr == &gSignalCookie)
            takeSample(ucontext);
        else
            answerRequest(ucontext, isCpuEventCode(info->si_code) || info->si_value.sival_ptr == &gCpuTimerCookie);
        if (info->si_code == CPU_EVENT_CODE)
            rearmCpuEvent(info->si_fd);
        pthread_setcancelstate(cancelState, nullptr);
        tlsInSamplerHandler = false;
    } else {
        ++zs_target_signal_count;
        deliverToProgram(sig, info, ucontext);
    }
    errno = savedErrno;
}

} // namespace zorsampler

using namespace zorsampler;

extern "C" int zs_sampler_signal(void)
{
    // Near the top of the real-time range, which programs use least.
    return SIGRTMAX - 3;
}

extern "C" int zs_in_sampler_handler(void)
{
    return tlsInSamplerHandler;
}

extern "C" int zs_is_sampler_instance(int sig, const siginfo_t* info)
{
    if (sig != zs_sampler_signal() || !info)
        return 0;
    if (isCpuEventCode(info->si_code))
        return isCpuEventFd(info->si_fd);
    return (info->si_code == TIMER_CODE || info->si_code == REQUEST_CODE)
        && (info->si_value.sival_ptr == &gSignalCookie || info->si_value.sival_ptr == &gCpuTimerCookie);
}
