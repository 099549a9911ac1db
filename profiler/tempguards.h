// Scope guards over the debugger's state, for the stretches in which the
// plug-in does bulk work with it.
#ifndef ZOR_TEMPGUARDS_H
#define ZOR_TEMPGUARDS_H

#include <QString>

#include "language.h"

class Debugger;
class TharnInterface;

// Switches the host's debug mode off for the length of a scope, since
// analysis would otherwise log each of its many requests; the debug-analysis
// switch keeps it on.
class TempDisableDebugMode
{
public:
    explicit TempDisableDebugMode(TharnInterface* host);
    ~TempDisableDebugMode();

    TempDisableDebugMode(const TempDisableDebugMode&) = delete;
    TempDisableDebugMode& operator=(const TempDisableDebugMode&) = delete;

private:
    TharnInterface* host;
    bool savedDebugMode;
};

// Sets the language in which the debugger reads expressions, and puts back
// the one it found at the first change when the scope ends.
class TempLangChange
{
public:
    explicit TempLangChange(Debugger* debugger);
    TempLangChange(Debugger* debugger, LanguageTag language);
    ~TempLangChange();

    TempLangChange(const TempLangChange&) = delete;
    TempLangChange& operator=(const TempLangChange&) = delete;

    void changeLanguage(LanguageTag language);
    // An expression may start with its language in brackets, "[c]foo()":
    // switches to that language and gives the expression without it. Any
    // other expression comes back unchanged.
    QString removeLanguagePrefixAndChangeLanguage(const QString& expression);

private:
    Debugger* debugger;
    LanguageTag savedLanguage;
};

#endif
