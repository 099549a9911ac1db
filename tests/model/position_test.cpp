#include "internstringcache.h"
#include "position.h"

#include <gtest/gtest.h>


TEST(PathString, FileNamesEqual)
{
    const struct { const char* a; const char* b; bool equal; } cases[] = {
        {"/src/./lib/../a.c", "/src/a.c", true},
        {"src/a.c", "/home/me/src/a.c", true},
        {"../src/a.c", "/home/me/src/a.c", true},
        {"a.c", "/home/me/src/a.c", true},
        {"/src/a.c", "/other/a.c", false},
        {"rc/a.c", "/home/me/src/a.c", false}, // not a whole component
        {"", "/src/a.c", false},
        {"a.c", "aa.c", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PathString::fileNamesEqual(QString::fromLatin1(c.a), QString::fromLatin1(c.b)), c.equal) << c.a << " / " << c.b;
        EXPECT_EQ(PathString::fileNamesEqual(QString::fromLatin1(c.b), QString::fromLatin1(c.a)), c.equal) << c.b << " / " << c.a;
    }
    EXPECT_EQ(PathString(QStringLiteral("/x/y/z.cpp")).fileName(), QStringLiteral("z.cpp"));
}

TEST(InternStringCache, EqualStringsShareStorage)
{
    InternStringCache cache;
    const QString first = cache.intern(QStringLiteral("solve_") + QStringLiteral("step"));
    const QString second = cache.intern(QString(QStringLiteral("solve_step")).toUpper().toLower());
    EXPECT_EQ(first.constData(), second.constData());
    EXPECT_EQ(cache.size(), 1);
    EXPECT_NE(cache.intern(QStringLiteral("other")).constData(), first.constData());
    EXPECT_EQ(cache.size(), 2);

    // Kept for the process's life: shared, and a changed copy leaves the
    // kept one as it was.
    const QString kept = InternStringCache::internForever(QStringLiteral("solve_") + QStringLiteral("step"));
    QString copy = InternStringCache::internForever(first);
    EXPECT_EQ(copy.constData(), kept.constData());
    copy[0] = QLatin1Char('S');
    copy += QLatin1String("s");
    EXPECT_EQ(kept, QStringLiteral("solve_step"));
    EXPECT_EQ(InternStringCache::internForever(QStringLiteral("solve_step")), QStringLiteral("solve_step"));
    EXPECT_TRUE(InternStringCache::internForever(QString()).isNull());
}
