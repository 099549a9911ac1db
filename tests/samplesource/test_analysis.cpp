// The analysis of a run as a user meets it: a sampler file goes through
// readSamples, against a debugger that answers positions from a table, and
// the finished trees are read back one line per frame.
#include <QDir>
#include <QFile>
#include <QTimer>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QXmlStreamWriter>

#include <cmath>
#include <memory>
#include <random>

#include "constants.h"
#include "envswitch.h"
#include "fakehost.h"
#include "gpuprofilepsvmodelitem.h"
#include "preloadsamplesource.h"
#include "profilerresponses.h"
#include "sample.h"
#include "samplefilebuilder.h"
#include "samplelist.h"
#include "tabledebugger.h"
#include "testenv.h"
#include "zorpsvmodelitem.h"

namespace {

using Frames = std::vector<unsigned long>;

// Where the pieces of the target lie.
const unsigned long LIBC = 0x7000000;
const unsigned long SAMPLER = 0x7200000;
const unsigned long GOMP = 0x7400000;
const unsigned long LIBM = 0x7600000;
const unsigned long LIBFOO = 0x7800000;
const unsigned long LIBBAR = 0x7900000;
const unsigned long MPIWRAPPER = 0x7b00000;

// Frames of the thread library and the program's start-up, named as the C
// library's debug symbols name them.
const unsigned long START_MAIN = LIBC + 0x105;
const unsigned long START_THREAD = LIBC + 0x205;
const unsigned long CLONE3 = LIBC + 0x305;
const unsigned long EPOLL_WAIT = LIBC + 0x410;

const int MAIN_TID = 100;

// One line per node below the root, indented by depth:
// "function@file:line#special", leaving out what is unknown.
QString describe(const PSVModelItem* node, int depth = 0)
{
    QString text;
    for (const PSVModelItem* child : node->children()) {
        const ZORPSVModelItem* item = static_cast<const ZORPSVModelItem*>(child);
        QString line = QString(depth * 2, QLatin1Char(' ')) + item->position().function;
        if (!item->position().file.isEmpty())
            line += QLatin1Char('@') + item->position().file + QLatin1Char(':') + QString::number(item->position().line);
        if (item->specialType() != ZORPSVModelItem::specialNone)
            line += QLatin1Char('#') + QString::number(item->specialType());
        text += line + QLatin1Char('\n') + describe(child, depth + 1);
    }
    return text;
}

class Analysis : public ::testing::Test
{
protected:
    void SetUp() override
    {
        host.debugger = &debugger;
        host.program = QStringLiteral("/home/me/bin/app");
        host.rank = 3;
        debugger.addresses.insert(QStringLiteral("&quorvex_init_sampler_now"), 0x401000);
        debugger.expressions.insert(QStringLiteral("quorvex_sampler_version()"), QStringLiteral("700"));
        debugger.onCall = [this](const QString& call) {
            // The sampler starts; the run ends as soon as the target runs.
            if (call.startsWith(QLatin1String("evaluate:quorvex_init_sampler_now")))
                debugger.expressions.insert(call.mid(9), QStringLiteral("0"));
            if (call == QLatin1String("detach"))
                QTimer::singleShot(0, source.get(), SLOT(stop()));
        };
        debugger.libraries = {
            SharedLibrary(QStringLiteral("/usr/lib/x86_64-linux-gnu/libc.so.6"), LIBC, LIBC + 0x100000),
            SharedLibrary(QStringLiteral("/opt/zor/lib/libquorvex-sampler.so"), SAMPLER, SAMPLER + 0x100000),
            SharedLibrary(QStringLiteral("/opt/zor/lib/libquorvex-mpiwrapper.so"), MPIWRAPPER, MPIWRAPPER + 0x100000),
            SharedLibrary(QStringLiteral("/usr/lib/x86_64-linux-gnu/libgomp.so.1"), GOMP, GOMP + 0x100000),
            SharedLibrary(QStringLiteral("/usr/lib/x86_64-linux-gnu/libm.so.6"), LIBM, LIBM + 0x100000),
            SharedLibrary(QStringLiteral("/usr/lib/libfoo.so"), LIBFOO, LIBFOO + 0x100000),
            SharedLibrary(QStringLiteral("/usr/lib/libbar.so"), LIBBAR, LIBBAR + 0x100000),
        };
        debugger.functions.insert(QStringLiteral("main"),
                                  PositionResponse(QStringLiteral("main"), QStringLiteral("main.c"), 5, true));
        debugger.frame(START_MAIN, QStringLiteral("__libc_start_call_main"), QStringLiteral("libc_start_call_main.h"), 58);
        debugger.frame(START_THREAD, QStringLiteral("start_thread"), QStringLiteral("pthread_create.c"), 442);
        debugger.frame(CLONE3, QStringLiteral("__clone3"), QStringLiteral("clone3.S"), 81);
        debugger.place(EPOLL_WAIT, QStringLiteral("epoll_wait"), QStringLiteral("epoll_wait.c"), 30);
        debugger.frame(0x403005, QStringLiteral("main"), QStringLiteral("main.c"), 8);
    }

