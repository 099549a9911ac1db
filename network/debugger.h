// The host's view of the debugger attached to the target. Tests use a
// scripted implementation; the host daemon drives a real one.
#ifndef ZOR_DEBUGGER_H
#define ZOR_DEBUGGER_H

#include <QList>
#include <QMap>

#include "debuggertypes.h"
#include "instruction.h"
#include "language.h"
#include "response.h"

class Command;

// The debugger's state, as getState() reports it.
class StatusResponse : public ResponseAdaptor<StatusResponse>
{
public:
    enum State {
        TargetStopped = 0,
        // The target is gone: there is nothing to detach from.
        TargetGone = 1,
        TargetRunning = 2,
        Detached = 3
    };

    explicit StatusResponse(int state = TargetStopped) : mState(state) {}
    static QString staticElementName() { return QStringLiteral("StatusResponse"); }

    int getState() const { return mState; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    int mState;
};

class Debugger
{
public:
    Debugger() : mDebugMode(false), mCollectTargetOutput(false) {}
    virtual ~Debugger() = default;

    // Answers a generic command. The caller owns the response, which may be
    // null.
    virtual Response* handleCommand(Command& command) = 0;
    // The current state; the argument is reserved and always 0.
    virtual StatusResponse currentStatus(int reserved) = 0;
    // Waits up to `msecs` for a target that runs detached to end; true once
    // it has. A debugger that can't tell answers false at once.
    virtual bool waitForTargetEnd(int msecs)
    {
        (void)msecs;
        return false;
    }
    // Answers CMD_GET_THREADS; the argument is reserved and always 0. The
    // caller owns the response.
    virtual ThreadsResponse* handleGetThreads(Command& command, int reserved) = 0;
    // Answers a SetThreadCommand: what follows runs on that thread.
    virtual void handleSetThread(Command& command) = 0;
    // Answers CMD_DETACH: the target runs free of the debugger. The caller
    // owns the response, which may be null.
    virtual Response* handleDetach(Command& command) = 0;
    // Assigns `value`, an expression, to a variable of the target.
    virtual void setTargetVariable(const QString& name, const QString& value) = 0;
    // The string in the target's variable `name`; `defaultValue` when it
    // can't be read. The last argument is reserved and always 1.
    virtual QString readTargetString(const QString& name, const QString& defaultValue, int reserved) = 0;
    // Runs `expression` in the target and gives what the debugger printed as
    // its value, with any lines of output before it.
    virtual QString evaluateExpression(const QString& expression) = 0;
    // The text of the instruction address that bounds the main frame, such
    // as "0x401136"; empty when it can't be found.
    virtual QString mainFrameBoundaryIp() = 0;
    // The name of the program's main function.
    virtual QString mainFunctionName() = 0;
    // Answers CMD_REATTACH. The caller owns the response, which may be null.
    virtual Response* handleReattach(Command& command) = 0;
    // What the target does on signal `name` (such as "SIGSEGV") while the
    // debugger is attached: one of DispositionStrings.
    virtual void setSignalDisposition(const QString& name, const QString& disposition) = 0;
    // The target's libraries while it lives.
    virtual QList<SharedLibrary> sharedLibraries() = 0;
    // Takes back a list from sharedLibraries() for use after the target is
    // gone.
    virtual void keepSharedLibraries(QList<SharedLibrary>& libraries) = 0;
    // The demangled form of a symbol; the name itself when it isn't mangled.
    virtual QString demangleName(const QString& name) = 0;
    // Called once, before the sampler's configuration is written.
    virtual void prepareTarget() = 0;
    // The position of exactly `address`, never null. Inlined callers, if
    // any, are appended to `inlinedCallers`, innermost first; the caller owns
    // them and the result. `reserved` is always 0.
    virtual PositionResponse* positionOfAddress(unsigned long long address, int reserved,
                                                QList<PositionResponse*>* inlinedCallers) = 0;
    // Where the function `name` starts; null when the name is unknown. The
    // caller owns the result.
    virtual PositionResponse* positionOfFunction(const QString& name) = 0;
    // The instructions from `start` on, by address. A `length` of 0 asks for
    // the whole function around `start`. `*end` receives the address where
    // disassembly stopped, and stays 0 when there was no data.
    virtual QMap<unsigned long long, Instruction> disassembleRange(unsigned long long start, long long length,
                                                                   unsigned long long* end) = 0;
    // The language in which expressions are read now.
    virtual LanguageTag currentLanguage() = 0;
    // Answers CMD_SET_LANGUAGE, whose parameter "language" holds the
    // internal name of the new language (Language::languageToInternalString).
    virtual void handleSetLanguage(Command& command) = 0;

    bool isDebugMode() const { return mDebugMode; }
    void setDebugMode(bool enabled) { mDebugMode = enabled; }

    // The value of an address expression such as "&main": 0 or all ones when
    // the symbol is unknown.
    unsigned long long getAddressValue(const QString& expression) { return addressValue(expression); }
    // What the target printed since collecting was last switched on.
    QString getTargetRunOutput() const { return mTargetRunOutput; }
    // Switching on starts from nothing.
    void setCollectTargetOutput(bool collect)
    {
        if (collect && !mCollectTargetOutput)
            mTargetRunOutput.clear();
        mCollectTargetOutput = collect;
    }
    bool isCollectingTargetOutput() const { return mCollectTargetOutput; }

    // The name of the way the target was started (NoMPIStartup::getName()
    // for a program started without an MPI launcher).
    QString startupName;

protected:
    virtual unsigned long long addressValue(const QString& expression) = 0;
    // Implementations hand the target's output in here; it is kept while
    // collecting is on.
    void targetPrinted(const QString& text)
    {
        if (mCollectTargetOutput)
            mTargetRunOutput += text;
    }

private:
    bool mDebugMode;
    bool mCollectTargetOutput;
    QString mTargetRunOutput;
};

#endif
