// MPI figures per rank and per call in the summary and the HTML page, from
// the call records that each rank sends at the end of a run.
#include "htmlreport.h"
#include "mpicalls.h"
#include "profile.h"
#include "resultbuilder.h"
#include "textsummary.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace {

// Rank r: a barrier that waits less on every later rank, an allreduce of
// 128 bytes per call alike on all; rank 2 also sent one message.
Result threeRanks()
{
    Result result = exampleResult(3);
    for (int r = 0; r < 3; ++r) {
        MpiCallMetrics calls(r);
        calls.addCall(MpiCallMetric(r, "MPI_Init", SampleValue(1UL), SampleValue(5000000UL), SampleValue(0UL), SampleValue(0UL)));
        calls.addCall(MpiCallMetric(r, "MPI_Barrier", SampleValue(20UL), SampleValue((3UL - r) * 100000000UL),
                                    SampleValue(0UL), SampleValue(0UL)));
        calls.addCall(MpiCallMetric(r, "MPI_Allreduce", SampleValue(20UL), SampleValue(10000000UL),
                                    SampleValue(2560UL), SampleValue(2560UL)));
        if (r == 2)
            calls.addCall(MpiCallMetric(r, "MPI_Send", SampleValue(1UL), SampleValue(2000UL), SampleValue(3UL << 20),
                                        SampleValue(0UL)));
        result.ranks[r].endMetrics.setMpiCallMetrics(calls);
    }
    return result;
}

TEST(MpiCalls, PerRankAndPerCallWithTheSpreadOverRanks)
{
    const MpiCalls calls(threeRanks());
    ASSERT_EQ(calls.ranks().size(), 3);
    // Rank 0 waits 300 ms in the barrier, rank 2 100 ms; all 15 ms elsewhere.
    EXPECT_EQ(calls.ranks()[0].ns, 315000000u);
    EXPECT_EQ(calls.ranks()[2].ns, 115002000u);
    EXPECT_EQ(calls.ranks()[2].calls, 42u);

    QStringList order;
    for (const MpiCallTotal& t : calls.totals())
        order << t.sum.name;
    EXPECT_EQ(order.join(' '), "MPI_Barrier MPI_Allreduce MPI_Init MPI_Send");
    const MpiCallTotal& barrier = calls.totals()[0];
    EXPECT_EQ(barrier.sum.calls, 60u);
    EXPECT_EQ(barrier.sum.ns, 600000000u);
    EXPECT_EQ(barrier.leastRank, 2);
    EXPECT_EQ(barrier.mostRank, 0);
    const MpiCallTotal& send = calls.totals()[3];
    EXPECT_EQ(send.leastRank, 0) << "a rank that never sent spent the least";
    EXPECT_EQ(send.leastNs, 0u);
    EXPECT_EQ(send.sum.bytesSent, 3u << 20);

    EXPECT_TRUE(MpiCalls(exampleResult(2)).isEmpty());
}

TEST(MpiCalls, InTheSummaryAndOnThePage)
{
    const Result result = threeRanks();
    const Profile profile(result);
    const QString text = textSummary(profile, 3);
    for (const QString& line : text.split('\n'))
        EXPECT_LE(line.size(), SummaryWidth) << qPrintable(line);
    for (const char* expected : {"MPI time per rank: 0: 315 ms, 1: 215 ms, 2: 115 ms",
                                 "MPI_Barrier                     60     600 ms      100 ms (2) .. 300 ms (0)       0 B       0 B",
                                 "MPI_Allreduce                   60    30.0 ms",
                                 "7.5 KiB   7.5 KiB", "(1 more MPI calls)"})
        EXPECT_TRUE(text.contains(QLatin1String(expected))) << expected << "\n" << qPrintable(text);

    const QString page = QString::fromUtf8(QJsonDocument(htmlReportData(profile)).toJson(QJsonDocument::Compact));
    for (const char* expected : {"[\"Rank 1: time in MPI calls\",\"215 ms in 41 calls\"]",
                                 "[\"MPI_Send\",\"2 us in 1 calls, 3.0 MiB sent, 0 B received; least 0 us on rank 0, "
                                 "most 2 us on rank 2\"]"})
        EXPECT_TRUE(page.contains(QLatin1String(expected))) << expected;
}

} // namespace
