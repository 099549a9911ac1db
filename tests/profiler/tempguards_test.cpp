// The scope guards over the host's debug mode and the debugger's language:
// what they change, and that they put it back on every way out of a scope.
#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>

#include "constants.h"
#include "envswitch.h"
#include "exception.h"
#include "fakehost.h"
#include "scripteddebugger.h"
#include "tempguards.h"

namespace {

void setDebugAnalysis(const char* value)
{
    value ? setenv("ZOR_DEBUG_ANALYSIS", value, 1) : unsetenv("ZOR_DEBUG_ANALYSIS");
    ++g_cacheSerial;
}

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
    setDebugAnalysis(nullptr);
    for (bool throwing : {false, true})
        EXPECT_FALSE(modeInside(true, throwing) || modeInside(false, throwing));
    // Debug analysis asked for keeps the mode on, and never turns it on;
    // which spellings ask for it: EnvSwitch's test.
    setDebugAnalysis("yes");
    EXPECT_TRUE(modeInside(true));
    EXPECT_FALSE(modeInside(false));
    setDebugAnalysis("off");
    EXPECT_FALSE(modeInside(true));
    setDebugAnalysis(nullptr);
}

TEST(LanguageGuard, PutsTheLanguageFoundAtTheFirstChangeBackOnEveryPath)
{
    for (bool throwing : {false, true}) {
        ScriptedDebugger debugger;
        debugger.language = LanguageFortran;
        try {
            TempLangChange guard(&debugger, LanguageC);
            guard.changeLanguage(LanguageAsm);
            EXPECT_EQ(debugger.language, LanguageAsm);
            if (throwing)
                throw std::runtime_error("expression failed");
        } catch (const std::runtime_error&) {
        }
        EXPECT_EQ(debugger.language, LanguageFortran);
        EXPECT_EQ(debugger.languageQueries, 1);
        QStringList sent;
        for (const Command& command : debugger.languageCommands) {
            EXPECT_EQ(command.name, QString::fromLatin1(CMD_SET_LANGUAGE));
            EXPECT_EQ(command.getTarget(), QString::fromLatin1(XML_TARGET_DEBUGGER));
            sent.append(command.getValue(QStringLiteral("language")).toString());
        }
        EXPECT_EQ(sent, QStringList({QStringLiteral("c"), QStringLiteral("asm"), QStringLiteral("fortran")}));
    }
    // A guard that changed nothing asks and sends nothing.
    ScriptedDebugger untouched;
    {
        TempLangChange guard(&untouched);
    }
    EXPECT_TRUE(untouched.languageCommands.isEmpty());
    EXPECT_EQ(untouched.languageQueries, 0);
}

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

TEST(LanguageGuard, ABracketedLanguageInFrontIsTakenOffAndSet)
{
    ScriptedDebugger debugger;
    {
        TempLangChange guard(&debugger);
        for (const QString& expression : {QStringLiteral("[c quorvex_sampler_version"), QStringLiteral("a[1]"), QStringLiteral(" [c]x"), QString()})
            EXPECT_EQ(guard.removeLanguagePrefixAndChangeLanguage(expression), expression);
        EXPECT_TRUE(debugger.languageCommands.isEmpty());

        EXPECT_EQ(guard.removeLanguagePrefixAndChangeLanguage(QStringLiteral("[C++]sizeof(int)")), QStringLiteral("sizeof(int)"));
        EXPECT_EQ(debugger.language, LanguageCPlusPlus);
        EXPECT_EQ(guard.removeLanguagePrefixAndChangeLanguage(QStringLiteral("[fortran]")), QString());
        EXPECT_EQ(debugger.language, LanguageFortran);
    }
    EXPECT_EQ(debugger.language, LanguageAuto);
}

} // namespace