    void makeSource()
    {
        source.reset(new PreloadSampleSource(host, 100, 10, MetricDefinitions(), 0, 0, 0, false, false, false));
    }

    // A sample whose main thread has `frames`; other threads are added to it.
    quorvex::SSample* sample(const Frames& frames, int status = 0)
    {
        clock.tv_sec += 1;
        bool downsampled = false;
        const timespec step = {1, 0};
        quorvex::SSample* raw = builder.list().createSample(zortest::makeBacktraceData(frames, status), clock, step,
                                                            step, downsampled, false, MAIN_TID, {MAIN_TID},
                                                            timespec{0, 1000}, false);
        raw->metrics().initializeMetrics(0);
        return raw;
    }
    void thread(quorvex::SSample* raw, int tid, const Frames& frames, bool sleeping = false, int status = 0,
                bool stopsAtCallingFrame = false, int parallelId = 0)
    {
        raw->addThreadBacktrace(zortest::makeBacktraceData(frames, status, stopsAtCallingFrame, parallelId), false,
                                tid, timespec{0, 500}, sleeping);
    }

    static quorvex::zor_shared_ptr<quorvex::SGpuKernelHit> kernelHit(unsigned int correlation, unsigned int name)
    {
        return quorvex::zor_shared_ptr<quorvex::SGpuKernelHit>(
            new quorvex::SGpuKernelHit(correlation, name, timespec{0, 0}, timespec{1, 0}));
    }

    // Writes the sampler's file and lets readSamples do the whole analysis.
    void run()
    {
        if (!source)
            makeSource();
        const QByteArray path = QFile::encodeName(source->sampleFile());
        const int fd = ::open(path.constData(), O_WRONLY | O_TRUNC);
        ASSERT_GE(fd, 0);
        builder.write(fd);
        ::close(fd);
        QFile running(source->runningFile());
        ASSERT_TRUE(running.open(QIODevice::WriteOnly));
        running.close();
        // Several builders even for a few samples, so that every case here
        // goes through the hand-over of trees between threads.
        source->setTreeBuilders(2);
        EXPECT_FALSE(source->readSamples(list));
        for (Sample* s : list)
            samples.append(s);
    }

    // The frames of a thread below its program and class frames.
    QString frames(int sampleIndex, int tid)
    {
        const ZORPSVModelItem* root = samples.value(sampleIndex)->psvModel(tid);
        if (!root || root->childCount() != 1 || root->firstChild()->childCount() != 1)
            return QStringLiteral("(no program and class frame)\n") + (root ? describe(root) : QString());
        return describe(root->firstChild()->firstChild());
    }

    TableDebugger debugger;
    FakeHost host;
    std::unique_ptr<PreloadSampleSource> source;
    zortest::SampleFileBuilder builder{64};
    SampleList list{1000};
    QList<Sample*> samples;
    timespec clock = {100, 0};

