#include "htmlreport.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include "mpicalls.h"
#include "profile.h"
#include "textsummary.h"

// Outside any namespace, as the resource initialiser must be.
static void initReportResources()
{
    Q_INIT_RESOURCE(report);
}

namespace {

const int TimelineBuckets = 200;
// Nodes below this share of the CPU time are left out of the page's tree,
// which keeps the page small for programs with deep, wide trees.
const double PruneShare = 1e-4;
const int PageNameWidth = 100;

qint64 us(quint64 ns)
{
    return qint64((ns + 500) / 1000);
}

QJsonObject node(const Profile& profile, const PSVModelItem* item, quint64 floorNs);

// The children that `item` shows, those of a child that echoes it in the
// child's place; `selfNs` gets the echoes' own time.
void addChildren(const Profile& profile, const PSVModelItem* item, quint64 floorNs, QJsonArray* children,
                 quint64* selfNs)
{
    for (const PSVModelItem* child : profile.sortedChildren(item)) {
        if (profile.time(child).totalNs < floorNs || profile.time(child).totalNs == 0)
            continue;
        if (echoesParent(child)) {
            *selfNs += profile.time(child).selfNs;
            addChildren(profile, child, floorNs, children, selfNs);
        } else {
            children->append(node(profile, child, floorNs));
        }
    }
}

QJsonObject node(const Profile& profile, const PSVModelItem* item, quint64 floorNs)
{
    const NodeTime t = profile.time(item);
    QJsonObject o;
    o.insert(QStringLiteral("n"), item->position().function);
    if (!item->position().file.isEmpty())
        o.insert(QStringLiteral("f"), item->position().file);
    if (item->position().line > 0)
        o.insert(QStringLiteral("l"), item->position().line);
    QJsonArray children;
    quint64 selfNs = t.selfNs;
    addChildren(profile, item, floorNs, &children, &selfNs);
    o.insert(QStringLiteral("t"), us(t.totalNs));
    o.insert(QStringLiteral("s"), us(selfNs));
    o.insert(QStringLiteral("r"), item->processToThreadCountMap().toString());
    if (!children.isEmpty())
        o.insert(QStringLiteral("c"), children);
    return o;
}

QJsonArray pair(const QString& name, const QString& value)
{
    return QJsonArray{ name, value };
}

QJsonArray metrics(const Profile& profile)
{
    const Result& result = profile.result();
    QJsonArray rows;
    rows.append(pair(QStringLiteral("Started"), result.run.started.toString(Qt::ISODate)));
    rows.append(pair(QStringLiteral("Exit status"),
                     result.run.exitSignal > 0 ? QStringLiteral("%1 (killed by signal %2)").arg(result.run.exitStatus).arg(result.run.exitSignal)
                                               : QString::number(result.run.exitStatus)));
    rows.append(pair(QStringLiteral("Samples"), samplingFacts(result).text));
    for (const InstructionClassShare& share : profile.instructionMix())
        rows.append(pair(QStringLiteral("CPU time running %1 instructions").arg(share.name),
                         QStringLiteral("%1% (%2)").arg(share.percent).arg(share.examples.join(QLatin1String(", ")))));
    const QMap<int, double> mpi = profile.mpiShare();
    for (auto it = mpi.constBegin(); it != mpi.constEnd(); ++it)
        rows.append(pair(QStringLiteral("Rank %1: main thread in MPI").arg(it.key()), formatPercent(*it, 1)));
    const MpiCalls mpiCalls(result);
    if (!mpiCalls.isEmpty()) {
        for (const MpiRankTime& rank : mpiCalls.ranks())
            rows.append(pair(QStringLiteral("Rank %1: time in MPI calls").arg(rank.rank),
                             QStringLiteral("%1 in %2 calls").arg(formatDuration(double(rank.ns))).arg(rank.calls)));
        for (const MpiCallTotal& call : mpiCalls.totals()) {
            QString text = QStringLiteral("%1 in %2 calls, %3 sent, %4 received")
                               .arg(formatDuration(double(call.sum.ns)))
                               .arg(call.sum.calls)
                               .arg(formatBytes(call.sum.bytesSent), formatBytes(call.sum.bytesReceived));
            if (mpiCalls.ranks().size() > 1)
                text += QStringLiteral("; least %1 on rank %2, most %3 on rank %4")
                            .arg(formatDuration(double(call.leastNs)))
                            .arg(call.leastRank)
                            .arg(formatDuration(double(call.mostNs)))
                            .arg(call.mostRank);
            rows.append(pair(call.sum.name, text));
        }
    }
    const UnwindFigures unwind = profile.unwindFigures();
    rows.append(pair(QStringLiteral("Stacks that didn't unwind"),
                     QStringLiteral("%1 of %2").arg(unwind.failed).arg(unwind.threadSamples)));
    for (auto it = unwind.byCode.constBegin(); it != unwind.byCode.constEnd(); ++it)
        rows.append(pair(QStringLiteral("Unwind status %1").arg(it.key()), QString::number(*it)));
    for (const RankResult& rank : result.ranks) {
        const QString prefix = result.ranks.size() > 1 ? QStringLiteral("Rank %1: ").arg(rank.rank()) : QString();
        rows.append(pair(prefix + QStringLiteral("samples taken"), QString::number(rank.play.sampleCount())));
        const QMap<QString, SampleValue> values = rank.play.metrics();
        for (auto it = values.constBegin(); it != values.constEnd(); ++it)
            rows.append(pair(prefix + it.key(), QString::number(it->to_double(), 'g', 10)));
        for (const auto& errors : rank.metricErrors.errors()) {
            for (const MetricError& error : errors)
                rows.append(pair(prefix + QStringLiteral("error in %1").arg(error.metric()), error.message()));
        }
    }
    return rows;
}

} // namespace

