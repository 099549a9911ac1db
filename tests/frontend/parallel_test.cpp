// zor profile on parallel programs, end to end: MPI ranks through mpirun
// (a full run, an MPI_Abort and a crashing rank) and OpenMP programs of both
// runtimes. Each run is bounded; whatever a run leaves running is reported
// and killed, since this process adopts every orphan of its children.
#include <gtest/gtest.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "compactset.h"
#include "foldedstacks.h"
#include "mpicalls.h"
#include "profile.h"
#include "result.h"
#include "../support/gdbprobe.h"
#include "zorrun.h"

namespace {

// Children of this process that still run; zombies are reaped.
QList<pid_t> liveChildren()
{
    QList<pid_t> live;
    const QString self = QString::number(getpid());
    for (const QString& task : QDir(QStringLiteral("/proc/%1/task").arg(self)).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile children(QStringLiteral("/proc/%1/task/%2/children").arg(self, task));
        if (!children.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray& word : children.readAll().simplified().split(' ')) {
            const pid_t pid = word.toInt();
            if (pid > 0 && waitpid(pid, nullptr, WNOHANG) != pid)
                live << pid;
        }
    }
    return live;
}

QString commandOf(pid_t pid)
{
    QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
    if (!cmdline.open(QIODevice::ReadOnly))
        return QString::number(pid);
    return QStringLiteral("%1 %2").arg(pid).arg(QString::fromLocal8Bit(cmdline.readAll().replace('\0', ' ')).trimmed());
}

// What the run left behind, after a moment to settle; all of it is killed.
QStringList killLeftovers()
{
    QStringList names;
    QElapsedTimer settle;
    settle.start();
    QList<pid_t> live = liveChildren();
    while (!live.isEmpty() && settle.elapsed() < 5000) {
        QThread::msleep(100);
        live = liveChildren();
    }
    for (int round = 0; round < 20 && !live.isEmpty(); ++round) {
        for (pid_t pid : live) {
            names << commandOf(pid);
            ::kill(pid, SIGKILL);
        }
        QThread::msleep(200);
        live = liveChildren();
    }
    names.removeDuplicates();
    return names;
}

// zor, and what it left running (killed) or in TMPDIR.
Outcome zorBounded(const QStringList& args, const QProcessEnvironment& env, int timeoutMs)
{
    Outcome run = zor(args, env, timeoutMs);
    run.leftBehind = killLeftovers() + leftovers(env.value(QStringLiteral("TMPDIR")));
    return run;
}

// The result a run saved at `path`.
Result savedResult(const QString& path)
{
    Result result;
    QString error;
    EXPECT_TRUE(ResultFile::read(path, &result, &error)) << qPrintable(error);
    return result;
}

// Adopts the orphans of every process this test starts, so that none escapes
// the check.
class Parallel : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

    void SetUp() override
    {
        const QString why = gdbCallProblem(QStringLiteral(ZOR_EXAMPLE));
        if (!why.isEmpty())
            GTEST_SKIP() << qPrintable(why);
    }
};

struct MpiCounts
{
    quint64 calls = 0;
    quint64 ns = 0;
    quint64 sent = 0;
    quint64 received = 0;
};

QMap<QString, MpiCounts> mpiCalls(const RankResult& rank)
{
    QMap<QString, MpiCounts> calls;
    for (const MpiCallMetric& call : rank.endMetrics.mpiCallMetrics().calls())
        calls[call.name()] = { call.value(0).to_uint64_t(), call.value(1).to_uint64_t(), call.value(2).to_uint64_t(),
                               call.value(3).to_uint64_t() };
    return calls;
}

