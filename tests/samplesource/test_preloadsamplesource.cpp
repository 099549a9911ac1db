// The sample source against a scripted debugger and a recording host: the
// start with every way it fails, the end of a run, reading and analysing,
// the analysis lock between processes, kept files and the side files.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "constants.h"
#include "envswitch.h"
#include "exception.h"
#include "fakehost.h"
#include "pidfile.h"
#include "platformnames.h"
#include "preloadsamplesource.h"
#include "profiler.h"
#include "profilerresponses.h"
#include "directoryallocator.h"
#include "sample.h"
#include "samplefilebuilder.h"
#include "samplelist.h"
#include "samplevalue.h"
#include "scripteddebugger.h"
#include "syscalls.h"
#include "testenv.h"

namespace {

void touch(const QString& path, const QByteArray& contents = QByteArray())
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(path);
    file.write(contents);
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A host, a scripted debugger and a scripted target whose sampler makes
// ".running" when armed and writes its results when told to stop, in a
// private temporary directory.
struct Rig
{
    QTemporaryDir tmp;
    FakeHost host;
    ScriptedDebugger debugger;
    // What the target answers to the start of sampling.
    QString initAnswer = QStringLiteral("0");
    QString initOutput;
    // The stem, as the start of sampling named it.
    QString samplePath;
    // The results the scripted sampler writes.
    int rawSamples = 5;
    int stopReason = 2;
    bool finished = false;
    // Called on every debugger call after the script's own answer.
    std::function<void(const QString&)> extra;
    PreloadSampleSource* source = nullptr;

    Rig()
    {
        setSwitch("TMPDIR", tmp.path());
        host.debugger = &debugger;
        host.rank = 3;
        host.target = 4242;
        debugger.addresses[QStringLiteral("&quorvex_init_sampler_now")] = 0x7000;
        debugger.expressions[QStringLiteral("quorvex_sampler_version()")] = QStringLiteral("700");
        debugger.threads = {ThreadResponse(11, 1, 100, QStringLiteral("main")), ThreadResponse(12, 2, 101)};
        debugger.libraries = {SharedLibrary(QStringLiteral("/usr/lib/libc.so.6"), 0x1000, 0x2000)};
        debugger.onCall = [this](const QString& call) { script(call); };
    }
    ~Rig() { setSwitch("TMPDIR", QString()); }

    QString userTemp() const { return tmp.path() + QStringLiteral("/zor-") + QString::number(getuid()); }
    // The files of sources in the user's directory, pid files aside.
    QStringList runFiles() const { return QDir(userTemp()).entryList({QStringLiteral("smpls-*")}, QDir::Files); }
    QString stem() const
    {
        const QStringList files = runFiles();
        return files.isEmpty() ? QString() : userTemp() + QLatin1Char('/') + files.first();
    }

    void script(const QString& call)
    {
        static const QString init = QStringLiteral("evaluate:quorvex_init_sampler_now(");
        if (call.startsWith(init)) {
            samplePath = call.section(QLatin1Char('"'), 1, 1);
            const QString expression = call.mid(int(strlen("evaluate:")));
            debugger.expressions[expression] = initAnswer;
            debugger.printed[expression] = initOutput;
            if (initAnswer.split(QLatin1Char('\n')).contains(QStringLiteral("0")))
                touch(samplePath + QStringLiteral(".running"), "4242\n");
        } else if (call == QLatin1String("evaluate:quorvex_ui_stop_sampling()")) {
            finishRun();
        }
        if (extra)
            extra(call);
    }

    // What the sampler does at the end: results over the stem, then
    // ".running" goes.
    void finishRun()
    {
        if (finished)
            return;
        finished = true;
        zortest::SampleFileBuilder builder(100);
        zortest::RandomSampleShape shape;
        shape.numSamples = rawSamples;
        shape.threadsPerSample = 2;
        shape.framesPerTrace = 4;
        shape.numMetrics = 0;
        shape.kernelHitEvery = 0;
        shape.numCallSites = 0;
        shape.varySizes = false;
        builder.addRandom(shape);
        builder.header().stopReason = stopReason;
        builder.header().numPhdrCacheRebuilds = 7;
        builder.header().numTakenInTotal = 99;
        builder.header().ompThreadsText = "4";
        const int fd = ::open(QFile::encodeName(samplePath).constData(), O_WRONLY | O_TRUNC);
        ASSERT_GE(fd, 0);
        builder.write(fd);
        ::close(fd);
        // No MPI calls and no complaints of metrics: the side files are
        // there all the same.
        const int mpi = ::open(QFile::encodeName(samplePath + QStringLiteral(".mpi")).constData(),
                               O_WRONLY | O_CREAT | O_TRUNC, 0600);
        SampleValue(0).writeToFile(mpi);
        ::close(mpi);
        touch(samplePath + QStringLiteral(".errorMessages"));
        QFile::remove(samplePath + QStringLiteral(".running"));
    }

