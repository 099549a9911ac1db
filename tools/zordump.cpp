// zor-dump FILE: prints a sampler data file in plain text, for people
// looking into what a run recorded. With the module list that the sampler
// writes beside the file, each frame comes with its function, file and line
// (and the functions it was inlined into), read from the files' DWARF.
#include "readsamples.h"
#include "symboltable.h"

#include <QFile>
#include <QHash>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

using namespace quorvex;

namespace {

void printTime(const char* label, const timespec& t)
{
    printf("%s %lld.%09ld", label, static_cast<long long>(t.tv_sec), static_cast<long>(t.tv_nsec));
}

void printValue(const SampleValue& v)
{
    switch (v.type()) {
    case SampleValue::Empty: printf("empty"); break;
    case SampleValue::Int: printf("%" PRId64, v.to_int64_t()); break;
    case SampleValue::UInt: printf("%" PRIu64, v.to_uint64_t()); break;
    case SampleValue::Double: printf("%.17g", v.to_double()); break;
    }
}

// Positions of the frames, where the module list names the files.
SymbolTable* gSymbols = nullptr;

QString describe(const SymbolPosition& p)
{
    QString text = p.function.isEmpty() ? QStringLiteral("??") : p.function;
    if (!p.file.isEmpty())
        text += QStringLiteral(" at %1:%2").arg(p.file).arg(p.line);
    return text;
}

// "FUNCTION at FILE:LINE", then a line for each function it was inlined
// into. A frame above the first holds a return address: the call is the
// byte before it.
const std::string& positionText(unsigned long frame, bool returnAddress)
{
    static QHash<unsigned long long, std::string> known;
    const unsigned long long address = returnAddress && frame > 0 ? frame - 1 : frame;
    auto it = known.find(address);
    if (it != known.end())
        return *it;
    QList<SymbolPosition> callers;
    QString text = describe(gSymbols->position(gSymbols->canonicalAddress(address), &callers));
    for (const SymbolPosition& caller : callers)
        text += QStringLiteral("\n          inlined into ") + describe(caller);
    return *known.insert(address, text.toStdString());
}

void printFrames(const backtrace_t& frames)
{
    printf("    frames (%zu):", frames.size());
    for (unsigned long frame : frames)
        printf(" 0x%lx", frame);
    printf("\n");
    if (!gSymbols)
        return;
    for (std::size_t i = 0; i < frames.size(); ++i)
        printf("      #%zu 0x%lx %s\n", i, frames[i], positionText(frames[i], i > 0).c_str());
}

void printThread(const SBacktrace& bt, bool main)
{
    std::string flags;
    for (const auto& flag : {std::make_pair(bt.inMpi(), "in-mpi"), std::make_pair(bt.isSleeping(), "sleeping"),
                             std::make_pair(bt.stopsAtCallingFrame(), "stops-at-calling-frame")}) {
        if (flag.first)
            flags += (flags.empty() ? "" : ",") + std::string(flag.second);
    }
    printf("  thread %d%s: status %d, flags %s, ", bt.tid(), main ? " (main)" : "", bt.unwindStatus(),
           flags.empty() ? "none" : flags.c_str());
    printTime("cpu time", bt.cpuTime());
    printf(", parallel id %d\n", bt.parallelId());
    printFrames(bt.trace());
}

void printKernelHit(const SGpuKernelHit& hit)
{
    printf("  kernel hit: correlation id %u, kernel name id %u, ", hit.correlationId(), hit.kernelNameId());
    printTime("start", hit.startTime());
    printTime(", end", hit.endTime());
    printf(", dropped %" PRIu64 ", total %" PRIu64 ", period %" PRIu64 " cycles\n", hit.droppedSamples(),
           hit.totalSamples(), hit.samplingPeriodInCycles());
    for (const auto& line : hit.lineHits()) {
        printf("    line %u: samples", line.first);
        for (unsigned int count : line.second.samples)
            printf(" %u", count);
        printf("; latency samples");
        for (unsigned int count : line.second.latencySamples)
            printf(" %u", count);
        printf("\n");
    }
}

void printSample(unsigned index, const SSample& sample)
{
    printf("sample %u: ", index);
    printTime("time", sample.getTimestamp());
    printTime(", window", sample.getWindow());
    printTime(", interval", sample.getInterval());
    printf(", downsampled %s\n", sample.downsamplingHappened() ? "yes" : "no");
    SSampleBacktraceIterator threads(sample);
    while (threads.hasNext()) {
        const SBacktrace& bt = threads.next();
        printThread(bt, threads.wasMainThread());
    }
    const SMetrics& metrics = sample.metrics();
    printf("  metrics%s:", metrics.isValid() ? "" : " (invalid)");
    for (unsigned m = 0; m < metrics.size(); ++m) {
        printf(" [%u] ", m);
        printValue(metrics.getMetricValue(m));
        printTime(" over", metrics.getMetricInterval(m));
        if (metrics.shouldDivideBySampleInterval(m))
            printf(" per interval");
    }
    printf("\n  thread list:");
    for (int tid : sample.threadList())
        printf(" %d", tid);
    printf("\n");
    for (const zor_shared_ptr<SGpuKernelHit>& hit : sample.kernelHits())
        printKernelHit(*hit);
}

struct Module
{
    unsigned long long address;
    std::string buildId;
    std::string state;
    std::string path;
};

// "PATH.modules" beside the data file, written by the sampler: the loaded
// objects, whose load addresses and build ids turn the frames into
// functions. An absent file is no error (a file from an older sampler); a
// damaged one is.
// The lines behind "map ": the process's mappings of files, as /proc told them.
QByteArray gMaps;

bool readModules(const std::string& path, std::vector<Module>* modules, bool* present)
{
    FILE* in = fopen(path.c_str(), "r");
    *present = in != nullptr;
    if (!in)
        return true;
    char line[4096];
    bool good = fgets(line, sizeof line, in) && std::strncmp(line, "# zor modules 1:", 16) == 0;
    while (good && fgets(line, sizeof line, in)) {
        unsigned long long address = 0;
        char buildId[160], state[16];
        int pathAt = 0;
        const std::size_t length = std::strlen(line);
        if (std::strncmp(line, "map ", 4) == 0 && length > 0 && line[length - 1] == '\n') {
            gMaps += line + 4;
            continue;
        }
        good = length > 0 && line[length - 1] == '\n'
            && sscanf(line, "0x%llx %159s %15s %n", &address, buildId, state, &pathAt) == 3 && pathAt > 0
            && (std::strcmp(state, "loaded") == 0 || std::strcmp(state, "added") == 0
                || std::strcmp(state, "removed") == 0 || std::strcmp(state, "transient") == 0);
        if (good) {
            line[length - 1] = '\0';
            modules->push_back({address, buildId, state, line + pathAt});
        }
    }
    fclose(in);
    if (!good)
        fprintf(stderr, "zor-dump: %s: not a module list of the sampler\n", path.c_str());
    return good;
}

void printModules(const std::vector<Module>& modules)
{
    printf("modules: %zu\n", modules.size());
    for (const Module& m : modules)
        printf("module %s at 0x%llx, build id %s%s\n", m.path.c_str(), m.address, m.buildId.c_str(),
               m.state == "loaded" ? "" : (", " + m.state + " during the run").c_str());
    for (const SharedLibrary& file : filesOfMaps(gMaps)) {
        if (file.isRemapping())
            printf("code of %s mapped again at 0x%llx-0x%llx from offset 0x%llx\n", qPrintable(file.path()),
                   file.start(), file.end(), file.fileOffset());
    }
}

// The modules placed where the run had them. Each is placed at its load
// address; its extent comes from its own headers. A file that is no longer
// the one the run loaded (another build id) would give wrong answers: left
// out, and said.
void loadSymbols(const std::vector<Module>& modules, SymbolTable* table)
{
    QList<SharedLibrary> libraries;
    for (const Module& m : modules) {
        const QString path = QFile::decodeName(m.path.c_str());
        if (m.buildId != "-") {
            const QByteArray now = SymbolTable::buildId(path);
            if (now != QByteArray::fromStdString(m.buildId)) {
                fprintf(stderr, "zor-dump: no positions in %s: %s\n", m.path.c_str(),
                        now.isEmpty() ? "the file is gone or has no build id now" : "the file has changed since the run");
                continue;
            }
        }
        libraries.append(SharedLibrary(path, m.address, m.address + 1));
    }
    for (const SharedLibrary& file : filesOfMaps(gMaps)) {
        if (file.isRemapping())
            libraries.append(file);
    }
    QStringList problems;
    table->setLibraries(libraries, &problems);
    for (const QString& problem : problems)
        fprintf(stderr, "zor-dump: no positions in %s\n", qPrintable(problem));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || argv[1][0] == '-') {
        fprintf(stderr, "usage: zor-dump FILE\nPrints a sampler data file in plain text.\n");
        return 2;
    }
    const char* path = argv[1];

