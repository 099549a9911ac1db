#include "intprocessmap.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <random>

namespace {

typedef range<int> R;

// One rank per range, each with its own count: ranges that can't join.
IntProcessMap separateRanks(int count, int firstRank, bool brief)
{
    IntProcessMap map;
    map.setBrief(brief);
    for (int i = 0; i < count; ++i)
        map.set(firstRank + 2 * i, i + 1, true);
    return map;
}

} // namespace

// Splitting, joining and filling gaps: against a plain map below.
TEST(IntProcessMap, TotalsMaximaAndAddingMaps)
{
    IntProcessMap gaps(QStringLiteral("0-1=1,2=6,3-9=1"));
    EXPECT_EQ(gaps.total(), 15);
    EXPECT_EQ(gaps.max(), 6);
    EXPECT_TRUE(gaps.contains(R(0, 10))); // touching ranges of different value
    EXPECT_FALSE(gaps.contains(R(9, 11)));
    gaps.add(CompactSet<int>(QStringLiteral("0-1,8,12")), -1);
    EXPECT_EQ(gaps.toString(), QStringLiteral("0-1=0,2=6,3-7=1,8=0,9=1,12=-1"));

    IntProcessMap sum(QStringLiteral("0-3=2"));
    sum.add(IntProcessMap(QStringLiteral("2-5=1")));
    EXPECT_EQ(sum.toString(), QStringLiteral("0-1=2,2-3=3,4-5=1"));
    sum.add(sum);
    EXPECT_EQ(sum.toString(), QStringLiteral("0-1=4,2-3=6,4-5=2"));
    EXPECT_EQ(IntProcessMap().max(), INT_MIN);
}

TEST(IntProcessMap, MatchesAPlainMapUnderRandomSetAndAdd)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 40; ++round) {
        IntProcessMap map;
        std::map<int, int> reference;
        for (int step = 0; step < 50; ++step) {
            const int b = int(rng() % 60) - 10;
            const int e = b + int(rng() % 10);
            const int value = int(rng() % 3);
            const unsigned op = rng() % 3;
            op == 0 ? map.set(b, e, value, true) : op == 1 ? map.add(R(b, e), value + 1) : map.add(b, value - 1);
            for (int k = b; k < (op == 2 ? b + 1 : e); ++k)
                reference[k] = op == 0 ? value : reference[k] + (op == 1 ? value + 1 : value - 1);

            // Canonical: non-empty, ascending, disjoint, and touching ranges
            // differ in value.
            for (auto it = map.begin(); it != map.end(); ++it) {
                ASSERT_LT(it->first.begin, it->first.end);
                if (it == map.begin())
                    continue;
                const auto before = std::prev(it);
                ASSERT_TRUE(before->first.end < it->first.begin
                            || (before->first.end == it->first.begin && before->second != it->second));
            }
            int total = 0;
            for (const auto& kv : reference) {
                ASSERT_EQ(map.value(kv.first, INT_MIN), kv.second) << "key " << kv.first;
                total += kv.second;
            }
            ASSERT_EQ(map.sizeLowerBound(), int(reference.size()));
            ASSERT_EQ(map.total(), total);
        }
    }
}