    void TearDown() override { qDeleteAll(samples); }
};

TEST_F(Analysis, FunctionsFilesAndLinesWithInlinedCallersUnderTheirClassFrames)
{
    // The leaf has two inlined callers; the debugger lists the innermost first.
    debugger.place(0x401010, QStringLiteral("kernel_inner"), QStringLiteral("calc.c"), 20);
    debugger.inlineAt(0x401010, {PositionResponse(QStringLiteral("kernel"), QStringLiteral("calc.c"), 30, true),
                                 PositionResponse(QStringLiteral("kernel_outer"), QStringLiteral("calc.c"), 40, true)});
    debugger.frame(0x402005, QStringLiteral("pmpi_send_"));
    debugger.frame(0x404005, QStringLiteral("worker"), QStringLiteral("work.c"), 7);
    debugger.frame(0x405005, QStringLiteral("(anonymous namespace)::startThread(void*)"));
    debugger.frame(SAMPLER + 0x105, QStringLiteral("(anonymous namespace)::startThread(void*)"));
    debugger.frame(0x406005, QStringLiteral("pmpi_comm_rank"));
    // The MPI wrapper's MPI_Send, which calls the library's.
    debugger.frame(MPIWRAPPER + 0x105, QStringLiteral("MPI_Send"));

    quorvex::SSample* raw = sample({0x401010, 0x402005, MPIWRAPPER + 0x105, 0x403005, START_MAIN});
    // A worker started through the sampler's wrapper, whose leaf lies in a
    // library without symbols.
    thread(raw, 101, {LIBM + 0x10, 0x404005, SAMPLER + 0x105, START_THREAD, CLONE3});
    thread(raw, 102, {0x406005 + 4, 0x406005, 0x404005, START_THREAD, CLONE3});
    run();

    const ZORPSVModelItem* main = samples.at(0)->psvModel(MAIN_TID);
    // The program's name, not its path; the main function's frame from the
    // debugger, then the start-up frame above main left out.
    EXPECT_EQ(describe(main), QStringLiteral("app#1\n"
                                             "  main@main.c:5#2\n"
                                             "    main@main.c:8\n"
                                             "      MPI_Send\n"
                                             "        kernel_outer@calc.c:40\n"
                                             "          kernel@calc.c:30\n"
                                             "            kernel_inner [inlined]@calc.c:20\n"));
    // A thread of no class shows its entry twice; neither the thread
    // library's frames nor the sampler's wrapper stand in it.
    EXPECT_EQ(describe(samples.at(0)->psvModel(101)), QStringLiteral("app#1\n"
                                                                      "  worker#3\n"
                                                                      "    worker@work.c:7\n"
                                                                      "      <unknown> from libm.so.6\n"));
    EXPECT_EQ(frames(0, 102), QStringLiteral("worker@work.c:7\n"
                                             "  pmpi_comm_rank\n"
                                             "    <unknown>\n"));
    EXPECT_EQ(samples.at(0)->backendOnly_threadType(MAIN_TID), Sample::MainThread);
    EXPECT_EQ(samples.at(0)->backendOnly_cpuTime(101), 500ULL);
    // The leaf address had no instruction before it: the recorded address
    // was decoded and no instruction is known.
    EXPECT_EQ(samples.at(0)->backendOnly_instruction(MAIN_TID), InstructionQuery());
}

TEST_F(Analysis, FramesWithoutNamesFold)
{
    debugger.frame(0x401010, QStringLiteral("compute"), QStringLiteral("calc.c"), 9);
    debugger.frame(0x404005, QStringLiteral("known"), QStringLiteral("k.c"), 5);
    const Frames unknowns = {0x500005, 0x500105, 0x500205, 0x500305, 0x500405, 0x500505, 0x500605};

    // Seven nameless frames at the root end vanish.
    Frames trace = {0x401010, 0x404005};
    trace.insert(trace.end(), unknowns.begin(), unknowns.end());
    sample(trace);
    // Five nameless frames and the leaf: only the last of the five stays.
    sample({0x401010, 0x500005, 0x500105, 0x500205, 0x500305, 0x500405});
    // Three equal frames of a library without symbols above a known frame
    // fold into one; with nothing after them, one plain frame stays.
    sample({0x401010, 0x404005, LIBFOO + 0x15, LIBFOO + 0x25, LIBFOO + 0x35});
    sample({0x401010, LIBFOO + 0x15, LIBFOO + 0x25, LIBFOO + 0x35});
    // Twenty-one unknown frames of two names below a known frame fold with
    // it into one; twenty stay.
    for (int count : {21, 20}) {
        Frames chain = {0x401010};
        for (int i = 0; i < count; ++i)
            chain.push_back((i % 2 ? LIBFOO : LIBBAR) + 0x105 + 0x10 * i);
        chain.push_back(0x404005);
        sample(chain);
    }
    run();

    EXPECT_EQ(frames(0, MAIN_TID), QStringLiteral("known@k.c:5\n  compute@calc.c:9\n"));
    EXPECT_EQ(frames(1, MAIN_TID), QStringLiteral("<unknown>\n  compute@calc.c:9\n"));
    EXPECT_EQ(frames(2, MAIN_TID),
              QStringLiteral("<unknown> from libfoo.so [multiple frames]\n  known@k.c:5\n    compute@calc.c:9\n"));
    EXPECT_EQ(frames(3, MAIN_TID), QStringLiteral("<unknown> from libfoo.so\n  compute@calc.c:9\n"));
    EXPECT_EQ(frames(4, MAIN_TID), QStringLiteral("<unknown> [x 20+]@k.c:5\n  compute@calc.c:9\n"));
    EXPECT_EQ(frames(5, MAIN_TID).count(QLatin1Char('\n')), 22);
}

TEST_F(Analysis, AWorkerOfAParallelRegionHangsUnderItsCallSite)
{
    debugger.frame(0x401410, QStringLiteral("main._omp_fn.0"), QStringLiteral("main.c"), 10);
    // The region was opened in main, line 8, called from the start-up code.
    Frames site = {0x403005, START_MAIN};
    BacktraceData siteTrace = zortest::makeBacktraceData(site);
    builder.callSites().emplace_back(7, MAIN_TID, &siteTrace, 0);

    // The thread that opened the region runs it too, through the sampler's
    // stand-in for the runtime's entry point and the runtime's own.
    debugger.frame(SAMPLER + 0x205, QStringLiteral("(anonymous namespace)::regionEntry(void*)"));
    debugger.frame(GOMP + 0x205, QStringLiteral("GOMP_parallel"));
    debugger.frame(SAMPLER + 0x305, QStringLiteral("GOMP_parallel"));
    quorvex::SSample* first = sample({0x401410, SAMPLER + 0x205, GOMP + 0x205, SAMPLER + 0x305, 0x403005, START_MAIN});
    thread(first, 102, {0x401410}, false, 0, true, 7);
    // The same worker in a region whose call site the sampler lost: its own
    // first frame is marked, and it gets its class.
    quorvex::SSample* second = sample({0x403005, START_MAIN});
    thread(second, 102, {0x401410, GOMP + 0x105, START_THREAD, CLONE3}, false, 0, true, 9);
    run();

    EXPECT_EQ(describe(samples.at(0)->psvModel(102)), QStringLiteral("app#1\n"
                                                                      "  main@main.c:5#2\n"
                                                                      "    main@main.c:8#7\n"
                                                                      "      main._omp_fn.0@main.c:10\n"));
    EXPECT_EQ(samples.at(0)->backendOnly_threadType(102), Sample::ParallelRegionThread);
    EXPECT_EQ(frames(0, MAIN_TID), QStringLiteral("main@main.c:8\n"
                                                  "  GOMP_parallel\n"
                                                  "    main._omp_fn.0@main.c:10\n"));
    EXPECT_EQ(describe(samples.at(1)->psvModel(102)), QStringLiteral("app#1\n"
                                                                      "  [OpenMP worker thread]#5\n"
                                                                      "    <unknown> from libgomp.so.1#7\n"
                                                                      "      main._omp_fn.0@main.c:10\n"));
    EXPECT_TRUE(source->hasOmpRegions());
}

TEST_F(Analysis, ThreadsOfTheRuntimesAreSortedAndMonitorsFound)
{
    debugger.frame(0x401010, QStringLiteral("compute"), QStringLiteral("calc.c"), 9);
    debugger.frame(0x407005, QStringLiteral("progress_engine"));
    debugger.frame(0x408005, QStringLiteral("gomp_thread_start"));
    debugger.frame(0x409005, QStringLiteral("cuEventSynchronize"));
    debugger.frame(0x40a005, QStringLiteral("cudaLaunchKernel"));
    for (int i = 0; i < 5; ++i) {
        quorvex::SSample* raw = sample({0x401010, 0x403005, START_MAIN});
        // Progress threads sleep in 4 of 5 samples: monitors. The OpenMP
        // worker sleeps in 3: a worker.
        thread(raw, 103, {EPOLL_WAIT, 0x407005, START_THREAD, CLONE3}, i != 0);
        thread(raw, 104, {0x401010, 0x408005, START_THREAD, CLONE3}, i < 3);
        thread(raw, 105, {0x401010, 0x407005, START_THREAD, CLONE3}, i < 3);
        // An accelerator call near the root makes an accelerator thread;
        // deeper down it is the program's own call.
        thread(raw, 106, {0x401010, 0x409005, START_THREAD, CLONE3});
        thread(raw, 107, {0x401010, 0x40a005, 0x404005, START_THREAD, CLONE3});
        // The runtime's entry point only as an inlined caller.
        thread(raw, 108, {0x401010, 0x40b005, START_THREAD, CLONE3}, i < 3);
    }
    debugger.frame(0x404005, QStringLiteral("worker"), QStringLiteral("work.c"), 7);
    debugger.frame(0x40b005, QStringLiteral("team_loop"), QStringLiteral("team.c"), 12);
    debugger.inlineAt(0x40b004, {PositionResponse(QStringLiteral("gomp_thread_start"), QStringLiteral("team.c"), 3, true)});
    run();

    const Sample* last = samples.at(4);
    auto classFrame = [&](int tid) {
        const PSVModelItem* frame = last->psvModel(tid)->firstChild()->firstChild();
        return frame->position().function;
    };
    EXPECT_EQ(classFrame(103), QStringLiteral("[MPI monitor thread]"));
    EXPECT_EQ(classFrame(104), QStringLiteral("[OpenMP worker thread]"));
    EXPECT_EQ(classFrame(105), QStringLiteral("[MPI worker thread]"));
    // Accelerator threads always count as sleeping in their samples, but a
    // monitor is told by what the sampler saw.
    EXPECT_EQ(classFrame(106), QStringLiteral("[Accelerator worker thread]"));
    EXPECT_TRUE(last->backendOnly_isSleeping(106));
    EXPECT_EQ(classFrame(107), QStringLiteral("worker"));
    EXPECT_EQ(classFrame(108), QStringLiteral("[OpenMP worker thread]"));
    EXPECT_EQ(classFrame(MAIN_TID), QStringLiteral("main"));
}

// Collects what qWarning prints.
QStringList gWarnings;
void collectWarnings(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtWarningMsg)
        gWarnings.append(text);
}

