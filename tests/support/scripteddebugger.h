// A debugger that answers from a script and records what it was asked.
#ifndef ZOR_TESTS_SCRIPTEDDEBUGGER_H
#define ZOR_TESTS_SCRIPTEDDEBUGGER_H

#include <QMap>
#include <QStringList>
#include <functional>

#include "command.h"
#include "constants.h"
#include "debugger.h"
#include "language.h"

class ScriptedDebugger : public Debugger
{
public:
    // Every operation asked, in order, as "operation" or "operation:argument"
    // (see each operation below), language and status queries excepted.
    QStringList calls;
    // Called with the entry of `calls` before each operation answers: may
    // throw, or change the script (say, to make the target die).
    std::function<void(const QString& call)> onCall;

    // Commands of the generic operation, of detach and of reattach, by name.
    QStringList commands;
    int state = StatusResponse::TargetStopped;
    LanguageTag language = LanguageAuto;
    int languageQueries = 0;
    // Every CMD_SET_LANGUAGE, in order.
    QList<Command> languageCommands;

    // Answers of evaluateExpression by expression; others give "".
    QMap<QString, QString> expressions;
    // What the target prints while an expression runs, by expression.
    QMap<QString, QString> printed;
    // getAddressValue by expression; others give 0.
    QMap<QString, unsigned long long> addresses;
    // readTargetString by variable; others give the default.
    QMap<QString, QString> targetStrings;
    QList<ThreadResponse> threads;
    QString boundaryIp = QStringLiteral("0x401000");
    QList<SharedLibrary> libraries;
    QList<SharedLibrary> keptLibraries;
    // demangleName by name; others come back unchanged.
    QMap<QString, QString> demangled;
    // positionOfFunction by name; others give null.
    QMap<QString, PositionResponse> functions;
    // The target's code, for disassembleRange.
    QMap<unsigned long long, Instruction> code;

    Response* handleCommand(Command& command) override
    {
        record(QStringLiteral("command:") + command.name);
        commands.append(command.name);
        return nullptr;
    }
    StatusResponse currentStatus(int) override { return StatusResponse(state); }
    ThreadsResponse* handleGetThreads(Command& command, int) override
    {
        record(QStringLiteral("getThreads"));
        commands.append(command.name);
        return new ThreadsResponse(threads, 0);
    }
    void handleSetThread(Command& command) override
    {
        const int id = SetThreadCommand(0).name == command.name
            ? command.getValue(QStringLiteral("thread"), -1).toInt()
            : -1;
        record(QStringLiteral("setThread:%1").arg(id));
    }
    Response* handleDetach(Command& command) override
    {
        record(QStringLiteral("detach"));
        commands.append(command.name);
        if (state == StatusResponse::TargetStopped)
            state = StatusResponse::Detached;
        return nullptr;
    }
    void setTargetVariable(const QString& name, const QString& value) override
    {
        record(QStringLiteral("set:%1=%2").arg(name, value));
    }
    QString readTargetString(const QString& name, const QString& defaultValue, int) override
    {
        record(QStringLiteral("read:") + name);
        return targetStrings.value(name, defaultValue);
    }
    QString evaluateExpression(const QString& expression) override
    {
        record(QStringLiteral("evaluate:") + expression);
        targetPrinted(printed.value(expression));
        return expressions.value(expression);
    }
    QString mainFrameBoundaryIp() override
    {
        record(QStringLiteral("boundaryIp"));
        return boundaryIp;
    }
    QString mainFunctionName() override
    {
        record(QStringLiteral("mainFunctionName"));
        return QStringLiteral("main");
    }
    Response* handleReattach(Command& command) override
    {
        record(QStringLiteral("reattach"));
        commands.append(command.name);
        if (state == StatusResponse::Detached)
            state = StatusResponse::TargetStopped;
        return nullptr;
    }
    void setSignalDisposition(const QString& name, const QString& disposition) override
    {
        record(QStringLiteral("disposition:%1=%2").arg(name, disposition));
    }
    QList<SharedLibrary> sharedLibraries() override
    {
        record(QStringLiteral("sharedLibraries"));
        return libraries;
    }
    void keepSharedLibraries(QList<SharedLibrary>& list) override
    {
        record(QStringLiteral("keepSharedLibraries"));
        keptLibraries = list;
    }
    QString demangleName(const QString& name) override
    {
        record(QStringLiteral("demangle:") + name);
        return demangled.value(name, name);
    }
    void prepareTarget() override { record(QStringLiteral("prepareTarget")); }
    PositionResponse* positionOfAddress(unsigned long long address, int, QList<PositionResponse*>*) override
    {
        record(QStringLiteral("positionOfAddress:0x") + QString::number(address, 16));
        return new PositionResponse();
    }
    PositionResponse* positionOfFunction(const QString& name) override
    {
        record(QStringLiteral("positionOfFunction:") + name);
        return functions.contains(name) ? new PositionResponse(functions.value(name)) : nullptr;
    }
    // The instructions of `code` from `start` on: up to `start + length`, or
    // with a length of 0 up to the next symbol start.
    QMap<unsigned long long, Instruction> disassembleRange(unsigned long long start, long long length,
                                                           unsigned long long* end) override
    {
        record(QStringLiteral("disassemble:0x%1+%2").arg(start, 0, 16).arg(length));
        QMap<unsigned long long, Instruction> result;
        auto it = code.lowerBound(start);
        for (; it != code.end(); ++it) {
            if (length > 0 && it.key() >= start + static_cast<unsigned long long>(length))
                break;
            if (length == 0 && it.key() != start && it.value().symbolStart)
                break;
            result.insert(it.key(), it.value());
        }
        if (!result.isEmpty())
            *end = (it == code.end() ? result.lastKey() + 1 : it.key());
        return result;
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

    // The calls that start with `prefix`, in order.
    QStringList callsStartingWith(const QString& prefix) const
    {
        QStringList result;
        for (const QString& call : calls) {
            if (call.startsWith(prefix))
                result.append(call);
        }
        return result;
    }

protected:
    unsigned long long addressValue(const QString& expression) override
    {
        record(QStringLiteral("address:") + expression);
        return addresses.value(expression, 0);
    }

private:
    void record(const QString& call)
    {
        calls.append(call);
        if (onCall)
            onCall(call);
    }
};

#endif