TEST(IntProcessMap, MergingKeepsPerRankCountsAndTotals)
{
    // Ranks one by one, plain and brief: every count kept, the total exact,
    // the brief map eliding past ten ranges.
    IntProcessMap plain;
    IntProcessMap brief;
    brief.setBrief(true);
    for (int rank = 0; rank < 40; ++rank) {
        IntProcessMap one;
        one.add(rank, rank % 4 == 3 ? 2 : 1);
        plain.set(one, true);
        brief.set(one, true);
    }
    EXPECT_EQ(plain.rangeCount(), 20);
    EXPECT_EQ(plain.total(), 50);
    EXPECT_TRUE(brief.isElided());
    EXPECT_EQ(brief.rangeCount(), BRIEF_RANGE_LIMIT);
    EXPECT_EQ(brief.sizeLowerBound(), 40);
    EXPECT_EQ(brief.total(), 50);

    // Merging elided maps adds their sizes and totals; a plain map that
    // takes in an elided one becomes elided. The copy merged into is left
    // alone.
    IntProcessMap left = separateRanks(15, 0, true);
    const IntProcessMap right = separateRanks(15, 100, true);
    const IntProcessMap copy(left);
    left.set(right, true);
    EXPECT_EQ(left.sizeLowerBound(), 30);
    EXPECT_EQ(left.total(), 240);
    EXPECT_EQ(copy, separateRanks(15, 0, true));
    IntProcessMap single(QStringLiteral("500=7"));
    single.set(right, true);
    EXPECT_TRUE(single.isElided());
    EXPECT_EQ(single.sizeLowerBound(), 16);
    EXPECT_EQ(single.total(), 127);

    // Something set uncounted makes the figures lower bounds over the ranges.
    left.set(1000, 3, false);
    EXPECT_TRUE(left.countIsLowerBound());
    EXPECT_EQ(left.sizeLowerBound(), BRIEF_RANGE_LIMIT);
}

TEST(IntProcessMap, StringFormReadsBack)
{
    IntProcessMap emptyBrief;
    emptyBrief.setBrief(true);
    const IntProcessMap elided(QStringLiteral("0-3=2,.../>8=40"));
    EXPECT_TRUE(elided.isElided() && elided.countIsLowerBound());
    EXPECT_EQ(elided.count(), 8);
    EXPECT_EQ(IntProcessMap(QStringLiteral("-7--5=-2,-1=3")).total(), -3);
    for (const IntProcessMap& original : {IntProcessMap(QStringLiteral("0-3=2,7=1,/")), elided, separateRanks(14, -3, true),
                                          IntProcessMap(QStringLiteral("-7--5=-2,-1=3")), emptyBrief, separateRanks(14, 0, false)}) {
        const IntProcessMap back(original.toString());
        EXPECT_EQ(back.toString(), original.toString());
        EXPECT_EQ(back, original) << original.toString().toStdString();
        EXPECT_EQ(back.isBrief(), original.isBrief());
        EXPECT_EQ(back.total(), original.total());
        EXPECT_EQ(back.sizeLowerBound(), original.sizeLowerBound());
    }
    // Unreadable numbers count as 0 and the tail ends the reading.
    EXPECT_EQ(IntProcessMap(QStringLiteral("x=3,4=y,/,9=9")).toString(), QStringLiteral("0=3,4=0,/"));
}

TEST(IntProcessMap, RemapMovesKeysAndDropsFlags)
{
    IntProcessMap map(QStringLiteral("0=1,1=2,2-4=3"));
    map.remap(QMap<int, int>{{0, 5}, {1, 5}});
    EXPECT_EQ(map.toString(), QStringLiteral("2-4=3,5=2"));

    IntProcessMap elided = separateRanks(12, 0, true);
    elided.remap(QMap<int, int>{{0, 100}});
    EXPECT_FALSE(elided.isBrief() || elided.isElided());
    EXPECT_EQ(elided.value(100), 1);
    EXPECT_EQ(elided.value(0, -1), -1);
    EXPECT_EQ(elided.rangeCount(), BRIEF_RANGE_LIMIT);

    const IntProcessMap copy(map);
    map.remap(QMap<int, int>{{2, 10}});
    EXPECT_EQ(copy.toString(), QStringLiteral("2-4=3,5=2"));
}

TEST(IntProcessMap, FreshMapsToldOneRankStayApartOnceChanged)
{
    // Fresh maps told the same rank and count share one copy.
    IntProcessMap a, b, c;
    a.add(5, 1);
    b.add(5, 1);
    c.add(6, 1);
    a.add(5, 1);
    b.set(7, 9, 3, true);
    EXPECT_EQ(a.toString(), QStringLiteral("5=2"));
    EXPECT_EQ(b.toString(), QStringLiteral("5=1,7-8=3"));
    EXPECT_EQ(c.toString(), QStringLiteral("6=1"));
    IntProcessMap d;
    d.add(5, 1);
    EXPECT_EQ(d.toString(), QStringLiteral("5=1"));
    EXPECT_EQ(d.total(), 1);
}
