#include "flatindex.h"
#include "metric.h"
#include "preloadsamplesourceutils.h"
#include "samplefilebuilder.h"
#include "ssamplelist.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using Utils = PreloadSampleSourceUtils;

TEST(PreloadSampleSourceUtils, TimeConversionsClampAndScale)
{
    // No borrow between the fields: the nanosecond part truncates on its own.
    EXPECT_EQ(Utils::msFromTimespec(timespec{2, 0}, timespec{1, 999999999}), 1);
    EXPECT_EQ(Utils::msFromTimespec(timespec{1, 0}, timespec{0, 999999}), 1000);
    EXPECT_EQ(Utils::msFromTimespec(timespec{0, 0}, timespec{3, 0}), -3000);
    EXPECT_EQ(Utils::nsFromTimespec(timespec{100000, 5}), 100000000000005LL);
    for (const auto& [in, out] : {std::pair<double, double>{-0.5, 0}, {42.5, 42.5}, {100, 100}, {250, 100},
                                  {std::nan(""), 100}})
        EXPECT_EQ(Utils::clampPercentage(in), out) << in;
    EXPECT_EQ(Utils::calculateScaleUpFactor(timespec{0, 500000000}), 2.0);
    EXPECT_EQ(Utils::calculateScaleUpFactor(timespec{0, 0}), 1.0);
    EXPECT_DOUBLE_EQ(Utils::calculateScaleUpFactor(timespec{4, 0}), 0.25);
}

namespace {

const long E = -1; // no value

// Six samples of 1 to 6 ms with a row of values for each metric: 0 a sparse
// rate, 1 a sparse level, 2 a plain rate, 3 sparse but not shown over time.
// Sample 2's value of metric 0 may carry an interval of its own. Corrected
// on construction.
struct SparseList
{
    SparseList(const std::vector<std::vector<long>>& rows, timespec ownInterval = {0, 0})
    {
        for (unsigned m = 0; m < 4; ++m) {
            Metric metric(QString::number(m), m);
            metric.setSparse(m != 2);
            metric.setDivideBySampleTime(m == 0 || m == 2);
            metric.setOnTimeDomain(m != 3);
            definitions.addMetric(metric);
        }
        srand48_r(1, &random);
        list.reset(new quorvex::SSampleList(6, 0, random));
        list->setMetricCount(4);
        for (int i = 0; i < 6; ++i) {
            bool downsampled = false;
            const timespec interval = {0, (i + 1) * 1000000L};
            quorvex::SSample* s = list->createSample(zortest::makeBacktraceData({1}), timespec{i, 0}, interval,
                                                     interval, downsampled, false, 1, {1}, timespec{0, 0}, false);
            for (unsigned m = 0; m < rows.size(); ++m)
                if (rows[m][static_cast<size_t>(i)] != E)
                    s->metrics().setMetric(m, quorvex::SMetric(SampleValue(rows[m][static_cast<size_t>(i)]),
                                                               m == 0 && i == 2 ? ownInterval : timespec{0, 0},
                                                               m == 0 || m == 2 ? quorvex::SMetric::DivideBySampleInterval
                                                                                : quorvex::SMetric::NoNormalisation));
        }
        PreloadSampleSourceUtils::correctSparseMetrics(list.get(), definitions);
    }

    std::vector<long> values(unsigned metric) const
    {
        std::vector<long> out;
        for (unsigned i = 0; i < list->size(); ++i) {
            const SampleValue v = at(i).getMetricValue(metric);
            out.push_back(v.empty() ? E : v.to_int64_t());
        }
        return out;
    }
    const quorvex::SMetrics& at(unsigned sample) const { return list->at(sample).metrics(); }

    drand48_data random;
    std::unique_ptr<quorvex::SSampleList> list;
    MetricDefinitions definitions;
};

using Values = std::vector<long>;

} // namespace