    timespec startTime = {0, 0};
    int stopReason = 0;
    unsigned long rebuilds = 0, checks = 0, downsamples = 0;
    uint64_t skipped = 0, resuming = 0, total = 0;
    unsigned int spare1 = 0, spare2 = 0;
    QString ompText;
    bool cuda = false, mpiMultiple = false;
    QMap<int, SCallSite> callSites;

    std::vector<Module> modules;
    bool modulesPresent = false;
    const bool modulesGood = readModules(std::string(path) + ".modules", &modules, &modulesPresent);
    SymbolTable symbols;
    if (modulesPresent && modulesGood) {
        loadSymbols(modules, &symbols);
        gSymbols = &symbols;
    }

    errno = 0;
    SSampleList* list = quorvex_read_samples(path, &startTime, &stopReason, &rebuilds, &checks, &downsamples,
                                             &skipped, &resuming, &total, &spare1, &spare2, ompText, &cuda,
                                             callSites, &mpiMultiple);
    if (!list || errno != 0) {
        const int error = errno;
        delete list;
        fprintf(stderr, "zor-dump: %s: %s\n", path,
                error != 0 ? strerror(error) : "no samples could be read (the file is truncated or damaged)");
        return 1;
    }

    printf("file: %s\n", path);
    printTime("start time:", startTime);
    printf("\nstop reason: %d\n", stopReason);
    printf("MPI thread multiple: %s\n", mpiMultiple ? "yes" : "no");
    printf("phdr cache rebuilds: %lu\n", rebuilds);
    printf("phdr cache checks for changes: %lu\n", checks);
    printf("downsamples: %lu\n", downsamples);
    printf("samples skipped while suspended: %" PRIu64 "\n", skipped);
    printf("samples taken while resuming: %" PRIu64 "\n", resuming);
    printf("samples taken in total: %" PRIu64 "\n", total);
    printf("spare words: 0x%08x 0x%08x\n", spare1, spare2);
    printf("OpenMP threads: \"%s\"\n", ompText.toLatin1().constData());
    printf("CUDA profiling enabled: %s\n", cuda ? "yes" : "no");
    printf("samples: %u\n", list->size());
    for (unsigned i = 0; i < list->size(); ++i)
        printSample(i, list->at(i));
    printf("call sites: %d\n", callSites.size());
    for (const SCallSite& site : callSites) {
        const SSimpleBacktrace* bt = site.callSite();
        printf("call site %d: tid %d, tag 0x%" PRIx64 ", status %d%s\n", site.parallelId(), site.tid(), site.tag(),
               bt->unwindStatus(), bt->stopsAtCallingFrame() ? ", stops at calling frame" : "");
        printFrames(bt->trace());
    }
    delete list;
    if (modulesPresent && modulesGood)
        printModules(modules);
    return modulesGood ? 0 : 1;
}
