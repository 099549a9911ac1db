// The scope guards over the host's debug mode and the debugger's language:
// what they change, and that they put it back on every way out of a scope.
#include <cstdlib>
#include <gtest/gtest.h>

#include "exception.h"
#include "fakehost.h"
#include "scripteddebugger.h"
#include "tempguards.h"
#include "testenv.h"

namespace {

// The debug mode seen inside a guarded scope that starts with `before` and
// is left normally or by an exception; either way it must end as it began.
bool modeInside(bool before, bool throwing = false)
{
    FakeHost host;
    host.debugModeOn = before;
    bool inside = !before;
    try {
        TempDisableDebugMode guard(&host);
        inside = host.debugModeOn;
        if (throwing)
            throw new Exception(20001, QStringLiteral("analysis failed"));
    } catch (Exception* e) {
        delete e;
    }
    EXPECT_EQ(host.debugModeOn, before);
    return inside;
}

TEST(DebugModeGuard, SwitchesOffForTheScopeUnlessDebugAnalysisSaysOtherwise)
{
    setSwitch("ZOR_DEBUG_ANALYSIS", QString());
    for (bool throwing : {false, true})
        EXPECT_FALSE(modeInside(true, throwing) || modeInside(false, throwing));
    // Debug analysis asked for keeps the mode on, and never turns it on;
    // which spellings ask for it: EnvSwitch's test.
    setSwitch("ZOR_DEBUG_ANALYSIS", QStringLiteral("yes"));
    EXPECT_TRUE(modeInside(true));
    EXPECT_FALSE(modeInside(false));
    setSwitch("ZOR_DEBUG_ANALYSIS", QStringLiteral("off"));
    EXPECT_FALSE(modeInside(true));
    setSwitch("ZOR_DEBUG_ANALYSIS", QString());
}

// The language guard sets C and puts the language back on success and on
// every failure of the sampler's start: the sample source's tests. Here, a
// restore that fails while an exception unwinds.
// A debugger that fails to set the language once it has been set once.
class RefusingDebugger : public ScriptedDebugger
{
public:
    void handleSetLanguage(Command& command) override
    {
        if (!languageCommands.isEmpty())
            throw new Exception(20002, QStringLiteral("debugger gone"));
        ScriptedDebugger::handleSetLanguage(command);
    }
};

TEST(LanguageGuard, AFailedRestoreDuringAnExceptionDoesNotEndTheProcess)
{
    RefusingDebugger refusing;
    refusing.language = LanguageFortran;
    int code = 0;
    try {
        TempLangChange guard(&refusing, LanguageC);
        throw new Exception(20003, QStringLiteral("expression failed"));
    } catch (Exception* e) {
        code = e->code();
        delete e;
    }
    EXPECT_EQ(code, 20003);
    EXPECT_EQ(refusing.language, LanguageC);
}

} // namespace
