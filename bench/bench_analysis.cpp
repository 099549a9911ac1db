// The analysis of a run: raw samples to finished Samples, against a debugger
// that answers positions from a table. Prints the time per raw sample, the
// time of each phase, and how many questions went to the debugger.
//
//   bench-analysis [samples] [threads] [frames] [addresses] [stacks]
//
// The defaults are 1000 samples of 16 threads with 64 frames each, drawn
// from 20000 distinct addresses of 2000 functions in 100 files; one address
// in ten has two inlined callers. With `stacks` above 0 every thread's
// stack is one of that many stacks drawn beforehand, as a program's hot
// paths repeat; with 0, the default, every stack is drawn afresh, which
// leaves no lookup to a cache. The last line is a checksum of the samples'
// wire form, so that a change meant to be faster can show it left the
// trees as they were.
#include <QBuffer>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QXmlStreamWriter>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <sys/resource.h>
#include <time.h>

#include "fakehost.h"
#include "preloadsamplesource.h"
#include "sample.h"
#include "samplefilebuilder.h"
#include "samplelist.h"
#include "selfprofilepoints.h"
#include "tabledebugger.h"
#include "zorpsvmodelitem.h"

namespace {

// CPU time of this process: on a shared machine the wall clock also counts
// the time others took the cores away.
double cpuSeconds()
{
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec + now.tv_nsec * 1e-9;
}

// Fresh memory costs a page fault per page, a large share of building trees.
long pageFaults()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

const unsigned long CODE = 0x400000;
const unsigned long LIBC = 0x7000000;
const unsigned long START_THREAD = LIBC + 0x205;
const unsigned long CLONE3 = LIBC + 0x305;

void describeTable(TableDebugger& debugger, int addresses)
{
    for (int i = 0; i < addresses; ++i) {
        const unsigned long address = CODE + 16 * static_cast<unsigned long>(i);
        const QString function = QStringLiteral("function_%1").arg(i % 2000);
        const QString file = QStringLiteral("/home/me/src/module%1/file%2.cpp").arg(i % 7).arg(i % 100);
        debugger.place(address, function, file, 10 + i % 500);
        debugger.place(address - 1, function, file, 10 + i % 500);
        if (i % 10 == 0) {
            debugger.inlineAt(address - 1, {PositionResponse(QStringLiteral("inner_%1").arg(i % 50), file, 3, true),
                                            PositionResponse(QStringLiteral("outer_%1").arg(i % 50), file, 4, true)});
        }
    }
    debugger.frame(START_THREAD, QStringLiteral("start_thread"), QStringLiteral("pthread_create.c"), 442);
    debugger.frame(CLONE3, QStringLiteral("__clone3"), QStringLiteral("clone3.S"), 81);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int numSamples = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int threads = argc > 2 ? std::atoi(argv[2]) : 16;
    const int frames = argc > 3 ? std::atoi(argv[3]) : 64;
    const int addresses = argc > 4 ? std::atoi(argv[4]) : 20000;
    const int stacks = argc > 5 ? std::atoi(argv[5]) : 0;

    TableDebugger debugger;
    describeTable(debugger, addresses);
    debugger.addresses.insert(QStringLiteral("&quorvex_init_sampler_now"), 0x401000);
    debugger.expressions.insert(QStringLiteral("quorvex_sampler_version()"), QStringLiteral("700"));
    debugger.onCall = [&debugger](const QString& call) {
        if (call.startsWith(QLatin1String("evaluate:quorvex_init_sampler_now")))
            debugger.expressions.insert(call.mid(9), QStringLiteral("0"));
    };
    FakeHost host;
    host.debugger = &debugger;
    PreloadSampleSource source(host, numSamples, 10, MetricDefinitions(), 0, 0, 0, false, false, false);

    // Stacks drawn from the table: every thread but the main one starts in
    // the thread library.
    zortest::SampleFileBuilder builder(numSamples, threads);
    std::mt19937_64 random(7);
    auto freshStack = [&](bool mainThread) {
        std::vector<unsigned long> trace;
        for (int f = 0; f < frames - (mainThread ? 0 : 2); ++f)
            trace.push_back(CODE + 16 * (random() % static_cast<unsigned long>(addresses)));
        if (!mainThread) {
            trace.push_back(START_THREAD);
            trace.push_back(CLONE3);
        }
        return trace;
    };
    std::vector<std::vector<unsigned long>> pool[2];
    for (int i = 0; i < stacks; ++i) {
        pool[0].push_back(freshStack(false));
        pool[1].push_back(freshStack(true));
    }
    auto stack = [&](bool mainThread) {
        if (stacks <= 0)
            return freshStack(mainThread);
        return pool[mainThread ? 1 : 0][random() % static_cast<unsigned long>(stacks)];
    };
    quorvex::threadlist_t tids;
    for (int t = 0; t < threads; ++t)
        tids.push_back(1000 + t);
    for (int s = 0; s < numSamples; ++s) {
        bool downsampled = false;
        const timespec stamp = {1 + s / 100, (s % 100) * 10000000L};
        const timespec step = {0, 10000000L};
        quorvex::SSample* raw = builder.list().createSample(zortest::makeBacktraceData(stack(true)), stamp, step, step,
                                                            downsampled, false, 1000, tids, timespec{0, 1000}, false);
        raw->metrics().initializeMetrics(0);
        for (int t = 1; t < threads; ++t)
            raw->addThreadBacktrace(zortest::makeBacktraceData(stack(false)), false, 1000 + t, timespec{0, 1000},
                                    t % 3 == 0);
    }

    SampleList list(numSamples + 1);
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = cpuSeconds();
    const long faultsStart = pageFaults();
    source.populateSampleList(list, &builder.list(), QMap<int, quorvex::SCallSite>());
    const double cpu = cpuSeconds() - cpuStart;
    const long faults = pageFaults() - faultsStart;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    double decodeMs = 0;
    std::printf("phase (wall clock)             ms\n");
    const SelfProfilePoints profile = source.selfProfile();
    for (const SelfProfilePoint& point : profile.points()) {
        const double ms = point.value(SelfProfilePoint::ElapsedMs).to_double();
        if (point.name().startsWith(QLatin1String("40.")) || point.name().startsWith(QLatin1String("70.")))
            decodeMs += ms;
        std::printf("%-28s %6.0f\n", qPrintable(point.name()), ms);
    }
    std::printf("raw samples %d x %d threads x %d frames over %d addresses, %s\n", numSamples, threads, frames,
                addresses, stacks > 0 ? qPrintable(QStringLiteral("stacks from a pool of %1").arg(stacks))
                                      : "every stack drawn afresh");
    std::printf("debugger questions: %lld (%d addresses asked twice)\n", debugger.questions,
                debugger.askedTwice().size());
    std::printf("analysis, wall clock: %.1f ms in all, %.1f us per raw sample\n", seconds * 1000,
                seconds * 1e6 / numSamples);
    std::printf("analysis, CPU time:   %.1f ms in all, %.1f us per raw sample\n", cpu * 1000, cpu * 1e6 / numSamples);
    std::printf("page faults during the analysis: %ld (%.1f MB of fresh memory); a node of a tree takes %d bytes\n",
                faults, faults * 4096.0 / 1e6, int(sizeof(ZORPSVModelItem)));
    // The decoding passes run on the one thread that asks the debugger; on
    // a machine of several cores the trees of the samples decoded so far are
    // built beside the first pass, and only what it didn't hide counts here.
    // Its own work beyond the answers (names interned, frames noted) isn't
    // counted either: the CPU figure below counts it.
    std::printf("wall clock beyond the decoding passes (the debugger's answers): %.1f us per raw sample\n",
                (seconds * 1000 - decodeMs) * 1000 / numSamples);

    // What the table's answers cost the analysis: the same questions asked
    // again, in CPU time, so that a loaded machine counts as little here as
    // in the figure above.
    // The instruction cache's questions are answers of the debugger too.
    const QList<unsigned long long> asked = debugger.asked.keys();
    QList<QPair<unsigned long long, long long>> disassembled;
    for (const QString& call : debugger.calls) {
        if (!call.startsWith(QLatin1String("disassemble:0x")))
            continue;
        const int plus = call.indexOf(QLatin1Char('+'));
        disassembled.append({call.mid(14, plus - 14).toULongLong(nullptr, 16), call.mid(plus + 1).toLongLong()});
    }
    const double answersStart = cpuSeconds();
    for (unsigned long long address : asked) {
        QList<PositionResponse*> inlined;
        delete debugger.positionOfAddress(address, 0, &inlined);
        qDeleteAll(inlined);
    }
    const double positionAnswers = cpuSeconds() - answersStart;
    for (const auto& range : disassembled) {
        unsigned long long end = 0;
        debugger.disassembleRange(range.first, range.second, &end);
    }
    const double answers = cpuSeconds() - answersStart;
    std::printf("the debugger's answers, asked again: %.1f ms CPU (%.1f ms of them %d disassemblies); analysis beyond "
                "them: %.1f us per raw sample\n",
                answers * 1000, (answers - positionAnswers) * 1000, int(disassembled.size()),
                (cpu - answers) * 1e6 / numSamples);
    // The analysis's own time: all of its wall clock but what the answers
    // themselves took, whichever phase waited for them. The goal is under
    // 100 us per raw sample.
    std::printf("wall clock beyond the debugger's answers: %.1f us per raw sample\n",
                (seconds - answers) * 1e6 / numSamples);
    // Nearly all of it grows with the frames of the run: this figure carries
    // over to runs of other shapes (a real one of 2 threads and 10 frames
    // costs about 20 us per raw sample).
    std::printf("analysis beyond the debugger's answers: %.2f us per frame\n",
                (cpu - answers) * 1e6 / (double(numSamples) * threads * frames));

    QCryptographicHash checksum(QCryptographicHash::Sha1);
    for (const Sample* sample : list) {
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        QXmlStreamWriter writer(&buffer);
        sample->writeXml(writer);
        checksum.addData(buffer.data());
    }
    std::printf("checksum of the samples' wire form: %s\n", checksum.result().toHex().constData());
    qDeleteAll(list);
    return 0;
}
