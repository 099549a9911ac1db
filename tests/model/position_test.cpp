#include "internstringcache.h"
#include "position.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>


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

// Threads that keep the same names at once, while the table grows under
// them: every thread gets the one copy of each name.
TEST(InternStringCache, ThreadsShareTheOneCopy)
{
    const int names = 5000;
    const int threads = 4;
    std::vector<std::vector<const QChar*>> seen(threads, std::vector<const QChar*>(names));
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([t, &seen]() {
            for (int k = 0; k < names; ++k) {
                const int i = t % 2 == 0 ? k : names - 1 - k;
                const QString kept = InternStringCache::internForever(QStringLiteral("thread_name_%1").arg(i));
                if (kept != QStringLiteral("thread_name_%1").arg(i))
                    return;
                seen[size_t(t)][size_t(i)] = kept.constData();
            }
        });
    }
    for (std::thread& thread : running)
        thread.join();
    for (int i = 0; i < names; ++i) {
        ASSERT_NE(seen[0][size_t(i)], nullptr) << i;
        for (int t = 1; t < threads; ++t)
            ASSERT_EQ(seen[size_t(t)][size_t(i)], seen[0][size_t(i)]) << i << " in thread " << t;
    }
}
