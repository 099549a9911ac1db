// The sampler in the life of the process: loading, the standalone start
// that the environment asks for, fork, and the end of the program. Set-up
// code: it may allocate and call the C library.
#include "quorvex_sampler.h"
#include "runtime.h"
#include "samplerconfig.h"
#include "samplerstate.h"
#include "procparse.h"
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
// Set by the sampler in the environment it passes to exec and spawn, and in
// the environment of the first program, which the C library's own spawning
// (system, popen) passes on: "PID.IMAGE", the process that started the
// program and the number that the new program image takes if that process
// is its own. PID 0: a process that hasn't said yet whether it samples.
const char EXEC_VARIABLE[] = "ZOR_SAMPLER_EXEC";
const char NO_PID_REASON[] = "started by a sampled process, and ZOR_SAMPLER_OUTPUT has no %p";
const char FORK_NO_PID_REASON[] = "a child of fork of a sampled process, and ZOR_SAMPLER_OUTPUT has no %p";
const char EXEC_NO_PID_REASON[] = "a program that a sampled program execs, and ZOR_SAMPLER_OUTPUT has no %p";

extern "C" char** environ;

// Adds the mark of this process to its environment, for the programs that
// reach exec without passing through the sampler. The array is never freed:
// the environment lives as long as the process.
void markEnvironment(int image)
{
    quorvex::SafeMessage mark;
    mark.str(EXEC_VARIABLE).str("=").dec(getpid()).str(".").dec(image);
    std::size_t count = 0;
    while (environ && environ[count])
        ++count;
    char** marked = static_cast<char**>(std::malloc((count + 2) * sizeof(char*) + mark.length() + 1));
    if (!marked)
        return;
    char* text = reinterpret_cast<char*>(marked + count + 2);
    std::memcpy(text, mark.text(), mark.length() + 1);
    for (std::size_t i = 0; i < count; ++i)
        marked[i] = environ[i];
    marked[count] = text;
    marked[count + 1] = nullptr;
    environ = marked;
}

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
    std::string ignored;
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
        else if (good && name == "cpuevents")
            gState.noCpuEvents = value == 0;
        else
            ignored += " \"" + item + "\"";
    }
    if (!ignored.empty()) {
        quorvex::SafeMessage message = logLine();
        message.str("ignoring").str(ignored.c_str()).str(" in ").str(OPTIONS_VARIABLE).str("\n");
        writeLog(message);
    }
    return options;
}

void startStandalone(const Options& options, const char* output)
{
    // "%p" stands for the process id, so that the children of the program,
    // which inherit the variable, write files of their own; a later program
    // image of the same process (after exec) adds its number. Without "%p"
    // only the first image of the first process samples: the programs that
    // a sampled process starts find the mark it leaves in their environment.
    State& s = gState;
    std::uint64_t markPid = 0, markImage = 0;
    const char* mark = getenv(EXEC_VARIABLE);
    const char* rest = mark ? parseDecimal(mark, markPid) : nullptr;
    const bool marked = rest && *rest == '.' && parseDecimal(rest + 1, markImage);
    const bool ownImage = marked && markPid == static_cast<std::uint64_t>(getpid());
    if (!marked)
        markEnvironment(0);
    s.perProcess = std::strstr(output, "%p") != nullptr;
    s.image = ownImage && markImage < 1000000 ? static_cast<int>(markImage) : 0;
    char path[PATH_MAX];
    if (std::strlen(output) >= sizeof s.pathTemplate
        || !makeOutputPath(output, getpid(), s.image, path, sizeof path)
        || std::strlen(path) + sizeof ".errorMessages" > sizeof s.notesPath) {
        quorvex::SafeMessage message = logLine();
        message.str("not sampling: the output path is too long\n");
        writeLog(message);
        return;
    }
    std::strcpy(s.notesPath, path);
    std::strcat(s.notesPath, ".errorMessages");
    if (!s.perProcess && marked) {
        // Once per process: a later image of one that said so already, or
        // that never sampled, says nothing more; one that sampled says
        // that its new program doesn't.
        if (!ownImage)
            noteNotSampled(s.notesPath, NO_PID_REASON);
        else if (markImage > 0)
            noteNotSampled(s.notesPath, EXEC_NO_PID_REASON);
        s.notedPid = getpid();
        quorvex::SafeMessage message = logLine();
        message.str("not sampling: ").str(ownImage ? EXEC_NO_PID_REASON : NO_PID_REASON).str("\n");
        writeLog(message);
        return;
    }
    std::strcpy(s.pathTemplate, output);
    const ArmSettings settings = {options.numSamples, options.intervalMs, path, true, options.startMs,
                                  options.stopMs};
    if (arm(settings, false) != QUORVEX_SAMPLER_OK) {
        // Most often a program that a sampled one started, while that one
        // still samples into the same files: a note for that one, nothing
        // for the program's standard error.
        noteNotSampled(s.notesPath, quorvex_sampler_error);
        quorvex::SafeMessage message = logLine();
        message.str("not sampling: ").str(quorvex_sampler_error).str("\n");
        writeLog(message);
    }
}