// The program's own word on the calls it made, one line per rank or PE
// ("rank 0 calls MPI_Allreduce 8 MPI_Barrier 8"): rank to call to count.
QMap<int, QMap<QString, quint64>> callsPrinted(const QString& out)
{
    QMap<int, QMap<QString, quint64>> printed;
    const QRegularExpression line(QStringLiteral("^(?:rank|pe) (\\d+) calls (\\w+) (\\d+) (\\w+) (\\d+)$"),
                                  QRegularExpression::MultilineOption);
    for (auto it = line.globalMatch(out); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        printed[m.captured(1).toInt()] = { { m.captured(2), m.captured(3).toULongLong() },
                                           { m.captured(4), m.captured(5).toULongLong() } };
    }
    return printed;
}

const PSVModelItem* findNode(const PSVModelItem* node, const QString& function)
{
    if (node->position().function == function)
        return node;
    for (const PSVModelItem* child : node->children())
        if (const PSVModelItem* found = findNode(child, function))
            return found;
    return nullptr;
}

// The ranks a node's samples come from, from "0=64,1=56,2-3=80": rank
// ranges and their thread-sample counts.
QString ranksOf(const PSVModelItem* node)
{
    CompactSet<int> ranks;
    for (const QString& item : node->processToThreadCountMap().toString().split(QLatin1Char(',')))
        ranks.insert(CompactSet<int>(item.section(QLatin1Char('='), 0, 0)), true);
    return ranks.toString();
}

// Every rank in the result with its samples, each call counted as the
// program made it with the bytes it sent, the uneven barrier visible as
// time per rank, the hot function shown as coming from every rank: four MPI
// ranks whose hosts call zor on a local socket, two whose hosts call over
// TCP, as those of other nodes do, and two PEs of an OpenSHMEM program found
// to be one without --shmem.
enum Launch { FourLocal, TwoOverTcp, ShmemTwoPes };

class MpiRanks : public Parallel, public ::testing::WithParamInterface<Launch>
{
};

