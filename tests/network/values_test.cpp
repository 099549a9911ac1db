#include <QTemporaryFile>
#include <cmath>
#include <limits>
#include <gtest/gtest.h>
#include <unistd.h>

#include "constants.h"
#include "metric.h"
#include "sample.h"
#include "samplesranges.h"
#include "xmlvalues.h"
#include "zorpsvmodelitem.h"

namespace {

TEST(SampleValue, ArithmeticKeepsTypesAndNeverWraps)
{
    SampleValue sum;
    sum += SampleValue(3UL);
    EXPECT_EQ(sum.type(), SampleValue::UInt);
    sum += SampleValue();
    EXPECT_EQ(sum.to_uint64_t(), 3u);
    EXPECT_EQ((SampleValue(3UL) + SampleValue(0.5)).type(), SampleValue::Double);
    EXPECT_EQ((SampleValue(3UL) + SampleValue(-5L)).to_int64_t(), -2);

    // Unsigned minus more than it holds is negative, not a huge number.
    const SampleValue difference = SampleValue(3UL) - 5L;
    EXPECT_EQ(difference.to_int64_t(), -2);
    EXPECT_EQ(SampleValue::max(SampleValue(0L), difference).to_int64_t(), 0);
    EXPECT_TRUE((SampleValue() - SampleValue()).empty());

    EXPECT_EQ((SampleValue(7UL) / 2).to_uint64_t(), 3u);
    EXPECT_EQ((SampleValue(-7L) / 2u).to_int64_t(), -3);
    EXPECT_EQ((SampleValue(7.0) / 2).to_double(), 3.5);
    EXPECT_TRUE((SampleValue(7L) / 0).empty());
    EXPECT_EQ((SampleValue(10UL) * 0.25).to_uint64_t(), 3u); // 2.5 rounds to 3
    EXPECT_EQ((SampleValue(10UL) * -1.0).to_uint64_t(), 0u);
    EXPECT_TRUE((SampleValue() * 2.0).empty());

    EXPECT_TRUE(SampleValue(-1L) < SampleValue(0UL));
    EXPECT_FALSE(SampleValue(1UL << 63) < SampleValue(-1L));
    EXPECT_TRUE(SampleValue() < SampleValue(-100L));
    EXPECT_TRUE(SampleValue(2UL) == SampleValue(2.0));
    EXPECT_EQ(SampleValue::max(SampleValue(), SampleValue(4)).to_int(), 4);

    // At the ends of the ranges: exact where the result fits one of the two
    // integer types, clamped where it fits neither.
    const long lo = std::numeric_limits<long>::min(), hi = std::numeric_limits<long>::max();
    const unsigned long uhi = std::numeric_limits<unsigned long>::max();
    struct Edge
    {
        SampleValue result;
        SampleValue::Type type;
        double value;
    } edges[] = {
        {SampleValue(hi) + SampleValue(1L), SampleValue::UInt, 9223372036854775808.0},
        {SampleValue(lo) + SampleValue(-1L), SampleValue::Int, double(lo)},
        {SampleValue(uhi) + SampleValue(1UL), SampleValue::UInt, double(uhi)},
        {SampleValue(uhi) + SampleValue(-1L), SampleValue::UInt, double(uhi - 1)},
        {SampleValue(lo) - SampleValue(1L), SampleValue::Int, double(lo)},
        {SampleValue(0UL) - SampleValue(lo), SampleValue::UInt, 9223372036854775808.0},
        {SampleValue(lo) / -1, SampleValue::UInt, 9223372036854775808.0},
        {SampleValue(hi) * 4.0, SampleValue::Int, double(hi)},
        {SampleValue(uhi) * 2.0, SampleValue::UInt, double(uhi)},
    };
    for (const Edge& e : edges) {
        EXPECT_EQ(e.result.type(), e.type) << e.value;
        EXPECT_EQ(e.result.to_double(), e.value);
    }
    EXPECT_EQ(SampleValue(1e300).to_int64_t(), hi);
    EXPECT_EQ(SampleValue(-1e300).to_uint64_t(), 0u);
    EXPECT_EQ(SampleValue(std::nan("")).to_int64_t(), 0);
}

TEST(SampleValue, FileAndTextFormsAreExact)
{
    const SampleValue values[] = { SampleValue(), SampleValue(-42L), SampleValue(~0UL), SampleValue(0.1),
                                   SampleValue(-0.0), SampleValue(1e308) };
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    const int fd = file.handle();
    for (const SampleValue& value : values)
        ASSERT_GT(value.writeToFile(fd), 0);
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    for (const SampleValue& value : values) {
        SampleValue read(12345L);
        ASSERT_GT(read.readFromFile(fd), 0);
        EXPECT_EQ(read.type(), value.type());
        EXPECT_EQ(read.rawBits(), value.rawBits());

        SampleValue parsed(1L);
        ASSERT_TRUE(sampleValueFromString(sampleValueToString(value), &parsed));
        EXPECT_EQ(parsed.type(), value.type());
        EXPECT_EQ(parsed.rawBits(), value.rawBits());
    }
    // At the end, and on a cut or unknown record, the reader says -1.
    SampleValue read;
    EXPECT_EQ(read.readFromFile(fd), -1);
    const char cut[] = { SampleValue::Double, 1, 2 };
    const char unknown[] = { 9, 0, 0, 0, 0, 0, 0, 0, 0 };
    for (const auto& bytes : { QByteArray(cut, sizeof cut), QByteArray(unknown, sizeof unknown) }) {
        QTemporaryFile damaged;
        ASSERT_TRUE(damaged.open());
        damaged.write(bytes);
        damaged.flush();
        ASSERT_EQ(lseek(damaged.handle(), 0, SEEK_SET), 0);
        EXPECT_EQ(read.readFromFile(damaged.handle()), -1);
    }
    for (const char* text : { "x", "i:", "i:1.5", "u:-1", "q:1", "d:abc" })
        EXPECT_FALSE(sampleValueFromString(QString::fromLatin1(text), &read)) << text;
}

TEST(MetricDefinitions, BuildFromTheAttributeMap)
{
    const QVariantMap map{
        {QString::fromLatin1(METRIC_CHARS_READ),
         QVariantMap{{"index", 2}, {"sparse", true}, {"divideBySampleTime", "true"}, {"units", "B/s"}}},
        {"peak", QVariantMap{{"onTimeDomain", false}, {"library", "metrics/libpeak.so"}}},
        {"z_clash", QVariantMap{{"index", 2}}},
        {"broken", 17}};

    MetricDefinitions definitions = MetricDefinitions::fromQVariantMap(map);
    EXPECT_EQ(definitions.size(), 3);
    EXPECT_EQ(definitions.getMetricById(QStringLiteral("broken")), nullptr);
    const Metric* read = definitions.getMetricById(QString::fromLatin1(METRIC_CHARS_READ));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->getIndex(), 2u);
    EXPECT_TRUE(read->isSparse());
    EXPECT_TRUE(read->getDivideBySampleTime());
    EXPECT_FALSE(read->getClampPercentages());
    EXPECT_EQ(read->getUnits(), QStringLiteral("B/s"));
    // Metrics without a free index of their own take the lowest free ones.
    EXPECT_EQ(definitions.getMetricIdByIndex(0), QStringLiteral("peak"));
    EXPECT_EQ(definitions.getMetricIdByIndex(1), QStringLiteral("z_clash"));
    EXPECT_TRUE(definitions.getMetricIdByIndex(3).isNull());
    EXPECT_EQ(definitions.getMetricsOnTimeDomain().keys(),
              QList<QString>({ QString::fromLatin1(METRIC_CHARS_READ), QStringLiteral("z_clash") }));