    std::unique_ptr<PreloadSampleSource> start(bool notSelected = false, const MetricDefinitions& metrics = {})
    {
        std::unique_ptr<PreloadSampleSource> result(
            new PreloadSampleSource(host, 1000, 20, metrics, 77, 5, 9, true, false, notSelected));
        source = result.get();
        return result;
    }

    // After the detach, on the next turn of the host's loop.
    void afterDetach(std::function<void()> what)
    {
        extra = [what](const QString& call) {
            if (call == QLatin1String("detach"))
                QTimer::singleShot(5, what);
        };
    }

    QList<ProfilerProgressResponse> progress() const
    {
        QList<ProfilerProgressResponse> result;
        for (const FakeHost::Record& record : host.responses(ProfilerProgressResponse::staticElementName()))
            result.append(*static_cast<ProfilerProgressResponse*>(record.response.get()));
        return result;
    }
};

// Runs `body` expecting an Exception*; gives its code and message.
std::pair<int, QString> failure(const std::function<void()>& body)
{
    try {
        body();
    } catch (Exception* exception) {
        std::unique_ptr<Exception> owned(exception);
        return {exception->code(), exception->message()};
    }
    return {0, QString()};
}

// ---------------------------------------------------------------------------
// Start

TEST(PreloadSampleSourceStart, ArmsTheSamplerInOrderAndLeavesItsConfigurationForIt)
{
    Rig rig;
    rig.initAnswer = QStringLiteral("[New Thread 0x7ffff7d8a640 (LWP 12)]\n\n0\n[Thread 0x7f (LWP 13) exited]");
    rig.debugger.setDebugMode(true);
    MetricDefinitions metrics;
    metrics.addMetric(Metric(QStringLiteral("cpu"), 0));
    auto source = rig.start(false, metrics);

    const QString stem = source->sampleFile();
    EXPECT_TRUE(stem.startsWith(rig.userTemp() + QStringLiteral("/smpls-"))) << qPrintable(stem);
    EXPECT_EQ(source->runningFile(), stem + QStringLiteral(".running"));
    EXPECT_EQ(source->errorMessagesFile(), stem + QStringLiteral(".errorMessages"));
    EXPECT_EQ(source->mpiFile(), stem + QStringLiteral(".mpi"));
    EXPECT_EQ(source->gpuFile(), stem + QStringLiteral(".gpu"));
    EXPECT_EQ(QFileInfo(rig.userTemp()).permissions() & 0x0077, 0);

    const QStringList expected = {
        QStringLiteral("prepareTarget"),
        QStringLiteral("address:&quorvex_init_sampler_now"),
        QStringLiteral("boundaryIp"),
        QStringLiteral("evaluate:quorvex_set_boundary_frame_ip(0x401000)"),
        QStringLiteral("address:&MPI_Init"),
        QStringLiteral("address:&PMPI_Init"),
        QStringLiteral("evaluate:quorvex_sampler_version()"),
        QStringLiteral("evaluate:quorvex_write_debug_log(1)"),
        QStringLiteral("getThreads"),
        QStringLiteral("evaluate:quorvex_set_GPUProfiler_configuration(1,0)"),
        QStringLiteral("disposition:SIGABRT=ignore"),
        QStringLiteral("disposition:SIGSEGV=ignore"),
        QStringLiteral("disposition:SIGBUS=ignore"),
        QStringLiteral("evaluate:quorvex_init_sampler_now(1000, 20, \"%1\", 1, 5, 9)").arg(stem),
        QStringLiteral("disposition:SIGABRT=default"),
        QStringLiteral("disposition:SIGSEGV=default"),
        QStringLiteral("disposition:SIGBUS=default"),
    };
    EXPECT_EQ(rig.debugger.calls, expected);
    EXPECT_FALSE(source->hasWrappedMpiCalls());
    EXPECT_FALSE(rig.debugger.isCollectingTargetOutput());
    // Expressions run in C, and the language is put back afterwards.
    EXPECT_EQ(rig.debugger.language, LanguageAuto);
    ASSERT_FALSE(rig.debugger.languageCommands.isEmpty());
    EXPECT_EQ(rig.debugger.languageCommands.first().getValue(QStringLiteral("language")).toString(),
              Language::languageToInternalString(LanguageC));

    // The configuration lies where the sampler will look, in its own words.
    const QByteArray config = readAll(stem);
    EXPECT_TRUE(config.startsWith("zor-sampler-config 1\n")) << config.constData();
    EXPECT_TRUE(config.contains("metric 0 timedomain cpu\n")) << config.constData();
    EXPECT_TRUE(QFile::exists(source->runningFile()));
    EXPECT_EQ(source->selfProfile().points().size(), 1);
    EXPECT_EQ(source->selfProfile().points().first().name(), QStringLiteral("00.init"));

    // The source takes all of its files with it.
    source.reset();
    EXPECT_TRUE(rig.runFiles().isEmpty()) << qPrintable(rig.runFiles().join(' '));
}

struct StartFailure
{
    const char* name;
    std::function<void(Rig&)> arrange;
    int code;
    // The message; "%1" stands for the stem.
    QString message;
};

TEST(PreloadSampleSourceStart, EveryFailureSaysWhyInTheUsersWordsAndLeavesNoFiles)
{
    const QString notPreloaded = QStringLiteral(
        "The Quorvex sampler was not preloaded.\nCheck the user guide for instructions on how to link with the "
        "Quorvex sampler.");
    const QString wrapperMissing = QStringLiteral(
        "The MPI wrapper was not preloaded.\nIf your program is statically linked check the user guide for "
        "instructions on how to link with the Quorvex MPI wrapper.");
    const QString wrapperWrong = QStringLiteral(
        "The MPI wrapper was linked incorrectly.\nIf your program is statically linked check the user guide for "
        "instructions on how to link with the Quorvex MPI wrapper.");
    auto mpi = [](Rig& rig, bool allPairsEqual) {
        for (const char* name : {"MPI_Init", "PMPI_Init", "MPI_Init_thread", "PMPI_Init_thread", "start_pes",
                                 "pstart_pes", "shmem_init", "pshmem_init"})
            rig.debugger.addresses[QLatin1Char('&') + QLatin1String(name)] = 0x9000;
        if (!allPairsEqual)
            rig.debugger.addresses[QStringLiteral("&PMPI_Init")] = 0x9100;
    };
    const QList<StartFailure> cases = {
        {"sampler missing", [](Rig& rig) { rig.debugger.addresses.clear(); }, 20008, notPreloaded},
        {"sampler address all ones",
         [](Rig& rig) { rig.debugger.addresses[QStringLiteral("&quorvex_init_sampler_now")] = ~0ULL; }, 20008,
         notPreloaded},
        {"no main frame", [](Rig& rig) { rig.debugger.boundaryIp.clear(); }, 20008,
         QStringLiteral("Unable to identify boundary ip for main frame")},
        {"version not a number",
         [](Rig& rig) {
             rig.debugger.expressions[QStringLiteral("quorvex_sampler_version()")] =
                 QStringLiteral("No symbol \"quorvex_sampler_version\" in current context.");
         },
         20008,
         QStringLiteral("The ZOR sampler could not be preloaded.\nCheck the user guide for instructions on how to link "
                        "with the ZOR sampler.")},
        {"wrong version",
         [](Rig& rig) { rig.debugger.expressions[QStringLiteral("quorvex_sampler_version()")] = QStringLiteral("650"); },
         20011, QStringLiteral("650")},
        {"leftover .running",
         [](Rig& rig) {
             rig.extra = [&rig](const QString& call) {
                 if (call == QLatin1String("evaluate:quorvex_sampler_version()"))
                     touch(rig.stem() + QStringLiteral(".running"));
             };
         },
         20008, QStringLiteral(".running file for sampler already exists: %1.running\nPlease delete this file then try again.")},
        {"refused start",
         [](Rig& rig) {
             rig.initAnswer = QStringLiteral("3");
             rig.debugger.targetStrings[QStringLiteral("quorvex_sampler_error")] = QStringLiteral("bad configuration");
         },
         20016, QStringLiteral("Quorvex Sampler failed initialisation with code 3\n\nbad configuration")},
        {"refused start without a reason", [](Rig& rig) { rig.initAnswer = QStringLiteral("6"); }, 20016, QString()},
        {"target died",
         [](Rig& rig) {
             rig.initAnswer = QStringLiteral("Program received signal SIGSEGV, Segmentation fault.");
             rig.initOutput = QStringLiteral("what the program printed");
         },
         20015, QStringLiteral("Program received signal SIGSEGV, Segmentation fault.\n\nwhat the program printed")},
        {"target exited with a number",
         [](Rig& rig) { rig.initAnswer = QStringLiteral("[Inferior 1 (process 9) exited with code 01]\n1"); }, 20015,
         QStringLiteral("[Inferior 1 (process 9) exited with code 01]\n1")},
        {"a zero with another line", [](Rig& rig) { rig.initAnswer = QStringLiteral("warning: odd\n0"); }, 20015,
         QStringLiteral("warning: odd\n0")},
        {"wrapper not preloaded", [&](Rig& rig) { mpi(rig, false); }, 20008, wrapperMissing},
        {"wrapper of another version",
         [&](Rig& rig) {
             mpi(rig, false);
             rig.debugger.expressions[QStringLiteral("quorvex_zorMpiWrapperVersion()")] = QStringLiteral("599");
         },
         20012, QStringLiteral("599")},
        {"wrapper linked incorrectly",
         [&](Rig& rig) {
             mpi(rig, true);
             rig.debugger.expressions[QStringLiteral("quorvex_zorMpiWrapperVersion()")] = QStringLiteral("600");
         },
         20008, wrapperWrong},
        {"temporary directory of another's making",
         [](Rig& rig) { ASSERT_EQ(::mkdir(QFile::encodeName(rig.userTemp()).constData(), 0755), 0); }, 20008,
         QStringLiteral("ZOR couldn't write a temporary file ''")},
    };
    for (const StartFailure& test : cases) {
        SCOPED_TRACE(test.name);
        Rig rig;
        test.arrange(rig);
        QString stem;
        rig.debugger.onCall = [&](const QString& call) {
            if (stem.isEmpty())
                stem = rig.stem();
            rig.script(call);
        };
        const auto result = failure([&] { rig.start(); });
        EXPECT_EQ(result.first, test.code);
        EXPECT_EQ(result.second, QString(test.message).replace(QStringLiteral("%1"), stem));
        // A failed start leaves nothing behind, and the target's signals are
        // as they were.
        EXPECT_TRUE(rig.runFiles().isEmpty()) << qPrintable(rig.runFiles().join(' '));
        EXPECT_EQ(rig.debugger.callsStartingWith(QStringLiteral("disposition:")).size() % 6, 0);
        EXPECT_EQ(rig.debugger.language, LanguageAuto);
    }
}

TEST(PreloadSampleSourceStart, TheMpiWrapperIsAskedForOnlyWhereMpiIsAndTheStartupIsMpi)
{
    struct Case
    {
        const char* name;
        QMap<QString, unsigned long long> addresses;
        bool noMpiStartup;
        bool asked;
        bool wrapped;
    };
    const QList<Case> cases = {
        {"no MPI", {}, false, false, false},
        // Equal on the first pair, missing on the second: the search ends
        // there as interposed.
        {"aliases without Init_thread", {{"&MPI_Init", 0x10}, {"&PMPI_Init", 0x10}}, false, true, true},
        {"interposed", {{"&MPI_Init", 0x10}, {"&PMPI_Init", 0x20}}, false, true, true},
        {"started without MPI", {{"&MPI_Init", 0x10}, {"&PMPI_Init", 0x20}}, true, false, false},
        // Only the first pair is asked: SHMEM behind a program without
        // MPI_Init goes unnoticed.
        {"SHMEM only", {{"&start_pes", 0x30}, {"&pstart_pes", 0x40}}, false, false, false},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rig rig;
        for (auto it = test.addresses.begin(); it != test.addresses.end(); ++it)
            rig.debugger.addresses[it.key()] = it.value();
        if (test.noMpiStartup)
            rig.debugger.startupName = NoMPIStartup::getName();
        rig.debugger.expressions[QStringLiteral("quorvex_zorMpiWrapperVersion()")] = QStringLiteral("600");
        auto source = rig.start();
        EXPECT_EQ(rig.debugger.calls.contains(QStringLiteral("evaluate:quorvex_zorMpiWrapperVersion()")), test.asked);
        EXPECT_EQ(source->hasWrappedMpiCalls(), test.wrapped);
        EXPECT_EQ(rig.debugger.callsStartingWith(QStringLiteral("address:&start_pes")).size(), 0);
    }
}

TEST(PreloadSampleSourceStart, OneProcessOfANodeIsFirstAndUnselectedRanksNeverTry)
{
    // The election's state lasts for the process, so it runs in a child
    // that starts afresh.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Rig rig;
            rig.host.hostPid = 5151;
            int failures = 0;
            auto unselected = rig.start(true);
            failures += readAll(unselected->sampleFile()).contains("first-on-node 0\n") ? 0 : 1;
            failures += QDir(rig.userTemp()).entryList({QStringLiteral("sampler-*")}).isEmpty() ? 0 : 2;
            unselected.reset();

            auto first = rig.start();
            failures += readAll(first->sampleFile()).contains("first-on-node 1\n") ? 0 : 4;
            failures += first->isFirstOnNode() ? 0 : 8;
            // Another process of the node, with the same name, loses.
            const QString name = QStringLiteral("sampler-%1-5151-77.pid").arg(sc_hostname());
            PidFile other(name, false);
            failures += other.lock(false) ? 16 : 0;
            failures += QFile::exists(rig.userTemp() + QLatin1Char('/') + name) ? 0 : 32;

            auto second = rig.start();
            failures += readAll(second->sampleFile()).contains("first-on-node 0\n") ? 0 : 64;
            std::exit(failures);
        },
        ::testing::ExitedWithCode(0), "");
}

