// The plug-in's view of the host daemon that runs beside each process of the
// profiled program. The plug-in holds it by reference and never owns it.
#ifndef ZOR_THARNINTERFACE_H
#define ZOR_THARNINTERFACE_H

#include <QString>

class Command;
class Debugger;
class Exception;
class Response;

class TharnInterface
{
public:
    virtual ~TharnInterface() = default;

    // A response that answers no command: a block, progress. The caller
    // keeps ownership; it is serialised before this returns.
    virtual void sendResponse(Response* response) = 0;
    // The answer to a command. The caller keeps ownership.
    virtual void replyToCommand(Command& command, Response* response) = 0;
    // A failure that answers no command. The caller keeps ownership.
    virtual void sendException(Exception* exception) = 0;
    // A command's answer that is a failure. The caller keeps ownership.
    virtual void replyWithException(Command& command, Exception* exception) = 0;
    virtual Debugger* getDebugger() = 0;
    virtual void setTargetMonitoring(bool enabled) = 0;
    // The rank of the process beside which this host runs.
    virtual int processRank() = 0;
    // How many processes the run has.
    virtual int processCount() = 0;
    virtual int targetPid() = 0;
    virtual int selfPid() = 0;
    virtual int debuggerPid() = 0;
    virtual QString programName() = 0;
    // Pushes out what was sent.
    virtual void flushResponses() = 0;
    // One line to the back-end's log.
    virtual void logDebug(const QString& line) = 0;
    virtual bool isReportingSuppressed() = 0;
    virtual void setDebugMode(bool enabled) = 0;
    virtual bool debugMode() = 0;
    virtual void restartDebugger() = 0;
    // The same for all back-ends of a run on one node.
    virtual int hostProcessId() = 0;
};

#endif
