// The source languages that the debugger reads expressions in.
#ifndef ZOR_LANGUAGE_H
#define ZOR_LANGUAGE_H

#include <QString>

enum LanguageTag {
    LanguageAuto = 0,
    LanguageC = 1,
    LanguageCPlusPlus = 2,
    LanguageFortran = 3,
    LanguageAsm = 4,
    LanguageMinimal = 5,
    // No language: what a guard holds before it has saved one.
    LanguageNone = 6
};

class Language
{
public:
    // The debugger's own name of a language: "c", "c++", "fortran"...
    // LanguageNone has none and gives an empty string.
    static QString languageToInternalString(LanguageTag language);
    // The reverse, for names as languageToInternalString gives them. An
    // unknown name gives LanguageAuto, which leaves the choice to the
    // debugger.
    static LanguageTag internalStringToLanguage(const QString& name);
};

#endif
