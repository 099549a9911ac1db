// The MPI wrapper: what it exports, the ".mpi" file it feeds, and a real
// MPI program on two ranks with the sampler and the wrapper preloaded.
#include "mpicallfile.h"
#include "readsamples.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <algorithm>
#include <map>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

using quorvex::MpiCallFigures;
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

TEST(MpiCallFile, RoundTripAndTruncation)
{
    QTemporaryDir dir;
    const QString path = dir.filePath("calls.mpi");
    const MpiCallFigures figures[] = {{"MPI_Send", 3, 1500, 24, 0}, {"MPI_Allreduce", 1, 99, 8, 8}, {"", 0, 0, 0, 0}};
    int fd = open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(quorvex::quorvex_write_mpi_calls(fd, figures, 3));
    close(fd);
    bool complete = false;
    std::map<std::string, MpiCallRecord> read = readMpiFile(path, &complete);
    ASSERT_TRUE(complete);
    ASSERT_EQ(read.size(), 3u);
    EXPECT_EQ(read["MPI_Send"].calls, 3u);
    EXPECT_EQ(read["MPI_Send"].nanoseconds, 1500u);
    EXPECT_EQ(read["MPI_Send"].bytesSent, 24u);
    EXPECT_EQ(read["MPI_Allreduce"].bytesReceived, 8u);

    // Every shorter file is refused.
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray whole = file.readAll();
    file.close();
    for (int length = 0; length < whole.size(); ++length) {
        QFile cut(dir.filePath("cut.mpi"));
        ASSERT_TRUE(cut.open(QIODevice::WriteOnly | QIODevice::Truncate));
        cut.write(whole.left(length));
        cut.close();
        readMpiFile(cut.fileName(), &complete);
        EXPECT_FALSE(complete) << length << " of " << whole.size() << " bytes";
    }
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

} // namespace
