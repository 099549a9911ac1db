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

void setDebugAnalysis(const char* klb, const char* zor, const char* quorvex)
{
    const char* names[] = { "KLB_DEBUG_ANALYSIS", "ZOR_DEBUG_ANALYSIS", "QUORVEX_DEBUG_ANALYSIS" };
    const char* values[] = { klb, zor, quorvex };
    for (int i = 0; i < 3; ++i) {
        if (values[i])
            setenv(names[i], values[i], 1);
        else
            unsetenv(names[i]);
    }
    ++g_cacheSerial;
}

class DebugModeGuard : public ::testing::Test
{
protected:
    void SetUp() override { setDebugAnalysis(nullptr, nullptr, nullptr); }
    void TearDown() override { setDebugAnalysis(nullptr, nullptr, nullptr); }

    // The debug mode seen inside a guarded scope that starts with `before`.
    bool modeInside(bool before)
    {
        host.debugModeOn = before;
        TempDisableDebugMode guard(&host);
        return host.debugModeOn;
    }

    FakeHost host;
};

TEST_F(DebugModeGuard, SwitchesOffForTheScopeAndRestoresEitherMode)
{
    EXPECT_FALSE(modeInside(true));
    EXPECT_TRUE(host.debugModeOn);
    EXPECT_FALSE(modeInside(false));
    EXPECT_FALSE(host.debugModeOn);
}

TEST_F(DebugModeGuard, RestoresWhenAnExceptionPassesThrough)
{
    host.debugModeOn = true;
    Exception* caught = nullptr;
    try {
        TempDisableDebugMode guard(&host);
        EXPECT_FALSE(host.debugModeOn);
        throw new Exception(20001, QStringLiteral("analysis failed"));
    } catch (Exception* e) {
        caught = e;
    }
    ASSERT_NE(caught, nullptr);
    delete caught;
    EXPECT_TRUE(host.debugModeOn);
}

TEST_F(DebugModeGuard, TheFirstDebugAnalysisSpellingThatIsSetDecides)
{
    // The first variable present decides even when it says no.
    setDebugAnalysis("off", "1", "1");
    EXPECT_FALSE(modeInside(true));

    setDebugAnalysis(nullptr, "", "off");
    EXPECT_TRUE(modeInside(true));

    setDebugAnalysis(nullptr, nullptr, "Disabled");
    EXPECT_FALSE(modeInside(true));

    setDebugAnalysis(nullptr, nullptr, "yes");
    EXPECT_TRUE(modeInside(true));
    EXPECT_FALSE(modeInside(false));
}

class LanguageGuard : public ::testing::Test
{
protected:
    QStringList sentLanguages() const
    {
        QStringList languages;
        for (const Command& command : debugger.languageCommands)
            languages.append(command.getValue(QStringLiteral("language")).toString());
        return languages;
    }

    ScriptedDebugger debugger;
};

TEST_F(LanguageGuard, ChangesForTheScopeAndPutsTheOldLanguageBack)
{
    debugger.language = LanguageFortran;
    {
        TempLangChange guard(&debugger, LanguageC);
        EXPECT_EQ(debugger.language, LanguageC);
    }
    EXPECT_EQ(debugger.language, LanguageFortran);
    EXPECT_EQ(sentLanguages(), (QStringList{ QStringLiteral("c"), QStringLiteral("fortran") }));

    const Command& first = debugger.languageCommands.first();
    EXPECT_EQ(first.name, QString::fromLatin1(CMD_SET_LANGUAGE));
    EXPECT_EQ(first.getTarget(), QString::fromLatin1(XML_TARGET_DEBUGGER));
    EXPECT_EQ(first.getValue(QStringLiteral("language")).type(), QVariant::String);
}

TEST_F(LanguageGuard, RestoresTheLanguageFoundAtTheFirstChange)
{
    debugger.language = LanguageCPlusPlus;
    {
        TempLangChange guard(&debugger);
        guard.changeLanguage(LanguageC);
        guard.changeLanguage(LanguageFortran);
        guard.changeLanguage(LanguageAsm);
        EXPECT_EQ(debugger.language, LanguageAsm);
    }
    EXPECT_EQ(debugger.language, LanguageCPlusPlus);
    EXPECT_EQ(debugger.languageQueries, 1);
}

TEST_F(LanguageGuard, AGuardThatChangedNothingSendsNothing)
{
    {
        TempLangChange guard(&debugger);
    }
    EXPECT_TRUE(debugger.languageCommands.isEmpty());
    EXPECT_EQ(debugger.languageQueries, 0);
}

TEST_F(LanguageGuard, RestoresWhenAnExceptionPassesThrough)
{
    debugger.language = LanguageFortran;
    try {
        TempLangChange guard(&debugger, LanguageC);
        throw std::runtime_error("expression failed");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(debugger.language, LanguageFortran);
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

TEST_F(LanguageGuard, AFailedRestoreDuringAnExceptionDoesNotEndTheProcess)
{
    RefusingDebugger refusing;
    refusing.language = LanguageFortran;
    Exception* caught = nullptr;
    try {
        TempLangChange guard(&refusing, LanguageC);
        throw new Exception(20003, QStringLiteral("expression failed"));
    } catch (Exception* e) {
        caught = e;
    }
    ASSERT_NE(caught, nullptr);
    EXPECT_EQ(caught->code(), 20003);
    delete caught;
    EXPECT_EQ(refusing.language, LanguageC);
}

TEST_F(LanguageGuard, ABracketedLanguageInFrontIsTakenOffAndSet)
{
    debugger.language = LanguageAuto;
    {
        TempLangChange guard(&debugger);
        EXPECT_EQ(guard.removeLanguagePrefixAndChangeLanguage(QStringLiteral("[C++]sizeof(int)")),
                  QStringLiteral("sizeof(int)"));
        EXPECT_EQ(debugger.language, LanguageCPlusPlus);
        EXPECT_EQ(guard.removeLanguagePrefixAndChangeLanguage(QStringLiteral("[fortran]")), QString());
        EXPECT_EQ(debugger.language, LanguageFortran);
    }
    EXPECT_EQ(debugger.language, LanguageAuto);
}

TEST_F(LanguageGuard, OtherExpressionsPassUnchangedWithoutAChange)
{
    TempLangChange guard(&debugger);
    for (const QString& expression : { QStringLiteral("[c quorvex_sampler_version"), QStringLiteral("a[1]"),
                                       QStringLiteral(" [c]x"), QString() })
        EXPECT_EQ(guard.removeLanguagePrefixAndChangeLanguage(expression), expression);
    EXPECT_TRUE(debugger.languageCommands.isEmpty());
}

TEST(Language, InternalNamesGoBothWays)
{
    for (LanguageTag tag : { LanguageAuto, LanguageC, LanguageCPlusPlus, LanguageFortran, LanguageAsm,
                             LanguageMinimal })
        EXPECT_EQ(Language::internalStringToLanguage(Language::languageToInternalString(tag)), tag);
    EXPECT_EQ(Language::internalStringToLanguage(QStringLiteral("cobol")), LanguageAuto);
    EXPECT_TRUE(Language::languageToInternalString(LanguageNone).isEmpty());
    EXPECT_EQ(int(LanguageNone), 6);
}

} // namespace