TEST_F(Analysis, UnwindFailuresAreCountedPerStatusWithSomeTraces)
{
    setSwitch("KLB_VERBOSE_UNWIND_ERRORS", QStringLiteral(""));
    debugger.frame(0x401010, QStringLiteral("compute"), QStringLiteral("calc.c"), 9);
    // Status 8 in 7 samples with 3 distinct traces, status 10 with 6
    // distinct ones; status 7 is told only in debug mode.
    for (int i = 0; i < 7; ++i)
        sample({0x401010, 0x403005UL + 0x100 * (i % 3)}, 8);
    for (int i = 0; i < 6; ++i)
        sample({0x401010, 0x403005UL + 0x100 * i}, 10);
    sample({0x401010, 0x403005}, 7);
    // A thread in its first sample has no backtrace yet: not an error.
    quorvex::SSample* raw = sample({0x401010, 0x403005});
    thread(raw, 108, {}, false, 102);
    run();

    // A failed unwind without a thread root is marked partial; an empty
    // trace says so.
    EXPECT_EQ(frames(0, MAIN_TID), QStringLiteral("[partial trace]#8\n  main@main.c:8\n    compute@calc.c:9\n"));
    EXPECT_EQ(frames(14, 108), QStringLiteral("[partial trace]#8\n  <unknown> [no stack trace]\n"));
    EXPECT_EQ(samples.at(0)->libunwindErrorCodes(), QList<int>{8});
    EXPECT_TRUE(samples.at(14)->libunwindErrorCodes().isEmpty());

    const auto printed = [&]() {
        gWarnings.clear();
        const QtMessageHandler previous = qInstallMessageHandler(collectWarnings);
        source->printUnwindErrors();
        qInstallMessageHandler(previous);
        return gWarnings;
    };
    const QStringList lines = printed();
    ASSERT_EQ(lines.size(), 1 + 3 + 1 + 6);
    EXPECT_EQ(lines.at(0), QStringLiteral("Quorvex Sampler: 3 libunwind: Unsupported operation or bad value (7/15 samples)"));
    EXPECT_EQ(lines.at(1), QStringLiteral("[0x401010 compute (calc.c:9), 0x403005 main (main.c:8)]"));
    EXPECT_EQ(lines.at(4), QStringLiteral("Quorvex Sampler: 3 libunwind: No unwind info found (6/15 samples)"));
    EXPECT_EQ(lines.at(10), QStringLiteral("..."));
    // Without the flag the counts stay and the traces go; a host whose
    // front-end tells the counts itself silences the lot.
    setSwitch("KLB_VERBOSE_UNWIND_ERRORS", QString());
    EXPECT_EQ(printed(), QStringList({lines.at(0), lines.at(4)}));
    host.reportingSuppressed = true;
    EXPECT_TRUE(printed().isEmpty());

    bool debugOnly = false;
    EXPECT_EQ(PreloadSampleSource::unwindStatusText(107, &debugOnly),
              QStringLiteral("libunwind touched an invalid memory location"));
    EXPECT_TRUE(debugOnly);
    EXPECT_EQ(PreloadSampleSource::unwindStatusText(42, &debugOnly), QStringLiteral("Unknown error code from libunwind:42"));
}

