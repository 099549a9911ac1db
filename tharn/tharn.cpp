#include "tharn.h"

#include <QMetaObject>
#include <exception>
#include <unistd.h>

#include "constants.h"
#include "exception.h"
#include "message.h"
#include "messagestream.h"
#include "tharnmessagehandler.h"

Tharn::Tharn(MessageStream& stream, const TharnIdentity& identity, QObject* parent)
    : QObject(parent)
    , mStream(stream)
    , mIdentity(identity)
{
    connect(&mStream, &MessageStream::messageReady, this, &Tharn::takeMessages);
}

Tharn::~Tharn() = default;

void Tharn::addHandler(TharnMessageHandler* handler)
{
    mHandlers.append(handler);
}

void Tharn::takeMessages()
{
    while (mStream.hasMessage()) {
        Message message = mStream.takeMessage();
        switch (message.kind) {
        case Message::CommandMessage:
            arrive(message.command);
            break;
        case Message::Cancel:
            for (TharnMessageHandler* handler : qAsConst(mHandlers))
                handler->cancelCommand(message.uid);
            break;
        default:
            logDebug(QStringLiteral("ignoring a %1 message from the front-end").arg(Message::kindName(message.kind)));
            break;
        }
    }
}

void Tharn::stopRun()
{
    Command stop(QString::fromLatin1(CMD_ZOR_STOP), QString::fromLatin1(XML_TARGET_PROFILER));
    arrive(stop);
}

TharnMessageHandler* Tharn::handlerFor(const Command& command)
{
    for (TharnMessageHandler* handler : qAsConst(mHandlers)) {
        if (handler->messageHandlerAcceptsTarget(command.getTarget()))
            return handler;
    }
    return nullptr;
}

void Tharn::arrive(Command& command)
{
    if (command.name == QLatin1String(CMD_ZOR_PLAY)) {
        mRunUnderway = true;
        mStopAsked = false;
    } else if (command.name == QLatin1String(CMD_ZOR_STOP)) {
        mStopAsked = true;
    }
    if (command.name == QLatin1String(CMD_ZOR_FINISH))
        mRunUnderway = false;
    TharnMessageHandler* handler = handlerFor(command);
    if (!handler) {
        Exception failure(NoHandlerForTarget,
                          QStringLiteral("No handler for the target \"%1\" of command %2")
                              .arg(command.getTarget(), command.name));
        replyWithException(command, &failure);
        return;
    }
    bool queue = false;
    try {
        queue = handler->handleIncomingCommand(command);
    } catch (Exception* failure) {
        replyWithException(command, failure);
        delete failure;
        return;
    }
    if (!queue)
        return;
    mQueue.append({handler, command});
    // The queue runs from the event loop, never inside the stream's signal:
    // a socket does not say readyRead again while one of its slots runs, and
    // a queued command that yields must go on hearing arrivals.
    if (!mRunningQueued && !mRunScheduled) {
        mRunScheduled = true;
        QMetaObject::invokeMethod(this, "runQueue", Qt::QueuedConnection);
    }
}

void Tharn::runQueue()
{
    mRunScheduled = false;
    if (mRunningQueued)
        return;
    mRunningQueued = true;
    while (!mQueue.isEmpty()) {
        Queued next = mQueue.takeFirst();
        try {
            next.handler->handleQueuedCommand(next.command);
        } catch (Exception* failure) {
            replyWithException(next.command, failure);
            delete failure;
        } catch (const std::exception& failure) {
            Exception wrapped(HandlerFailed, QStringLiteral("Command %1 failed: %2")
                                                 .arg(next.command.name, QString::fromLocal8Bit(failure.what())));
            replyWithException(next.command, &wrapped);
        }
    }
    mRunningQueued = false;
    flushResponses();
    emit idle();
}

void Tharn::sendResponse(Response* response)
{
    mStream.send(Message::forResponse(*response));
}

void Tharn::replyToCommand(Command& command, Response* response)
{
    mStream.send(Message::forReply(command, *response));
}

void Tharn::sendException(Exception* exception)
{
    if (mTargetGoneCode != 0 && exception->code() == mTargetGoneCode) {
        logDebug(exception->fullMessage());
        return;
    }
    mStream.send(Message::forException(*exception));
}

void Tharn::replyWithException(Command& command, Exception* exception)
{
    mStream.send(Message::forReplyException(command, *exception));
}

void Tharn::setTargetMonitoring(bool enabled)
{
    mTargetMonitoring = enabled;
    emit targetMonitoringChanged(enabled);
}

int Tharn::selfPid()
{
    return int(getpid());
}

void Tharn::flushResponses()
{
    mStream.flush();
}

void Tharn::logDebug(const QString& line)
{
    if (mLogToStderr || mDebugMode)
        fprintf(stderr, "zor-host[%d]: %s\n", mIdentity.rank, qPrintable(line));
}

void Tharn::restartDebugger()
{
    if (!mRestart)
        throw new Exception(HandlerFailed, QStringLiteral("This host can't restart its debugger"));
    mRestart();
}