// ---------------------------------------------------------------------------
// The run

struct RunEnd
{
    const char* name;
    // Arranges how the run ends, given the rig.
    std::function<void(Rig&)> arrange;
    int reattaches;
    int exceptions;
};

TEST(PreloadSampleSourceRun, EndsByTheSamplerOrByTheUserOnceAndReadsWhatWasWritten)
{
    const QList<RunEnd> cases = {
        {"the sampler deletes .running", [](Rig& rig) { rig.afterDetach([&rig] { rig.finishRun(); }); }, 1, 0},
        {"the user stops", [](Rig& rig) { rig.afterDetach([&rig] { rig.source->stop(); }); }, 1, 0},
        {"both at once",
         [](Rig& rig) {
             rig.afterDetach([&rig] {
                 rig.finishRun();
                 rig.source->stop();
             });
         },
         1, 0},
        {"a stop during the detach",
         [](Rig& rig) {
             rig.extra = [&rig](const QString& call) {
                 if (call == QLatin1String("detach"))
                     rig.source->stop();
             };
         },
         1, 0},
        {"the reattach fails",
         [](Rig& rig) {
             rig.extra = [&rig](const QString& call) {
                 if (call == QLatin1String("detach"))
                     QTimer::singleShot(5, [&rig] { rig.finishRun(); });
                 if (call == QLatin1String("reattach"))
                     throw new Exception(30001, QStringLiteral("the target is gone"));
             };
         },
         1, 1},
    };
    for (const RunEnd& test : cases) {
        SCOPED_TRACE(test.name);
        Rig rig;
        auto source = rig.start();
        // The main thread has another debugger id by the time of the stop.
        rig.debugger.threads = {ThreadResponse(12, 1, 101), ThreadResponse(11, 4, 100, QStringLiteral("main"))};
        test.arrange(rig);
        SampleList list(100);
        rig.debugger.calls.clear();

        EXPECT_FALSE(source->readSamples(list));

        const QStringList& calls = rig.debugger.calls;
        EXPECT_EQ(calls.count(QStringLiteral("reattach")), test.reattaches);
        EXPECT_LT(calls.indexOf(QStringLiteral("detach")), calls.indexOf(QStringLiteral("reattach")));
        const QList<FakeHost::Record> exceptions = rig.host.ofKind(FakeHost::SentException);
        ASSERT_EQ(exceptions.size(), test.exceptions);
        if (test.exceptions) {
            EXPECT_EQ(exceptions.first().exception->code(), 30001);
            EXPECT_FALSE(calls.contains(QStringLiteral("set:quorvex_sampling_finished=1")));
        } else {
            const int at = calls.indexOf(QStringLiteral("reattach"));
            EXPECT_EQ(calls.mid(at, 5),
                      QStringList({QStringLiteral("reattach"), QStringLiteral("set:quorvex_sampling_finished=1"),
                                   QStringLiteral("getThreads"), QStringLiteral("setThread:4"),
                                   QStringLiteral("evaluate:quorvex_ui_stop_sampling()")}));
        }
        EXPECT_EQ(calls.first(), QStringLiteral("sharedLibraries"));
        EXPECT_TRUE(calls.contains(QStringLiteral("mainFunctionName")));

        // What the sampler wrote arrived.
        EXPECT_EQ(list.size(), rig.rawSamples);
        EXPECT_EQ(source->numRawSamples(), unsigned(rig.rawSamples));
        EXPECT_FALSE(source->interrupted());
        EXPECT_FALSE(QFile::exists(source->runningFile()));
        EXPECT_TRUE(QFile::exists(source->sampleFile()));

        // Progress: the run is over, the samples are read, then analysis
        // steps that add up to 100.
        const QList<ProfilerProgressResponse> progress = rig.progress();
        ASSERT_GE(progress.size(), 3);
        EXPECT_EQ(progress[0].status(), ProfilerProgressResponse::RunOverTargetAlive);
        EXPECT_EQ(progress[1].status(), ProfilerProgressResponse::SamplesRead);
        EXPECT_EQ(progress.last().status(), ProfilerProgressResponse::AnalysisComplete);
        int sum = 0;
        for (const ProfilerProgressResponse& step : progress.mid(2))
            sum += step.progress();
        EXPECT_EQ(sum, 100);

        // The run's figures from the file's header.
        ProfilerPlayResponse play;
        source->provideMetrics(play);
        EXPECT_EQ(play.stopReason(), 2);
        EXPECT_EQ(play.metrics().value(QLatin1String(METRIC_NUM_PHDR_CACHE_REBUILDS)).to_int(), 7);
        EXPECT_EQ(play.metrics().value(QLatin1String(METRIC_NUM_SAMPLES_TAKEN_IN_TOTAL)).to_int(), 99);
        EXPECT_EQ(play.ompNumThreadsStrings(), QStringList{QStringLiteral("4")});
        QStringList names;
        const SelfProfilePoints points = source->selfProfile();
        for (const SelfProfilePoint& point : points.points())
            names.append(point.name());
        EXPECT_EQ(names.mid(0, 3), QStringList({QStringLiteral("00.init"), QStringLiteral("10.detachAndProfile"),
                                                QStringLiteral("20.read")}));
    }
}