TEST_P(MpiRanks, CountEveryCallAndShowTheImbalance)
{
    const bool tcp = GetParam() == TwoOverTcp, shmem = GetParam() == ShmemTwoPes;
    const QString program = shmem ? QStringLiteral(ZOR_BIN_DIR "/zor-shmem-example") : QStringLiteral(ZOR_MPI_EXAMPLE);
    if (!QFileInfo::exists(program))
        GTEST_SKIP() << "no " << qPrintable(program) << " (Open MPI's oshmem builds it)";
    const int n = GetParam() == FourLocal ? 4 : 2;
    const QString barrier = shmem ? QStringLiteral("shmem_barrier_all") : QStringLiteral("MPI_Barrier");
    const QString data = shmem ? QStringLiteral("shmem_long_put") : QStringLiteral("MPI_Allreduce");
    QTemporaryDir dir;
    QTemporaryDir temporary;
    const QString result = dir.filePath(QStringLiteral("mpi.zor"));
    const int rounds = 8;
    QStringList args = { "profile", "-n", QString::number(n), "--interval", "5", "-o", result };
    if (tcp)
        args << QStringLiteral("--tcp");
    const Outcome run = zorBounded(args + QStringList{ "--", program, QString::number(rounds), "10000", "16" },
                            withTmpdir(temporary.path()), 420000);
    EXPECT_EQ(run.leftBehind, QStringList());
    ASSERT_FALSE(run.timedOut) << qPrintable(run.err) << "\nat the bound:\n" << qPrintable(run.atTimeout);
    ASSERT_EQ(run.status, 0) << qPrintable(run.err);
    EXPECT_EQ(run.err.contains(QLatin1String("zor: the hosts call tcp:")), tcp) << qPrintable(run.err);
    EXPECT_FALSE(run.err.contains(QLatin1String("refused"))) << qPrintable(run.err);

    const Result saved = savedResult(result);
    ASSERT_EQ(saved.ranks.size(), n);
    const QMap<int, QMap<QString, quint64>> printed = callsPrinted(run.out);
    QList<int> all;
    for (int i = 0; i < n; ++i)
        all << i;
    ASSERT_EQ(printed.keys(), all) << qPrintable(run.out);
    QList<quint64> barrierNs;
    for (int i = 0; i < n; ++i) {
        const RankResult& rank = saved.ranks.at(i);
        SCOPED_TRACE(QStringLiteral("rank %1").arg(i).toStdString());
        EXPECT_EQ(rank.rank(), i);
        EXPECT_GT(rank.samples.size(), 0);
        const QMap<QString, MpiCounts> calls = mpiCalls(rank);
        EXPECT_EQ(calls.value("shmem_init").calls, shmem ? 1u : 0u);
        // Calls that the SHMEM library makes of MPI are its own.
        EXPECT_EQ(calls.value("MPI_Init").calls + calls.value("MPI_Init_thread").calls, shmem ? 0u : 1u);
        EXPECT_EQ(calls.value("MPI_Finalize").calls, shmem ? 0u : 1u);
        EXPECT_EQ(calls.value(data).calls, printed[i][data]);
        EXPECT_EQ(calls.value(barrier).calls, printed[i][barrier]);
        EXPECT_EQ(printed[i][barrier], quint64(rounds));
        EXPECT_EQ(calls.value(data).sent, quint64(rounds) * 16 * (shmem ? sizeof(long) : sizeof(double)));
        barrierNs << calls.value(barrier).ns;
    }
    // Rank r computes r + 1 steps of some 40 ms before the barrier: rank 0
    // waits there for n - 1 steps a round, the last rank for none. The ranks
    // share two cores, and a barrier among them takes tens of milliseconds,
    // so the figures are coarse; a SHMEM barrier spins, so on a loaded
    // machine PE 1's own wait can be longer still: only PE 0's is certain.
    // An MPI rank says how long it spent in the barrier by its own clock, which
    // a loaded machine can make uneven otherwise: each rank's figure is held
    // to that, and the table's most and least to the ranks that waited most
    // and least.
    QString figures = QStringLiteral("barrier ns per rank:");
    for (int i = 0; i < n; ++i)
        figures += QStringLiteral(" %1").arg(barrierNs[i]);
    const Profile profile(saved);
    const PSVModelItem* compute = findNode(profile.tree(), QStringLiteral("compute"));
    ASSERT_NE(compute, nullptr) << foldedStacks(profile).constData();
    EXPECT_EQ(ranksOf(compute), QStringLiteral("0-%1").arg(n - 1));
    if (shmem) {
        EXPECT_GT(barrierNs[0], quint64(rounds) * (n - 1) * 20000000) << qPrintable(figures);
        return;
    }
    QList<quint64> own;
    for (int i = 0; i < n; ++i) {
        const QRegularExpressionMatch m
            = QRegularExpression(QStringLiteral("^rank %1 spent (\\d+) ns in MPI_Barrier$").arg(i),
                                 QRegularExpression::MultilineOption)
                  .match(run.out);
        ASSERT_TRUE(m.hasMatch()) << qPrintable(run.out);
        own << m.captured(1).toULongLong();
        figures += QStringLiteral(" (own %1)").arg(own[i]);
    }
    // Inside the program's brackets around the calls, and short of them
    // only by what a rank kept from running between bracket and call adds.
    const auto near = [&](int i, int j) { return barrierNs[i] + own[j] / 10 + 20000000 >= own[j]; };
    for (int i = 0; i < n; ++i) {
        EXPECT_LE(barrierNs[i], own[i] + own[i] / 100 + 1000000) << i << qPrintable(figures);
        EXPECT_TRUE(near(i, i)) << i << qPrintable(figures);
    }
    const int most = int(std::max_element(own.begin(), own.end()) - own.begin());
    const int least = int(std::min_element(own.begin(), own.end()) - own.begin());
    const MpiCalls table(saved);
    for (const MpiCallTotal& total : table.totals()) {
        if (total.sum.name == barrier) {
            EXPECT_TRUE(near(total.mostRank, most)) << total.mostRank << qPrintable(figures);
            EXPECT_TRUE(near(least, total.leastRank)) << total.leastRank << qPrintable(figures);
        }
    }
    EXPECT_TRUE(run.err.contains(QLatin1String("MPI time per rank: 0: "))) << qPrintable(run.err);
    EXPECT_EQ(profile.rankCount(), n);
    // The MPI library's components, loaded in MPI_Init and unloaded in
    // MPI_Finalize, are named: no time in frames of no known object.
    double unknown = 0, total = 0;
    for (const auto& line : foldedLines(foldedStacks(profile))) {
        total += line.second;
        unknown += line.first.contains(QStringLiteral("<unknown>")) ? line.second : 0;
    }
    EXPECT_LT(unknown, 0.02 * total) << foldedStacks(profile).constData();
}

