// What a host takes from its launcher's environment: rank and rank count by
// OpenMPI's variables before PMI's, rank 0 of 1 without a launcher, the
// launcher's name; and the front-end's address.
#include <gtest/gtest.h>
#include <unistd.h>

#include "hostenvironment.h"

namespace {

TEST(HostEnvironment, RankAndCountFromTheLaunchersVariables)
{
    const struct
    {
        QStringList variables;
        int rank, count;
        const char* launcher;
    } cases[] = {
        {{}, 0, 1, ""},
        {{"OMPI_COMM_WORLD_RANK=3", "OMPI_COMM_WORLD_SIZE=8"}, 3, 8, "OpenMPI"},
        {{"PMI_RANK=2", "PMI_SIZE=4"}, 2, 4, "PMI"},
        {{"PMIX_RANK=1", "PMI_SIZE=3"}, 1, 3, "PMI"},
        // OpenMPI's come first where a launcher sets both kinds.
        {{"PMI_RANK=0", "PMI_SIZE=2", "OMPI_COMM_WORLD_RANK=5", "OMPI_COMM_WORLD_SIZE=6"}, 5, 6, "OpenMPI"},
        // A count missing or not above the rank: at least the ranks up to this one.
        {{"PMI_RANK=4"}, 4, 5, "PMI"},
        {{"OMPI_COMM_WORLD_RANK=5", "OMPI_COMM_WORLD_SIZE=2"}, 5, 6, "OpenMPI"},
        // A rank that isn't a rank is no rank.
        {{"OMPI_COMM_WORLD_RANK=-1", "OMPI_COMM_WORLD_SIZE=4"}, 0, 1, "OpenMPI"},
        {{"PMI_RANK=two", "PMI_SIZE=4"}, 0, 1, "PMI"},
        {{"OMPI_COMM_WORLD_SIZE=4", "PMI_SIZE=4"}, 0, 1, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.variables.join(QLatin1Char(' ')).toStdString());
        QProcessEnvironment environment;
        for (const QString& variable : c.variables)
            environment.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
        const TharnIdentity identity = identityFromEnvironment(environment, QStringLiteral("/bin/app"));
        EXPECT_EQ(identity.rank, c.rank);
        EXPECT_EQ(identity.rankCount, c.count);
        // Common to the hosts that one launcher process started.
        EXPECT_EQ(identity.hostProcessId, int(getppid()));
        EXPECT_EQ(launcherName(environment), QLatin1String(c.launcher));
    }
}

TEST(HostEnvironment, FrontendAddresses)
{
    const struct
    {
        const char* text;
        FrontendAddress::Kind kind;
        const char* where;
        int port;
    } cases[] = {
        {"local:/tmp/zor-1/frontend", FrontendAddress::Local, "/tmp/zor-1/frontend", 0},
        {"tcp:node7.cluster:40123", FrontendAddress::Tcp, "node7.cluster", 40123},
        {"tcp:10.0.0.2:1", FrontendAddress::Tcp, "10.0.0.2", 1},
        {"local:", FrontendAddress::Invalid, "", 0},
        {"tcp:node7", FrontendAddress::Invalid, "", 0},
        {"tcp::4000", FrontendAddress::Invalid, "", 0},
        {"tcp:node7:0", FrontendAddress::Invalid, "", 0},
        {"tcp:node7:65536", FrontendAddress::Invalid, "", 0},
        {"tcp:node7:http", FrontendAddress::Invalid, "", 0},
        {"/tmp/frontend", FrontendAddress::Invalid, "", 0},
        {"", FrontendAddress::Invalid, "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const FrontendAddress address = FrontendAddress::parse(QString::fromLatin1(c.text));
        EXPECT_EQ(address.kind, c.kind);
        if (c.kind == FrontendAddress::Invalid)
            continue;
        EXPECT_EQ(c.kind == FrontendAddress::Local ? address.path : address.host, QLatin1String(c.where));
        EXPECT_EQ(address.port, c.port);
        // The text a host is given back is the text it was given.
        EXPECT_EQ(address.toString(), QLatin1String(c.text));
    }
}

} // namespace
