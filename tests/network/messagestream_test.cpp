// Messages cross a real socket in frames: every kind comes back whole,
// however the bytes are cut, and garbage on the stream is refused with a
// reason while what came before it is kept.
#include <QCoreApplication>
#include <QLocalSocket>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

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
        const QList<Message> sent = everyKind();
        if (byteByByte) {
            QByteArray all;
            for (const Message& m : sent)
                all += MessageStream::frame(m.toXml());
            // Each byte is read on its own, so frames arrive in pieces.
            for (char c : all) {
                pair.a.write(&c, 1);
                ASSERT_TRUE(pair.a.waitForBytesWritten(5000));
                QCoreApplication::processEvents();
            }
        } else {
            for (const Message& m : sent)
                ASSERT_TRUE(sender.send(m));
        }
        ASSERT_TRUE(sender.flush());
        for (const Message& expected : sent) {
            ASSERT_TRUE(receiver.waitForMessage(5000)) << receiver.errorString().toStdString();
            EXPECT_EQ(describe(receiver.takeMessage()), describe(expected));
        }
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

TEST(MessageStream, AClosedPeerEndsTheWait)
{
    SocketPair pair;
    MessageStream receiver(&pair.b, nullptr);
    pair.a.close();
    EXPECT_FALSE(receiver.waitForMessage(5000));
}

} // namespace