const char* const launchNames[] = { "FourLocal", "TwoOverTcp", "ShmemTwoPes" };
INSTANTIATE_TEST_SUITE_P(Launchers, MpiRanks, ::testing::Values(FourLocal, TwoOverTcp, ShmemTwoPes),
                         [](const ::testing::TestParamInfo<Launch>& info) { return launchNames[info.param]; });

// A rank that calls MPI_Abort, and one that dies of a signal: the run ends
// with the other ranks' samples, a word on which rank ended how, the
// program's status, and nothing left running.
TEST_F(Parallel, MpiAbortAndACrashingRankKeepTheOtherRanksSamples)
{
    struct Case
    {
        const char* option;
        int rank;
        int status;
        const char* how;
    };
    const Case cases[] = { { "--abort", 2, 3, "ended with status 3" }, { "--crash", 1, 128 + SIGSEGV, "died of signal 11" } };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.option);
        QTemporaryDir dir;
        QTemporaryDir temporary;
        const QString result = dir.filePath(QStringLiteral("failed.zor"));
        // Many rounds: the others are still busy when the rank fails.
        const Outcome run = zorBounded({ "profile", "-n", "4", "--interval", "5", "--quiet", "-o", result, "--",
                                  ZOR_MPI_EXAMPLE, "400", "100", "16", c.option, QString::number(c.rank) },
                                withTmpdir(temporary.path()), 280000);
        EXPECT_EQ(run.leftBehind, QStringList());
        ASSERT_FALSE(run.timedOut) << qPrintable(run.err) << "\nat the bound:\n" << qPrintable(run.atTimeout);
        // The host reads how a program ended from its zombie; should the
        // zombie be gone first, the rank counts as failed once the others
        // outlive it by 20 s, and zor says it doesn't know how it ended.
        const bool known = run.err.contains(QStringLiteral("zor: the program of rank %1 %2").arg(c.rank).arg(QLatin1String(c.how)));
        const bool unknown = run.err.contains(QStringLiteral("zor: the program of rank %1 ended ").arg(c.rank))
            && run.err.contains(QLatin1String("how is unknown, while others run; stopping sampling on the other ranks"));
        EXPECT_TRUE(known || unknown) << qPrintable(run.err);
        if (known)
            EXPECT_EQ(run.status, c.status) << qPrintable(run.err);
        else
            EXPECT_NE(run.status, 0) << qPrintable(run.err);

        const Result saved = savedResult(result);
        EXPECT_EQ(saved.run.exitStatus, run.status);
        QList<int> ranks;
        for (const RankResult& rank : saved.ranks) {
            ranks << rank.rank();
            if (rank.rank() != c.rank) {
                EXPECT_GT(rank.samples.size(), 0) << "rank " << rank.rank();
                EXPECT_GE(mpiCalls(rank).value("MPI_Barrier").calls, 1u) << "rank " << rank.rank();
            }
        }
        ranks.removeAll(c.rank);
        std::sort(ranks.begin(), ranks.end());
        QList<int> others = { 0, 1, 2, 3 };
        others.removeAll(c.rank);
        EXPECT_EQ(ranks, others);
        // The others wait in the barrier for the failed rank, and their
        // stacks show it by name.
        EXPECT_FALSE(findNode(Profile(saved).tree(), QStringLiteral("MPI_Barrier")) == nullptr);
    }
}

