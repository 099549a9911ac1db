// The host's socket against Qt's servers, as the front-end has them.
#include <gtest/gtest.h>

#include <QLocalServer>
#include <QLocalSocket>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

#include "fdsocket.h"

namespace {

// Both ends in one thread: the host's writes wait for the other end to read.
QByteArray pump(FdSocket& host, QIODevice& other, int expected)
{
    QByteArray received;
    for (int turns = 0; received.size() < expected && turns < 2000; ++turns) {
        if (host.bytesToWrite() > 0)
            host.waitForBytesWritten(5);
        other.waitForReadyRead(5);
        received += other.readAll();
    }
    return received;
}

} // namespace

TEST(FdSocket, CarriesMoreThanTheBuffersHoldAndTellsTheEndAfterTheLastBytes)
{
    QTemporaryDir dir;
    QLocalServer server;
    ASSERT_TRUE(server.listen(dir.filePath(QStringLiteral("hosts"))));
    FdSocket host;
    ASSERT_TRUE(host.connectToLocal(server.fullServerName(), 5000)) << host.errorString().toStdString();
    ASSERT_TRUE(server.waitForNewConnection(5000));
    QLocalSocket* frontEnd = server.nextPendingConnection();
    ASSERT_TRUE(frontEnd);

    // Far more than a socket's buffers: the rest waits to be written.
    QByteArray payload(8 << 20, '\0');
    for (int i = 0; i < payload.size(); ++i)
        payload[i] = char(i * 7 + i / 4096);
    EXPECT_EQ(host.write(payload), qint64(payload.size()));
    EXPECT_GT(host.bytesToWrite(), 0);
    EXPECT_TRUE(pump(host, *frontEnd, payload.size()) == payload);
    EXPECT_EQ(host.bytesToWrite(), 0);

    // What comes before the other end closes is read before the end is told.
    QStringList told;
    QObject::connect(&host, &QIODevice::readyRead, [&]() { told << QStringLiteral("read ") + host.readAll(); });
    QObject::connect(&host, &FdSocket::disconnected, [&]() { told << QStringLiteral("end"); });
    frontEnd->write("last words");
    frontEnd->flush();
    frontEnd->disconnectFromServer();
    while (host.waitForReadyRead(2000)) {
    }
    EXPECT_EQ(told, QStringList({QStringLiteral("read last words"), QStringLiteral("end")}));
    EXPECT_FALSE(host.waitForReadyRead(10));
    // Writing to a closed connection fails, without a SIGPIPE.
    qint64 written = 0;
    for (int i = 0; i < 100 && written >= 0; ++i)
        written = host.write(QByteArray(65536, 'x'));
    EXPECT_EQ(written, -1);
}

TEST(FdSocket, ConnectsOverTcpAndSaysWhyItCant)
{
    QTcpServer server;
    ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    FdSocket host;
    ASSERT_TRUE(host.connectToTcp(QStringLiteral("localhost"), server.serverPort(), 5000))
        << host.errorString().toStdString();
    ASSERT_TRUE(server.waitForNewConnection(5000));
    QTcpSocket* frontEnd = server.nextPendingConnection();
    host.write("hello\n");
    EXPECT_EQ(pump(host, *frontEnd, 6), QByteArray("hello\n"));
    frontEnd->write("commands");
    frontEnd->flush();
    ASSERT_TRUE(host.waitForReadyRead(5000));
    EXPECT_EQ(host.readAll(), QByteArray("commands"));

    const quint16 closedPort = server.serverPort();
    server.close();
    delete frontEnd;
    QTemporaryDir dir;
    const struct
    {
        bool local;
        QString where;
        const char* why;
    } failures[] = {
        {true, dir.filePath(QStringLiteral("nobody")), "No such file"},
        {true, QString(200, QLatin1Char('x')), "not a possible path"},
        {false, QStringLiteral("127.0.0.1"), "refused"},
        {false, QStringLiteral("no.such.host.invalid"), "no.such.host.invalid"},
    };
    for (const auto& f : failures) {
        FdSocket failing;
        const bool connected = f.local ? failing.connectToLocal(f.where, 2000)
                                       : failing.connectToTcp(f.where, closedPort, 2000);
        EXPECT_FALSE(connected) << f.where.toStdString();
        EXPECT_TRUE(failing.errorString().contains(QLatin1String(f.why))) << failing.errorString().toStdString();
    }
}
