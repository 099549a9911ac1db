// The host's protocol over a real socket: arrivals are handled at once,
// queued commands run one at a time in order while the loop keeps taking
// arrivals (a stop reaches a command that waits), cancellations reach the
// handler, and failures come back as the answers of their commands.
#include <QCoreApplication>
#include <QLocalSocket>
#include <QObject>
#include <QTimer>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "constants.h"
#include "coroutinecont.h"
#include "messagestream.h"
#include "profilerresponses.h"
#include "tharn.h"
#include "tharnmessagehandler.h"
#include "zorresponsefactoryplugin.h"
#include "../support/spin.h"

namespace {

// "wait" yields until "stop" arrives; "fail" throws; anything else answers
// with a SendSamplesResponse whose rank is the number of commands run.
class Handler : public QObject, public TharnMessageHandler
{
    Q_OBJECT
public:
    explicit Handler(TharnInterface& host) : mHost(host) {}

    bool handleIncomingCommand(Command& command) override
    {
        log << QStringLiteral("in:") + command.name;
        if (command.name == QLatin1String("stop")) {
            emit stopped();
            return false;
        }
        return true;
    }
    void handleQueuedCommand(Command& command) override
    {
        log << QStringLiteral("run:") + command.name;
        if (command.name == QLatin1String("wait"))
            CoroutineCont::yieldUntil(this, SIGNAL(stopped()));
        if (command.name == QLatin1String("fail"))
            throw new Exception(20099, QStringLiteral("refused"));
        log << QStringLiteral("done:") + command.name;
        SendSamplesResponse answer(++mRun, 0);
        mHost.replyToCommand(command, &answer);
    }
    void cancelCommand(int uid) override { log << QStringLiteral("cancel:%1").arg(uid); }
    bool messageHandlerAcceptsTarget(const QString& target) override
    {
        return target == QLatin1String(XML_TARGET_PROFILER);
    }

    QStringList log;

signals:
    void stopped();

private:
    TharnInterface& mHost;
    int mRun = 0;
};

TEST(Tharn, QueuesRunInOrderWhileArrivalsAreStillTaken)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    QLocalSocket frontSocket, hostSocket;
    frontSocket.setSocketDescriptor(fds[0]);
    hostSocket.setSocketDescriptor(fds[1]);
    ZORResponseFactoryPlugin factory;
    MessageStream front(&frontSocket, &factory);
    MessageStream hostStream(&hostSocket, nullptr);
    Tharn host(hostStream, TharnIdentity());
    Handler handler(host);
    host.addHandler(&handler);

    const QString profiler = QString::fromLatin1(XML_TARGET_PROFILER);
    Command wait(QStringLiteral("wait"), profiler), second(QStringLiteral("second"), profiler),
        fail(QStringLiteral("fail"), profiler), stop(QStringLiteral("stop"), profiler),
        stray(QStringLiteral("x"), QStringLiteral("nobody"));
    front.send(Message::forCommand(wait));
    front.send(Message::forCommand(stray));
    // These come while "wait" is suspended in its yield.
    QTimer::singleShot(100, [&] {
        front.send(Message::forCommand(second));
        front.send(Message::forCommand(fail));
        front.send(Message::forCancel(wait.getUid()));
        front.send(Message::forCommand(stop));
    });

    // Both ends live on this thread: the loop runs until the answers are in.
    QList<Message> answers;
    spinUntil([&] {
        while (front.hasMessage())
            answers << front.takeMessage();
        return answers.size() >= 4;
    }, 10000);
    ASSERT_EQ(answers.size(), 4) << front.errorString().toStdString();
    EXPECT_EQ(handler.log.join(QLatin1Char(' ')),
              QStringLiteral("in:wait run:wait in:second in:fail cancel:%1 in:stop done:wait run:second "
                             "done:second run:fail")
                  .arg(wait.getUid()));

    // The stray command is refused at once, before "wait" ends.
    EXPECT_EQ(answers[0].kind, Message::ReplyException);
    EXPECT_EQ(answers[0].uid, stray.getUid());
    EXPECT_EQ(answers[0].exception->code(), int(Tharn::NoHandlerForTarget));
    const struct
    {
        const Command& command;
        int rank;
    } replies[] = {{wait, 1}, {second, 2}};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(answers[i + 1].kind, Message::Reply);
        EXPECT_EQ(answers[i + 1].uid, replies[i].command.getUid());
        EXPECT_EQ(answers[i + 1].commandName, replies[i].command.name);
        auto* samples = dynamic_cast<SendSamplesResponse*>(answers[i + 1].response.get());
        ASSERT_NE(samples, nullptr);
        EXPECT_EQ(samples->rank(), replies[i].rank);
    }
    EXPECT_EQ(answers[3].kind, Message::ReplyException);
    EXPECT_EQ(answers[3].uid, fail.getUid());
    EXPECT_EQ(answers[3].exception->message(), QStringLiteral("refused"));
    EXPECT_FALSE(host.isBusy());
}

} // namespace

#include "tharn_test.moc"
