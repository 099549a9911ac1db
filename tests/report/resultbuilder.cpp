#include "resultbuilder.h"

#include "constants.h"
#include "zorpsvmodelitem.h"

namespace {

Position positionOf(const QString& frame)
{
    const int at = frame.indexOf(QLatin1Char('@'));
    if (at < 0)
        return Position(frame);
    const QString where = frame.mid(at + 1);
    const int colon = where.lastIndexOf(QLatin1Char(':'));
    return Position(frame.left(at), where.left(colon), where.mid(colon + 1).toInt(), -1);
}

} // namespace

Sample makeSample(int rank, long long timeMs, const QList<ThreadSpec>& threads, const QString& program)
{
    Sample sample(MetricDefinitions(), rank);
    sample.backendOnly_setTimestamp(timeMs);
    QSet<int> live;
    for (const ThreadSpec& spec : threads) {
        ZORPSVModelItem* root = new ZORPSVModelItem;
        root->addThread(rank, false, false);
        ZORPSVModelItem* node = new ZORPSVModelItem(root, Position(program, QString(), -1, -1));
        node->setSpecial(ZORPSVModelItem::specialProgramFrame);
        node->addThread(rank, false, false);
        for (int i = 0; i < spec.frames.size(); ++i) {
            node = new ZORPSVModelItem(node, positionOf(spec.frames.at(i)));
            node->addThread(rank, false, false);
            if (i == 0) {
                if (spec.frames.at(i).startsWith(QLatin1Char('[')))
                    node->setSpecial(ZORPSVModelItem::specialOmpWorker);
                else if (spec.type == Sample::OtherThread)
                    node->setSpecial(ZORPSVModelItem::specialThreadEntry);
                else
                    node->setSpecial(ZORPSVModelItem::specialMainFrame);
            }
        }
        node->addSampleCounts(1, 1, 0, spec.sleeping ? 1 : 0);
        ThreadContext context;
        context.rank = rank;
        context.pid = 1000 + rank;
        sample.backendOnly_addThread(root, spec.tid, context, InstructionQuery(spec.instruction, false), spec.type,
                                     spec.cpuNs, spec.sleeping);
        for (auto it = spec.metrics.constBegin(); it != spec.metrics.constEnd(); ++it)
            sample.backendOnly_setThreadMetric(spec.tid, it.key(), it.value());
        live.insert(spec.tid);
    }
    sample.backendOnly_setLiveThreads(live);
    return sample;
}

RankResult exampleRank(int rank, int count, long long durationMs)
{
    const QString file = QStringLiteral("/src/examples/hotspots.c");
    RankResult result;
    result.play = ProfilerPlayResponse(rank, false, count * 3, durationMs, {}, false, false, false, {});
    const unsigned long long stretchNs = count > 0 ? static_cast<unsigned long long>(durationMs) * 1000000ULL / count : 0;
    const int tidBase = 100 * (rank + 1);
    for (int i = 0; i < count; ++i) {
        const long long t = (2 * i + 1) * durationMs / (2 * count);
        const int main = i % 10;
        const QString mainLeaf = main < 5 ? QStringLiteral("spin_alpha@%1:52")
                                 : main < 8 ? QStringLiteral("spin_beta@%1:53")
                                            : QStringLiteral("spin_gamma@%1:54");
        ThreadSpec mainThread{ tidBase, Sample::MainThread, stretchNs,
                               { QStringLiteral("main@%1:140").arg(file), QStringLiteral("run_plan@%1:90").arg(file),
                                 mainLeaf.arg(file) } };
        mainThread.instruction = main < 5 ? QStringLiteral("vaddpd") : main < 8 ? QStringLiteral("imulq") : QStringLiteral("movq");
        const bool waiting = i < count / 5;
        const QString workerLeaf = i % 4 < 3 ? QStringLiteral("spin_delta@%1:55") : QStringLiteral("spin_epsilon@%1:56");
        ThreadSpec worker{ tidBase + 1, Sample::OtherThread, waiting ? 0ULL : stretchNs,
                           { QStringLiteral("start_thread"), QStringLiteral("start_thread"),
                             QStringLiteral("worker@%1:120").arg(file),
                             waiting ? QStringLiteral("pthread_cond_wait") : workerLeaf.arg(file) },
                           waiting };
        result.samples.append(makeSample(rank, t, { mainThread, worker }, QStringLiteral("zor-example")));
    }
    return result;
}

Result exampleResult(int ranks)
{
    Result result;
    result.run.program = QStringLiteral("./zor-example");
    result.run.arguments = QStringList{ QStringLiteral("--seconds"), QStringLiteral("2") };
    result.run.started = QDateTime(QDate(2026, 11, 25), QTime(15, 0), Qt::UTC);
    result.run.wallMs = 2010;
    for (int rank = 0; rank < ranks; ++rank)
        result.ranks.append(exampleRank(rank));
    return result;
}
