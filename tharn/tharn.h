// The host's side of the command protocol, over one message stream to the
// front-end. Commands go to the handler that accepts their target: first
// handleIncomingCommand on arrival, then, if it asks for that, into a queue
// whose commands run one at a time through handleQueuedCommand. A queued
// command may yield (CoroutineCont) and the loop keeps delivering arrivals
// meanwhile; they wait their turn in the queue.
#ifndef ZOR_THARN_H
#define ZOR_THARN_H

#include <QList>
#include <QObject>
#include <functional>

#include "command.h"
#include "tharninterface.h"

class MessageStream;
class TharnMessageHandler;

// Who this host is in the run: where it runs and beside which process.
struct TharnIdentity
{
    int rank = 0;
    int rankCount = 1;
    // The same for every host of a run on one node.
    int hostProcessId = 0;
    QString programName;
};

class Tharn : public QObject, public TharnInterface
{
    Q_OBJECT

public:
    // Exception codes of the host itself.
    enum { NoHandlerForTarget = 21001, HandlerFailed = 21002 };

    Tharn(MessageStream& stream, const TharnIdentity& identity, QObject* parent = nullptr);
    ~Tharn() override;

    // Handlers are asked in the order added; they stay the caller's.
    void addHandler(TharnMessageHandler* handler);
    void setDebugger(Debugger* debugger) { mDebugger = debugger; }
    void setTargetPid(int pid) { mTargetPid = pid; }
    void setDebuggerPid(int pid) { mDebuggerPid = pid; }
    // What restartDebugger does; a host without it can't restart.
    void setDebuggerRestarter(std::function<void()> restart) { mRestart = std::move(restart); }
    bool isTargetMonitoring() const { return mTargetMonitoring; }
    // From the front-end's play command to its finish command: what was
    // sampled is still owed to the front-end.
    bool isRunUnderway() const { return mRunUnderway; }
    // Whether the front-end, or mpirun's request to end, stopped the run.
    bool isStopAsked() const { return mStopAsked; }
    // Exceptions with this code say only that the program has ended. The
    // host reports every end itself (targetExit), and the front-end says
    // what an abnormal one was: these go to the log, not to the front-end.
    void setTargetGoneCode(int code) { mTargetGoneCode = code; }
    // The log goes to standard error, each line with the host's prefix.
    void setLogToStandardError(bool enabled) { mLogToStderr = enabled; }
    // For a front-end that tells the analysis's problems in its own report.
    void setReportingSuppressed(bool suppressed) { mReportingSuppressed = suppressed; }

    // Stops a run as the user's stop does, for a target that has ended.
    void stopRun();

    // Whether a queued command is running or waiting.
    bool isBusy() const { return mRunningQueued || !mQueue.isEmpty(); }

    // TharnInterface
    void sendResponse(Response* response) override;
    void replyToCommand(Command& command, Response* response) override;
    void sendException(Exception* exception) override;
    void replyWithException(Command& command, Exception* exception) override;
    Debugger* getDebugger() override { return mDebugger; }
    void setTargetMonitoring(bool enabled) override;
    int processRank() override { return mIdentity.rank; }
    int processCount() override { return mIdentity.rankCount; }
    int targetPid() override { return mTargetPid; }
    int selfPid() override;
    int debuggerPid() override { return mDebuggerPid; }
    QString programName() override { return mIdentity.programName; }
    void flushResponses() override;
    void logDebug(const QString& line) override;
    bool isReportingSuppressed() override { return mReportingSuppressed; }
    void setDebugMode(bool enabled) override { mDebugMode = enabled; }
    bool debugMode() override { return mDebugMode; }
    void restartDebugger() override;
    int hostProcessId() override { return mIdentity.hostProcessId; }

signals:
    // Every queued command has run and none waits.
    void idle();
    void targetMonitoringChanged(bool enabled);

public slots:
    // Takes and handles every message that has arrived on the stream.
    void takeMessages();

private slots:
    void runQueue();

private:
    void arrive(Command& command);
    TharnMessageHandler* handlerFor(const Command& command);

    MessageStream& mStream;
    TharnIdentity mIdentity;
    QList<TharnMessageHandler*> mHandlers;
    struct Queued
    {
        TharnMessageHandler* handler;
        Command command;
    };
    QList<Queued> mQueue;
    bool mRunningQueued = false;
    bool mRunScheduled = false;
    Debugger* mDebugger = nullptr;
    int mTargetPid = 0;
    int mDebuggerPid = 0;
    std::function<void()> mRestart;
    bool mTargetMonitoring = true;
    bool mRunUnderway = false;
    bool mStopAsked = false;
    bool mDebugMode = false;
    bool mReportingSuppressed = false;
    bool mLogToStderr = false;
    int mTargetGoneCode = 0;
};

#endif