TEST(PreloadSampleSourceRun, ATargetGoneAtTheEndKeepsItsLibrariesAndSaysSo)
{
    Rig rig;
    rig.stopReason = 3;
    auto source = rig.start();
    rig.afterDetach([&rig] {
        rig.debugger.state = StatusResponse::TargetGone;
        rig.finishRun();
    });
    SampleList list(100);
    source->readSamples(list);
    EXPECT_EQ(rig.progress().first().status(), ProfilerProgressResponse::RunOverTargetGone);
    EXPECT_EQ(rig.debugger.keptLibraries, rig.debugger.libraries);
    EXPECT_TRUE(source->interrupted());
}

TEST(PreloadSampleSourceRun, ADamagedSampleFileEndsTheCommandWithItsReason)
{
    // Empty, an older sampler's, cut in the header.
    for (const QByteArray& contents : {QByteArray(), QByteArray(8, '\0'), QByteArray::fromHex("3cfdffffffffffff0000")}) {
        SCOPED_TRACE(contents.toHex().toStdString());
        Rig rig;
        auto source = rig.start();
        rig.afterDetach([&rig, &contents] {
            touch(rig.samplePath, contents);
            rig.finished = true;
            QFile::remove(rig.samplePath + QStringLiteral(".running"));
        });
        SampleList list(100);
        const auto result = failure([&] { source->readSamples(list); });
        EXPECT_EQ(result.first, 20009);
        EXPECT_EQ(result.second, QStringLiteral("No samples collected"));
        EXPECT_EQ(list.size(), 0);
        source.reset();
        EXPECT_TRUE(rig.runFiles().isEmpty());
    }
}

