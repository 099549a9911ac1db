// The sampler in the life of the process: loading, the standalone start
// that the environment asks for, fork, and the end of the program. Set-up
// code: it may allocate and call the C library.
#include "quorvex_sampler.h"
#include "runtime.h"
#include "samplerconfig.h"
#include "samplerstate.h"
#include "sampling.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace zorsampler {

namespace {

const char OUTPUT_VARIABLE[] = "ZOR_SAMPLER_OUTPUT";
const char OPTIONS_VARIABLE[] = "ZOR_SAMPLER_OPTIONS";

struct Options
{
    int intervalMs = DEFAULT_INTERVAL_MS;
    int numSamples = DEFAULT_NUM_SAMPLES;
    unsigned int startMs = 0;
    unsigned int stopMs = 0;
};

Options readOptions()
{
    Options options;
    const char* text = getenv(OPTIONS_VARIABLE);
    if (!text)
        return options;
    std::string all(text);
    std::size_t pos = 0;
    while (pos < all.size()) {
        std::size_t end = all.find_first_of(", ", pos);
        if (end == std::string::npos)
            end = all.size();
        const std::string item = all.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty())
            continue;
        const std::size_t equals = item.find('=');
        const std::string name = item.substr(0, equals);
        char* rest = nullptr;
        const long value = equals == std::string::npos ? -1 : std::strtol(item.c_str() + equals + 1, &rest, 10);
        const bool good = equals != std::string::npos && rest && *rest == '\0' && value >= 0 && value <= INT_MAX;
        if (good && name == "interval" && value > 0)
            options.intervalMs = static_cast<int>(value);
        else if (good && name == "samples" && value > 0)
            options.numSamples = static_cast<int>(value);
        else if (good && name == "threads" && value <= MAX_THREADS_PER_SAMPLE)
            gState.threadsPerSampleOption = value > 0 ? static_cast<int>(value) : -1;
        else if (good && name == "start")
            options.startMs = static_cast<unsigned int>(value);
        else if (good && name == "stop")
            options.stopMs = static_cast<unsigned int>(value);
        else if (good && name == "debug")
            gState.debugLog = value != 0;
        else {
            quorvex::SafeMessage message;
            message.str("zor sampler: ignoring \"").str(item.c_str()).str("\" in ").str(OPTIONS_VARIABLE).str("\n");
            message.writeTo(2);
        }
    }
    return options;
}

void startStandalone(const Options& options, const char* output)
{
    // "%p" stands for the process id, so that the children of the program,
    // which inherit the variable, write files of their own; without it the
    // variable is taken out of the environment, and only this process is
    // sampled.
    std::string path(output);
    const bool perProcess = path.find("%p") != std::string::npos;
    for (std::size_t at = path.find("%p"); at != std::string::npos; at = path.find("%p", at))
        path.replace(at, 2, std::to_string(getpid()));
    if (!perProcess)
        unsetenv(OUTPUT_VARIABLE);

    const ArmSettings settings = {options.numSamples, options.intervalMs, path.c_str(), true, options.startMs,
                                  options.stopMs};
    if (arm(settings, false) != QUORVEX_SAMPLER_OK) {
        quorvex::SafeMessage message;
        message.str("zor sampler: not sampling: ").str(quorvex_sampler_error).str("\n");
        message.writeTo(2);
    }
}

void onForkChild()
{
    // The child has only the thread that forked; it never samples and never
    // writes the parent's files.
    resetAfterFork();
    resetSignalsAfterFork();
    ThreadSlot* self = currentSlot();
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (slot != self)
            slot->state.store(SlotDead, std::memory_order_relaxed);
    }
    if (self)
        self->tid.store(currentTid(), std::memory_order_relaxed);
}

__attribute__((constructor)) void onLoad()
{
    ThreadSlot* slot = acquireSlot();
    startCurrentThread(slot);
    if (pthread_atfork(nullptr, nullptr, onForkChild) != 0) {
        // Without it a child would take the parent's threads for its own.
        quorvex::SafeMessage message = logLine();
        message.str("can't register the fork handler: children of fork are not sampled\n");
        writeLog(message);
        gState.noForkHandler = true;
    }
    const Options options = readOptions();
    const char* output = getenv(OUTPUT_VARIABLE);
    if (output && *output)
        startStandalone(options, output);
}

__attribute__((destructor)) void onUnload()
{
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && getpid() == gState.pid)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
}

} // namespace

} // namespace zorsampler

using namespace zorsampler;

extern "C" void zs_before_immediate_exit(void)
{
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && getpid() == gState.pid)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
}
