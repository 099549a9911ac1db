// SelfProfile and the node's memory facts against real processes: this
// test as the back-end, a sleeping child as the debugger, and a target that
// goes away during the phase. Zombies and gone processes: procinfo_test.
#include <QFile>
#include <QThread>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "childprocess.h"
#include "fakehost.h"
#include "preloadsamplesourceutils.h"
#include "selfprofile.h"
#include "testenv.h"

namespace {

typedef PreloadSampleSourceUtils Utils;

// VmRSS of a process in kiB, as the kernel words it in the status file.
double vmRss(int pid)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    const QByteArray status = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    const int at = status.indexOf("VmRSS:");
    return at < 0 ? -1 : status.mid(at + 6, status.indexOf(" kB", at) - at - 6).trimmed().toDouble();
}

QStringList capturedMessages;

class SelfProfileTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        previousHandler = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) { capturedMessages.append(message); });
        capturedMessages.clear();
        setSwitch("ZOR_TIME_ZOR_BACKEND", QString());
        host.rank = 3;
        host.self = int(getpid());
    }
    void TearDown() override { qInstallMessageHandler(previousHandler); }

    FakeHost host;
    QtMessageHandler previousHandler = nullptr;
};

TEST_F(SelfProfileTest, MeasuresTimeGrowthAndTheNode)
{
    ChildProcess debugger;
    auto target = std::make_unique<ChildProcess>();
    host.debuggerProcess = debugger.pid();
    host.target = target->pid();
    const double debuggerRss = vmRss(debugger.pid());
    const double targetRss = vmRss(target->pid());
    ASSERT_GT(targetRss, 0);

    SelfProfile profile(host, QStringLiteral("40.decodeReturnAddresses"));
    // 64 MiB touched page by page, and a target that goes away.
    std::vector<char> memory(64u << 20);
    for (size_t i = 0; i < memory.size(); i += 4096)
        memory[i] = char(i);
    target.reset();
    QThread::msleep(30);
    const SelfProfilePoint point = profile.finish(17);
    auto value = [&point](SelfProfilePoint::Value field) { return point.value(field).to_int64_t(); };

    EXPECT_GE(value(SelfProfilePoint::ElapsedMs), 30);
    EXPECT_NEAR(value(SelfProfilePoint::StartSelfRssKib) + value(SelfProfilePoint::SelfGrowthKib), vmRss(int(getpid())), 1024.0);
    EXPECT_GE(value(SelfProfilePoint::SelfGrowthKib), 60 * 1024);
    EXPECT_NEAR(value(SelfProfilePoint::StartDebuggerRssKib), debuggerRss, 1024.0);
    EXPECT_NEAR(value(SelfProfilePoint::DebuggerGrowthKib), 0.0, 1024.0);
    // A target that has gone counts as 0, so all it had is lost.
    EXPECT_NEAR(value(SelfProfilePoint::StartTargetRssKib), targetRss, 1024.0);
    EXPECT_EQ(value(SelfProfilePoint::TargetGrowthKib), -value(SelfProfilePoint::StartTargetRssKib));
    EXPECT_GT(value(SelfProfilePoint::SystemMemoryUsed), 0);
    EXPECT_LT(value(SelfProfilePoint::SystemMemoryUsed), value(SelfProfilePoint::SystemMemoryTotal));
    EXPECT_EQ(value(SelfProfilePoint::Elements), 17);
    EXPECT_TRUE(capturedMessages.isEmpty()) << capturedMessages.join('\n').toStdString();
}

TEST_F(SelfProfileTest, TheSwitchPrintsOneReportLine)
{
    setSwitch("ZOR_TIME_ZOR_BACKEND", QStringLiteral("off"));
    SelfProfile(host, QStringLiteral("quiet")).finish(1);
    EXPECT_TRUE(capturedMessages.isEmpty());
    setSwitch("ZOR_TIME_ZOR_BACKEND", QStringLiteral("1"));
    const SelfProfilePoint point = SelfProfile(host, QStringLiteral("70.decodeLeafAddresses")).finish(42);
    ASSERT_EQ(capturedMessages.size(), 1);
    // One line that names the phase and ends with what it handled.
    const QString line = capturedMessages.first();
    EXPECT_TRUE(line.contains(QStringLiteral("\"70.decodeLeafAddresses\" %1 ms").arg(point.value(SelfProfilePoint::ElapsedMs).to_int())))
        << line.toStdString();
    EXPECT_TRUE(line.endsWith(QStringLiteral(" kiB, 42 elements"))) << line.toStdString();
}

TEST(SysMemInfo, ParsesTheLinesThatCountAndReadsThisNode)
{
    // The later MemFree line wins; SwapCached and MemAvailable don't count.
    const QStringList lines = QStringLiteral("MemTotal: 1000 kB\nMemFree: 300 kB\nMemAvailable: 900 kB\nBuffers: 50 kB\n"
                                             "Cached: 150 kB\nSwapCached: 999 kB\nMemFree: 200 kB\n").split(QLatin1Char('\n'));
    unsigned long long total = 0, free = 0;
    Utils::parseSysMemInfo(lines, total, free);
    EXPECT_EQ(QString::number(total) + QLatin1Char('/') + QString::number(free), QStringLiteral("1000/400"));
    EXPECT_EQ(Utils::calcSysMemUsage(lines), 60);
    // Usage is 0 when the lines don't tell.
    EXPECT_EQ(Utils::calcSysMemUsage(QStringList()), 0);
    EXPECT_EQ(Utils::calcSysMemUsage({QStringLiteral("MemTotal: 100 kB"), QStringLiteral("MemFree: 150 kB")}), 0);

    const QStringList node = Utils::readSysMemInfo();
    ASSERT_FALSE(node.isEmpty());
    EXPECT_TRUE(node.first().startsWith(QStringLiteral("MemTotal:")) && node.last().isEmpty());
    // A machine that has nearly all its memory free reads as 0%.
    EXPECT_GE(Utils::calcSysMemUsage(node), 0);
    EXPECT_LT(Utils::calcSysMemUsage(node), 100);
    // The file read in place gives the same total.
    unsigned long long fromLines = 0;
    Utils::parseSysMemInfo(node, fromLines, free);
    ASSERT_TRUE(Utils::readSysMem(total, free));
    EXPECT_EQ(total, fromLines);
    EXPECT_NEAR(Utils::sysMemUsage(total, free), Utils::calcSysMemUsage(node), 2);
}

} // namespace
