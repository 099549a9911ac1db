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

    // The process's one copy of text, which is never freed: copies of it
    // share the storage without counting references, which the nodes of
    // call trees, made and merged by the million, would otherwise do on
    // every copy. Only for names of which there are a bounded number, such
    // as those of a program's functions and files; thread-safe.
    static QString internForever(const QString& text);

private:
    QSet<QString> mStrings;
};

#endif
