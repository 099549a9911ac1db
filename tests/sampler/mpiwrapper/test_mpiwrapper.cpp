// The MPI wrapper: what it exports, and a real MPI program on two ranks with
// the sampler and the wrapper preloaded, read through the sampler's own
// reader of the ".mpi" file it feeds (the back-end's reader: the sample
// source's tests).
#include "mpicallfile.h"
#include "../../support/samplefilereader.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

using quorvex::MpiCallRecord;

namespace {

std::map<std::string, MpiCallRecord> readMpiFile(const QString& path, bool* complete)
{
    std::map<std::string, MpiCallRecord> byName;
    std::vector<MpiCallRecord> records;
    const int fd = open(QFile::encodeName(path).constData(), O_RDONLY);
    *complete = fd >= 0 && quorvex::quorvex_read_mpi_calls(fd, records);
    if (fd >= 0) {
        char extra;
        *complete = *complete && read(fd, &extra, 1) == 0;
        close(fd);
    }
    for (const MpiCallRecord& record : records)
        byName[record.name] = record;
    return byName;
}

// In a child, so that MPI and the sampler stay out of the test's process.
TEST(MpiWrapper, AnswersItsVersionAndStandsInFrontOfEveryKindOfCall)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        void* wrapper = dlopen(ZOR_MPIWRAPPER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (!wrapper)
            _exit(10);
        auto version = reinterpret_cast<int (*)()>(dlsym(wrapper, "quorvex_zorMpiWrapperVersion"));
        if (!version || version() != 600)
            _exit(11);
        const char* wrapped[] = {"MPI_Init", "MPI_Init_thread", "MPI_Finalize", "MPI_Send", "MPI_Irecv",
                                 "MPI_Waitall", "MPI_Testany", "MPI_Allreduce", "MPI_Ialltoallv", "MPI_Put",
                                 "MPI_Win_fence", "MPI_File_read_at_all", "MPI_Comm_split", "MPI_Abort"};
        const char* passed[] = {"MPI_Wtime", "MPI_Comm_rank", "MPI_Comm_f2c"};
        int code = 0;
        for (const char* name : wrapped) {
            Dl_info info;
            void* symbol = dlsym(wrapper, name);
            if (!symbol || !dladdr(symbol, &info) || !strstr(info.dli_fname, "mpiwrapper"))
                code = 12;
        }
        for (const char* name : passed) {
            Dl_info info;
            void* symbol = dlsym(wrapper, name);
            if (!symbol || !dladdr(symbol, &info) || strstr(info.dli_fname, "mpiwrapper"))
                code = 13;
        }
        _exit(code);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no wrapper, 11: wrong version, 12: a call not wrapped, "
                                         "13: a call wrapped that should not be";
}

struct MpiRun
{
    int exitCode = -1;
    QString out;
    QStringList outputs; // the data files, one per rank, in rank order
};

// Runs zor-mpi-example on `ranks` ranks through mpirun with the sampler and
// the wrapper preloaded, each rank writing its results into `dir`.
MpiRun runExample(const QTemporaryDir& dir, int ranks, const QStringList& arguments)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("OMPI_ALLOW_RUN_AS_ROOT", "1");
    environment.insert("OMPI_ALLOW_RUN_AS_ROOT_CONFIRM", "1");
    environment.insert("OMPI_MCA_rmaps_base_oversubscribe", "1");
    // Each rank names its files after its rank.
    const QString command = QString("LD_PRELOAD=%1:%2 ZOR_SAMPLER_OUTPUT=%3/rank.$OMPI_COMM_WORLD_RANK "
                                    "ZOR_SAMPLER_OPTIONS=interval=5 exec %4 \"$@\"")
                                .arg(ZOR_SAMPLER_LIBRARY, ZOR_MPIWRAPPER_LIBRARY, dir.path(), ZOR_MPI_EXAMPLE);
    QStringList args = {"-n", QString::number(ranks), "sh", "-c", command, "sh"};
    args << arguments;
    QProcess mpirun;
    mpirun.setProcessEnvironment(environment);
    mpirun.setProcessChannelMode(QProcess::MergedChannels);
    mpirun.start("mpirun", args);
    MpiRun run;
    if (!mpirun.waitForStarted() || !mpirun.waitForFinished(120000)) {
        mpirun.kill();
        mpirun.waitForFinished();
        return run;
    }
    run.exitCode = mpirun.exitStatus() == QProcess::NormalExit ? mpirun.exitCode() : -1;
    run.out = QString::fromLocal8Bit(mpirun.readAll());
    for (int rank = 0; rank < ranks; ++rank) {
        if (QFile::exists(dir.filePath(QString("rank.%1").arg(rank))))
            run.outputs << dir.filePath(QString("rank.%1").arg(rank));
    }
    return run;
}