QJsonObject htmlReportData(const Profile& profile)
{
    const RunInfo& run = profile.result().run;
    QJsonObject data;
    data.insert(QStringLiteral("title"), QFileInfo(run.program).fileName());
    data.insert(QStringLiteral("commandLine"), run.commandLine());
    data.insert(QStringLiteral("durationMs"), double(profile.durationMs()));
    data.insert(QStringLiteral("cpuUs"), double(us(profile.cpuNs())));
    data.insert(QStringLiteral("ranks"), profile.rankCount());
    data.insert(QStringLiteral("threads"), profile.threadCount());
    data.insert(QStringLiteral("facts"), QJsonArray::fromStringList(runFacts(profile)));
    data.insert(QStringLiteral("notes"), QJsonArray::fromStringList(runNotes(profile)));

    const quint64 floorNs = quint64(double(profile.cpuNs()) * PruneShare);
    data.insert(QStringLiteral("tree"), node(profile, profile.tree(), floorNs));

    QJsonArray rows;
    for (const ActivityRow& row : profile.activity(TimelineBuckets, true)) {
        QJsonArray busy;
        for (double b : row.busy)
            busy.append(int(b * 100 + 0.5));
        QJsonObject o;
        o.insert(QStringLiteral("rank"), row.rank);
        o.insert(QStringLiteral("label"), row.label);
        o.insert(QStringLiteral("threads"), row.threads);
        o.insert(QStringLiteral("tid"), row.tid);
        o.insert(QStringLiteral("cpuUs"), double(us(row.cpuNs)));
        o.insert(QStringLiteral("busy"), busy);
        rows.append(o);
    }
    data.insert(QStringLiteral("timeline"), rows);

    QJsonArray functions;
    for (const FunctionFigure& f : profile.functions(100)) {
        functions.append(QJsonObject{ { QStringLiteral("n"), f.function },
                                      { QStringLiteral("f"), f.file },
                                      { QStringLiteral("l"), f.line },
                                      { QStringLiteral("s"), double(us(f.selfNs)) },
                                      { QStringLiteral("t"), double(us(f.totalNs)) } });
    }
    data.insert(QStringLiteral("functions"), functions);
    // Long C++ names are shown short on the page, whole in their tooltips.
    QJsonObject shortNames;
    for (const FunctionFigure& f : profile.functions()) {
        if (f.function.size() > PageNameWidth)
            shortNames.insert(f.function, shortFunctionName(f.function, PageNameWidth));
    }
    data.insert(QStringLiteral("short"), shortNames);
    QJsonArray lines;
    for (const LineFigure& l : profile.lines(100)) {
        lines.append(QJsonObject{ { QStringLiteral("n"), l.function },
                                  { QStringLiteral("f"), l.file },
                                  { QStringLiteral("l"), l.line },
                                  { QStringLiteral("s"), double(us(l.selfNs)) } });
    }
    data.insert(QStringLiteral("lines"), lines);
    data.insert(QStringLiteral("metrics"), metrics(profile));
    return data;
}

QByteArray htmlReport(const Profile& profile)
{
    initReportResources();
    QFile page(QStringLiteral(":/zor/report.html"));
    if (!page.open(QIODevice::ReadOnly))
        qFatal("the report's page template is missing from the program");
    QByteArray html = page.readAll();
    // Inside a script element "</script" or "<!--" would end or bend it; no
    // "<" is left, and JSON reads the escape back.
    QByteArray json = QJsonDocument(htmlReportData(profile)).toJson(QJsonDocument::Compact);
    json.replace('<', "\\u003c");
    const QByteArray marker("/*ZOR-DATA*/");
    const int at = html.indexOf(marker);
    Q_ASSERT(at >= 0);
    html.replace(at, marker.size(), json);
    return html;
}
