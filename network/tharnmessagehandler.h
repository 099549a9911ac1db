// What the host calls for the commands of one message target. The host asks
// messageHandlerAcceptsTarget first, then calls handleIncomingCommand on
// arrival: false means the command was dealt with there, true that it goes
// to the queue. Queued commands run one at a time, in order of arrival,
// through handleQueuedCommand; cancelCommand may come while one of them is
// suspended in a yield.
#ifndef ZOR_THARNMESSAGEHANDLER_H
#define ZOR_THARNMESSAGEHANDLER_H

#include <QString>

class Command;

class TharnMessageHandler
{
public:
    virtual ~TharnMessageHandler() = default;

    virtual bool handleIncomingCommand(Command& command) = 0;
    virtual void handleQueuedCommand(Command& command) = 0;
    virtual void cancelCommand(int uid) = 0;
    virtual bool messageHandlerAcceptsTarget(const QString& target) = 0;
};

#endif
