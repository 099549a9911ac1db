// zor-host end to end: a front-end of the test's own over a local socket or
// TCP on the loopback (as for a front-end on another node), the real plug-in,
// sampler (armed over its channel, or by gdb) and real programs. An inlined C++ function is a node of its
// own; programs that end early, die by a signal or keep running after the
// user's stop end with what was sampled or a clear error, and nothing of the
// host is left behind. The example's shares, files and lines: frontend_test.
#include <QCoreApplication>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>

#include "constants.h"
#include "message.h"
#include "messagestream.h"
#include "profilerresponses.h"
#include "sample.h"
#include "zorpsvmodelitem.h"
#include "zorresponsefactoryplugin.h"
#include "../support/gdbprobe.h"
#include "../support/spin.h"

namespace {

// One host and the front-end's end of its connection.
class HostRun
{
public:
    enum Transport { Local, Tcp };

    // `underGdb`: the program starts under gdb, as one that the sampler
    // can't arm itself does.
    explicit HostRun(const QStringList& program, Transport transport = Local, bool underGdb = false)
    {
        QString address;
        if (transport == Local) {
            mLocalServer.listen(mDir.filePath(QStringLiteral("frontend")));
            address = QStringLiteral("local:") + mLocalServer.fullServerName();
        } else {
            mTcpServer.listen(QHostAddress::LocalHost);
            address = QStringLiteral("tcp:127.0.0.1:%1").arg(mTcpServer.serverPort());
        }
        mHost.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("ZOR_ARM_WITH_GDB"), underGdb ? QStringLiteral("1") : QStringLiteral("0"));
        mHost.setProcessEnvironment(environment);
        mHost.start(QStringLiteral(ZOR_HOST), QStringList{QStringLiteral("--connect"), address, QStringLiteral("--")} + program);
        if (!spinUntil([&] { return mLocalServer.hasPendingConnections() || mTcpServer.hasPendingConnections(); }, 30000))
            return;
        if (transport == Local)
            mSocket = mLocalServer.nextPendingConnection();
        else
            mSocket = mTcpServer.nextPendingConnection();
        mStream.reset(new MessageStream(mSocket, &mFactory));
        Message hello;
        if (next(&hello, 120000) && hello.kind == Message::Hello)
            this->hello = hello.values;
    }

    ~HostRun()
    {
        close();
    }

    bool next(Message* message, int msecs)
    {
        if (!mStream || !spinUntil([&] { return mStream->hasMessage() || mStream->hasFailed(); }, msecs)
            || !mStream->hasMessage())
            return false;
        *message = mStream->takeMessage();
        return true;
    }

    // Sends `command`; everything that comes back until its answer, which is last.
    QList<Message> ask(const Command& command, int msecs = 120000)
    {
        QList<Message> messages;
        mStream->send(Message::forCommand(command));
        Message message;
        while (next(&message, msecs)) {
            messages << message;
            if ((message.kind == Message::Reply || message.kind == Message::ReplyException)
                && message.uid == command.getUid())
                break;
        }
        return messages;
    }

    void send(const Command& command) { mStream->send(Message::forCommand(command)); }

    // Closes the connection; the host ends, and its program and gdb with it.
    int close()
    {
        if (mSocket) {
            // What is still to send goes out first.
            while (mSocket->bytesToWrite() > 0 && mSocket->waitForBytesWritten(5000)) {
            }
            if (auto* local = qobject_cast<QLocalSocket*>(mSocket)) {
                local->disconnectFromServer();
                if (local->state() != QLocalSocket::UnconnectedState)
                    local->waitForDisconnected(5000);
            } else if (auto* tcp = qobject_cast<QTcpSocket*>(mSocket)) {
                tcp->disconnectFromHost();
                if (tcp->state() != QAbstractSocket::UnconnectedState)
                    tcp->waitForDisconnected(5000);
            }
            mSocket = nullptr;
        }
        if (mHost.state() != QProcess::NotRunning && !mHost.waitForFinished(30000)) {
            mHost.kill();
            mHost.waitForFinished();
        }
        return mHost.exitCode();
    }

