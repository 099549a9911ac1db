// Builds results like those a run of zor-example sends back, for tests of
// the reports and of `zor report`.
#ifndef ZOR_TESTS_RESULTBUILDER_H
#define ZOR_TESTS_RESULTBUILDER_H

#include <QMap>
#include <QString>
#include <QStringList>

#include "result.h"

struct ThreadSpec
{
    int tid;
    Sample::ThreadType type;
    unsigned long long cpuNs;
    // Below the program frame, outermost first: "function" or
    // "function@file:line". The first is the class frame: the main
    // function's for the main thread, the entry's copy for other threads,
    // unless it is a bracketed class name.
    QStringList frames;
    bool sleeping = false;
    QString instruction = QStringLiteral("addq");
    QMap<QString, unsigned long> metrics = {};
};

Sample makeSample(int rank, long long timeMs, const QList<ThreadSpec>& threads, const QString& program = QStringLiteral("app"));

// One rank shaped like a run of zor-example: `count` samples over
// `durationMs`; the main thread splits its time 50 : 30 : 20 between
// spin_alpha, spin_beta and spin_gamma, a worker 75 : 25 between
// spin_delta and spin_epsilon and waits through the first fifth of the run.
// The main thread runs vaddpd in spin_alpha, imulq in spin_beta and movq in
// spin_gamma, the worker addq.
RankResult exampleRank(int rank, int count = 100, long long durationMs = 2000);
Result exampleResult(int ranks = 1);

#endif
