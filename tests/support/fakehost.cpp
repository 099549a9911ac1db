#include "fakehost.h"

#include "command.h"
#include "tharnmessagehandler.h"

FakeHost::FakeHost() = default;

void FakeHost::deliver(TharnMessageHandler& handler, Command& command)
{
    if (!handler.messageHandlerAcceptsTarget(command.getTarget()))
        return;
    if (!handler.handleIncomingCommand(command))
        return;
    mQueue.append(command);
    if (mRunningQueued)
        return;
    mRunningQueued = true;
    while (!mQueue.isEmpty()) {
        Command next = mQueue.takeFirst();
        handler.handleQueuedCommand(next);
    }
    mRunningQueued = false;
}

QList<FakeHost::Record> FakeHost::ofKind(Kind kind) const
{
    QList<Record> result;
    for (const Record& record : records) {
        if (record.kind == kind)
            result.append(record);
    }
    return result;
}

QList<FakeHost::Record> FakeHost::responses(const QString& elementName) const
{
    QList<Record> result;
    for (const Record& record : records) {
        if (record.response && record.elementName == elementName)
            result.append(record);
    }
    return result;
}

FakeHost::Record FakeHost::recordResponse(Kind kind, Response* response)
{
    Record record;
    record.kind = kind;
    record.elementName = response->elementName();
    record.response.reset(response->clone());
    return record;
}

void FakeHost::sendResponse(Response* response)
{
    records.append(recordResponse(Sent, response));
}

void FakeHost::replyToCommand(Command& command, Response* response)
{
    Record record = recordResponse(Reply, response);
    record.commandUid = command.getUid();
    record.commandName = command.name;
    records.append(record);
}

void FakeHost::sendException(Exception* exception)
{
    Record record;
    record.kind = SentException;
    record.exception = std::make_shared<Exception>(*exception);
    records.append(record);
}

void FakeHost::replyWithException(Command& command, Exception* exception)
{
    Record record;
    record.kind = ReplyException;
    record.commandUid = command.getUid();
    record.commandName = command.name;
    record.exception = std::make_shared<Exception>(*exception);
    records.append(record);
}
