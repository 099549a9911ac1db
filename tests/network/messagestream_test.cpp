// Messages cross a real socket in frames: every kind comes back whole,
// however the bytes are cut, and garbage on the stream is refused with a
// reason while what came before it is kept.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <QLocalSocket>
#include <gtest/gtest.h>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "constants.h"
#include "messagestream.h"
#include "profilerresponses.h"
#include "zorresponsefactoryplugin.h"

namespace {

// Two connected local sockets of this process.
struct SocketPair
{
    SocketPair()
    {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        a.setSocketDescriptor(fds[0]);
        b.setSocketDescriptor(fds[1]);
    }
    QLocalSocket a;
    QLocalSocket b;
};

QString describe(const Message& m)
{
    QString text = Message::kindName(m.kind) + QStringLiteral(" uid=%1 cmd=%2").arg(m.uid).arg(m.commandName);
    if (m.kind == Message::CommandMessage)
        text += QStringLiteral(" name=%1 target=%2 param=%3/%4")
                    .arg(m.command.name, m.command.getTarget())
                    .arg(m.command.getValue(QStringLiteral("numSamples")).toInt())
                    .arg(m.command.getValue(QStringLiteral("file")).toString());
    if (m.response)
        text += QStringLiteral(" response=") + m.response->toString();
    if (m.exception)
        text += QStringLiteral(" exception=%1:%2 nested=%3")
                    .arg(m.exception->code())
                    .arg(m.exception->message())
                    .arg(m.exception->nested() ? m.exception->nested()->message() : QString());
    for (auto it = m.values.constBegin(); it != m.values.constEnd(); ++it)
        text += QStringLiteral(" %1=%2").arg(it.key(), it.value().toString());
    return text;
}

QList<Message> everyKind()
{
    Command play(QString::fromLatin1(CMD_ZOR_PLAY), QString::fromLatin1(XML_TARGET_PROFILER));
    play.addParameter(QStringLiteral("numSamples"), 1000);
    play.addParameter(QStringLiteral("file"), QStringLiteral("<a & b>\n\u00e9"));
    const ProfilerProgressResponse progress(ProfilerProgressResponse::AnalysisProgress, 42, 7);
    const SendSamplesResponse sent(3, 1000);
    const Exception failure(20015, QStringLiteral("target died"),
                            new ExceptionBase(1, QStringLiteral("cause"), nullptr, nullptr, 0));
    return {
        Message::forCommand(play),
        Message::forCancel(play.getUid()),
        Message::forResponse(progress),
        Message::forReply(play, sent),
        Message::forException(failure),
        Message::forReplyException(play, failure),
        Message::forValues(Message::Hello, {{QString::fromLatin1(HelloKeys::Rank), 3},
                                            {QString::fromLatin1(HelloKeys::Program), QStringLiteral("app")}}),
        Message::forValues(Message::TargetExit, {{QStringLiteral("signal"), 9}}),
    };
}

TEST(MessageStream, EveryKindCrossesWholeEvenByteByByte)
{
    ZORResponseFactoryPlugin factory;
    for (bool byteByByte : {false, true}) {
        SCOPED_TRACE(byteByByte);
        SocketPair pair;
        MessageStream sender(&pair.a, &factory);
        MessageStream receiver(&pair.b, &factory);
        QList<Message> sent = everyKind();
        QByteArray all;
        if (!byteByByte) {
            // Large messages are read on other threads, and still come out in order.
            for (int at : {1, 3, 4}) {
                sent.insert(at, Message::forValues(Message::Hello, {{QStringLiteral("big"), QString(100000 + at, QChar('a' + at))}}));
            }
        }
        for (const Message& m : sent)
            all += MessageStream::frame(m.toXml());
        std::thread writer;
        if (byteByByte) {
            // Each byte is read on its own, so frames arrive in pieces.
            for (char c : all) {
                pair.a.write(&c, 1);
                ASSERT_TRUE(pair.a.waitForBytesWritten(5000));
                QCoreApplication::processEvents();
            }
        } else {
            // More than a socket holds: written beside the reading.
            writer = std::thread([&]() {
                for (int done = 0; done < all.size();) {
                    pollfd out = {int(pair.a.socketDescriptor()), POLLOUT, 0};
                    if (poll(&out, 1, 5000) != 1)
                        break;
                    const ssize_t n = ::write(out.fd, all.constData() + done, size_t(all.size() - done));
                    if (n < 0 && errno != EAGAIN)
                        break;
                    done += n > 0 ? int(n) : 0;
                }
            });
        }
        // Byte by byte, the receiver waits on the socket; otherwise it takes
        // what its signal announces, as the programs do.
        QList<Message> received;
        if (byteByByte) {
            while (received.size() < sent.size() && receiver.waitForMessage(5000))
                received.append(receiver.takeMessage());
        } else {
            QObject::connect(&receiver, &MessageStream::messageReady, [&]() {
                while (receiver.hasMessage())
                    received.append(receiver.takeMessage());
            });
            QTimer tick;
            tick.start(50);
            QElapsedTimer waited;
            waited.start();
            while (received.size() < sent.size() && waited.elapsed() < 5000)
                QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            writer.join();
        }
        ASSERT_EQ(received.size(), sent.size()) << receiver.errorString().toStdString();
        for (int i = 0; i < sent.size(); ++i)
            EXPECT_EQ(describe(received.at(i)), describe(sent.at(i)));
        EXPECT_FALSE(receiver.hasMessage());
    }
}

TEST(MessageStream, MalformedInputStopsTheStreamWithAReason)
{
    ZORResponseFactoryPlugin factory;
    const Message good = Message::forCancel(5);
    struct Case
    {
        const char* name;
        QByteArray bytes;
        const char* reason;
    } cases[] = {
        {"over the limit", QByteArray("\xff\xff\xff\xff", 4), "over the limit"},
        {"not XML", MessageStream::frame("garbage"), "malformed"},
        {"unknown kind", MessageStream::frame("<message kind=\"boom\"/>"), "unknown message kind"},
        {"unknown response", MessageStream::frame("<message kind=\"response\"><NoSuchResponse/></message>"),
         "unknown response"},
        {"reply without uid", MessageStream::frame("<message kind=\"reply\"><SendSamplesResponse/></message>"),
         "uid"},
        {"command without content", MessageStream::frame("<message kind=\"command\"/>"), "without its content"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SocketPair pair;
        MessageStream receiver(&pair.b, &factory);
        QString reason;
        QObject::connect(&receiver, &MessageStream::failed, [&](const QString& r) { reason = r; });
        pair.a.write(MessageStream::frame(good.toXml()) + c.bytes + MessageStream::frame(good.toXml()));
        pair.a.flush();
        ASSERT_TRUE(receiver.waitForMessage(5000));
        EXPECT_EQ(describe(receiver.takeMessage()), describe(good));
        EXPECT_FALSE(receiver.waitForMessage(200));
        EXPECT_TRUE(receiver.hasFailed());
        EXPECT_TRUE(reason.contains(QLatin1String(c.reason))) << reason.toStdString();
    }
}

TEST(MessageStream, ResponsesNeedAFactoryOnTheReadingSide)
{
    Message message;
    QString error;
    EXPECT_FALSE(Message::fromXml(Message::forResponse(SendHistogramsResponse()).toXml(), nullptr, &message, &error));
    EXPECT_TRUE(error.contains(QLatin1String("no response factory")));
    EXPECT_TRUE(Message::fromXml(Message::forCancel(1).toXml(), nullptr, &message, &error));
}

} // namespace