    definitions.makeQuorvexSharedLibraryPathsAbsolute(QStringLiteral("/opt/zor"));
    EXPECT_EQ(definitions.getMetricById(QStringLiteral("peak"))->getSource().library(),
              QStringLiteral("/opt/zor/metrics/libpeak.so"));
    EXPECT_TRUE(MetricDefinitions::fromQVariantMap(definitions.toQVariantMap()) == definitions);
}

TEST(SamplesRanges, Base64FormRoundTripsAndRefusesDamage)
{
    SamplesRanges ranges;
    QMap<QString, SampleValueRange> first;
    first.insert(QStringLiteral("cpu"), SampleValueRange{ SampleValue(0.0), SampleValue(100.0) });
    first.insert(QStringLiteral("rss"), SampleValueRange{ SampleValue(1UL), SampleValue(~0UL) });
    ranges.addSample(first);
    ranges.addSample(QMap<QString, SampleValueRange>());
    const QString text = ranges.toBase64();

    bool ok = false;
    SamplesRanges read = SamplesRanges::fromBase64(text, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(read.numSamples(), 2);
    EXPECT_EQ(read.getSampleRanges(0), first);
    EXPECT_TRUE(read.getSampleRanges(1).isEmpty());
    EXPECT_TRUE(read.getSampleRanges(7).isEmpty());
    EXPECT_TRUE(read.getSampleRanges(-1).isEmpty());

    for (const QString& bad : { QStringLiteral("!!!"), text.left(text.size() - 8), QString(), text + "AAAA" }) {
        SamplesRanges none = SamplesRanges::fromBase64(bad, &ok);
        EXPECT_FALSE(ok) << qPrintable(bad);
        EXPECT_EQ(none.numSamples(), 0);
    }
}

TEST(Sample, CopiesAreIndependentAndRepeatsAreFlagged)
{
    Sample original(MetricDefinitions(), 4);
    original.backendOnly_setTimestamp(10);
    original.backendOnly_addThread(nullptr, 7, ThreadContext(), InstructionQuery(), Sample::MainThread, 100, false);
    original.setMetric(QString::fromLatin1(METRIC_CHARS_READ), SampleValue(5UL));

    Sample repeat(original, true);
    EXPECT_TRUE(repeat.isRepeat());
    repeat.backendOnly_setCpuTime(7, 1);
    repeat.backendOnly_addAllocatedCpuTime(7, 30);
    repeat.backendOnly_addAllocatedCpuTime(7, 12);
    repeat.setMetric(QString::fromLatin1(METRIC_CHARS_READ), SampleValue(6UL));
    repeat.backendOnly_setInstruction(7, InstructionQuery(QStringLiteral("nop"), false));
    repeat.backendOnly_setInstruction(8, InstructionQuery(QStringLiteral("ret"), false)); // no such thread

    EXPECT_EQ(original.backendOnly_cpuTime(7), 100u);
    EXPECT_EQ(original.backendOnly_getAllocatedCpuTime(7), 0u);
    EXPECT_EQ(original.metric(QString::fromLatin1(METRIC_CHARS_READ)).singleValue().to_uint64_t(), 5u);
    EXPECT_TRUE(original.backendOnly_instruction(7).isEmpty());
    EXPECT_EQ(repeat.backendOnly_cpuTime(7), 1u);
    EXPECT_EQ(repeat.backendOnly_getAllocatedCpuTime(7), 42u);
    EXPECT_FALSE(repeat.backendOnly_hasSampleForThread(8));

    Sample plain(repeat, false);
    EXPECT_FALSE(plain.isRepeat());

    // The live threads read as a sorted set, whichever way they were given.
    plain.backendOnly_setLiveThreadList({9, 7, -2, 9});
    EXPECT_EQ(plain.liveTidList(), QVector<int>({-2, 7, 9}));
    EXPECT_EQ(repeat.liveTidList(), QVector<int>());
}

TEST(Sample, TreesAreSharedByCopiesUntilOneChanges)
{
    Sample original;
    ZORPSVModelItem* root = new ZORPSVModelItem;
    new ZORPSVModelItem(root, Position(QStringLiteral("main")));
    original.backendOnly_addThread(root, 1, ThreadContext(), InstructionQuery(), Sample::MainThread, 0, false);

    Sample copy(original, false);
    EXPECT_EQ(copy.psvModel(1), original.psvModel(1));
    ZORPSVModelItem* changed = copy.backendOnly_mutablePsvModel(1);
    ASSERT_TRUE(changed);
    EXPECT_NE(changed, original.psvModel(1));
    new ZORPSVModelItem(changed, Position(QStringLiteral("extra")));
    EXPECT_EQ(changed->childCount(), 2);
    EXPECT_EQ(original.psvModel(1)->childCount(), 1);
    EXPECT_FALSE(copy == original);
    // A tree no copy shares is changed in place.
    EXPECT_EQ(original.backendOnly_mutablePsvModel(1), original.psvModel(1));
    EXPECT_EQ(original.backendOnly_mutablePsvModel(2), nullptr);
}

} // namespace