    int pid(const char* key) const { return hello.value(QString::fromLatin1(key)).toInt(); }

    QVariantMap hello;

private:
    QTemporaryDir mDir;
    QLocalServer mLocalServer;
    QTcpServer mTcpServer;
    QProcess mHost;
    QIODevice* mSocket = nullptr;
    ZORResponseFactoryPlugin mFactory;
    std::unique_ptr<MessageStream> mStream;
};

Command profilerCommand(const char* name, const QVariantMap& parameters = QVariantMap())
{
    Command command(QString::fromLatin1(name), QString::fromLatin1(XML_TARGET_PROFILER));
    for (auto it = parameters.constBegin(); it != parameters.constEnd(); ++it)
        command.addParameter(it.key(), it.value());
    return command;
}

Command play(int intervalMs = 2, int samples = 3000)
{
    return profilerCommand(CMD_ZOR_PLAY, {{QStringLiteral("numSamples"), samples},
                                          {QStringLiteral("initialInterval"), intervalMs}});
}

const Message* answerOf(const QList<Message>& messages, const Command& command)
{
    for (const Message& m : messages) {
        if ((m.kind == Message::Reply || m.kind == Message::ReplyException) && m.uid == command.getUid())
            return &m;
    }
    return nullptr;
}

QString describe(const Message& m)
{
    if (m.exception)
        return QStringLiteral("exception %1: %2").arg(m.exception->code()).arg(m.exception->fullMessage());
    return Message::kindName(m.kind) + QLatin1Char(' ') + (m.response ? m.response->elementName() : QString());
}

// The frames of one thread's tree in one sample, from the root down the
// first children, and how many samples hold each leaf function per thread.
struct Profile
{
    QMap<int, QMap<QString, int>> leaves;
    QStringList stacks; // "a > b > c" of every tree, for messages and checks
    QMap<QString, Position> positions;
};

Profile profileOf(const QList<Message>& messages)
{
    Profile profile;
    for (const Message& m : messages) {
        auto* block = dynamic_cast<SampleBlockResponse*>(m.response.get());
        if (!block)
            continue;
        for (const Sample* sample : block->samples()) {
            for (int tid : sample->backendOnly_sampledTids()) {
                const PSVModelItem* node = sample->psvModel(tid);
                QStringList stack;
                while (node && node->childCount() > 0) {
                    node = node->children().first();
                    stack << node->position().function;
                    if (!node->position().file.isEmpty())
                        profile.positions.insert(node->position().function, node->position());
                }
                if (stack.isEmpty())
                    continue;
                profile.stacks << stack.join(QStringLiteral(" > "));
                ++profile.leaves[tid][stack.last()];
            }
        }
    }
    return profile;
}

// The run's samples, as many as were taken, over its duration.
QList<Message> sendSamples(HostRun& run, const Message& played)
{
    auto* result = dynamic_cast<ProfilerPlayResponse*>(played.response.get());
    const int count = result ? result->sampleCount() : 0;
    return run.ask(profilerCommand(CMD_ZOR_SEND_SAMPLES, {{QStringLiteral("numSamples"), count},
                                                          {QStringLiteral("numBlocks"), count / 8 + 1},
                                                          {QStringLiteral("blockSize"), 8},
                                                          {QStringLiteral("duration"), result ? result->duration() : 0}}));
}

void expectNothingLeft(HostRun& run, int targetPid, int gdbPid)
{
    EXPECT_EQ(run.close(), 0);
    EXPECT_TRUE(processGone(targetPid)) << "program " << targetPid << " left behind";
    EXPECT_TRUE(processGone(gdbPid)) << "gdb " << gdbPid << " left behind";
}

class EndToEnd : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const QString problem = gdbCallProblem(QStringLiteral(ZOR_EXAMPLE));
        if (!problem.isEmpty())
            GTEST_SKIP() << problem.toStdString();
    }
};

