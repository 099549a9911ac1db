// Reading the `gpuProfile` side file: a whole document, each required
// element missing in turn, and values that don't parse.
#include <QFile>
#include <QStringList>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "gpuprofilerglobaldata.h"

namespace {

const char* const stats = R"(<stats numKernelLaunches="12" numKernelsSampled="5"/>)";
const char* const durations = R"(<kernelDurationMs min="0.5" max="2.25" mean="1.125"/>)";
const char* const periods = R"(<samplingPeriod min="1024" max="65536"/>)";
const char* const locators = R"(<sourceLocators>
  <location id="1" file="/src/saxpy.cu" line="42"/>
  <comment text="not a location"/>
  <location id="7" file="/src/reduce.cu" line="9"/>
  <location id="7" file="/src/reduce.cu" line="11"/>
  <location id="8" file="/src/nolines.cu"/>
</sourceLocators>)";
const char* const kernels = R"(<kernelNames>
  <kernel id="3" name="saxpy_kernel"/>
  <kernel id="4" name="reduce&lt;float&gt;"/>
</kernelNames>)";

class GpuProfileFile : public ::testing::Test
{
protected:
    QString write(const QString& text)
    {
        const QString path = directory.filePath(QStringLiteral("run%1.gpu").arg(++files));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text.toUtf8());
        return path;
    }
    // A document of the given elements inside "gpuProfile".
    QString document(const QStringList& elements, const char* version = "12020")
    {
        return write(QStringLiteral("<?xml version=\"1.0\"?>\n<gpuProfile cudaRuntimeVersion=\"%1\">\n%2\n</gpuProfile>\n")
                         .arg(QLatin1String(version), elements.join(QLatin1Char('\n'))));
    }
    static QStringList all() { return { stats, durations, periods, locators, kernels }; }

    // The reader's message for a document, or "read" when it succeeds.
    QString outcome(const QString& path)
    {
        GpuProfilerGlobalData data;
        QString error;
        return data.readFromFile(path, &error) ? QStringLiteral("read") : error;
    }

    QTemporaryDir directory;
    int files = 0;
};

