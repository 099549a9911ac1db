// The handler of the signals whose default action ends the process, while
// the program leaves them at that default: the results are written as at a
// normal exit, and then the signal ends the process as it would have, with
// the same exit status and core dump.
#include "dispositions.h"
#include "quorvex_sampler.h"
#include "runtime.h"
#include "samplerstate.h"
#include "threads.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace zorsampler {

void fatalSignalHandler(int sig, siginfo_t* info, void* ucontext)
{
    (void)info;
    (void)ucontext;
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && getpid() == gState.pid)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
    // The signal is blocked while this runs: sent again, it takes effect
    // with the default action as soon as the handler returns. A fault would
    // come back by itself, but an instance sent by kill or raise would not.
    const struct sigaction dfl = defaultAction();
    zs_real_sigaction(sig, &dfl, nullptr);
    syscall(SYS_tgkill, getpid(), currentTid(), sig);
}

} // namespace zorsampler
