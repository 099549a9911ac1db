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
const char* const locators = R"(<sourceLocators><location id="1" file="/src/saxpy.cu" line="42"/><comment text="not a location"/>
<location id="7" file="/src/reduce.cu" line="9"/><location id="7" file="/src/reduce.cu" line="11"/><location id="8" file="/src/nolines.cu"/>
</sourceLocators>)";
const char* const kernels = R"(<kernelNames><kernel id="3" name="saxpy_kernel"/><kernel id="4" name="reduce&lt;float&gt;"/></kernelNames>)";

// Every figure of the file in one line.
QString summary(const GpuProfilerGlobalData& d)
{
    return QStringLiteral("cuda %1, launches %2/%3, ms %4/%5/%6, cycles %7/%8, %9 positions, %10 kernels, error '%11'")
        .arg(d.cudaRuntimeVersion()).arg(d.numKernelLaunches()).arg(d.numKernelsSampled())
        .arg(d.minKernelDurationMs()).arg(d.maxKernelDurationMs()).arg(d.meanKernelDurationMs())
        .arg(d.minSamplingPeriodInCycles()).arg(d.maxSamplingPeriodInCycles()).arg(d.numPositions()).arg(d.numKernels())
        .arg(d.errorMessage());
}

QString position(const GpuProfilerGlobalData& d, unsigned int id)
{
    bool ok = false;
    const Position p = d.positionForLocationId(id, &ok);
    return QStringLiteral("%1%2:%3:%4 %5").arg(p.function, p.file).arg(p.line).arg(p.column).arg(QLatin1String(ok ? "found" : "not found"));
}

class GpuProfileFile : public ::testing::Test
{
protected:
    // A document of the given elements inside "gpuProfile", or `text` as it stands.
    QString write(const QStringList& elements, const char* version = "12020", const char* text = nullptr)
    {
        const QString path = directory.filePath(QStringLiteral("run%1.gpu").arg(++files));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text ? QByteArray(text)
                        : QStringLiteral("<?xml version=\"1.0\"?>\n<gpuProfile cudaRuntimeVersion=\"%1\">\n%2\n</gpuProfile>\n")
                              .arg(QLatin1String(version), elements.join(QLatin1Char('\n')))
                              .toUtf8());
        return path;
    }
    static QStringList all() { return {stats, durations, periods, locators, kernels}; }

    // The reader's message for a document, or "read" when it succeeds.
    QString outcome(const QString& path)
    {
        QString error;
        return data.readFromFile(path, &error) ? QStringLiteral("read") : error;
    }

    QTemporaryDir directory;
    int files = 0;
    GpuProfilerGlobalData data;
};

TEST_F(GpuProfileFile, AWholeDocument)
{
    ASSERT_EQ(outcome(write(all())), QStringLiteral("read"));
    EXPECT_EQ(summary(data), QStringLiteral("cuda 12020, launches 12/5, ms 0.5/2.25/1.125, cycles 1024/65536, 3 positions, 2 kernels, error ''"));
    EXPECT_EQ(position(data, 1), QStringLiteral("/src/saxpy.cu:42:-1 found"));
    EXPECT_EQ(position(data, 7), QStringLiteral("/src/reduce.cu:11:-1 found")); // the later entry replaces
    EXPECT_EQ(position(data, 8), QStringLiteral("/src/nolines.cu:0:-1 found"));
    // Id 0 is a sample without a location: an empty position, not a name.
    EXPECT_EQ(position(data, 0), QStringLiteral(":-1:-1 not found"));
    EXPECT_EQ(position(data, 99), QStringLiteral("<unknown-id 99>:-1:-1 not found"));

    bool ok = false;
    EXPECT_EQ(data.kernelName(3, &ok), QStringLiteral("saxpy_kernel"));
    EXPECT_TRUE(ok);
    EXPECT_EQ(data.kernelName(4, nullptr), QStringLiteral("reduce<float>"));
    EXPECT_EQ(data.kernelName(0, &ok), QStringLiteral("<unknown-id 0>"));
    EXPECT_FALSE(ok);

    // An error element, and figures nested in the stats element. The reader
    // steps over one token after each figure, so they stand on lines of their own.
    const QString nested = QStringLiteral("<error>CUPTI could not be loaded</error>\n<stats numKernelLaunches=\"2\" numKernelsSampled=\"1\">\n"
                                          "%1\n%2\n</stats>\n<sourceLocators/>\n<kernelNames/>").arg(QLatin1String(durations), QLatin1String(periods));
    ASSERT_EQ(outcome(write({nested})), QStringLiteral("read"));
    EXPECT_EQ(summary(data),
              QStringLiteral("cuda 12020, launches 2/1, ms 0.5/2.25/1.125, cycles 1024/65536, 0 positions, 0 kernels, error 'CUPTI could not be loaded'"));
}

TEST_F(GpuProfileFile, EachMissingElementIsNamedAndWhatWasReadStays)
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
        EXPECT_EQ(outcome(write(elements)), QString::fromLatin1(expected[missing])) << missing;
    }
    EXPECT_EQ(summary(data), QStringLiteral("cuda 12020, launches 12/5, ms 0.5/2.25/1.125, cycles 1024/65536, 3 positions, 0 kernels, error ''"));
    // A second read starts the tables afresh.
    EXPECT_EQ(outcome(write({stats, durations, periods, "<sourceLocators/>", kernels})), QStringLiteral("read"));
    EXPECT_EQ(data.numPositions(), 0u);

    EXPECT_EQ(outcome(write({stats, durations, periods})), QStringLiteral("Expected start element 'sourceLocators'"));
    EXPECT_EQ(outcome(write({}, "", "<profile cudaRuntimeVersion=\"1\"/>")), QStringLiteral("Expected element 'gpuProfile', got 'profile'"));
    EXPECT_EQ(outcome(write({}, "", "")), QStringLiteral("No start element"));
    const QString absent = directory.filePath(QStringLiteral("absent.gpu"));
    EXPECT_EQ(outcome(absent), QStringLiteral("Failed to open file %1").arg(absent));
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
    ASSERT_EQ(outcome(write(bad, "twelve")), QStringLiteral("read"));
    EXPECT_EQ(summary(data), QStringLiteral("cuda 0, launches 0/0, ms 0/0/0, cycles 0/0, 1 positions, 1 kernels, error ''"));
    EXPECT_EQ(position(data, 0), QStringLiteral("/src/a.cu:0:-1 found"));
    EXPECT_EQ(data.kernelName(0, nullptr), QStringLiteral("k"));
}

} // namespace