TEST(PreloadSampleSourceRun, KeptFilesGoIntoADirectoryOrBesideTheOriginals)
{
    for (bool intoDirectory : {true, false}) {
        SCOPED_TRACE(intoDirectory ? "directory" : "beside");
        Rig rig;
        QTemporaryDir keep;
        setSwitch("ZOR_KEEP_SAMPLES_FILES", intoDirectory ? keep.path() : QStringLiteral("not a directory"));
        auto source = rig.start();
        rig.afterDetach([&rig] { rig.finishRun(); });
        SampleList list(100);
        source->readSamples(list);
        setSwitch("ZOR_KEEP_SAMPLES_FILES", QString());

        const QString stem = source->sampleFile();
        const QString name = QFileInfo(stem).fileName();
        const QString base = intoDirectory ? keep.path() + QLatin1Char('/') + name : stem;
        EXPECT_EQ(readAll(base + QStringLiteral(".kept")), readAll(stem));
        EXPECT_EQ(readAll(base + QStringLiteral(".mpi.kept")), readAll(source->mpiFile()));
        EXPECT_TRUE(QFile::exists(base + QStringLiteral(".errorMessages.kept")));
        // No ".gpu" in this run: nothing to copy.
        EXPECT_FALSE(QFile::exists(base + QStringLiteral(".gpu.kept")));
        source.reset();
        EXPECT_TRUE(QFile::exists(base + QStringLiteral(".kept")));
    }
}

