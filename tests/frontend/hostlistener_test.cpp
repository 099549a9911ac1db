// Who the front-end hears: over a local socket and over TCP alike, only a
// connection that opens with the run's token reaches the run, with the
// messages that follow the token intact; anything else is closed unread.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QLocalSocket>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <memory>

#include "hostconnection.h"
#include "hostlistener.h"
#include "message.h"
#include "messagestream.h"
#include "../support/spin.h"

namespace {

QByteArray helloFrame(int rank)
{
    return MessageStream::frame(
        Message::forValues(Message::Hello, { { QString::fromLatin1(HelloKeys::Rank), rank },
                                             { QString::fromLatin1(HelloKeys::RankCount), 4 } })
            .toXml());
}

class HostListenerTest : public ::testing::TestWithParam<bool>
{
};

TEST_P(HostListenerTest, OnlyTheRunsTokenOpensTheDoor)
{
    const bool tcp = GetParam();
    QTemporaryDir dir;
    HostListener listener;
    QString error;
    ASSERT_TRUE(tcp ? listener.listenTcp(QStringLiteral("127.0.0.1"), &error)
                    : listener.listenLocal(dir.filePath(QStringLiteral("hosts")), &error))
        << qPrintable(error);
    listener.setTokenTimeout(300);
    const QByteArray token = listener.token();
    ASSERT_GE(token.size(), 32);
    ASSERT_TRUE(listener.address().startsWith(tcp ? QLatin1String("tcp:127.0.0.1:") : QLatin1String("local:")));
    const quint16 port = quint16(listener.address().section(QLatin1Char(':'), -1).toUInt());

    QStringList refusals;
    QObject::connect(&listener, &HostListener::refused, [&](const QString& why) { refusals << why; });

    struct Case
    {
        const char* name;
        QByteArray opening; // what the caller sends first
        bool admitted;
        const char* why;
    };
    QByteArray wrong = token;
    wrong[0] = wrong.at(0) == 'a' ? 'b' : 'a';
    const Case cases[] = {
        { "a hello without a token", helloFrame(1), false, "did not present the run's token" },
        { "a token one digit off", wrong + '\n' + helloFrame(1), false, "did not present the run's token" },
        { "the token's start", token.left(8) + '\n' + helloFrame(1), false, "did not present the run's token" },
        { "the token run on", token + token, false, "did not present the run's token" },
        { "silence", QByteArray(), false, "presented no token within" },
        // The hello sent with the token, in one write, still reaches the run.
        { "the token and a hello", token + '\n' + helloFrame(3), true, nullptr },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        refusals.clear();
        std::unique_ptr<QIODevice> client;
        if (tcp) {
            auto* socket = new QTcpSocket;
            client.reset(socket);
            socket->connectToHost(QStringLiteral("127.0.0.1"), port);
            ASSERT_TRUE(spinUntil([&] { return socket->state() == QAbstractSocket::ConnectedState; }));
        } else {
            auto* socket = new QLocalSocket;
            client.reset(socket);
            socket->connectToServer(listener.address().mid(6));
            ASSERT_TRUE(spinUntil([&] { return socket->state() == QLocalSocket::ConnectedState; }));
        }
        if (!c.opening.isEmpty())
            client->write(c.opening);
        const auto closed = [&] {
            if (auto* socket = qobject_cast<QTcpSocket*>(client.get()))
                return socket->state() == QAbstractSocket::UnconnectedState;
            return static_cast<QLocalSocket*>(client.get())->state() == QLocalSocket::UnconnectedState;
        };
        if (!c.admitted) {
            EXPECT_TRUE(spinUntil([&] { return closed() && !refusals.isEmpty(); })) << qPrintable(refusals.join('\n'));
            ASSERT_EQ(refusals.size(), 1);
            EXPECT_TRUE(refusals.first().contains(QLatin1String(c.why))) << qPrintable(refusals.first());
            EXPECT_EQ(listener.nextConnection(), nullptr);
            continue;
        }
        QIODevice* accepted = nullptr;
        ASSERT_TRUE(spinUntil([&] {
            if (!accepted)
                accepted = listener.nextConnection();
            return accepted != nullptr;
        }));
        HostConnection host(accepted, nullptr);
        EXPECT_TRUE(spinUntil([&] { return host.hasHello(); }));
        EXPECT_EQ(host.rank(), 3);
        EXPECT_FALSE(closed());
        EXPECT_EQ(refusals, QStringList());
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, HostListenerTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Tcp" : "Local"; });

} // namespace
