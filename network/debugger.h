// The host's view of the debugger attached to the target. Tests use a
// scripted implementation; the host daemon drives a real one.
#ifndef ZOR_DEBUGGER_H
#define ZOR_DEBUGGER_H

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
    Debugger() : mDebugMode(false) {}
    virtual ~Debugger() = default;

    // Answers a generic command, such as CMD_DETACH. The caller owns the
    // response, which may be null.
    virtual Response* handleCommand(Command& command) = 0;
    // The current state; the argument is reserved and always 0.
    virtual StatusResponse currentStatus(int reserved) = 0;
    // The language in which expressions are read now.
    virtual LanguageTag currentLanguage() = 0;
    // Answers CMD_SET_LANGUAGE, whose parameter "language" holds the
    // internal name of the new language (Language::languageToInternalString).
    virtual void handleSetLanguage(Command& command) = 0;

    bool isDebugMode() const { return mDebugMode; }
    void setDebugMode(bool enabled) { mDebugMode = enabled; }

private:
    bool mDebugMode;
};

#endif