TEST_F(GpuProfileFile, AWholeDocument)
{
    GpuProfilerGlobalData data;
    QString error;
    ASSERT_TRUE(data.readFromFile(document(all()), &error)) << error.toStdString();
    EXPECT_EQ(data.cudaRuntimeVersion(), 12020);
    EXPECT_EQ(data.numKernelLaunches(), 12u);
    EXPECT_EQ(data.numKernelsSampled(), 5u);
    EXPECT_DOUBLE_EQ(data.minKernelDurationMs(), 0.5);
    EXPECT_DOUBLE_EQ(data.maxKernelDurationMs(), 2.25);
    EXPECT_DOUBLE_EQ(data.meanKernelDurationMs(), 1.125);
    EXPECT_EQ(data.minSamplingPeriodInCycles(), 1024u);
    EXPECT_EQ(data.maxSamplingPeriodInCycles(), 65536u);
    EXPECT_TRUE(data.errorMessage().isEmpty());

    EXPECT_EQ(data.numPositions(), 3u);
    bool ok = false;
    const Position saxpy = data.positionForLocationId(1, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(saxpy.file, QStringLiteral("/src/saxpy.cu"));
    EXPECT_EQ(saxpy.line, 42);
    EXPECT_EQ(saxpy.column, -1);
    // A later entry replaces an earlier one of the same id.
    EXPECT_EQ(data.positionForLocationId(7, nullptr).line, 11);
    EXPECT_EQ(data.positionForLocationId(8, nullptr).line, 0);

    EXPECT_EQ(data.numKernels(), 2u);
    EXPECT_EQ(data.kernelName(3, &ok), QStringLiteral("saxpy_kernel"));
    EXPECT_TRUE(ok);
    EXPECT_EQ(data.kernelName(4, nullptr), QStringLiteral("reduce<float>"));
}

TEST_F(GpuProfileFile, UnknownIdsAndIdZero)
{
    GpuProfilerGlobalData data;
    ASSERT_TRUE(data.readFromFile(document(all()), nullptr));
    bool ok = true;
    EXPECT_EQ(data.kernelName(0, &ok), QStringLiteral("<unknown-id 0>"));
    EXPECT_FALSE(ok);
    EXPECT_EQ(data.kernelName(9, nullptr), QStringLiteral("<unknown-id 9>"));
    ok = true;
    // Id 0 is a sample without a location: an empty position, not a name.
    EXPECT_EQ(data.positionForLocationId(0, &ok), Position());
    EXPECT_FALSE(ok);
    EXPECT_EQ(data.positionForLocationId(99, &ok), Position(QStringLiteral("<unknown-id 99>")));
    EXPECT_FALSE(ok);
}

TEST_F(GpuProfileFile, TheErrorElementAndNestedFigures)
{
    GpuProfilerGlobalData data;
    const QString nested = QStringLiteral("<error>CUPTI could not be loaded</error>\n"
                                          "<stats numKernelLaunches=\"2\" numKernelsSampled=\"1\">\n%1\n%2\n</stats>\n"
                                          "<sourceLocators/>\n<kernelNames/>")
                               .arg(QLatin1String(durations), QLatin1String(periods));
    QString error;
    ASSERT_TRUE(data.readFromFile(document({ nested }), &error)) << error.toStdString();
    EXPECT_EQ(data.errorMessage(), QStringLiteral("CUPTI could not be loaded"));
    EXPECT_EQ(data.numKernelLaunches(), 2u);
    EXPECT_DOUBLE_EQ(data.meanKernelDurationMs(), 1.125);
    EXPECT_EQ(data.maxSamplingPeriodInCycles(), 65536u);
    EXPECT_EQ(data.numPositions(), 0u);
    EXPECT_EQ(data.numKernels(), 0u);
}

TEST_F(GpuProfileFile, EachMissingElementIsNamed)
{
    const char* const expected[] = {
        "Expected element 'stats', got 'kernelDurationMs'",
        "Expected element 'kernelDurationMs', got 'samplingPeriod'",
        "Expected element 'samplingPeriod', got 'sourceLocators'",
        "Expected element 'sourceLocators', got 'kernelNames'",
        "Expected start element 'kernelNames'",
    };
    for (int missing = 0; missing < 5; ++missing) {
        QStringList elements = all();
        elements.removeAt(missing);
        EXPECT_EQ(outcome(document(elements)), QString::fromLatin1(expected[missing])) << missing;
    }
    EXPECT_EQ(outcome(document({ stats, durations, periods })), QStringLiteral("Expected start element 'sourceLocators'"));
    EXPECT_EQ(outcome(write(QStringLiteral("<profile cudaRuntimeVersion=\"1\"/>"))),
              QStringLiteral("Expected element 'gpuProfile', got 'profile'"));
    EXPECT_EQ(outcome(write(QString())), QStringLiteral("No start element"));
    const QString absent = directory.filePath(QStringLiteral("absent.gpu"));
    EXPECT_EQ(outcome(absent), QStringLiteral("Failed to open file %1").arg(absent));
}

TEST_F(GpuProfileFile, AFailureKeepsWhatWasRead)
{
    GpuProfilerGlobalData data;
    QString error;
    EXPECT_FALSE(data.readFromFile(document({ stats, durations, periods, locators }), &error));
    EXPECT_EQ(data.numKernelLaunches(), 12u);
    EXPECT_EQ(data.numPositions(), 3u);
    // A second read starts the tables afresh.
    EXPECT_TRUE(data.readFromFile(document({ stats, durations, periods, "<sourceLocators/>", kernels }), &error));
    EXPECT_EQ(data.numPositions(), 0u);
    EXPECT_EQ(data.numKernels(), 2u);
}

TEST_F(GpuProfileFile, ValuesThatDontParseReadAsZero)
{
    const QStringList bad = {
        R"(<stats numKernelLaunches="-1" numKernelsSampled="many"/>)",
        R"(<kernelDurationMs min="fast" max="" mean="1.5ms"/>)",
        R"(<samplingPeriod min="0x10" max="1e3"/>)",
        R"(<sourceLocators><location id="x" file="/src/a.cu" line="forty"/></sourceLocators>)",
        R"(<kernelNames><kernel id="" name="k"/></kernelNames>)",
    };
    GpuProfilerGlobalData data;
    QString error;
    ASSERT_TRUE(data.readFromFile(document(bad, "twelve"), &error)) << error.toStdString();
    EXPECT_EQ(data.cudaRuntimeVersion(), 0);
    EXPECT_EQ(data.numKernelLaunches(), 0u);
    EXPECT_EQ(data.numKernelsSampled(), 0u);
    EXPECT_EQ(data.minKernelDurationMs(), 0.0);
    EXPECT_EQ(data.maxKernelDurationMs(), 0.0);
    EXPECT_EQ(data.meanKernelDurationMs(), 0.0);
    EXPECT_EQ(data.minSamplingPeriodInCycles(), 0u);
    EXPECT_EQ(data.maxSamplingPeriodInCycles(), 0u);
    bool ok = false;
    const Position position = data.positionForLocationId(0, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(position.file, QStringLiteral("/src/a.cu"));
    EXPECT_EQ(position.line, 0);
    EXPECT_EQ(data.kernelName(0, nullptr), QStringLiteral("k"));
}

} // namespace
