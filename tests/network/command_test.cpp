#include <QXmlStreamReader>
#include <gtest/gtest.h>

#include "command.h"
#include "constants.h"
#include "exception.h"

namespace {

// How values and flags fall back on their defaults: the profiler's play test.
TEST(Command, TravelsWithEveryParameterTypeIntact)
{
    Command command(QString::fromLatin1(CMD_ZOR_SEND_SAMPLES), QString::fromLatin1(XML_TARGET_PROFILER), "run");
    QVariantMap nested;
    nested.insert(QStringLiteral("index"), 3u);
    nested.insert(QStringLiteral("sparse"), true);
    nested.insert(QStringLiteral("name"), QStringLiteral("a <b> & \"c\""));
    command.addParameter(QStringLiteral("int"), -7);
    command.addParameter(QStringLiteral("long"), Q_INT64_C(-9000000000));
    command.addParameter(QStringLiteral("ulong"), Q_UINT64_C(18000000000000000000));
    command.addParameter(QStringLiteral("double"), 0.1);
    command.addParameter(QStringLiteral("map"), nested);
    command.addParameter(QStringLiteral("list"), QVariantList{ 1, QStringLiteral("x"), QVariant() });
    command.addParameter(QStringLiteral("empty"), QString());

    Command copy;
    QString error;
    ASSERT_TRUE(Command::fromXml(command.toXml(), &copy, &error)) << qPrintable(error);
    EXPECT_EQ(copy.name, command.name);
    EXPECT_EQ(copy.getUid(), command.getUid());
    EXPECT_EQ(copy.getTarget(), command.getTarget());
    EXPECT_EQ(copy.getAction(), QStringLiteral("run"));
    EXPECT_EQ(copy.parameters, command.parameters);
    EXPECT_EQ(copy.getValue(QStringLiteral("ulong")).type(), QVariant::ULongLong);
    EXPECT_EQ(copy.getValue(QStringLiteral("double")).toDouble(), 0.1);
}

TEST(Command, MalformedFormsAreRefusedWithAReason)
{
    const char* const bad[] = {
        "",
        "<command",
        "<command uid=\"1\"/>",
        "<command name=\"x\"/>",
        "<command name=\"x\" uid=\"1\"><param key=\"a\" type=\"int\">seven</param></command>",
        "<command name=\"x\" uid=\"1\"><param key=\"a\" type=\"blob\">1</param></command>",
        "<command name=\"x\" uid=\"1\"><param key=\"a\" type=\"map\"><param key=\"b\" type=\"int\">1</param>",
        "<other/>",
    };
    for (const char* text : bad) {
        Command command;
        QString error;
        EXPECT_FALSE(Command::fromXml(QByteArray(text), &command, &error)) << text;
        EXPECT_FALSE(error.isEmpty()) << text;
    }
}

TEST(Exception, CopiesAndTravelsWithItsCauses)
{
    Exception* cause = new Exception(20009, QStringLiteral("No samples collected"));
    Exception outer(20019, QStringLiteral("Exception when reading sampler data"), cause, "file.cpp", 12);
    outer.setSource(QStringLiteral("profiler"));

    Exception copy(outer);
    ASSERT_TRUE(copy.nested());
    EXPECT_NE(copy.nested(), outer.nested());
    EXPECT_EQ(copy.fullMessage(), QStringLiteral("Exception when reading sampler data\nNo samples collected"));

    QByteArray xml;
    QXmlStreamWriter writer(&xml);
    outer.writeXml(writer);
    QXmlStreamReader reader(xml);
    ASSERT_TRUE(reader.readNextStartElement());
    QString error;
    std::unique_ptr<ExceptionBase> read(ExceptionBase::readXml(reader, &error));
    ASSERT_TRUE(read) << qPrintable(error);
    EXPECT_EQ(read->code(), 20019);
    EXPECT_EQ(read->source(), QStringLiteral("profiler"));
    EXPECT_EQ(read->file(), QStringLiteral("file.cpp"));
    EXPECT_EQ(read->line(), 12);
    ASSERT_TRUE(read->nested());
    EXPECT_EQ(read->nested()->code(), 20009);
    EXPECT_EQ(read->fullMessage(), outer.fullMessage());

    QXmlStreamReader bad(QByteArray("<exception code=\"x\"><message>m</message></exception>"));
    ASSERT_TRUE(bad.readNextStartElement());
    EXPECT_EQ(ExceptionBase::readXml(bad, &error), nullptr);
    EXPECT_FALSE(error.isEmpty());
}

} // namespace