TEST(CorrectSparseMetrics, SpreadsRatesCopiesLevelsAndLeavesTheOthers)
{
    // Rates by interval: 1+2+3 ms share 600, 4+5+6 ms share 1500.
    const SparseList f({{E, E, 600, E, E, 1500}, {E, E, 7, E, E, 9}, {E, E, 600, E, E, E}, {E, E, 600, E, E, E}});
    EXPECT_EQ(f.values(0), (Values{100, 200, 300, 400, 500, 600}));
    EXPECT_EQ(f.values(1), (Values{7, 7, 7, 9, 9, 9}));
    EXPECT_EQ(f.values(2), (Values{E, E, 600, E, E, E}));
    EXPECT_EQ(f.values(3), (Values{E, E, 600, E, E, E}));
    EXPECT_TRUE(f.at(0).shouldDivideBySampleInterval(0));
    EXPECT_EQ(f.at(0).getMetricInterval(0).tv_nsec, 0);
    EXPECT_FALSE(f.at(3).shouldDivideBySampleInterval(1));

    // The first sample's value stays; a value spreads by the intervals
    // before it, its own sample's where it has one: 2 ms against 2 ms.
    const SparseList g({{5, E, 90, E, E, E}}, timespec{0, 2000000});
    EXPECT_EQ(g.values(0), (Values{5, 45, 45, E, E, E}));
    EXPECT_EQ(g.at(2).getMetricInterval(0).tv_nsec, 2000000);
    EXPECT_EQ(g.at(1).getMetricInterval(0).tv_nsec, 0);
    EXPECT_EQ(g.values(1), Values(6, E));
}

// Objects that held one place in turn (an MPI library's components): the
// one there at the end wins, then the transient ones, the latest first, then
// those gone since the start. A line cut short loses the whole list.
TEST(PreloadSampleSourceUtils, ObjectsThatHeldOnePlaceInTurnGiveWayToTheLatest)
{
    QTemporaryDir dir;
    const QString self = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    for (const char* name : {"kept", "gone", "early", "late"})
        ASSERT_TRUE(QFile::link(self, dir.filePath(QLatin1String(name))));
    const QString path = dir.filePath(QStringLiteral("run.modules"));
    const QByteArray text = "# zor modules 1: load address, build id, loaded|added|removed, path\n"
                            "0x200000000000 - added " + QFile::encodeName(dir.filePath(QStringLiteral("kept"))) + "\n"
                            "0x300000000000 - removed " + QFile::encodeName(dir.filePath(QStringLiteral("gone"))) + "\n"
                            "0x300000000000 - transient " + QFile::encodeName(dir.filePath(QStringLiteral("early"))) + "\n"
                            "0x300000000000 - transient " + QFile::encodeName(dir.filePath(QStringLiteral("late"))) + "\n";
    for (const bool cut : {false, true}) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(cut ? text.left(text.size() - 1) : text);
        file.close();
        const QList<SharedLibrary> debuggers = {SharedLibrary(QStringLiteral("/bin/program"), 0x1000, 0x9000)};
        QStringList names;
        for (const SharedLibrary& library : Utils::withModules(debuggers, Utils::readModulesList(path)))
            names << QFileInfo(library.path()).fileName();
        EXPECT_EQ(names.join(QLatin1Char(' ')).toStdString(), cut ? "program" : "program kept late");
    }
}

// Values survive every growth of the table, small pages and huge ones alike
// (slots of 32 bytes pass 2 MB at 65,536 of them), and the keys of the slot
// marker and its neighbours are kept apart.
TEST(FlatTable, KeepsEveryValueAsItGrowsOntoHugePages)
{
    struct Named
    {
        QString name;
        quint64 spare[1];
    };
    static_assert(sizeof(Named) == 16, "");
    FlatTable<Named> table;
    const int count = 70000;
    const std::uint64_t keys[] = {0, 1, ~std::uint64_t(0), ~std::uint64_t(0) - 1};
    for (std::uint64_t key : keys)
        table.insert(key).name = QString::number(key);
    for (int i = 0; i < count; ++i)
        table.insert(0x400000 + 16 * std::uint64_t(i)).name = QString::number(i);
    table.reserve(3 * count);
    EXPECT_EQ(table.size(), size_t(count) + 3); // the marker's key is kept apart
    for (std::uint64_t key : keys) {
        ASSERT_NE(table.find(key), nullptr) << key;
        EXPECT_EQ(table.find(key)->name, QString::number(key));
    }
    for (int i = 0; i < count; i += 7) {
        ASSERT_NE(table.find(0x400000 + 16 * std::uint64_t(i)), nullptr) << i;
        EXPECT_EQ(table.find(0x400000 + 16 * std::uint64_t(i))->name, QString::number(i));
    }
    EXPECT_EQ(table.find(0x400008), nullptr);
    table.clear();
    EXPECT_EQ(table.find(0x400000), nullptr);
    EXPECT_EQ(table.find(~std::uint64_t(0)), nullptr);
}