TEST_F(Analysis, BadInputGoesThroughWithoutACrash)
{
    debugger.frame(0x401010, QStringLiteral("compute"), QStringLiteral("calc.c"), 9);
    debugger.frame(SAMPLER + 0x205, QStringLiteral("quorvex_signal_handler"));
    quorvex::SSample* raw = sample({0x401010, 0x403005});
    // Ends in zeros; the thread library's frames and the zeros cover all
    // but the leaf, or all of the trace.
    thread(raw, 110, {0x401010, START_THREAD, CLONE3, 0, 0});
    thread(raw, 111, {START_THREAD, CLONE3, 0, 0});
    // Two frames are never a thread's root.
    thread(raw, 112, {START_THREAD, CLONE3});
    // Nothing but the sampler's own frames.
    thread(raw, 113, {SAMPLER + 0x205, SAMPLER + 0x205});
    thread(raw, 114, {});
    run();

    EXPECT_EQ(frames(0, 110), QStringLiteral("compute@calc.c:9\n"));
    EXPECT_EQ(frames(0, 111), QStringLiteral("start_thread@pthread_create.c:442\n"));
    EXPECT_EQ(frames(0, 112), QStringLiteral("__clone3@clone3.S:81\n  start_thread@pthread_create.c:442\n"));
    EXPECT_EQ(describe(samples.at(0)->psvModel(113)), QStringLiteral("app#1\n  <unknown> [error]#3\n    <unknown> [error]\n"));
    EXPECT_EQ(describe(samples.at(0)->psvModel(114)),
              QStringLiteral("app#1\n  <unknown> [no stack trace]#3\n    <unknown> [no stack trace]\n"));
}

