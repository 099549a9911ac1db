// SelfProfile and the node's memory facts against real processes: this
// test as the back-end, a sleeping child as the debugger, and a target that
// goes away during the phase.
#include <QFile>
#include <QThread>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "childprocess.h"
#include "command.h"
#include "envswitch.h"
#include "fakehost.h"
#include "preloadsamplesourceutils.h"
#include "selfprofile.h"

namespace {

typedef PreloadSampleSourceUtils Utils;

// VmRSS of a process in kiB, as the kernel words it in the status file.
long vmRss(int pid)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    }
    return -1;
}

QStringList capturedMessages;

void captureMessage(QtMsgType, const QMessageLogContext&, const QString& message)
{
    capturedMessages.append(message);
}

void setReportSwitch(const char* value)
{
    unsetenv("KLB_TIME_ZOR_BACKEND");
    unsetenv("QUORVEX_TIME_ZOR_BACKEND");
    if (value)
        setenv("ZOR_TIME_ZOR_BACKEND", value, 1);
    else
        unsetenv("ZOR_TIME_ZOR_BACKEND");
    ++g_cacheSerial;
}

class SelfProfileTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        capturedMessages.clear();
        previousHandler = qInstallMessageHandler(captureMessage);
        host.rank = 3;
        host.self = int(getpid());
    }
    void TearDown() override
    {
        qInstallMessageHandler(previousHandler);
        setReportSwitch(nullptr);
    }

    FakeHost host;
    QtMessageHandler previousHandler = nullptr;
};

TEST(RssForPid, AgreesWithTheKernelAndIsZeroForAGoneProcess)
{
    const long rss = SelfProfile::rssForPid(int(getpid()));
    EXPECT_GT(rss, 0);
    EXPECT_NEAR(double(rss), double(vmRss(int(getpid()))), 1024.0);

    ChildProcess child;
    EXPECT_GT(SelfProfile::rssForPid(child.pid()), 0);
    child.makeZombie();
    EXPECT_EQ(SelfProfile::rssForPid(child.pid()), 0);
    child.reap();
    EXPECT_EQ(SelfProfile::rssForPid(child.pid()), 0);
}

TEST_F(SelfProfileTest, MeasuresTimeGrowthAndTheNode)
{
    ChildProcess debugger;
    auto target = std::make_unique<ChildProcess>();
    host.debuggerProcess = debugger.pid();
    host.target = target->pid();
    const long debuggerRss = SelfProfile::rssForPid(debugger.pid());
    const long targetRss = SelfProfile::rssForPid(target->pid());
    ASSERT_GT(targetRss, 0);

    SelfProfile profile(host, QStringLiteral("40.decodeReturnAddresses"));
    // 64 MiB touched page by page, and a target that goes away.
    const size_t grown = 64u << 20;
    std::vector<char> memory(grown);
    for (size_t i = 0; i < grown; i += 4096)
        memory[i] = char(i);
    target.reset();
    QThread::msleep(30);
    const SelfProfilePoint point = profile.finish(17);

    EXPECT_EQ(point.rank(), 3);
    EXPECT_EQ(point.name(), QStringLiteral("40.decodeReturnAddresses"));
    EXPECT_GE(point.value(SelfProfilePoint::ElapsedMs).to_int(), 30);
    EXPECT_GT(point.value(SelfProfilePoint::StartSelfRssKib).to_int64_t(), 0);
    EXPECT_GE(point.value(SelfProfilePoint::SelfGrowthKib).to_int64_t(), 60 * 1024);
    // A child that has just started may still be mapping its libraries.
    EXPECT_NEAR(double(point.value(SelfProfilePoint::StartDebuggerRssKib).to_int64_t()), double(debuggerRss), 1024.0);
    EXPECT_NEAR(double(point.value(SelfProfilePoint::DebuggerGrowthKib).to_int64_t()), 0.0, 1024.0);
    // A target that has gone counts as 0, so all it had is lost.
    const long long startTarget = point.value(SelfProfilePoint::StartTargetRssKib).to_int64_t();
    EXPECT_NEAR(double(startTarget), double(targetRss), 1024.0);
    EXPECT_GT(startTarget, 0);
    EXPECT_EQ(point.value(SelfProfilePoint::TargetGrowthKib).to_int64_t(), -startTarget);
    const long long total = point.value(SelfProfilePoint::SystemMemoryTotal).to_int64_t();
    const long long used = point.value(SelfProfilePoint::SystemMemoryUsed).to_int64_t();
    EXPECT_GT(total, 0);
    EXPECT_GT(used, 0);
    EXPECT_LT(used, total);
    EXPECT_EQ(point.value(SelfProfilePoint::Elements).to_int(), 17);
    EXPECT_EQ(point.value(SelfProfilePoint::Elements).type(), SampleValue::Int);
    EXPECT_TRUE(capturedMessages.isEmpty()) << capturedMessages.join('\n').toStdString();
}

