#include "internstringcache.h"

QString InternStringCache::intern(const QString& text)
{
    if (text.isNull())
        return text;
    const auto it = mStrings.constFind(text);
    if (it != mStrings.constEnd())
        return *it;
    mStrings.insert(text);
    return text;
}