TEST_F(Analysis, GpuTreesShareOutEachSampleByItsKernels)
{
    // Kernel 3 has a name; kernel 99 has none in the run's GPU file.
    makeSource();
    QFile gpu(source->gpuFile());
    ASSERT_TRUE(gpu.open(QIODevice::WriteOnly));
    gpu.write("<?xml version=\"1.0\"?>\n<gpuProfile cudaRuntimeVersion=\"12020\">\n"
              "<stats numKernelLaunches=\"2\" numKernelsSampled=\"2\"/>\n"
              "<kernelDurationMs min=\"0.5\" max=\"2.25\" mean=\"1.125\"/>\n"
              "<samplingPeriod min=\"1024\" max=\"65536\"/>\n"
              "<sourceLocators><location id=\"1\" file=\"/src/saxpy.cu\" line=\"42\"/></sourceLocators>\n"
              "<kernelNames><kernel id=\"3\" name=\"_Z6saxpyPf\"/></kernelNames>\n</gpuProfile>\n");
    gpu.close();
    debugger.demangled.insert(QStringLiteral("_Z6saxpyPf"), QStringLiteral("saxpy(float*)"));

    quorvex::SSample* raw = sample({0x403005});
    auto named = kernelHit(1, 3);
    named->setSamplingRecordInfo(0, 10, 1024);
    named->addLineHit(1, quorvex::GpuProfilerTypes::StallReason::MemoryDependency, 4, 3);
    named->addLineHit(1, quorvex::GpuProfilerTypes::StallReason::None, 2, 0);
    raw->addKernelHit(named);
    auto nameless = kernelHit(2, 99);
    nameless->setSamplingRecordInfo(0, 0, 1024);
    nameless->addLineHit(1, quorvex::GpuProfilerTypes::StallReason::Texture, 1, 0);
    raw->addKernelHit(nameless);
    quorvex::SSample* lonely = sample({0x403005});
    auto lineless = kernelHit(3, 3);
    lineless->setSamplingRecordInfo(0, 5, 1024);
    lonely->addKernelHit(lineless);
    sample({0x403005});
    run();

    const GpuProfilePSVModelItem* tree = samples.at(0)->gpuPsvModel();
    ASSERT_TRUE(tree);
    const GpuProfilePSVModelItem* program = tree->children().at(0);
    EXPECT_EQ(program->position().function, QStringLiteral("app"));
    ASSERT_EQ(program->children().size(), 2);
    // Each of the two kernels weighs a half: 4 and 2 of 10 samples, the
    // other 4 dropped.
    const GpuProfilePSVModelItem* saxpy = program->children().at(0);
    EXPECT_EQ(saxpy->position().function, QStringLiteral("saxpy"));
    const GpuProfilePSVModelItem* line = saxpy->children().at(0);
    EXPECT_EQ(line->position().file, QStringLiteral("/src/saxpy.cu"));
    EXPECT_DOUBLE_EQ(line->stalls().value(GpuProfilerStallReason::MemoryDependency), 0.2);
    EXPECT_DOUBLE_EQ(line->stalls().value(GpuProfilerStallReason::None), 0.1);
    EXPECT_DOUBLE_EQ(saxpy->droppedStalls(), 0.2);
    // A total of 0: the lines' shares are not numbers, the kernel's half is
    // unknown.
    const GpuProfilePSVModelItem* unknown = program->children().at(1);
    EXPECT_EQ(unknown->position().function, QStringLiteral("<unknown-id 99>"));
    EXPECT_TRUE(std::isinf(unknown->children().at(0)->stalls().value(GpuProfilerStallReason::Texture)));
    EXPECT_DOUBLE_EQ(unknown->unknownStalls(), 0.5);
    // A hit without lines is unknown as a whole; a sample without hits has
    // no tree.
    EXPECT_DOUBLE_EQ(samples.at(1)->gpuPsvModel()->children().at(0)->children().at(0)->unknownStalls(), 1.0);
    EXPECT_EQ(samples.at(2)->gpuPsvModel(), nullptr);

    ProfilerPlayResponse play(3, false, 0, 0, {}, false, false, false, {});
    source->provideGpuProfilingInfo(play);
    EXPECT_EQ(play.metrics().value(QStringLiteral("num_cuda_kernels_launched")).to_uint64_t(), 2u);
    EXPECT_EQ(play.metrics().value(QStringLiteral("cuda_runtime_version")).to_double(), 12020.0);
}

