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
    const struct
    {
        const char* start;
        int begin, end, value;
        const char* expected;
    } cases[] = {
        {"0-9=1", 5, 6, 2, "0-4=1,5=2,6-9=1"}, // split
        {"0-9=1", 5, 6, 1, "0-9=1"},           // already so
        {"5-9=1", 0, 5, 1, "0-9=1"},           // touching, same value: joined
        {"5-9=1", 0, 5, 2, "0-4=2,5-9=1"},     // touching, other value: apart
        {"0-4=1,5-9=2", 3, 7, 3, "0-2=1,3-6=3,7-9=2"},
        {"0-2=1,3-6=3,7-9=2", 2, 8, 1, "0-7=1,8-9=2"},
    };
    for (const auto& c : cases) {
        IntProcessMap map{QString::fromLatin1(c.start)};
        map.set(c.begin, c.end, c.value, true);
        EXPECT_EQ(text(map), QString::fromLatin1(c.expected)) << c.start;
    }

    const IntProcessMap map(QStringLiteral("0-7=1,8-9=2,12=4"));
    EXPECT_TRUE(map.contains(R(0, 10)));  // touching ranges of different value
    EXPECT_FALSE(map.contains(R(9, 13))); // a gap
    EXPECT_TRUE(map.contains(R(3, 3)));
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
            for (auto it = map.begin(); it != map.end(); ++it) {
                ASSERT_LT(it->first.begin, it->first.end);
                if (it != map.begin()) {
                    const auto before = std::prev(it);
                    ASSERT_TRUE(before->first.end < it->first.begin
                                || (before->first.end == it->first.begin && before->second != it->second));
                }
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
    ASSERT_EQ(left.total(), 120);
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
