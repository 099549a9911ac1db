#include "language.h"

namespace {

struct LanguageName
{
    LanguageTag tag;
    const char* name;
};

const LanguageName languageNames[] = {
    { LanguageAuto, "auto" },       { LanguageC, "c" },     { LanguageCPlusPlus, "c++" },
    { LanguageFortran, "fortran" }, { LanguageAsm, "asm" }, { LanguageMinimal, "minimal" },
};

} // namespace

QString Language::languageToInternalString(LanguageTag language)
{
    for (const LanguageName& entry : languageNames) {
        if (entry.tag == language)
            return QString::fromLatin1(entry.name);
    }
    return QString();
}

LanguageTag Language::internalStringToLanguage(const QString& name)
{
    for (const LanguageName& entry : languageNames) {
        if (name == QLatin1String(entry.name))
            return entry.tag;
    }
    return LanguageAuto;
}