TEST_F(Analysis, WithTheLatencySwitchOnlyLatencySamplesAreStalls)
{
    setSwitch("KLB_USE_GPU_LATENCY_STALLS", QStringLiteral("1"));
    makeSource();
    setSwitch("KLB_USE_GPU_LATENCY_STALLS", QString());
    quorvex::SSample* raw = sample({0x403005});
    auto hit = kernelHit(1, 3);
    hit->setSamplingRecordInfo(0, 10, 1024);
    // Line 1: 4 memory samples, 3 of them latency; line 2: 6 texture
    // samples, all latency.
    hit->addLineHit(1, quorvex::GpuProfilerTypes::StallReason::MemoryDependency, 4, 3);
    hit->addLineHit(2, quorvex::GpuProfilerTypes::StallReason::Texture, 6, 6);
    raw->addKernelHit(hit);
    run();

    const GpuProfilePSVModelItem* kernel = samples.at(0)->gpuPsvModel()->children().at(0)->children().at(0);
    ASSERT_EQ(kernel->children().size(), 2);
    const StallReasonCounts& first = kernel->children().at(0)->stalls();
    const StallReasonCounts& second = kernel->children().at(1)->stalls();
    EXPECT_DOUBLE_EQ(first.value(GpuProfilerStallReason::MemoryDependency), 0.3);
    EXPECT_DOUBLE_EQ(first.value(GpuProfilerStallReason::None), 0.1);
    EXPECT_DOUBLE_EQ(second.value(GpuProfilerStallReason::Texture), 0.6);
    // The issued share runs over the lines so far: line 2 has no sample
    // that issued, yet holds line 1's.
    EXPECT_DOUBLE_EQ(second.value(GpuProfilerStallReason::None), 0.1);
    EXPECT_DOUBLE_EQ(kernel->droppedStalls(), 0.0);
}

TEST_F(Analysis, TheInstructionUnderAnAwakeThreadCountsOnItsLine)
{
    // The function starts where the cache begins to disassemble, 16 bytes
    // ahead of the leaf.
    debugger.code.insert(0x400ff5, Instruction(QStringLiteral("push"), QStringLiteral("%rbx"), true));
    debugger.code.insert(0x400ff6, Instruction(QStringLiteral("movabs"), QStringLiteral("$0x1,%rax")));
    debugger.code.insert(0x401001, Instruction(QStringLiteral("vfmadd231pd"), QStringLiteral("%ymm1,%ymm0"), false, true));
    debugger.code.insert(0x401005, Instruction(QStringLiteral("ret"), QString()));
    debugger.place(0x401001, QStringLiteral("compute"), QStringLiteral("calc.c"), 9);
    debugger.place(0x401005, QStringLiteral("compute"), QStringLiteral("calc.c"), 10);
    debugger.frame(0x404005, QStringLiteral("worker"), QStringLiteral("work.c"), 7);
    // Both threads stopped after the multiply-add, which reads memory
    // unseen: the line of it gets each of its kinds, for the main thread also
    // as the main thread's; a sleeping thread counts nothing.
    quorvex::SSample* raw = sample({0x401005, 0x403005, START_MAIN});
    thread(raw, 101, {0x401005, 0x404005, START_THREAD, CLONE3});
    thread(raw, 102, {0x401005, 0x404005, START_THREAD, CLONE3}, true);
    run();

    auto leaf = [&](int tid) {
        const PSVModelItem* node = samples.at(0)->psvModel(tid);
        while (node->childCount() > 0)
            node = node->firstChild();
        return static_cast<const ZORPSVModelItem*>(node);
    };
    const QMap<QString, double> kinds{{QString::fromLatin1(METRIC_INSTR_VECTOR_FP), 1.0},
                                      {QString::fromLatin1(METRIC_INSTR_MEM), 1.0},
                                      {QString::fromLatin1(METRIC_INSTR_IMPLICIT_MEM), 1.0}};
    EXPECT_EQ(leaf(MAIN_TID)->position().line, 9);
    EXPECT_EQ(leaf(MAIN_TID)->activeCoreLineMetrics().values(), kinds);
    EXPECT_EQ(leaf(MAIN_TID)->mainThreadLineMetrics(), leaf(MAIN_TID)->activeCoreLineMetrics());
    EXPECT_EQ(leaf(101)->activeCoreLineMetrics().values(), kinds);
    EXPECT_TRUE(leaf(101)->mainThreadLineMetrics().isEmpty());
    EXPECT_TRUE(leaf(102)->activeCoreLineMetrics().isEmpty());

}

TEST_F(Analysis, TheDebuggerIsAskedOncePerAddressAndNeverWhileTreesAreBuilt)
{
    builder.addRandom(zortest::RandomSampleShape{});
    makeSource();
    QMap<int, quorvex::SCallSite> sites;
    for (const quorvex::SCallSite& site : builder.callSites())
        sites.insert(site.parallelId(), site);
    source->precacheLineAndInstructionInfo(&builder.list(), sites);
    EXPECT_GT(debugger.questions, 0);
    EXPECT_TRUE(debugger.askedTwice().isEmpty());
    debugger.refuse = true;
    for (unsigned int i = 0; i < builder.list().size(); ++i) {
        std::unique_ptr<Sample> built(
            source->createSample(builder.list().at(i), timespec{0, 0}, sites, i ? &builder.list().at(i - 1) : nullptr));
        EXPECT_FALSE(built->backendOnly_sampledTids().isEmpty());
    }
}

