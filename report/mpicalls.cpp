#include "mpicalls.h"

#include <QMap>

#include <algorithm>

#include "result.h"
#include "textsummary.h"

MpiCalls::MpiCalls(const Result& result)
{
    // Per call name, each rank's time; a rank without the call counts 0.
    QMap<QString, QMap<int, quint64>> byCall;
    QMap<QString, MpiCallFigures> sums;
    for (const RankResult& rank : result.ranks) {
        MpiRankTime time;
        time.rank = rank.rank();
        for (const MpiCallMetric& call : rank.endMetrics.mpiCallMetrics().calls()) {
            MpiCallFigures& sum = sums[call.name()];
            sum.name = call.name();
            sum.calls += call.value(0).to_uint64_t();
            sum.ns += call.value(1).to_uint64_t();
            sum.bytesSent += call.value(2).to_uint64_t();
            sum.bytesReceived += call.value(3).to_uint64_t();
            byCall[call.name()][time.rank] += call.value(1).to_uint64_t();
            time.ns += call.value(1).to_uint64_t();
            time.calls += call.value(0).to_uint64_t();
        }
        mRanks.append(time);
    }
    std::sort(mRanks.begin(), mRanks.end(), [](const MpiRankTime& a, const MpiRankTime& b) { return a.rank < b.rank; });
    for (auto it = sums.constBegin(); it != sums.constEnd(); ++it) {
        MpiCallTotal total;
        total.sum = *it;
        const QMap<int, quint64>& perRank = byCall[it.key()];
        for (const MpiRankTime& rank : qAsConst(mRanks)) {
            const quint64 ns = perRank.value(rank.rank);
            if (total.leastRank < 0 || ns < total.leastNs) {
                total.leastRank = rank.rank;
                total.leastNs = ns;
            }
            if (total.mostRank < 0 || ns > total.mostNs) {
                total.mostRank = rank.rank;
                total.mostNs = ns;
            }
        }
        mTotals.append(total);
    }
    std::stable_sort(mTotals.begin(), mTotals.end(),
                     [](const MpiCallTotal& a, const MpiCallTotal& b) { return a.sum.ns > b.sum.ns; });
}

QStringList MpiCalls::summaryLines(int top, int width) const
{
    QStringList lines;
    if (isEmpty())
        return lines;
    QString line = QStringLiteral("MPI time per rank:");
    for (const MpiRankTime& rank : mRanks) {
        const QString item = QStringLiteral(" %1: %2").arg(rank.rank).arg(formatDuration(double(rank.ns)));
        if (line.size() + item.size() + 1 > width) {
            lines << line;
            line = QStringLiteral("  ");
        }
        line += item + (&rank != &mRanks.last() ? QStringLiteral(",") : QString());
    }
    lines << line;
    const bool spread = mRanks.size() > 1;
    lines << QStringLiteral("%1 %2 %3 %4 %5 %6")
                 .arg(QStringLiteral("MPI call"), -24)
                 .arg(QStringLiteral("calls"), 9)
                 .arg(QStringLiteral("time"), 10)
                 .arg(spread ? QStringLiteral("least (rank) .. most (rank)") : QString(), spread ? 29 : 0)
                 .arg(QStringLiteral("sent"), 9)
                 .arg(QStringLiteral("received"), 9)
                 .left(width);
    for (int i = 0; i < mTotals.size() && i < top; ++i) {
        const MpiCallTotal& t = mTotals.at(i);
        const QString range = spread ? QStringLiteral("%1 (%2) .. %3 (%4)")
                                           .arg(formatDuration(double(t.leastNs)))
                                           .arg(t.leastRank)
                                           .arg(formatDuration(double(t.mostNs)))
                                           .arg(t.mostRank)
                                     : QString();
        lines << QStringLiteral("%1 %2 %3 %4 %5 %6")
                     .arg(t.sum.name.left(24), -24)
                     .arg(t.sum.calls, 9)
                     .arg(formatDuration(double(t.sum.ns)), 10)
                     .arg(range, spread ? 29 : 0)
                     .arg(formatBytes(t.sum.bytesSent), 9)
                     .arg(formatBytes(t.sum.bytesReceived), 9)
                     .left(width);
    }
    if (mTotals.size() > top)
        lines << QStringLiteral("(%1 more MPI calls)").arg(mTotals.size() - top);
    return lines;
}

QString formatBytes(quint64 bytes)
{
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    double value = double(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 4) {
        value /= 1024;
        ++unit;
    }
    return unit == 0 ? QStringLiteral("%1 B").arg(bytes)
                     : QStringLiteral("%1 %2").arg(value, 0, 'f', value < 10 ? 1 : 0).arg(QLatin1String(units[unit]));
}
