#include "intprocessmap.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <random>

namespace {

typedef range<int> R;

QString text(const IntProcessMap& map)
{
    return map.toString();
}

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

TEST(IntProcessMap, SetSplitsJoinsAndCuts)
{
    IntProcessMap map;
    map.set(0, 10, 1, true);
    map.set(5, 6, 2, true);
    EXPECT_EQ(text(map), QStringLiteral("0-4=1,5=2,6-9=1"));

    IntProcessMap same;
    same.set(0, 10, 1, true);
    same.set(5, 6, 1, true);
    EXPECT_EQ(same.rangeCount(), 1);

    IntProcessMap touching;
    touching.set(5, 10, 1, true);
    touching.set(0, 5, 1, true);
    EXPECT_EQ(text(touching), QStringLiteral("0-9=1"));
    touching.set(10, 12, 2, true);
    EXPECT_EQ(text(touching), QStringLiteral("0-9=1,10-11=2"));

    // Overlapping both neighbours with a third value cuts each of them.
    IntProcessMap cut(QStringLiteral("0-4=1,5-9=2"));
    cut.set(3, 7, 3, true);
    EXPECT_EQ(text(cut), QStringLiteral("0-2=1,3-6=3,7-9=2"));
    // And with the left neighbour's value it joins that one.
    cut.set(2, 8, 1, true);
    EXPECT_EQ(text(cut), QStringLiteral("0-7=1,8-9=2"));

    EXPECT_TRUE(cut.contains(R(0, 10)));  // touching ranges of different value
    cut.set(12, 13, 4, true);
    EXPECT_FALSE(cut.contains(R(9, 13))); // a gap
    EXPECT_TRUE(cut.contains(R(3, 3)));
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
            switch (rng() % 3) {
            case 0:
                map.set(b, e, value, true);
                for (int k = b; k < e; ++k)
                    reference[k] = value;
                break;
            case 1:
                map.add(R(b, e), value + 1);
                for (int k = b; k < e; ++k)
                    reference[k] += value + 1;
                break;
            default:
                map.add(b, value - 1);
                reference[b] += value - 1;
                break;
            }
            // Canonical: non-empty, ascending, disjoint, and touching ranges
            // differ in value.
            const R* previous = nullptr;
            int previousValue = 0;
            for (const auto& entry : map) {
                ASSERT_LT(entry.first.begin, entry.first.end);
                if (previous) {
                    ASSERT_GE(entry.first.begin, previous->end);
                    if (entry.first.begin == previous->end) {
                        ASSERT_NE(entry.second, previousValue);
                    }
                }
                previous = &entry.first;
                previousValue = entry.second;
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

TEST(IntProcessMap, AddOverGapsAndTotals)
{
    IntProcessMap map;
    map.add(3, 2);
    EXPECT_EQ(text(map), QStringLiteral("3=2"));
    map.add(3, 2);
    EXPECT_EQ(text(map), QStringLiteral("3=4"));

    IntProcessMap gaps(QStringLiteral("2=5"));
    gaps.add(0, 10, 1);
    EXPECT_EQ(text(gaps), QStringLiteral("0-1=1,2=6,3-9=1"));
    EXPECT_EQ(gaps.total(), 15);
    EXPECT_EQ(gaps.max(), 6);

    CompactSet<int> ranks(QStringLiteral("0-1,8"));
    gaps.add(ranks, -1);
    EXPECT_EQ(text(gaps), QStringLiteral("0-1=0,2=6,3-7=1,8=0,9=1"));

    IntProcessMap sum(QStringLiteral("0-3=2"));
    EXPECT_EQ(sum.total(), 8);
    sum.add(IntProcessMap(QStringLiteral("2-5=1")));
    EXPECT_EQ(text(sum), QStringLiteral("0-1=2,2-3=3,4-5=1"));
    sum.add(sum);
    EXPECT_EQ(text(sum), QStringLiteral("0-1=4,2-3=6,4-5=2"));

    EXPECT_EQ(IntProcessMap().max(), INT_MIN);
}

TEST(IntProcessMap, MergingKeepsPerRankCountsAndTotals)
{
    // Disjoint ranks: the merge keeps every rank's count, the total is the sum.
    IntProcessMap merged;
    for (int rank = 0; rank < 20; ++rank) {
        IntProcessMap one;
        one.add(rank, rank % 4 == 3 ? 2 : 1);
        merged.set(one, true);
    }
    EXPECT_EQ(text(merged), QStringLiteral("0-2=1,3=2,4-6=1,7=2,8-10=1,11=2,12-14=1,15=2,16-18=1,19=2"));
    EXPECT_EQ(merged.total(), 25);

    // A brief map elides past ten ranges and goes on counting exactly.
    IntProcessMap brief;
    brief.setBrief(true);
    int expectedTotal = 0;
    for (int rank = 0; rank < 40; ++rank) {
        IntProcessMap one;
        one.set(rank, rank % 2 + 1, true);
        expectedTotal += rank % 2 + 1;
        brief.set(one, true);
    }
    EXPECT_TRUE(brief.isElided());
    EXPECT_EQ(brief.rangeCount(), BRIEF_RANGE_LIMIT);
    EXPECT_EQ(brief.sizeLowerBound(), 40);
    EXPECT_EQ(brief.total(), expectedTotal);

    // Merging elided maps adds their sizes and totals.
    IntProcessMap left = separateRanks(15, 0, true);
    IntProcessMap right = separateRanks(15, 100, true);
    const int leftTotal = left.total();
    ASSERT_EQ(leftTotal, 120);
    left.set(right, true);
    EXPECT_EQ(left.sizeLowerBound(), 30);
    EXPECT_EQ(left.total(), 240);

    // A plain map that takes in an elided one becomes elided.
    IntProcessMap plain(QStringLiteral("500=7"));
    plain.set(right, true);
    EXPECT_TRUE(plain.isElided());
    EXPECT_EQ(plain.sizeLowerBound(), 16);
    EXPECT_EQ(plain.total(), 127);

    // Something set uncounted makes the figures lower bounds over the ranges.
    left.set(1000, 3, false);
    EXPECT_TRUE(left.countIsLowerBound());
    EXPECT_EQ(left.sizeLowerBound(), BRIEF_RANGE_LIMIT);
}

TEST(IntProcessMap, CopiesAreIsolated)
{
    IntProcessMap original = separateRanks(12, 0, true);
    const QString before = text(original);
    IntProcessMap copy(original);
    EXPECT_TRUE(copy.isSharedWith(original));
    copy.set(200, 9, true);
    EXPECT_EQ(copy.total(), original.total() + 9);
    copy.add(0, 5);
    EXPECT_EQ(copy.value(0), 6);
    EXPECT_EQ(text(original), before);
    EXPECT_EQ(original.value(0), 1);

    IntProcessMap plain(QStringLiteral("0-3=1"));
    IntProcessMap other(plain);
    plain.remap(QMap<int, int>{{0, 10}});
    EXPECT_EQ(text(other), QStringLiteral("0-3=1"));
}

TEST(IntProcessMap, StringFormReadsBack)
{
    EXPECT_EQ(text(IntProcessMap()), QString());
    IntProcessMap emptyBrief;
    emptyBrief.setBrief(true);
    EXPECT_EQ(text(emptyBrief), QStringLiteral("/"));

    IntProcessMap brief(QStringLiteral("0-3=2,7=1,/"));
    EXPECT_TRUE(brief.isBrief());
    EXPECT_FALSE(brief.isElided());

    IntProcessMap elided(QStringLiteral("0-3=2,.../>8=40"));
    EXPECT_TRUE(elided.isElided());
    EXPECT_TRUE(elided.countIsLowerBound());
    EXPECT_EQ(elided.count(), 8);

    IntProcessMap counted = separateRanks(14, -3, true);
    IntProcessMap negative(QStringLiteral("-7--5=-2,-1=3"));
    EXPECT_EQ(negative.value(-6), -2);
    EXPECT_EQ(negative.total(), -3);
    for (const IntProcessMap& original : {brief, elided, counted, negative, emptyBrief, separateRanks(14, 0, false)}) {
        const IntProcessMap back(text(original));
        EXPECT_EQ(text(back), text(original));
        EXPECT_EQ(back, original) << text(original).toStdString();
        EXPECT_EQ(back.total(), original.total());
        EXPECT_EQ(back.sizeLowerBound(), original.sizeLowerBound());
    }

    // Unreadable numbers count as 0 and the tail ends the reading.
    EXPECT_EQ(text(IntProcessMap(QStringLiteral("x=3,4=y,/,9=9"))), QStringLiteral("0=3,4=0,/"));
}

TEST(IntProcessMap, RemapMovesKeysAndDropsFlags)
{
    IntProcessMap map(QStringLiteral("0=1,1=2,2-4=3"));
    map.remap(QMap<int, int>{{0, 5}, {1, 5}});
    EXPECT_EQ(text(map), QStringLiteral("2-4=3,5=2"));

    IntProcessMap elided = separateRanks(12, 0, true);
    elided.remap(QMap<int, int>{{0, 100}});
    EXPECT_FALSE(elided.isBrief());
    EXPECT_FALSE(elided.isElided());
    EXPECT_EQ(elided.value(100), 1);
    EXPECT_EQ(elided.value(0, -1), -1);
    EXPECT_EQ(elided.rangeCount(), BRIEF_RANGE_LIMIT);
}