// Two ranks, rank 0 with the least work before each barrier: every call
// counted as the program made it, the time in the barrier as each rank
// measured it itself (on a busy machine either may wait more), and samples
// inside MPI flagged.
TEST(MpiWrapper, TwoRanksCountEveryCallAndTheTimeInIt)
{
    QTemporaryDir dir;
    const int rounds = 8;
    const MpiRun run = runExample(dir, 2, {QString::number(rounds), "2500", "16"});
    ASSERT_EQ(run.exitCode, 0) << run.out.toStdString();
    ASSERT_EQ(run.outputs.size(), 2) << run.out.toStdString();
    // Its index among the sampler's own metrics when no configuration names
    // any.
    const unsigned mpiTimeMetric = 4;
    std::uint64_t barrierNs[2] = {0, 0};
    for (int rank = 0; rank < 2; ++rank) {
        SCOPED_TRACE("rank " + std::to_string(rank));
        bool complete = false;
        std::map<std::string, MpiCallRecord> calls = readMpiFile(run.outputs[rank] + ".mpi", &complete);
        ASSERT_TRUE(complete);
        EXPECT_EQ(calls["MPI_Init"].calls, 1u);
        EXPECT_EQ(calls["MPI_Finalize"].calls, 1u);
        EXPECT_EQ(calls["MPI_Allreduce"].calls, std::uint64_t(rounds));
        EXPECT_EQ(calls["MPI_Allreduce"].bytesSent, std::uint64_t(rounds) * 16 * sizeof(double));
        EXPECT_EQ(calls["MPI_Allreduce"].bytesReceived, std::uint64_t(rounds) * 16 * sizeof(double));
        EXPECT_EQ(calls["MPI_Barrier"].calls, std::uint64_t(rounds));
        EXPECT_EQ(calls["MPI_Barrier"].bytesSent + calls["MPI_Barrier"].bytesReceived, 0u);
        EXPECT_EQ(calls.count("MPI_Comm_rank"), 0u) << "not wrapped, so not counted";
        EXPECT_EQ(calls.size(), 4u);
        barrierNs[rank] = calls["MPI_Barrier"].nanoseconds;
        // Inside the program's own brackets around the calls, and short of
        // them only by what a thread kept from running between a bracket
        // and the call may add.
        QRegularExpressionMatch own
            = QRegularExpression(QString("rank %1 spent (\\d+) ns in MPI_Barrier").arg(rank)).match(run.out);
        ASSERT_TRUE(own.hasMatch()) << run.out.toStdString();
        const std::uint64_t ownNs = own.captured(1).toULongLong();
        EXPECT_LE(barrierNs[rank], ownNs + ownNs / 100 + 1000000);
        EXPECT_GE(barrierNs[rank] + ownNs / 10 + 20000000, ownNs);

        // The MPI time of the samples is that of the calls, less what came
        // after the last sample: MPI_Finalize, perhaps, and a little more.
        std::uint64_t total = 0;
        for (const auto& call : calls)
            total += call.second.nanoseconds;
        unsigned long inMpi = 0;
        std::uint64_t sampledNs = 0;
        SampleFileRead file(run.outputs[rank].toStdString());
        ASSERT_TRUE(file.list && file.error == 0);
        for (unsigned i = 0; i < file.list->size(); ++i) {
            inMpi += file.list->at(i).mainThreadTrace().inMpi();
            sampledNs += file.list->at(i).metrics().getMetricValue(mpiTimeMetric).to_uint64_t();
        }
        EXPECT_GT(inMpi, 0u);
        EXPECT_LT(inMpi, file.list->size());
        // The samples turn the calls' ticks into nanoseconds at the rate
        // measured so far, which drifts a little over the run: a few
        // microseconds over in all at most.
        EXPECT_LE(sampledNs, total + total / 1000);
        EXPECT_GT(sampledNs + calls["MPI_Finalize"].nanoseconds + total / 10 + 20000000, total);
    }
}

} // namespace
