// A debugger that answers from a script and records what it was asked.
#ifndef ZOR_TESTS_SCRIPTEDDEBUGGER_H
#define ZOR_TESTS_SCRIPTEDDEBUGGER_H

#include <QStringList>

#include "command.h"
#include "debugger.h"
#include "language.h"

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
    LanguageTag currentLanguage() override
    {
        ++languageQueries;
        return language;
    }
    // Takes the language named by the command; an unknown name is recorded
    // but changes nothing, as a real debugger would refuse it.
    void handleSetLanguage(Command& command) override
    {
        languageCommands.append(command);
        const QString name = command.getValue(QStringLiteral("language")).toString();
        const LanguageTag tag = Language::internalStringToLanguage(name);
        if (Language::languageToInternalString(tag) == name)
            language = tag;
    }

    int state = StatusResponse::TargetStopped;
    bool detachResponse = false;
    int statusQueries = 0;
    QStringList commands;
    LanguageTag language = LanguageAuto;
    int languageQueries = 0;
    // Every CMD_SET_LANGUAGE, in order.
    QList<Command> languageCommands;
};

#endif
