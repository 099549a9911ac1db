// A host that records everything the plug-in sends it, and that can play
// the host's side of the command protocol: arrival, queue, cancellation.
#ifndef ZOR_TESTS_FAKEHOST_H
#define ZOR_TESTS_FAKEHOST_H

#include <QList>
#include <QStringList>
#include <functional>
#include <memory>

#include "command.h"
#include "exception.h"
#include "response.h"
#include "tharninterface.h"

class TharnMessageHandler;

class FakeHost : public TharnInterface
{
public:
    enum Kind { Sent, Reply, SentException, ReplyException };

    // One thing the plug-in sent, copied at the moment it was sent, since
    // the plug-in may delete the original right after.
    struct Record
    {
        Kind kind;
        int commandUid = -1;      // for replies
        QString commandName;      // for replies
        QString elementName;      // for responses
        std::shared_ptr<Response> response;
        std::shared_ptr<Exception> exception;
    };

    FakeHost();

    // Hands a command to `handler` as the host does: the target is checked,
    // then handleIncomingCommand; a command it queues runs at once unless
    // another queued one is running, in which case it waits its turn.
    void deliver(TharnMessageHandler& handler, Command& command);

    QList<Record> records;
    QList<Record> ofKind(Kind kind) const;
    // The responses of one element name, in the order sent.
    QList<Record> responses(const QString& elementName) const;
    void clear() { records.clear(); }

    // TharnInterface
    void sendResponse(Response* response) override;
    void replyToCommand(Command& command, Response* response) override;
    void sendException(Exception* exception) override;
    void replyWithException(Command& command, Exception* exception) override;
    Debugger* getDebugger() override { return debugger; }
    void setTargetMonitoring(bool enabled) override { targetMonitoringCalls.append(enabled); }
    int processRank() override { return rank; }
    int processCount() override { return count; }
    int targetPid() override { return target; }
    int selfPid() override { return self; }
    int debuggerPid() override { return debuggerProcess; }
    QString programName() override { return program; }
    void flushResponses() override { ++flushes; }
    void logDebug(const QString& line) override
    {
        log.append(line);
        if (onLog)
            onLog(line);
    }
    bool isReportingSuppressed() override { return reportingSuppressed; }
    void setDebugMode(bool enabled) override { debugModeOn = enabled; }
    bool debugMode() override { return debugModeOn; }
    void restartDebugger() override { ++debuggerRestarts; }
    int hostProcessId() override { return hostPid; }

    Debugger* debugger = nullptr;
    int rank = 0;
    int count = 1;
    int target = 0;
    int self = 0;
    int debuggerProcess = 0;
    int hostPid = 0;
    QString program = QStringLiteral("app");
    bool reportingSuppressed = false;
    bool debugModeOn = false;
    int flushes = 0;
    int debuggerRestarts = 0;
    QList<bool> targetMonitoringCalls;
    QStringList log;
    // Called with each line of the log as it is written.
    std::function<void(const QString&)> onLog;

private:
    Record recordResponse(Kind kind, Response* response);
    QList<Command> mQueue;
    bool mRunningQueued = false;
};

#endif
