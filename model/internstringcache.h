// Hands out one shared copy of each distinct string, so that the many nodes
// and positions that name the same function or file share their storage.
#ifndef ZOR_INTERNSTRINGCACHE_H
#define ZOR_INTERNSTRINGCACHE_H

#include <QSet>
#include <QString>

class InternStringCache
{
public:
    // The cached string equal to text, after caching text if it is new.
    QString intern(const QString& text);
    int size() const { return mStrings.size(); }
    void clear() { mStrings.clear(); }

private:
    QSet<QString> mStrings;
};

#endif