TEST_F(SelfProfileTest, TheSwitchPrintsOneReportLine)
{
    setReportSwitch("off");
    SelfProfile quiet(host, QStringLiteral("quiet"));
    quiet.finish(1);
    EXPECT_TRUE(capturedMessages.isEmpty());

    setReportSwitch("1");
    SelfProfile phase(host, QStringLiteral("70.decodeLeafAddresses"));
    const SelfProfilePoint point = phase.finish(42);
    ASSERT_EQ(capturedMessages.size(), 1);
    const QString line = capturedMessages.first();
    const QString expectedStart = QStringLiteral("SelfProfile:  \"70.decodeLeafAddresses\" %1 ms, self = %2 kiB ( ")
                                      .arg(point.value(SelfProfilePoint::ElapsedMs).to_int())
                                      .arg(point.value(SelfProfilePoint::StartSelfRssKib).to_int64_t());
    EXPECT_TRUE(line.startsWith(expectedStart)) << line.toStdString();
    EXPECT_TRUE(line.contains(QStringLiteral("), debugger = 0 kiB ( 0 ), target = 0 kiB ( 0 ), sysmem = ")))
        << line.toStdString();
    EXPECT_TRUE(line.endsWith(QStringLiteral(" kiB, 42 elements"))) << line.toStdString();
}

TEST(SysMemInfo, ParsesTheLinesThatCount)
{
    const QStringList lines = {
        QStringLiteral("MemTotal:        1000 kB"), QStringLiteral("MemFree:          300 kB"),
        QStringLiteral("MemAvailable:     900 kB"), QStringLiteral("Buffers:           50 kB"),
        QStringLiteral("Cached:           150 kB"), QStringLiteral("SwapCached:       999 kB"),
        QStringLiteral("MemFree:          200 kB"), QString(),
    };
    unsigned long long total = 0;
    unsigned long long free = 0;
    Utils::parseSysMemInfo(lines, total, free);
    EXPECT_EQ(total, 1000u);
    // The later MemFree line wins; SwapCached and MemAvailable don't count.
    EXPECT_EQ(free, 400u);
    EXPECT_EQ(Utils::calcSysMemUsage(lines), 60);

    total = 7;
    Utils::parseSysMemInfo(QStringList{ QStringLiteral("MemFree: 5 kB") }, total, free);
    EXPECT_EQ(total, 7u);
    EXPECT_EQ(free, 5u);
}

TEST(SysMemInfo, UsageIsZeroWhenTheLinesDontTell)
{
    EXPECT_EQ(Utils::calcSysMemUsage(QStringList()), 0);
    EXPECT_EQ(Utils::calcSysMemUsage({ QStringLiteral("MemTotal: 100 kB"), QStringLiteral("MemFree: 150 kB") }), 0);
    EXPECT_EQ(Utils::calcSysMemUsage({ QStringLiteral("MemTotal: 100 kB"), QStringLiteral("Cached: 100 kB") }), 0);
    EXPECT_EQ(Utils::calcSysMemUsage({ QStringLiteral("MemTotal: 300 kB"), QStringLiteral("MemFree: 1 kB") }), 99);
}

TEST(SysMemInfo, ReadsThisNode)
{
    const QStringList lines = Utils::readSysMemInfo();
    ASSERT_FALSE(lines.isEmpty());
    EXPECT_TRUE(lines.first().startsWith(QStringLiteral("MemTotal:")));
    EXPECT_TRUE(lines.last().isEmpty());
    const short usage = Utils::calcSysMemUsage(lines);
    EXPECT_GT(usage, 0);
    EXPECT_LT(usage, 100);
}

} // namespace
