#include <gtest/gtest.h>
#include <numeric>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtEndian>

#include "constants.h"
#include "foldedstacks.h"
#include "gpuprofilepsvmodelitem.h"
#include "htmlreport.h"
#include "profile.h"
#include "resultbuilder.h"
#include "textsummary.h"

namespace {

const PSVModelItem* descend(const PSVModelItem* node, const QStringList& functions)
{
    for (const QString& function : functions) {
        const PSVModelItem* next = nullptr;
        for (const PSVModelItem* child : node->children())
            if (child->position().function == function)
                next = child;
        if (!next)
            return nullptr;
        node = next;
    }
    return node;
}

} // namespace

TEST(ResultFile, RoundTripKeepsEverythingTheReportsRead)
{
    Result original = exampleResult(2);
    original.run.exitStatus = 3;
    original.run.interrupted = true;
    original.run.programMs = 4000;
    original.run.childrenCpuMs = 2800;
    original.run.processCpuMs = 9000;
    original.run.cpus = 12;
    original.run.exitSignal = 11;
    original.run.arguments << QStringLiteral("it's quoted");
    MetricErrorMap errors;
    errors[QStringLiteral("instr_fp")].insert(1, MetricError(QStringLiteral("instr_fp"), 1, QStringLiteral("no"), 1));
    original.ranks[1].metricErrors = SendMetricErrorsResponse(errors);
    MpiCallMetrics mpi(1);
    mpi.addCall(MpiCallMetric(1, QStringLiteral("MPI_Send"), SampleValue(1L), SampleValue(2L), SampleValue(3L), SampleValue(4L)));
    original.ranks[1].endMetrics.setMpiCallMetrics(mpi);
    // A rank without samples: its compressed piece is empty.
    original.ranks.append(RankResult());

    const QByteArray data = ResultFile::encode(original);
    Result read;
    QString error;
    ASSERT_TRUE(ResultFile::decode(data, QStringLiteral("r.zor"), &read, &error)) << qPrintable(error);
    // Encoded again, the copy gives the same bytes: nothing was lost.
    EXPECT_EQ(ResultFile::encode(read), data);
    EXPECT_EQ(read.run.commandLine(), QStringLiteral("./zor-example --seconds 2 'it'\\''s quoted'"));
    EXPECT_EQ(read.run.started, original.run.started);
    EXPECT_TRUE(read.run.interrupted);
    EXPECT_EQ(read.run.programMs, 4000);
    EXPECT_EQ(read.run.processCpuMs, 9000);
    EXPECT_EQ(read.run.cpus, 12);
    ASSERT_EQ(read.ranks.size(), 3);
    EXPECT_TRUE(read.ranks[2].samples.isEmpty());
    EXPECT_EQ(read.ranks[1].rank(), 1);
    EXPECT_EQ(read.ranks[1].samples.size(), 100);
    EXPECT_TRUE(read.ranks[1].samples[7] == original.ranks[1].samples[7]);
    EXPECT_EQ(read.ranks[1].metricErrors.errors(), errors);
    EXPECT_EQ(read.ranks[1].endMetrics.mpiCallMetrics(), mpi);
    // Compressed: the samples' XML repeats itself a lot.
    EXPECT_LT(data.size(), 20000);

    // Samples compressed in pieces as they come, an empty one among them,
    // and joined, are the same samples: the pieces' trees name those of the
    // pieces before them.
    const QList<Sample>& samples = original.ranks[1].samples;
    SampleTreeTable trees;
    const ResultFile::EncodedSamples joined = ResultFile::join(
        {ResultFile::encodeSamples(samples.mid(0, 64), &trees), ResultFile::encodeSamples({}, &trees),
         ResultFile::encodeSamples(samples.mid(64), &trees)});
    EXPECT_GT(trees.references(), 0);
    Result fromPieces;
    ASSERT_TRUE(ResultFile::decode(ResultFile::encode(original, {ResultFile::encodeSamples(original.ranks[0].samples), joined}),
                                   QStringLiteral("r.zor"), &fromPieces, &error))
        << qPrintable(error);
    EXPECT_EQ(ResultFile::encode(fromPieces), data);

    // A sample with a device tree, which only Qt's reader reads: the whole
    // result is read that way, and still whole.
    Result withDevice = original;
    withDevice.ranks[1].samples[3].setGpuPsvModel(new GpuProfilePSVModelItem);
    const QByteArray deviceData = ResultFile::encode(withDevice);
    Result deviceRead;
    ASSERT_TRUE(ResultFile::decode(deviceData, QStringLiteral("r.zor"), &deviceRead, &error)) << qPrintable(error);
    EXPECT_EQ(ResultFile::encode(deviceRead), deviceData);
    EXPECT_TRUE(deviceRead.ranks[1].samples[3].gpuPsvModel());
}

