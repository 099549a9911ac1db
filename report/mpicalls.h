// The MPI calls of a run, per rank and per call name, from the figures that
// each rank's MPI wrapper counted: the number of calls, the time in them,
// the bytes sent and the bytes received.
#ifndef ZOR_REPORT_MPICALLS_H
#define ZOR_REPORT_MPICALLS_H

#include <QList>
#include <QString>
#include <QStringList>

struct Result;

struct MpiCallFigures
{
    QString name;
    quint64 calls = 0;
    quint64 ns = 0;
    quint64 bytesSent = 0;
    quint64 bytesReceived = 0;
};

// One call name over all ranks: the sums, and the ranks that spent the
// least and the most time in it (a rank that never made the call spent 0).
struct MpiCallTotal
{
    MpiCallFigures sum;
    int leastRank = -1;
    quint64 leastNs = 0;
    int mostRank = -1;
    quint64 mostNs = 0;
};

struct MpiRankTime
{
    int rank = -1;
    quint64 ns = 0;
    quint64 calls = 0;
};

class MpiCalls
{
public:
    explicit MpiCalls(const Result& result);

    bool isEmpty() const { return mTotals.isEmpty(); }
    // Every rank of the run, in rank order, with its time in MPI calls.
    const QList<MpiRankTime>& ranks() const { return mRanks; }
    // Longest total time first.
    const QList<MpiCallTotal>& totals() const { return mTotals; }

    // The terminal summary's part: time per rank, then the `top` longest
    // calls, each line at most `width` columns.
    QStringList summaryLines(int top, int width) const;

private:
    QList<MpiRankTime> mRanks;
    QList<MpiCallTotal> mTotals;
};

QString formatBytes(quint64 bytes);

#endif
