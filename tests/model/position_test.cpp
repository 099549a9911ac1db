#include "internstringcache.h"
#include "position.h"
#include "saxhandler.h"

#include <gtest/gtest.h>

#include <QStringList>
#include <QXmlStreamReader>

TEST(PathString, FileNamesEqual)
{
    struct Case
    {
        const char* a;
        const char* b;
        bool equal;
    };
    const Case cases[] = {
        {"/src/a.c", "/src/a.c", true},
        {"/src/./lib/../a.c", "/src/a.c", true},
        {"src/a.c", "/home/me/src/a.c", true},
        {"../src/a.c", "/home/me/src/a.c", true},
        {"a.c", "/home/me/src/a.c", true},
        {"../src/a.c", "src/a.c", true},
        {"/src/a.c", "/other/a.c", false},
        {"rc/a.c", "/home/me/src/a.c", false}, // not a whole component
        {"src/a.c", "/src/b.c", false},
        {"", "/src/a.c", false},
        {"a.c", "aa.c", false},
    };
    for (const Case& c : cases) {
        const QString a = QString::fromLatin1(c.a);
        const QString b = QString::fromLatin1(c.b);
        EXPECT_EQ(PathString::fileNamesEqual(a, b), c.equal) << c.a << " / " << c.b;
        EXPECT_EQ(PathString::fileNamesEqual(b, a), c.equal) << c.b << " / " << c.a;
    }
    EXPECT_EQ(PathString(QStringLiteral("/x/y/z.cpp")).fileName(), QStringLiteral("z.cpp"));
}

TEST(Position, ConstructionAndDisplay)
{
    const Position fromPath(QStringLiteral("f"), PathString(QStringLiteral("/s/f.c")), 9, -1);
    EXPECT_EQ(fromPath, Position(QStringLiteral("f"), QStringLiteral("/s/f.c"), 9, -1));
    EXPECT_EQ(fromPath.displayName(), QStringLiteral("f (/s/f.c:9)"));
    EXPECT_EQ(Position(QStringLiteral("g")).displayName(), QStringLiteral("g"));
    const Position location(QStringLiteral("k.cu"), 4, -1);
    EXPECT_TRUE(location.function.isEmpty());
    EXPECT_EQ(location.displayName(), QStringLiteral("k.cu:4"));
    EXPECT_FALSE(Position(QStringLiteral("h")).hasFileAndLine());
}

TEST(InternStringCache, EqualStringsShareStorage)
{
    InternStringCache cache;
    const QString first = cache.intern(QStringLiteral("solve_") + QStringLiteral("step"));
    const QString second = cache.intern(QString(QStringLiteral("solve_step")).toUpper().toLower());
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.constData(), second.constData());
    EXPECT_EQ(cache.size(), 1);
    EXPECT_NE(cache.intern(QStringLiteral("other")).constData(), first.constData());
    EXPECT_EQ(cache.size(), 2);
}

TEST(SaxHandler, ParseElementFeedsTheHandler)
{
    struct Recorder : SaxHandler
    {
        QStringList events;
        Recorder* nested = nullptr;
        ~Recorder() override { delete nested; }
        SaxHandler* getNestedStruct(const QString& name) override
        {
            if (name != QLatin1String("child"))
                return nullptr;
            nested = new Recorder;
            return nested;
        }
        void nestedResponse(const QString& name, SaxHandler*) override { events << QStringLiteral("nested ") + name; }
        void readAttributes(const QString& name, const SaxAttributes& attributes) override
        {
            events << name + QLatin1Char(' ') + attributes.value(QStringLiteral("id")) + QLatin1Char(' ')
                    + QString::number(attributes.count());
        }
        void readParam(const QString& name, const QString& value) override { events << name + QLatin1Char('=') + value; }
        void readListItem(const QString& list, const QString& value) override { events << list + QLatin1Char('+') + value; }
    };

    QXmlStreamReader reader(QStringLiteral(
        "<top id=\"7\" x=\"1\"><name>abc</name><items><i>1</i><i>2</i></items><child id=\"c\"><deep>d</deep></child></top>"));
    ASSERT_TRUE(reader.readNextStartElement());
    Recorder top;
    QString error;
    ASSERT_TRUE(top.parseElement(reader, &error)) << error.toStdString();
    EXPECT_EQ(top.events,
              QStringList({QStringLiteral("top 7 2"), QStringLiteral("name=abc"), QStringLiteral("items+1"),
                           QStringLiteral("items+2"), QStringLiteral("nested child")}));
    ASSERT_TRUE(top.nested);
    EXPECT_EQ(top.nested->events, QStringList({QStringLiteral("child c 1"), QStringLiteral("deep=d")}));

    QXmlStreamReader broken(QStringLiteral("<top><name>abc</na"));
    ASSERT_TRUE(broken.readNextStartElement());
    Recorder other;
    EXPECT_FALSE(other.parseElement(broken, &error));
    EXPECT_FALSE(error.isEmpty());
}