TEST(ResultFile, DamagedOrForeignFilesGetTheirOwnMessage)
{
    const QByteArray good = ResultFile::encode(exampleResult(1));
    QByteArray otherVersion = good;
    qToBigEndian<quint32>(7, otherVersion.data() + 8);
    QByteArray flipped = good;
    flipped[good.size() / 2] = char(flipped[good.size() / 2] ^ 0x40);
    QByteArray textMode = good;
    textMode.replace("\r\n", "\n");
    const struct
    {
        const char* what;
        QByteArray data;
        std::string message;
    } cases[] = {
        { "empty", QByteArray(), "x.zor is not a zor result file" },
        { "text", QByteArray("hello, world\n"), "x.zor is not a zor result file" },
        { "through a text conversion", textMode, "x.zor is not a zor result file" },
        { "cut in its header", good.left(20), "x.zor is truncated: its header is incomplete" },
        { "cut in its body", good.left(good.size() - 10),
          QStringLiteral("x.zor is truncated: %1 of its %2 bytes are there").arg(good.size() - 10).arg(good.size()).toStdString() },
        { "with bytes after its end", good + "xyz", "x.zor is damaged: 3 bytes follow its end" },
        { "with a changed byte", flipped, "x.zor is damaged: its checksum doesn't match" },
        { "of another version", otherVersion, "x.zor is a zor result of format version 7; this zor reads versions 1 to 3" },
    };
    // Files of the first version still read.
    QByteArray firstVersion = good;
    qToBigEndian<quint32>(1, firstVersion.data() + 8);
    Result old;
    QString oldError;
    EXPECT_TRUE(ResultFile::decode(firstVersion, QStringLiteral("x.zor"), &old, &oldError)) << qPrintable(oldError);
    for (const auto& c : cases) {
        Result result;
        result.run.program = QStringLiteral("untouched");
        QString error;
        EXPECT_FALSE(ResultFile::decode(c.data, QStringLiteral("x.zor"), &result, &error)) << c.what;
        EXPECT_EQ(error.toStdString(), c.message) << c.what;
        EXPECT_EQ(result.run.program, QStringLiteral("untouched")) << c.what;
    }

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("r.zor"));
    QString error;
    Result read;
    ASSERT_TRUE(ResultFile::write(path, exampleResult(1), &error)) << qPrintable(error);
    ASSERT_TRUE(ResultFile::read(path, &read, &error)) << qPrintable(error);
    EXPECT_FALSE(ResultFile::read(dir.filePath(QStringLiteral("none.zor")), &read, &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot read "))) << qPrintable(error);
    EXPECT_FALSE(ResultFile::write(dir.filePath(QStringLiteral("no/such/dir/r.zor")), read, &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot write "))) << qPrintable(error);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList{ QStringLiteral("r.zor") });
}

TEST(Profile, RanksMergeByPositionWithTheirOwnCountsAndTimes)
{
    Result result = exampleResult(1);
    result.ranks.append(exampleRank(1, 50, 2000));
    const Profile profile(result);

    EXPECT_EQ(profile.rankCount(), 2);
    EXPECT_EQ(profile.threadCount(), 4);
    EXPECT_EQ(profile.sampleCount(), 150);
    EXPECT_EQ(profile.durationMs(), 2000);
    // Each rank spends 2 s on its main thread and 1.6 s on its worker.
    EXPECT_EQ(profile.cpuNs(), 7200000000ULL);

    const PSVModelItem* runPlan = descend(profile.tree(), { "zor-example", "main", "run_plan" });
    ASSERT_TRUE(runPlan);
    EXPECT_EQ(runPlan->processToThreadCountMap().toString(), QStringLiteral("0=100,1=50"));
    EXPECT_EQ(profile.time(runPlan).totalNs, 4000000000ULL);
    EXPECT_EQ(profile.time(runPlan).selfNs, 0ULL);
    const PSVModelItem* alpha = descend(runPlan, { "spin_alpha" });
    ASSERT_TRUE(alpha);
    EXPECT_EQ(alpha->processToThreadCountMap().toString(), QStringLiteral("0=50,1=25"));
    EXPECT_EQ(profile.time(alpha).selfNs, 2000000000ULL);
    EXPECT_EQ(static_cast<const ZORPSVModelItem*>(alpha)->selfSampleCount(), 75);
    // The worker's entry stands twice, as the analysis leaves it.
    const PSVModelItem* waiting = descend(profile.tree(), { "zor-example", "start_thread", "start_thread", "worker", "pthread_cond_wait" });
    ASSERT_TRUE(waiting);
    EXPECT_EQ(profile.time(waiting).totalNs, 0ULL);
    EXPECT_EQ(static_cast<const ZORPSVModelItem*>(waiting)->sleepingSampleCount(), 30);
    EXPECT_EQ(profile.time(profile.tree()).totalNs, profile.cpuNs());

    const QList<FunctionFigure> functions = profile.functions(3);
    ASSERT_EQ(functions.size(), 3);
    EXPECT_EQ(functions[0].function, QStringLiteral("spin_delta"));
    EXPECT_EQ(functions[0].selfNs, 2400000000ULL);
    EXPECT_EQ(functions[1].function, QStringLiteral("spin_alpha"));
    EXPECT_EQ(functions[1].line, 52);
    EXPECT_EQ(functions[2].function, QStringLiteral("spin_beta"));
    // main's total counts each path once; its hottest line is where the
    // time was spent, not where it called.
    const QList<FunctionFigure> all = profile.functions();
    const auto main = std::find_if(all.begin(), all.end(), [](const FunctionFigure& f) { return f.function == QLatin1String("main"); });
    ASSERT_NE(main, all.end());
    EXPECT_EQ(main->totalNs, 4000000000ULL);
    EXPECT_EQ(main->selfNs, 0ULL);
    EXPECT_EQ(profile.lines(1).value(0).line, 55);

    // The worker waits through the first fifth, then works all the time.
    const QList<ActivityRow> rows = profile.activity(10, true);
    ASSERT_EQ(rows.size(), 4);
    EXPECT_EQ(rows[0].label, QStringLiteral("main thread"));
    EXPECT_EQ(rows[1].label, QStringLiteral("other threads"));
    EXPECT_EQ(rows[3].rank, 1);
    EXPECT_EQ(rows[1].busy, QVector<double>({ 0, 0, 1, 1, 1, 1, 1, 1, 1, 1 }));
    EXPECT_EQ(rows[0].busy, QVector<double>(10, 1.0));
    const QList<ActivityRow> classes = profile.activity(10, false);
    ASSERT_EQ(classes.size(), 2);
    EXPECT_EQ(classes[1].threads, 2);

    // Of 7.2 s, 2 s in vaddpd, 1.2 s in imulq, 0.8 s in movq, 3.2 s in addq:
    // whole percents that add up to 100, the largest remainders rounded up.
    QStringList mix;
    for (const InstructionClassShare& share : profile.instructionMix())
        mix << QStringLiteral("%1 %2 %3").arg(share.percent).arg(share.name, share.examples.join(QLatin1Char(',')));
    EXPECT_EQ(mix.join(QLatin1String("; ")), QStringLiteral("28 vector floating point vaddpd; 17 scalar integer imulq; "
                                                           "11 memory movq; 44 no class addq"));
    EXPECT_TRUE(profile.mpiShare().isEmpty());
}

TEST(Reports, FoldedStacksSumTheCpuTimeOfEachPath)
{
    const Profile profile(exampleResult(2));
    EXPECT_EQ(foldedStacks(profile),
              QByteArray("zor-example;main;run_plan;spin_alpha 2000000\n"
                         "zor-example;main;run_plan;spin_beta 1200000\n"
                         "zor-example;main;run_plan;spin_gamma 800000\n"
                         "zor-example;start_thread;worker;spin_delta 2400000\n"
                         "zor-example;start_thread;worker;spin_epsilon 800000\n"));

    // Frames at two lines of one function are one path; ";" can't stand in a name.
    Result odd = exampleResult(0);
    RankResult rank = exampleRank(0, 0);
    rank.samples << makeSample(0, 5, { { 1, Sample::MainThread, 1400, { "main", "a;b@f.c:1" } } })
                 << makeSample(0, 6, { { 1, Sample::MainThread, 1200, { "main", "a;b@f.c:2" } } })
                 << makeSample(0, 7, { { 1, Sample::MainThread, 400, { "main", "tiny" } } });
    odd.ranks << rank;
    EXPECT_EQ(foldedStacks(Profile(odd)), QByteArray("app;main;a:b 3\n"));
}

TEST(Reports, SummaryFitsATerminalAndSaysWhatMatters)
{
    Result result = exampleResult(2);
    // A long name and a failed unwind, an MPI wait and an instruction mix.
    const QString longName = QStringLiteral("std::vector<std::pair<int, std::basic_string<char>>>::_M_realloc_insert_with_a_long_tail");
    result.ranks[0].samples[3] = makeSample(0, 70, { { 100, Sample::MainThread, 20000000, { "main", longName + "@/a/very/long/path/to/some/deeply/nested/source/directory/file.cpp:12345" }, false, "mpi" } });
    result.ranks[0].samples[4].addLibunwindErrorCode(102);
    const QString text = textSummary(Profile(result), 5);
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (const QString& line : lines)
        EXPECT_LE(line.size(), SummaryWidth) << qPrintable(line);
    for (const char* expected : { "zor: ./zor-example --seconds 2", "2 ranks, 4 threads, ran 2.01 s, 300 samples per process every 20 ms",
                                  "With 300 samples a share may be off by up to 6 points",
                                  "spin_delta", "spin_alpha", "hotspots.c:52", "Hottest source lines",
                                  "main thread (2)", "other threads (2)",
                                  "28% vector floating point (vaddpd), 17% scalar integer (imulq), 11% memory (movq),",
                                  "Time in MPI: 0.5% of the main threads' time (least 0.0% on rank 1, most 1.0% on rank 0)",
                                  "Unwind problems: 1 of 399 stacks (status 102 x1: a sampler error);" })
        EXPECT_TRUE(text.contains(QLatin1String(expected))) << expected << "\n" << qPrintable(text);
    // Top 5: spin_delta first, at a third of all CPU time.
    const int top = lines.indexOf(QRegExp(QStringLiteral("^Top functions.*")));
    ASSERT_GE(top, 0);
    EXPECT_TRUE(lines.value(top + 2).contains(QRegExp(QStringLiteral("^ +33\\.[0-9]% +33\\.[0-9]%  spin_delta "))))
        << qPrintable(lines.value(top + 2));
    EXPECT_TRUE(lines.value(top + 7).isEmpty()) << "more than the top 5";
    // The worker's strip is blank while it waits.
    const QString worker = lines.filter(QStringLiteral("other threads")).value(0);
    EXPECT_TRUE(worker.contains(QRegExp(QStringLiteral("\\| {12}#{48}\\| 80% busy")))) << qPrintable(worker);
    EXPECT_FALSE(text.contains(QLatin1String("waited for programs"))) << qPrintable(text);
    EXPECT_FALSE(text.contains(QLatin1String("Sampling ended"))) << qPrintable(text);
    // A program that went on after sampling ended (an exec).
    Result execs = exampleResult(1);
    execs.run.programMs = 4000;
    EXPECT_TRUE(textSummary(Profile(execs), 5).contains(QLatin1String("Sampling ended 1.99 s before the program did")));
    // Ranks that took different numbers of samples and thinned them: the
    // facts wrap, and the CPU time at their end isn't cut.
    Result thinned = exampleResult(2);
    thinned.ranks[1].play = ProfilerPlayResponse(1, false, 12000, 2000, {}, false, false, false, {});
    thinned.ranks[1].play.setMetric(QString::fromLatin1(METRIC_NUM_DOWNSAMPLES), SampleValue(3UL));
    const QString wrapped = textSummary(Profile(thinned), 5);
    EXPECT_TRUE(wrapped.contains(QLatin1String("300-12000 samples per process every 160 ms (20 ms at first),")));
    EXPECT_TRUE(wrapped.section(QLatin1Char('\n'), 1, 2).contains(QRegExp(QStringLiteral("7\\.20 s\\sCPU time$"))))
        << qPrintable(wrapped);
    // A pool of forked workers that did most of the work.
    Result forks = exampleResult(1);
    forks.run.childrenCpuMs = 2800;
    forks.run.exitStatus = 139;
    forks.run.exitSignal = 11;
    const QString forked = textSummary(Profile(forks), 5);
    EXPECT_TRUE(forked.contains(QLatin1String("Processes that the program started used 2.80 s of CPU time beside its own")));
    EXPECT_TRUE(forked.contains(QLatin1String("The program was killed by signal 11 (Segmentation fault), exit status 139.")));
    // Time that no sample saw, told where it is more than the sampler's own.
    for (const qint64 processCpuMs : { 3700LL, 5100LL }) {
        Result unseen = exampleResult(1);
        unseen.run.processCpuMs = processCpuMs;
        EXPECT_EQ(textSummary(Profile(unseen), 5).contains(QLatin1String("The program used 5.10 s of CPU time, 1.50 s of "
                                                                         "it where no sample saw it")),
                  processCpuMs == 5100);
    }

    // A shell that waits for the program doing the work, in code without symbols.
    Result shell = exampleResult(0);
    RankResult rank = exampleRank(0, 0);
    for (int i = 0; i < 8; ++i) {
        const bool waiting = i % 4 != 0;
        rank.samples << makeSample(0, 10 * i, { { 1, Sample::MainThread, 1000, { "main", "<unknown> from sh", waiting ? "__waitpid" : "<unknown> from sh" }, waiting },
                                                { 2, Sample::ParallelRegionThread, 10, { "main", "work" } },
                                                { 3, Sample::OtherThread, 10, { "[Accelerator monitor thread]", "poll" } } });
    }
    shell.ranks << rank;
    const QString waits = textSummary(Profile(shell), 5);
    for (const char* expected : { "1 process, 3 threads", "OpenMP worker thread (1)      |", "Accelerator monitor thread (1)|",
                                  "The program waited for programs that it started through 75.0% of the run",
                                  "(in __waitpid)", "code without symbols (sh)" })
        EXPECT_TRUE(waits.contains(QLatin1String(expected))) << expected << "\n" << qPrintable(waits);

    // Code that a JIT compiler made lies in no file: no package's symbols
    // would name it, its runtime's map would.
    Result jit = exampleResult(0);
    RankResult jitRank = exampleRank(0, 0);
    for (int i = 0; i < 4; ++i)
        jitRank.samples << makeSample(0, 10 * i, { { 1, Sample::MainThread, 1000, { "main", i ? "<unknown>" : "interpret" }, false, i ? "" : "addq" } });
    jit.ranks << jitRank;
    const QString made = textSummary(Profile(jit), 5);
    EXPECT_TRUE(made.contains(QLatin1String("75.0% of the CPU time is in code outside any file"))) << qPrintable(made);
    EXPECT_FALSE(made.contains(QLatin1String("Debug symbols"))) << qPrintable(made);
    // Its instructions can't be read: the mix is of the rest, and says so.
    EXPECT_TRUE(made.contains(QLatin1String("each thread was running (read for 25.0%)"))) << qPrintable(made);
    // Time in an OpenMP runtime without symbols is told for what it is, not
    // as a want of symbols.
    Result omp = exampleResult(0);
    RankResult ompRank = exampleRank(0, 0);
    for (int i = 0; i < 4; ++i)
        ompRank.samples << makeSample(0, 10 * i, { { 1, Sample::MainThread, 1000, { "main", i ? "<unknown> from libgomp.so.1.0.0" : "work" } } });
    omp.ranks << ompRank;
    const QString spins = textSummary(Profile(omp), 5);
    EXPECT_TRUE(spins.contains(QLatin1String("75.0% of the CPU time is in the OpenMP runtime (libgomp), as a rule threads that wait"))) << qPrintable(spins);
    EXPECT_FALSE(spins.contains(QLatin1String("Debug symbols"))) << qPrintable(spins);
    jit.ranks[0].samples[0] = makeSample(0, 0, { { 1, Sample::MainThread, 100, { "main", "interpret" } } });
    EXPECT_FALSE(textSummary(Profile(jit), 5).contains(QLatin1String("Instruction mix")));

    // One busy thread among idle ones of its class has a strip of its own.
    // A thread that mostly didn't answer in time (its traces cut short)
    // stays in its class.
    Result pool = exampleResult(0);
    RankResult poolRank = exampleRank(0, 0);
    for (int i = 0; i < 8; ++i) {
        QList<ThreadSpec> threads = { { 1, Sample::MainThread, 1000, { "main" } } };
        for (int tid = 2; tid < 7; ++tid) {
            if (tid == 6 && i < 5)
                threads.append({ tid, Sample::OtherThread, 0, { "[partial trace]", "<unknown> [no stack trace]" } });
            else
                threads.append({ tid, Sample::OtherThread, tid == 4 ? 100000000ULL : 10ULL, { "work" } });
        }
        poolRank.samples << makeSample(0, 10 * i, threads);
    }
    pool.ranks << poolRank;
    QStringList rows;
    for (const ActivityRow& row : Profile(pool).activity(10, false))
        rows << QStringLiteral("%1/%2/%3").arg(row.label).arg(row.threads).arg(row.tid);
    EXPECT_EQ(rows.join(QLatin1String("; ")), QStringLiteral("main thread/1/0; other thread 4/1/4; other threads/4/0"));
    const QString strips = textSummary(Profile(pool), 5);
    EXPECT_TRUE(strips.contains(QRegExp(QStringLiteral("other thread 4 +\\|")))) << qPrintable(strips);
    EXPECT_TRUE(strips.contains(QLatin1String("other threads (4)"))) << qPrintable(strips);

    // Threads that named themselves: a row for what a kind's names share,
    // the busy one by its whole name.
    pool.ranks[0].play.setThreadName(2, QStringLiteral("GC Thread#0"));
    pool.ranks[0].play.setThreadName(3, QStringLiteral("GC Thread#1"));
    pool.ranks[0].play.setThreadName(4, QStringLiteral("GC Thread#2"));
    pool.ranks[0].play.setThreadName(5, QStringLiteral("GC Thread#3"));
    pool.ranks[0].play.setThreadName(6, QStringLiteral("pool-1-thread-12"));
    rows.clear();
    for (const ActivityRow& row : Profile(pool).activity(10, false))
        rows << QStringLiteral("%1/%2").arg(row.label).arg(row.threads);
    rows.sort();
    EXPECT_EQ(rows.join(QLatin1String("; ")),
              QStringLiteral("GC Thread#2 (thread 4)/1; GC Thread/3; main thread/1; pool-1-thread/1"));
    // Past eight rows, those next to idle are counted instead.
    QList<ThreadSpec> idle = { { 1, Sample::MainThread, 1000, { "main" } } };
    for (int tid = 7; tid < 20; ++tid) {
        idle.append({ tid, Sample::OtherThread, 10, { "idle" } });
        pool.ranks[0].play.setThreadName(tid, QStringLiteral("idle %1").arg(QChar('a' + tid)));
    }
    pool.ranks[0].samples[0] = makeSample(0, 0, idle);
    const QString many = textSummary(Profile(pool), 5);
    EXPECT_TRUE(many.contains(QLatin1String("and 9 more rows (9 threads), each under 1% busy"))) << qPrintable(many);
    EXPECT_TRUE(many.contains(QRegExp(QStringLiteral("GC Thread#2 \\(thread 4\\) +\\|")))) << qPrintable(many);

    // Six threads at work on two processors, which they keep busy: told, and
    // their strip is their share of the two. Unknown processors, or a run
    // whose work is done by as many threads as processors, tell nothing.
    Result crowded = exampleResult(0);
    RankResult crowdedRank = exampleRank(0, 0);
    for (int i = 0; i < 10; ++i) {
        QList<ThreadSpec> threads = { { 1, Sample::MainThread, 100, { "main" } } };
        for (int tid = 2; tid < 8; ++tid)
            threads.append({ tid, Sample::OtherThread, 3333333ULL, { "work" } });
        crowdedRank.samples << makeSample(0, 10 * i, threads);
    }
    crowded.ranks << crowdedRank;
    crowded.run.wallMs = 100;
    const QString told = QStringLiteral("6 threads at work took turns on the 2 processors");
    const auto workersBusy = [](const Profile& profile) {
        const QList<ActivityRow> rows = profile.activity(5, false);
        EXPECT_EQ(rows.last().threads, 6);
        return std::accumulate(rows.last().busy.begin(), rows.last().busy.end(), 0.0);
    };
    const double perThread = workersBusy(Profile(crowded));
    for (const int cpus : { 0, 2, 6 }) {
        SCOPED_TRACE(cpus);
        crowded.run.cpus = cpus;
        const Profile profile(crowded);
        EXPECT_EQ(textSummary(profile, 5).contains(told), cpus == 2) << qPrintable(textSummary(profile, 5));
        EXPECT_NEAR(workersBusy(profile), cpus == 2 ? 3 * perThread : perThread, 1e-9);
    }
}

TEST(Reports, LongCppNamesKeepWhatTellsThemApart)
{
    const struct {
        const char* name;
        int width;
        const char* shown;
    } cases[] = {
        { "spin_alpha", 10, "spin_alpha" },
        { "<unknown> from libgomp.so.1.0.0", 20, "<unknown> from li..." },
        // Nested arguments go first, then all of them, then the return type.
        { "std::vector<std::pair<int, long>, std::allocator<std::pair<int, long> > >::push_back(std::pair<int, long> const&)",
          90, "std::vector<std::pair<...>, std::allocator<...> >::push_back(std::pair<...> const&)" },
        { "bool std::operator==<char, std::char_traits<char>, std::allocator<char> >(std::__cxx11::basic_string<char, "
          "std::char_traits<char>, std::allocator<char> > const&, char const*) [inlined]",
          40, "bool std::operator==<...>(...) [inlined]" },
        { "bool tbb::detail::d2::concurrent_hash_map<std::__cxx11::basic_string<char, std::char_traits<char> >, int>::"
          "lookup<false>(std::__cxx11::basic_string<char, std::char_traits<char> > const&, int)",
          48, "...concurrent_hash_map<...>::lookup<...>(...)" },
        // Operators aren't brackets; a method's qualifier and an anonymous namespace stay.
        { "std::ostream& std::operator<< <std::char_traits<char> >(std::basic_ostream<char, std::char_traits<char> >&, char const*)",
          40, "std::ostream& std::operator<< <...>(...)" },
        { "(anonymous namespace)::Grid<double, 3>::operator()(int, int) const", 60,
          "(anonymous namespace)::Grid<...>::operator()(...) const" },
        { "Foo<Bar<int> >::operator<(Foo<Bar<int> > const&) const", 40, "Foo<...>::operator<(...) const" },
    };
    for (const auto& c : cases)
        EXPECT_EQ(shortFunctionName(QString::fromLatin1(c.name), c.width), QString::fromLatin1(c.shown)) << c.name;
}

TEST(Reports, HtmlPageIsSelfContainedAndCarriesTheTree)
{
    Result result = exampleResult(1);
    result.run.arguments << QStringLiteral("</script><!--");
    const QByteArray html = htmlReport(Profile(result));
    EXPECT_TRUE(html.startsWith("<!DOCTYPE html>"));
    EXPECT_FALSE(html.contains("/*ZOR-DATA*/"));
    // Nothing is fetched: no external script, style, image or font.
    for (const char* fetch : { "src=", "href=\"http", "url(", "@import", "fetch(", "XMLHttpRequest" })
        EXPECT_FALSE(html.contains(fetch)) << fetch;
    const QByteArray tag("<script id=\"zor-data\" type=\"application/json\">");
    const int start = html.indexOf(tag) + tag.size();
    const int end = html.indexOf("</script>", start);
    const QByteArray json = html.mid(start, end - start);
    EXPECT_FALSE(json.contains('<'));
    QJsonParseError error;
    const QJsonObject data = QJsonDocument::fromJson(json, &error).object();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << qPrintable(error.errorString());
    EXPECT_TRUE(data.value("commandLine").toString().endsWith(QLatin1String("'</script><!--'")));
    const QJsonObject program = data.value("tree").toObject().value("c").toArray().at(0).toObject();
    EXPECT_EQ(program.value("n").toString(), QStringLiteral("zor-example"));
    EXPECT_EQ(program.value("t").toDouble(), 3600000.0);
    // The main thread's class frame and the main function below it are one
    // node, as in the folded stacks; so are a worker's entry and its copy.
    const QJsonArray classes = program.value("c").toArray();
    ASSERT_EQ(classes.size(), 2);
    for (const QJsonValue& frame : classes) {
        const QJsonArray below = frame.toObject().value("c").toArray();
        ASSERT_EQ(below.size(), 1);
        EXPECT_NE(below.at(0).toObject().value("n"), frame.toObject().value("n"));
    }
    EXPECT_EQ(data.value("timeline").toArray().size(), 2);
    EXPECT_EQ(data.value("functions").toArray().at(0).toObject().value("n").toString(), QStringLiteral("spin_delta"));

    // The summary's facts and notes, on the page too; a run without samples
    // tells no threads, times or CPU time that it doesn't know.
    Result none = exampleResult(0);
    none.ranks << exampleRank(0, 0, 0);
    none.run.wallMs = 0;
    none.run.exitStatus = 3;
    for (const Result& run : { result, none }) {
        const Profile profile(run);
        const QJsonObject page = htmlReportData(profile);
        const QString summary = textSummary(profile, 5).simplified();
        for (const char* field : { "facts", "notes" }) {
            const QJsonArray items = page.value(QLatin1String(field)).toArray();
            EXPECT_FALSE(items.isEmpty()) << field;
            for (const QJsonValue& item : items)
                EXPECT_TRUE(summary.contains(item.toString())) << qPrintable(item.toString()) << "\n" << qPrintable(summary);
        }
    }
    const QString empty = textSummary(Profile(none), 5);
    EXPECT_TRUE(empty.contains(QRegExp(QStringLiteral("\n1 process, 0 samples every 20 ms\nNo samples: .*\n"
                                                      "The program exited with status 3\\.\n"))))
        << qPrintable(empty);
}