// An OpenMP program of each runtime: the hot loop body that the workers run
// sits under the function that opened the region, as it does on the thread
// that opened it, their waits between regions don't, and the workers are
// classified as region threads.
class OpenMp : public Parallel, public ::testing::WithParamInterface<const char*>
{
};

TEST_P(OpenMp, WorkersContinueIntoTheFunctionThatOpenedTheRegion)
{
    const QString program = QStringLiteral(ZOR_BIN_DIR "/zor-omp-example-") + QLatin1String(GetParam());
    if (!QFileInfo::exists(program))
        GTEST_SKIP() << "no " << qPrintable(program) << " (clang and libomp-dev build it)";
    QTemporaryDir dir;
    QTemporaryDir temporary;
    const QString result = dir.filePath(QStringLiteral("omp.zor"));
    QProcessEnvironment env = withTmpdir(temporary.path());
    env.insert(QStringLiteral("OMP_NUM_THREADS"), QStringLiteral("3"));
    const Outcome run = zorBounded({ "profile", "--interval", "3", "--quiet", "-o", result, "--", program, "40", "64" }, env,
                            280000);
    EXPECT_EQ(run.leftBehind, QStringList());
    ASSERT_FALSE(run.timedOut) << qPrintable(run.err) << "\nat the bound:\n" << qPrintable(run.atTimeout);
    ASSERT_EQ(run.status, 0) << qPrintable(run.err);
    EXPECT_TRUE(run.out.endsWith(QLatin1String("ok\n"))) << qPrintable(run.out);
    const Result saved = savedResult(result);
    const Profile profile(saved);

    // Per path, the time in hot_body: a worker's path has no call into the
    // runtime's fork on it.
    // A worker waiting in the runtime between regions is the runtime's: no
    // path goes from the opening function straight into code that is
    // neither the region's nor the runtime's (a yield in the C library).
    double underOpener = 0, workers = 0, all = 0, stray = 0;
    for (const auto& line : foldedLines(foldedStacks(profile))) {
        const QStringList& frames = line.first;
        const double us = line.second;
        const int below = frames.indexOf(QStringLiteral("open_region")) + 1;
        if (below > 0 && below < frames.size()) {
            const QString next = frames.at(below);
            if (!next.startsWith(QLatin1String(".omp_outlined")) && !next.startsWith(QLatin1String("open_region._omp_fn"))
                && !next.contains(QLatin1String("libgomp")) && !next.contains(QLatin1String("libomp"))
                && next != QLatin1String("GOMP_parallel") && next != QLatin1String("__kmpc_fork_call"))
                stray += us;
        }
        if (frames.last() != QLatin1String("hot_body"))
            continue;
        all += us;
        const int opener = frames.indexOf(QStringLiteral("open_region"));
        if (opener < 0 || frames.indexOf(QStringLiteral("main")) > opener)
            continue;
        underOpener += us;
        if (!frames.contains(QStringLiteral("GOMP_parallel")) && !frames.contains(QStringLiteral("__kmpc_fork_call")))
            workers += us;
    }
    ASSERT_GT(all, 0) << foldedStacks(profile).constData();
    EXPECT_GT(underOpener / all, 0.97) << foldedStacks(profile).constData();
    // Two of the three threads are workers.
    EXPECT_GT(workers / all, 0.4) << foldedStacks(profile).constData();
    // The waits the bound is for took 9.7%; on a loaded machine up to 1.4%
    // shows as vsnprintf straight under the opener (libomp's, unwound past).
    EXPECT_LT(stray / all, 0.03) << foldedStacks(profile).constData();

    QMap<QString, int> threads;
    for (const ActivityRow& row : profile.activity(10, false))
        threads[row.label] += row.threads;
    EXPECT_EQ(threads.value("main thread"), 1) << qPrintable(QStringList(threads.keys()).join(", "));
    EXPECT_EQ(threads.value("OpenMP worker thread"), 2) << qPrintable(QStringList(threads.keys()).join(", "));
}

INSTANTIATE_TEST_SUITE_P(Runtimes, OpenMp, ::testing::Values("gcc", "clang"));

} // namespace