TEST(PreloadSampleSourceRun, TheAnalysisLockIsTakenInTurnsAndEachTurnEndsWithAFreshDebugger)
{
    // Two processes of a node, each with its own source, analyse at the
    // same moment; each tells a pipe when it got the lock and when it lets
    // go, holding the lock a while in between.
    QTemporaryDir shared;
    setSwitch("TMPDIR", shared.path());
    setSwitch("KLB_REDUCE_MEMORY_USAGE", QStringLiteral("1"));
    int events[2];
    ASSERT_EQ(pipe(events), 0);
    auto analyse = [&](char name) {
        Rig rig;
        // Both in the same private directory, where the lock lies.
        setSwitch("TMPDIR", shared.path());
        auto source = rig.start();
        rig.afterDetach([&rig] { rig.finishRun(); });
        rig.host.onLog = [&](const QString& line) {
            char event[2] = {name, 0};
            if (line == QLatin1String("got analysis lock")) {
                event[1] = 'G';
                (void)!write(events[1], event, 2);
                usleep(150 * 1000);
            } else if (line == QLatin1String("unlocking analysis lock")) {
                event[1] = 'U';
                (void)!write(events[1], event, 2);
            }
        };
        SampleList list(100);
        source->readSamples(list);
        return rig.host.debuggerRestarts == 1 && list.size() == rig.rawSamples
            && rig.host.log == QStringList({QStringLiteral("waiting for analysis lock"),
                                            QStringLiteral("got analysis lock"),
                                            QStringLiteral("unlocking analysis lock"),
                                            QStringLiteral("restarting debugger"),
                                            QStringLiteral("debugger restarted")});
    };
    const pid_t other = fork();
    ASSERT_GE(other, 0);
    if (other == 0) {
        alarm(60);
        _exit(analyse('b') ? 0 : 1);
    }
    EXPECT_TRUE(analyse('a'));
    int status = 0;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    close(events[1]);
    std::string sequence;
    char event[2];
    while (read(events[0], event, 2) == 2)
        sequence += std::string(event, 2);
    close(events[0]);
    // One after the other, whoever came first: never two holders at once.
    EXPECT_TRUE(sequence == "aGaUbGbU" || sequence == "bGbUaGaU") << sequence;
    setSwitch("KLB_REDUCE_MEMORY_USAGE", QString());
}