TEST_F(Analysis, TreesBuiltOnSeveralThreadsAreThoseBuiltOnOne)
{
    // Threads that come and go, sleep, fail to unwind, work in regions and
    // call into the runtimes: their classes, counts and reports depend on
    // the samples before, whichever thread built a tree, and their leaves
    // are the same whether asked of the debugger before or beside the
    // builders.
    const QStringList runtimes = {QStringLiteral("progress_engine"), QStringLiteral("gomp_thread_start"),
                                  QStringLiteral("cuEventSynchronize"), QStringLiteral("poll")};
    for (int r = 0; r < runtimes.size(); ++r)
        debugger.frame(0x420005 + 0x100 * r, runtimes.at(r));
    for (int f = 0; f < 40; ++f) {
        const unsigned long address = 0x410005 + 0x100 * f;
        debugger.frame(address, QStringLiteral("f%1").arg(f), QStringLiteral("f.c"), f + 1);
        if (f % 4 == 0)
            debugger.inlineAt(address - 1, {PositionResponse(QStringLiteral("g%1").arg(f), QStringLiteral("g.c"), 3, true)});
    }
    Frames site = {0x410005, 0x403005, START_MAIN};
    BacktraceData siteTrace = zortest::makeBacktraceData(site);
    builder.callSites().emplace_back(7, MAIN_TID, &siteTrace, 0);
    std::mt19937 random(5);
    // Leaves of many addresses, whose questions go beside the builders.
    // Some stopped after an instruction that the disassembly finds, which
    // gives the line shown.
    for (int l = 0; l < 2000; ++l) {
        const unsigned long leaf = 0x500000 + 16 * l;
        debugger.place(leaf, QStringLiteral("leaf%1").arg(l % 30), QStringLiteral("leaf.c"), l + 1);
        if (l % 3 == 0) {
            debugger.code.insert(leaf - 4, Instruction(QStringLiteral("add"), QStringLiteral("%rax,%rbx"), true));
            debugger.code.insert(leaf, Instruction(QStringLiteral("ret"), QString()));
            debugger.place(leaf - 4, QStringLiteral("leaf%1").arg(l % 30), QStringLiteral("leaf.c"), 5000 + l);
        }
    }
    const auto frames = [&](bool worker) {
        Frames trace = {0x500000 + 16 * (random() % 2000)};
        for (unsigned depth = random() % 30; depth > 0; --depth)
            trace.push_back(random() % 9 == 0 ? LIBM + random() % 64 : 0x410005 + 0x100 * (random() % 40));
        if (worker && random() % 4 != 0) {
            if (random() % 2)
                trace.push_back(0x420005 + 0x100 * (random() % runtimes.size()));
            trace.insert(trace.end(), {START_THREAD, CLONE3});
        }
        return trace;
    };
    const int statuses[] = {0, 0, 0, 8, 10, 102};
    for (int s = 0; s < 60; ++s) {
        Frames main = frames(false);
        main.insert(main.end(), {0x403005, START_MAIN});
        quorvex::SSample* raw = sample(main, statuses[random() % 6]);
        for (int tid = 101; tid < 108; ++tid) {
            if (random() % 5 != 0)
                thread(raw, tid, frames(true), random() % 2, statuses[random() % 6], tid == 107, random() % 2 ? 7 : 9);
        }
    }
    const auto analyse = [&](int builders, bool& regions) {
        PreloadSampleSource analysis(host, 100, 10, MetricDefinitions(), 0, 0, 0, false, false, false);
        analysis.setTreeBuilders(builders);
        SampleList analysed(100);
        QMap<int, quorvex::SCallSite> sites;
        for (const quorvex::SCallSite& callSite : builder.callSites())
            sites.insert(callSite.parallelId(), callSite);
        analysis.populateSampleList(analysed, &builder.list(), sites);
        regions = analysis.hasOmpRegions();
        QByteArray wire;
        QXmlStreamWriter writer(&wire);
        for (const Sample* analysedSample : analysed)
            analysedSample->writeXml(writer);
        qDeleteAll(analysed);
        return wire;
    };
    bool regionsOnOne = false, regionsOnThree = true;
    const QByteArray onOne = analyse(1, regionsOnOne);
    EXPECT_TRUE(onOne.contains("OpenMP worker thread"));
    EXPECT_EQ(analyse(3, regionsOnThree), onOne);
    EXPECT_EQ(regionsOnThree, regionsOnOne);
}

} // namespace
