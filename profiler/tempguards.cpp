#include "tempguards.h"

#include <QDebug>

#include "command.h"
#include "constants.h"
#include "debugger.h"
#include "envswitch.h"
#include "exception.h"
#include "tharninterface.h"

TempDisableDebugMode::TempDisableDebugMode(TharnInterface* host)
    : host(host)
    , savedDebugMode(host->debugMode())
{
    static EnvSwitch debugAnalysis("DEBUG_ANALYSIS");
    if (debugAnalysis.isOn())
        return;
    host->setDebugMode(false);
}

TempDisableDebugMode::~TempDisableDebugMode()
{
    host->setDebugMode(savedDebugMode);
}

TempLangChange::TempLangChange(Debugger* debugger)
    : debugger(debugger)
    , savedLanguage(LanguageNone)
{
}

TempLangChange::TempLangChange(Debugger* debugger, LanguageTag language)
    : debugger(debugger)
    , savedLanguage(debugger->currentLanguage())
{
    changeLanguage(language);
}

TempLangChange::~TempLangChange()
{
    if (savedLanguage == LanguageNone)
        return;
    // A destructor may run while an exception unwinds the stack, where a
    // second one would end the process: a failure here is told, not thrown.
    try {
        changeLanguage(savedLanguage);
    } catch (Exception* e) {
        qWarning() << "Failed to restore the debugger's language:" << e->message();
        delete e;
    }
}

void TempLangChange::changeLanguage(LanguageTag language)
{
    if (savedLanguage == LanguageNone)
        savedLanguage = debugger->currentLanguage();
    Command command(QString::fromLatin1(CMD_SET_LANGUAGE), QString::fromLatin1(XML_TARGET_DEBUGGER), nullptr);
    command.addParameter(QStringLiteral("language"), Language::languageToInternalString(language));
    debugger->handleSetLanguage(command);
}

QString TempLangChange::removeLanguagePrefixAndChangeLanguage(const QString& expression)
{
    if (!expression.startsWith(QLatin1Char('[')))
        return expression;
    const int close = expression.indexOf(QLatin1Char(']'), 1);
    if (close < 0)
        return expression;
    changeLanguage(Language::internalStringToLanguage(expression.mid(1, close - 1).toLower()));
    return expression.mid(close + 1);
}