void onForkChild()
{
    // The child has only the thread that forked; it never writes the
    // parent's files, and samples into files of its own if their names have
    // "%p".
    resetAfterFork();
    resetSignalsAfterFork();
    ThreadSlot* self = currentSlot();
    dropCpuTimersAfterFork();
    for (ThreadSlot* slot = firstSlot(); slot; slot = slot->next) {
        if (slot != self)
            slot->state.store(SlotDead, std::memory_order_relaxed);
    }
    if (self)
        self->tid.store(currentTid(), std::memory_order_relaxed);
    rearmInForkChild();
    // Without "%p" a child of fork doesn't sample: it says so in the notes of
    // the process whose files it would have shared.
    if (gState.notesPath[0] && !gState.perProcess)
        noteNotSampled(gState.notesPath, FORK_NO_PID_REASON);
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

// The image number that a program started by exec takes.
int gNextImage;

// Whether exec of `file` can succeed: a file that can be run, found in PATH
// when `searchPath` and it has no slash.
bool isRunnable(const char* file, bool searchPath)
{
    if (!file || !*file)
        return false;
    if (!searchPath || std::strchr(file, '/'))
        return access(file, X_OK) == 0;
    const char* path = getenv("PATH");
    std::string dirs = path ? path : "/bin:/usr/bin";
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = dirs.find(':', start);
        std::string dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (dir.empty())
            dir = ".";
        if (access((dir + "/" + file).c_str(), X_OK) == 0)
            return true;
        if (end == std::string::npos)
            return false;
        start = end + 1;
    }
}

} // namespace

} // namespace zorsampler

using namespace zorsampler;

extern "C" void zs_before_immediate_exit(void)
{
    if (gState.phase.load(std::memory_order_acquire) == PhaseArmed && getpid() == gState.pid)
        finish(QUORVEX_STOP_PROGRAM_ENDED, false);
}

// The environment for a program that exec or spawn starts, with the mark
// that tells it who started it; null to keep `envp` as it is. Before an
// exec (`sameProcess`) of a file that can be run, the results are written
// first. The array is the caller's to free.
extern "C" char** zs_prepare_exec(const char* file, int searchPath, char* const envp[], int sameProcess)
{
    if (sameProcess && isRunnable(file, searchPath != 0))
        gNextImage = finishBeforeExec();
    if (!envp)
        return nullptr;
    std::size_t count = 0;
    bool sampled = false;
    const std::size_t markLength = sizeof EXEC_VARIABLE - 1;
    for (; envp[count]; ++count)
        sampled = sampled || std::strncmp(envp[count], "ZOR_SAMPLER_OUTPUT=", 19) == 0;
    if (!sampled)
        return nullptr;
    // A program that this process execs is its own image only if this
    // process has said whether it samples: otherwise (a child of vfork, for
    // one) the new program says it in its place.
    const pid_t self = getpid();
    const bool accounted = (self == gState.pid && gState.phase.load(std::memory_order_acquire) != PhaseIdle)
        || self == gState.notedPid;
    quorvex::SafeMessage mark;
    mark.str(EXEC_VARIABLE).str("=").dec(sameProcess && !accounted ? 0 : self).str(".").dec(sameProcess ? gNextImage : 0);
    char** result = static_cast<char**>(std::malloc((count + 2) * sizeof(char*) + mark.length() + 1));
    if (!result)
        return nullptr;
    char* markText = reinterpret_cast<char*>(result + count + 2);
    std::memcpy(markText, mark.text(), mark.length() + 1);
    std::size_t n = 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (!(std::strncmp(envp[i], EXEC_VARIABLE, markLength) == 0 && envp[i][markLength] == '='))
            result[n++] = envp[i];
    }
    result[n++] = markText;
    result[n] = nullptr;
    return result;
}
