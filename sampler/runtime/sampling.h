// The signal side of the sampler: the handler and its instances
// (signalhandler.cpp, dispositions.cpp), the taking of samples
// (samplehandler.cpp) and unwinding (unwind.cpp).
#ifndef ZOR_SAMPLER_SAMPLING_H
#define ZOR_SAMPLER_SAMPLING_H

#include "backtracedata.h"

#include <csignal>

namespace zorsampler {

// si_code of the sampler's own instances: the interval timer's, and the
// requests sent to the other threads.
const int TIMER_CODE = SI_TIMER;
const int REQUEST_CODE = SI_QUEUE;
// And a thread's event on its CPU time (threads.h), which is allowed a
// batch of expiries at a time: the last of a batch comes as POLL_HUP and
// stops the event until it is armed again, the others as POLL_IN.
const int CPU_EVENT_CODE = POLL_HUP;
const int CPU_EVENT_BATCH_CODE = POLL_IN;
inline bool isCpuEventCode(int code)
{
    return code == CPU_EVENT_CODE || code == CPU_EVENT_BATCH_CODE;
}
// si_value of every instance the sampler sends: the address of this.
extern const char gSignalCookie;
// What the timer on a thread's own CPU clock carries instead.
extern const char gCpuTimerCookie;

// The sampler's handler, as the kernel calls it.
void samplerSignalHandler(int sig, siginfo_t* info, void* ucontext);

// In the main thread, at each expiry of the timer.
void takeSample(void* ucontext);
// In any other thread, when asked for its backtrace, or at the expiry of
// its own CPU timer (`ownTimer`).
void answerRequest(void* ucontext, bool ownTimer);

// Puts the sampler's handler in place of whatever the program had for the
// signal, which stays the program's own disposition.
bool installSamplerHandler();
// In a child made by fork.
void resetSignalsAfterFork();
// Hands an instance that the sampler didn't send to the program's own
// disposition for the signal.
void deliverToProgram(int sig, siginfo_t* info, void* ucontext);

// Fills `bt` with the frames of the context `ucontext` of a signal, the
// interrupted instruction first. Stops before a frame at `boundaryIp`
// unless it is 0. Sets the unwind status: 0, a libunwind error, or one of
// the sampler's codes below.
void unwindFromSignalContext(ExtendedBacktraceData& bt, void* ucontext, unsigned long boundaryIp);
// Code where a thread may be inside libunwind's set-up of its frame
// caches: libunwind itself, the C library, the dynamic loader.
struct CodeSpan
{
    unsigned long low;
    unsigned long high;
};
const int MAX_ONCE_SPANS = 3;
// Sets libunwind up outside a handler, as far as it can wait no longer.
void prepareUnwinding(const CodeSpan* onceSpans, int count);
// When a thread ends, and in the child of fork.
void endThreadUnwinding();
void resetUnwindingAfterFork();
// Learns where the sampler's handler returns to, once it is installed.
void noteSignalReturn();

// Marks the sampler's own use of libunwind outside a handler. libunwind's
// locks block signals through sigprocmask, which leaves the sampler's own
// unblocked: a handler that unwound on top of such a walk would wait for a
// lock its own thread holds, so it takes no backtrace there.
struct OwnUnwinding
{
    OwnUnwinding();
    ~OwnUnwinding();
    OwnUnwinding(const OwnUnwinding&) = delete;
    OwnUnwinding& operator=(const OwnUnwinding&) = delete;
};

// Unwind status codes of the sampler's own.
const int UNWIND_TOO_DEEP = UNW_ZOR_CUT_SHORT;
const int UNWIND_NOT_ANSWERED = 101;
const int UNWIND_CLASHED = 105;
const int UNWIND_NO_FRAMES = 106;

} // namespace zorsampler

#endif
