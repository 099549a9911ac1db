// A debugger that answers from a script and records what it was asked.
#ifndef ZOR_TESTS_SCRIPTEDDEBUGGER_H
#define ZOR_TESTS_SCRIPTEDDEBUGGER_H

#include <QStringList>

#include "command.h"
#include "debugger.h"

class ScriptedDebugger : public Debugger
{
public:
    Response* handleCommand(Command& command) override
    {
        commands.append(command.name);
        return detachResponse ? new StatusResponse(StatusResponse::Detached) : nullptr;
    }
    StatusResponse currentStatus(int) override
    {
        ++statusQueries;
        return StatusResponse(state);
    }

    int state = StatusResponse::TargetStopped;
    bool detachResponse = false;
    int statusQueries = 0;
    QStringList commands;
};

#endif