// A real sampler's file read by the source (and the profiler's own source at
// play, and the install path): every run of zor (frontend_test); without a
// debugger, the real sampler's files read back: the sampler's runtime tests.
TEST(PlatformPieces, LocksDieWithTheirProcessAndPrivateDirectoriesStayPrivate)
{
    QTemporaryDir tmp;
    const QString name = tmp.path() + QStringLiteral("/lock");
    // A holder that dies without unlocking blocks nobody afterwards.
    const pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        PidFile lock(name, false);
        if (!lock.lock(false))
            _exit(1);
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    waitpid(holder, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    PidFile lock(name, false);
    EXPECT_TRUE(lock.lock(false));
    EXPECT_TRUE(lock.lock(false)); // held already
    PidFile rival(name, false);
    EXPECT_FALSE(rival.lock(false));
    EXPECT_EQ(readAll(name), QByteArray::number(getpid()) + '\n');
    lock.unlock();
    EXPECT_TRUE(rival.lock(false));

    // The private directory (its mode and a foreign one: the start's tests)
    // is never one that a link puts elsewhere; two files in it never clash.
    const QString mine = DirectoryAllocator::getUserTemporary(tmp.path());
    EXPECT_NE(DirectoryAllocator::getTemporaryFile(mine, QStringLiteral("x")),
              DirectoryAllocator::getTemporaryFile(mine, QStringLiteral("x")));
    QTemporaryDir other;
    QDir(tmp.path()).mkdir(QStringLiteral("link"));
    ASSERT_TRUE(QFile::link(other.path(), tmp.path() + QStringLiteral("/link/zor-") + QString::number(getuid())));
    EXPECT_TRUE(DirectoryAllocator::getUserTemporary(tmp.path() + QStringLiteral("/link")).isEmpty());
    EXPECT_TRUE(DirectoryAllocator::getTemporaryFile(QString(), QStringLiteral("x")).isEmpty());
}

// ---------------------------------------------------------------------------
// Side files

void writeValue(int fd, const SampleValue& value)
{
    ASSERT_GT(value.writeToFile(fd), 0);
}

TEST(PreloadSampleSourceSideFiles, MpiCallFiguresAreReadAndDamageIsRefused)
{
    struct Record
    {
        int length;
        QByteArray name;
    };
    struct Case
    {
        const char* name;
        QList<Record> records;
        bool cut;
        QString message;
        QStringList names;
    };
    const QList<Case> cases = {
        {"none", {}, false, QString(), {}},
        {"two, one name with a zero inside",
         {{13, QByteArray("MPI_Send\0junk", 13)}, {8, "MPI_Recv"}}, false, QString(),
         {QStringLiteral("MPI_Send"), QStringLiteral("MPI_Recv")}},
        {"the same name twice", {{8, "MPI_Send"}, {10, QByteArray("MPI_Send\0x", 10)}}, false,
         QStringLiteral("Duplicate entries for MPI call MPI_Send"), {}},
        {"a name cut short", {{20, "MPI_Barrier"}}, true, QStringLiteral("Failed to read call name of 20 bytes"), {}},
        {"a length beyond the file", {{1 << 30, "x"}}, true, QStringLiteral("Failed to read call name of 1073741824 bytes"), {}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rig rig;
        auto source = rig.start();
        const int fd = ::open(QFile::encodeName(source->mpiFile()).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        writeValue(fd, SampleValue(int(test.records.size())));
        for (const Record& record : test.records) {
            writeValue(fd, SampleValue(record.length));
            ASSERT_EQ(::write(fd, record.name.constData(), size_t(record.name.size())), record.name.size());
            if (test.cut)
                break;
            for (int i = 1; i <= 4; ++i)
                writeValue(fd, SampleValue(static_cast<long long>(i * 10)));
        }
        ::close(fd);

        MpiCallMetrics metrics(3);
        metrics.addCall(MpiCallMetric(3, QStringLiteral("stale"), 0, 0, 0, 0));
        const auto result = failure([&] { source->readMpiCallMetrics(metrics); });
        EXPECT_EQ(result.second, test.message);
        if (test.message.isEmpty()) {
            QStringList names;
            for (const MpiCallMetric& call : metrics.calls()) {
                names.append(call.name());
                EXPECT_EQ(call.rank(), 3);
                EXPECT_EQ(call.value(3).to_int(), 40);
            }
            EXPECT_EQ(names, test.names);
        } else {
            EXPECT_EQ(result.first, 20018);
        }
    }
}

TEST(PreloadSampleSourceSideFiles, MetricErrorsAreReadRecordByRecordAndAnIncompleteFileIsRefused)
{
    MetricDefinitions metrics;
    metrics.addMetric(Metric(QStringLiteral("cpu"), 0));
    metrics.addMetric(Metric(QStringLiteral("io"), 1));
    const QString incomplete = QStringLiteral("ZOR couldn't read the metric errors, file incomplete when reading %1");
    struct Case
    {
        const char* name;
        QByteArray contents;
        QString message;
        // "metric/error: message" of every error read.
        QStringList errors;
    };
    const QList<Case> cases = {
        {"empty", "", QString(), {}},
        {"two records, an empty message, a double hash and a repeat",
         "0\n7\nfirst\n#\n0\n7\nline one\n##\n#\n1\nnot a number\n#\n", QString(),
         {QStringLiteral("cpu/7: line one\n##\n"), QStringLiteral("io/0: ")}},
        {"an index outside the definitions", "9\n1\n#\n", incomplete.arg(QStringLiteral("metricId")), {}},
        {"ends after the metric", "0\n", incomplete.arg(QStringLiteral("errorId")), {}},
        {"ends after the identifier", "0\n5\n", incomplete.arg(QStringLiteral("message")), {}},
        {"ends inside a message", "0\n5\nsome text\n", incomplete.arg(QStringLiteral("message")), {}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rig rig;
        rig.host.rank = 6;
        auto source = rig.start(false, metrics);
        touch(source->errorMessagesFile(), test.contents);
        MetricErrorMap errors;
        const auto result = failure([&] { source->readMetricErrors(errors); });
        EXPECT_EQ(result.second, test.message);
        if (test.message.isEmpty()) {
            QStringList read;
            for (auto metric = errors.begin(); metric != errors.end(); ++metric) {
                for (const MetricError& error : metric.value()) {
                    read.append(QStringLiteral("%1/%2: %3").arg(error.metric()).arg(error.errorId()).arg(error.message()));
                    EXPECT_EQ(error.rank(), 6);
                }
            }
            EXPECT_EQ(read, test.errors);
        } else {
            EXPECT_EQ(result.first, 20014);
        }
    }
}

// No file: a process without the MPI wrapper, or with nothing to say of its
// metrics, and what was read before goes. One that can't be opened is refused.
TEST(PreloadSampleSourceSideFiles, NoFileIsNothingAndAnUnreadableOneIsRefused)
{
    Rig rig;
    auto source = rig.start();
    MpiCallMetrics calls(3);
    calls.addCall(MpiCallMetric(3, QStringLiteral("stale"), 0, 0, 0, 0));
    MetricErrorMap errors;
    errors[QStringLiteral("cpu")][1] = MetricError(QStringLiteral("cpu"), 1, QStringLiteral("stale"), 0);
    const struct
    {
        QString file;
        int code;
        std::function<void()> read;
    } readers[] = {{source->mpiFile(), 20018, [&] { source->readMpiCallMetrics(calls); }},
                   {source->errorMessagesFile(), 20014, [&] { source->readMetricErrors(errors); }}};
    for (const auto& reader : readers) {
        EXPECT_EQ(failure(reader.read).first, 0);
        const QByteArray file = QFile::encodeName(reader.file);
        ASSERT_EQ(::symlink(file.constData(), file.constData()), 0);
        EXPECT_EQ(failure(reader.read), std::make_pair(reader.code, QStringLiteral("Unable to open %1").arg(reader.file)));
    }
    EXPECT_TRUE(calls.calls().isEmpty());
    EXPECT_TRUE(errors.isEmpty());
}

// ---------------------------------------------------------------------------
// Libraries

TEST(PreloadSampleSourceLibraries, CudaLibrariesAreToldByRangeOrElseByName)
{
    Rig rig;
    auto source = rig.start();
    source->constructSystemSharedLibrariesList({
        SharedLibrary(QStringLiteral("/usr/lib/libm.so.6"), 0x1000, 0x2000),
        SharedLibrary(QStringLiteral("/opt/cuda/lib64/libcudart.so"), 0x5000, 0x6000),
        SharedLibrary(QStringLiteral("/home/me/libcudastuff.so"), 0x8000, 0x9000),
    });
    // A CUDA library is known: the range decides, whatever the name.
    EXPECT_TRUE(source->isAddressFromCUDALibrary(0x5000, QStringLiteral("main")));
    EXPECT_FALSE(source->isAddressFromCUDALibrary(0x1000, QStringLiteral("cudaMalloc")));
    EXPECT_FALSE(source->isAddressFromCUDALibrary(0x8800, QStringLiteral("cudaMalloc")));

    // Without one, names decide.
    source->constructSystemSharedLibrariesList({SharedLibrary(QStringLiteral("/home/me/libcuda.so"), 0x1, 0x2)});
    const QList<std::pair<const char*, bool>> names = {
        {"cudaMalloc", true}, {"__cudaRegisterFatBinary", true}, {"CU_ETID_ToolsRuntime", true},
        {"cuMemAlloc", true}, {"cuda", true},  {"cumemalloc", false}, {"cuMAlloc", false},
        {"mycudaMalloc", false},
    };
    for (const auto& name : names)
        EXPECT_EQ(source->isAddressFromCUDALibrary(0x1, QLatin1String(name.first)), name.second) << name.first;
}

} // namespace