// Over TCP, the path of a front-end on another node; the other runs take the
// local socket.
TEST_F(EndToEnd, InlinedFunctionIsANodeOfItsOwn)
{
    HostRun run({ZOR_INLINED, QStringLiteral("--seconds"), QStringLiteral("2")}, HostRun::Tcp);
    ASSERT_FALSE(run.hello.contains(QString::fromLatin1(HelloKeys::Error)));
    const Command playCommand = play();
    const QList<Message> played = run.ask(playCommand);
    const Message* answer = answerOf(played, playCommand);
    ASSERT_TRUE(answer && answer->kind == Message::Reply) << (answer ? describe(*answer).toStdString() : "none");
    const Profile profile = profileOf(sendSamples(run, *answer));
    // mix is inlined into run, and step into mix; fold is called from mix.
    // mix reads alike in the middle of a stack and at the call's end.
    const QString under = QStringLiteral("Kernel::run(unsigned long, long) > Kernel::mix(unsigned long, int) [inlined] > ");
    int inlined = 0, total = 0, called = 0;
    for (const QString& stack : profile.stacks) {
        ++total;
        inlined += stack.contains(under + QLatin1String("Kernel::step(unsigned long) [inlined]"));
        called += stack.contains(under + QLatin1String("Kernel::fold(unsigned long, int)"));
        EXPECT_FALSE(stack.contains(QLatin1String("Kernel::mix(unsigned long, int) >"))) << stack.toStdString();
    }
    const std::string some = profile.stacks.mid(0, 5).join(QLatin1Char('\n')).toStdString();
    EXPECT_GT(inlined, total * 7 / 10) << some;
    EXPECT_GT(called, 0) << some;
    // The node may carry a mark of its inlining after the name.
    Position mix;
    for (auto it = profile.positions.constBegin(); it != profile.positions.constEnd(); ++it) {
        if (it.key().startsWith(QLatin1String("Kernel::mix(unsigned long, int)")))
            mix = it.value();
    }
    EXPECT_TRUE(mix.file.endsWith(QLatin1String("examples/inlined.cpp"))) << mix.file.toStdString() << ":" << mix.line;
    run.send(profilerCommand(CMD_ZOR_FINISH));
}

// Code made as the program ran has the names its map gives it, and only
// while the map is of this process.
TEST_F(EndToEnd, GeneratedCodeIsNamedByItsMap)
{
    HostRun run({ZOR_JIT, QStringLiteral("--seconds"), QStringLiteral("1")});
    ASSERT_FALSE(run.hello.contains(QString::fromLatin1(HelloKeys::Error)));
    const int target = run.pid(HelloKeys::TargetPid);
    const Command playCommand = play();
    const QList<Message> played = run.ask(playCommand);
    QFile::remove(QStringLiteral("/tmp/perf-%1.map").arg(target));
    const Message* answer = answerOf(played, playCommand);
    ASSERT_TRUE(answer && answer->kind == Message::Reply) << (answer ? describe(*answer).toStdString() : "none");
    const QMap<QString, int> leaves = profileOf(sendSamples(run, *answer)).leaves.value(target);
    const int three = leaves.value(QStringLiteral("jit_loop_three")), one = leaves.value(QStringLiteral("jit_loop_one"));
    EXPECT_GT(one, 10) << QStringList(leaves.keys()).join(QLatin1Char(' ')).toStdString();
    EXPECT_GT(three, one * 2);
    // Its own code, run from a second mapping of its file, by its name.
    EXPECT_GT(leaves.value(QStringLiteral("remapped_loop")), one / 2);
    EXPECT_EQ(leaves.value(QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION)), 0);
    run.send(profilerCommand(CMD_ZOR_FINISH));
}

