#include "selfprofile.h"

#include <QDebug>
#include <QFile>
#include <unistd.h>

#include "envswitch.h"
#include "preloadsamplesourceutils.h"
#include "tharninterface.h"

SelfProfile::SelfProfile(TharnInterface& host, const QString& name)
    : name(name)
    , host(&host)
    , startSelfRss(rssForPid(host.selfPid()))
    , startDebuggerRss(rssForPid(host.debuggerPid()))
    , startTargetRss(rssForPid(host.targetPid()))
{
    timer.start();
}

long SelfProfile::pageSize()
{
    static const long size = sysconf(_SC_PAGESIZE);
    return size;
}

long SelfProfile::rssForPid(int pid)
{
    QFile file(QStringLiteral("/proc/%1/statm").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = file.readAll().split(' ');
    if (fields.size() < 2)
        return 0;
    return long(fields.at(1).toLongLong() * pageSize() / 1024);
}

SelfProfilePoint SelfProfile::finish(int elements)
{
    const int elapsed = timer.elapsed();
    const long selfGrowth = rssForPid(host->selfPid()) - startSelfRss;
    const long debuggerGrowth = rssForPid(host->debuggerPid()) - startDebuggerRss;
    const long targetGrowth = rssForPid(host->targetPid()) - startTargetRss;

    unsigned long long total = 0;
    unsigned long long free = 0;
    PreloadSampleSourceUtils::readSysMem(total, free);
    const unsigned long long used = total - free;

    static EnvSwitch report("TIME_ZOR_BACKEND");
    if (report.isOn()) {
        qDebug() << "SelfProfile: " << name << elapsed << "ms,"
                 << "self =" << startSelfRss << "kiB" << "(" << selfGrowth << "),"
                 << "debugger =" << startDebuggerRss << "kiB" << "(" << debuggerGrowth << "),"
                 << "target =" << startTargetRss << "kiB" << "(" << targetGrowth << "),"
                 << "sysmem =" << used << "/" << total << "kiB," << elements << "elements";
    }

    return SelfProfilePoint(host->processRank(), name, SampleValue(elapsed), SampleValue(startSelfRss),
                            SampleValue(selfGrowth), SampleValue(startDebuggerRss), SampleValue(debuggerGrowth),
                            SampleValue(startTargetRss), SampleValue(targetGrowth), SampleValue(long(total)),
                            SampleValue(long(used)), SampleValue(elements));
}