// Each ends with what was sampled, or a clear error, and leaves nothing. The
// one that is killed starts under gdb, the others without.
TEST_F(EndToEnd, ProgramsThatEndEarlyDieOrKeepRunning)
{
    enum Way { EndsEarly, Killed, KeepsRunning };
    for (Way way : {EndsEarly, Killed, KeepsRunning}) {
        SCOPED_TRACE(way);
        HostRun run({ZOR_EXAMPLE, QStringLiteral("--seconds"), way == EndsEarly ? QStringLiteral("0.5") : QStringLiteral("60")},
                    HostRun::Local, way == Killed);
        ASSERT_FALSE(run.hello.isEmpty());
        const int target = run.pid(HelloKeys::TargetPid), gdb = run.pid(HelloKeys::DebuggerPid);
        EXPECT_EQ(gdb > 0, way == Killed);
        const Command playCommand = play();
        run.send(playCommand);
        // The program runs once the sampler is armed.
        Message message;
        QList<Message> messages;
        while (run.next(&message, 60000)) {
            messages << message;
            if ((message.response && message.response->elementName() == QLatin1String("ProfilerSamplerInitResponse"))
                || answerOf(messages, playCommand))
                break;
        }
        spinUntil([] { return false; }, 1000);
        // The host lowers its priority for the run, never the program's.
        if (way != EndsEarly) {
            errno = 0;
            EXPECT_EQ(getpriority(PRIO_PROCESS, id_t(target)), getpriority(PRIO_PROCESS, 0));
            EXPECT_EQ(errno, 0);
        }
        if (way == Killed)
            ::kill(target, SIGKILL);
        if (way == KeepsRunning)
            run.send(profilerCommand(CMD_ZOR_STOP));
        while (!answerOf(messages, playCommand) && run.next(&message, 120000))
            messages << message;
        const Message* answer = answerOf(messages, playCommand);
        ASSERT_TRUE(answer);
        if (answer->kind == Message::Reply) {
            auto* result = dynamic_cast<ProfilerPlayResponse*>(answer->response.get());
            ASSERT_TRUE(result);
            EXPECT_GT(result->sampleCount(), 10);
            const QList<Message> blocks = sendSamples(run, *answer);
            messages += blocks;
            EXPECT_GT(profileOf(blocks).leaves.value(target).value(QStringLiteral("spin_alpha")), 0);
            const Message* sent = blocks.isEmpty() ? nullptr : &blocks.last();
            ASSERT_TRUE(sent && sent->kind == Message::Reply) << (sent ? describe(*sent).toStdString() : "none");
        } else {
            // A clear error, for the user to read.
            EXPECT_FALSE(answer->exception->message().isEmpty());
            std::cerr << "play answered: " << describe(*answer).toStdString() << "\n";
        }
        if (way == KeepsRunning) {
            EXPECT_FALSE(processGone(target));
        }
        // The end may be told after the answer: the sampler's finished file
        // can be read before the host's watch on the process fires.
        const auto told = [&] {
            for (const Message& m : messages)
                if (m.kind == Message::TargetExit)
                    return true;
            return false;
        };
        if (way != KeepsRunning) {
            while (!told() && run.next(&message, 10000))
                messages << message;
        }
        // The end is told once, by the host, and only that: a program that
        // ended is no failure of the commands that found it gone.
        QStringList ends, notices;
        for (const Message& m : messages) {
            if (m.kind == Message::TargetExit)
                ends << m.values.value(QStringLiteral("status")).toString();
            if (m.kind == Message::ExceptionMessage)
                notices << m.exception->fullMessage();
        }
        EXPECT_EQ(notices, QStringList());
        // How it ended, where the host saw it before gdb reaped it.
        if (way != KeepsRunning) {
            ASSERT_EQ(ends.size(), 1);
            const QString how = ends.first();
            EXPECT_TRUE(how == QLatin1String("ended")
                        || how == (way == EndsEarly ? QLatin1String("exited with code 0")
                                                    : QLatin1String("killed by signal SIGKILL")))
                << how.toStdString();
        }
        run.send(profilerCommand(CMD_ZOR_FINISH));
        expectNothingLeft(run, target, gdb);
    }
}

} // namespace
