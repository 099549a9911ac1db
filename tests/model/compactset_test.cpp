#include "compactset.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

namespace {

typedef range<int> R;
typedef range<unsigned long long> U;

std::vector<R> rangesOf(const CompactSet<int>& set)
{
    return std::vector<R>(set.begin(), set.end());
}

std::vector<R> list(std::initializer_list<R> ranges)
{
    return std::vector<R>(ranges);
}

CompactSet<int> separateRanges(int count, bool brief)
{
    // [0,1), [2,3), ... : count ranges that neither overlap nor touch.
    CompactSet<int> set;
    set.setBrief(brief);
    for (int i = 0; i < count; ++i)
        set.insert(R(2 * i, 2 * i + 1), true);
    return set;
}

} // namespace

TEST(CompactSet, InsertJoinsTouchingAndOverlappingRanges)
{
    const struct
    {
        std::vector<R> inserts;
        const char* expected;
    } cases[] = {
        {{R(0, 1), R(1, 2)}, "0-1"},                   // touching
        {{R(5, 8), R(7, 10)}, "5-9"},                  // overlapping
        {{R(5, 8), R(2, 5)}, "2-7"},                   // touching on the right
        {{R(0, 2), R(5, 10), R(2, 5)}, "0-9"},         // bridging two ranges
        {{R(0, 10), R(5, 6)}, "0-9"},                  // already inside
        {{R(2, 3), R(5, 6), R(0, 10)}, "0-9"},         // covering several
        {{R(4, 6), R(4, 9), R(4, 5)}, "4-8"},          // same begin
        {{R(0, 2), R(8, 9), R(4, 5), R(3, 3)}, "0-1,4,8"},
    };
    for (const auto& c : cases) {
        CompactSet<int> set;
        for (const R& r : c.inserts)
            set.insert(r, true);
        EXPECT_EQ(set.toString(), QString::fromLatin1(c.expected));
    }
}

TEST(CompactSet, EraseSplitsAndTrims)
{
    // Erasing in general is checked against a plain set below.
    CompactSet<unsigned long long> set;
    set.insert(U(0, 10), true);
    set.erase(U(3, 4));
    EXPECT_EQ(set.rangeCount(), 2);
    EXPECT_TRUE(set.contains(U(0, 3)) && set.contains(U(4, 10)));
    EXPECT_FALSE(set.contains(U(2, 5)));
    EXPECT_EQ(set.end_upper_bound(U(0, 1)), set.begin());
    EXPECT_EQ(set.end_upper_bound(U(0, 3)), std::next(set.begin()));
}

TEST(CompactSet, MatchesAPlainSetUnderRandomInsertAndErase)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 50; ++round) {
        CompactSet<unsigned long long> set;
        std::set<unsigned long long> reference;
        for (int step = 0; step < 60; ++step) {
            const unsigned long long b = rng() % 80;
            const unsigned long long e = b + rng() % 12;
            if (rng() % 3 == 0) {
                set.erase(U(b, e));
                for (unsigned long long v = b; v < e; ++v)
                    reference.erase(v);
            } else {
                set.insert(U(b, e), true);
                for (unsigned long long v = b; v < e; ++v)
                    reference.insert(v);
            }
            // Canonical: non-empty, ascending, neither overlapping nor touching.
            for (auto it = set.begin(); it != set.end(); ++it) {
                ASSERT_LT(it->begin, it->end);
                ASSERT_TRUE(it == set.begin() || std::prev(it)->end < it->begin);
            }
            ASSERT_EQ(set.sizeLowerBound(), int(reference.size()));
            for (unsigned long long v = 0; v < 95; ++v)
                ASSERT_EQ(set.contains(v), reference.count(v) == 1) << "value " << v;
        }
    }
}

TEST(CompactSet, CopiesAreIsolated)
{
    CompactSet<int> original;
    original.insert(R(0, 4), true);
    CompactSet<int> copy(original);
    EXPECT_TRUE(copy.isSharedWith(original));

    copy.insert(R(10, 12), true);
    copy.setBrief(true);
    EXPECT_EQ(rangesOf(original), list({R(0, 4)}));
    EXPECT_FALSE(original.isBrief());

    // minus leaves its operand alone and shares when there is nothing to take.
    CompactSet<unsigned long long> addresses;
    addresses.insert(U(100, 200), true);
    CompactSet<unsigned long long> taken;
    taken.insert(U(150, 160), true);
    const CompactSet<unsigned long long> rest = addresses.minus(taken);
    EXPECT_TRUE(addresses.contains(U(100, 200)));
    EXPECT_FALSE(rest.contains(155ULL));
    EXPECT_EQ(rest.sizeLowerBound(), 90);
    EXPECT_TRUE(addresses.minus(CompactSet<unsigned long long>()).isSharedWith(addresses));
}

TEST(CompactSet, BriefSetElidesAndCounts)
{
    CompactSet<int> set = separateRanges(BRIEF_RANGE_LIMIT, true);
    EXPECT_FALSE(set.isElided());
    EXPECT_EQ(set.sizeLowerBound(), 10);

    // Above every range: counted, not stored.
    set.insert(R(100, 105), true);
    EXPECT_TRUE(set.isElided());
    EXPECT_EQ(set.rangeCount(), BRIEF_RANGE_LIMIT);
    EXPECT_EQ(set.sizeLowerBound(), 15);
    EXPECT_FALSE(set.contains(100));

    // Below the last range: it takes the last range's place.
    set.insert(R(-3, -2), true);
    EXPECT_EQ(set.rangeCount(), BRIEF_RANGE_LIMIT);
    EXPECT_TRUE(set.contains(-3));
    EXPECT_FALSE(set.contains(18));
    EXPECT_EQ(set.sizeLowerBound(), 16);

    // An overlap is counted again: the count runs ahead of the ranges.
    set.insert(R(0, 1), true);
    EXPECT_EQ(set.sizeLowerBound(), 17);

    // Once something goes uncounted the size is only what the ranges hold.
    set.insert(R(200, 300), false);
    EXPECT_TRUE(set.countIsLowerBound());
    EXPECT_EQ(set.sizeLowerBound(), 10);

    // A plain set never elides.
    CompactSet<int> plain = separateRanges(30, false);
    EXPECT_EQ(plain.rangeCount(), 30);
    EXPECT_FALSE(plain.isElided());
}

TEST(CompactSet, InsertingSetsKeepsTotalsAndSpreadsModes)
{
    // Merging a set into a brief one counts the other set's size once.
    CompactSet<int> brief = separateRanges(6, true); // 0,2,..,10
    CompactSet<int> other;
    for (int i = 0; i < 8; ++i)
        other.insert(R(100 + 3 * i, 100 + 3 * i + 2), true);
    brief.insert(other, true);
    EXPECT_TRUE(brief.isElided());
    EXPECT_EQ(brief.sizeLowerBound(), 6 + 16);
    EXPECT_EQ(brief.rangeCount(), BRIEF_RANGE_LIMIT);

    // A plain set that takes in an elided one becomes elided, with both
    // sizes in its count.
    CompactSet<int> plain;
    plain.insert(R(1000, 1010), true);
    CompactSet<int> elided = separateRanges(12, true);
    ASSERT_TRUE(elided.isElided());
    plain.insert(elided, true);
    EXPECT_TRUE(plain.isElided());
    EXPECT_TRUE(plain.isBrief());
    EXPECT_EQ(plain.sizeLowerBound(), 12 + 10);
    EXPECT_FALSE(plain.contains(1000));

    // An empty set simply shares it.
    CompactSet<int> empty;
    empty.insert(elided, true);
    EXPECT_TRUE(empty.isSharedWith(elided));

    CompactSet<int> self = separateRanges(3, false);
    self.insert(self, true);
    EXPECT_EQ(self.sizeLowerBound(), 3);
}

TEST(CompactSet, StringFormReadsBack)
{
    EXPECT_EQ(rangesOf(CompactSet<int>(QStringLiteral("0-3,7"))), list({R(0, 4), R(7, 8)}));
    CompactSet<int> elided(QStringLiteral("0-3,.../>42"));
    EXPECT_TRUE(elided.isElided());
    EXPECT_FALSE(elided.isBrief());
    EXPECT_TRUE(elided.countIsLowerBound());
    EXPECT_EQ(elided.count(), 42);

    // Written sets read back equal, plain and elided alike. The string form
    // doesn't carry the brief flag, so compare what it does carry.
    CompactSet<int> big = separateRanges(15, true);
    big.insert(R(-10, -5), true);
    for (const CompactSet<int>& original : {separateRanges(15, false), big, elided, CompactSet<int>(QStringLiteral("-5--2,4"))}) {
        CompactSet<int> back;
        ASSERT_TRUE(back.fromString(original.toString(), nullptr)) << original.toString().toStdString();
        EXPECT_EQ(rangesOf(back), rangesOf(original));
        EXPECT_EQ(back.isElided(), original.isElided());
        EXPECT_EQ(back.sizeLowerBound(), original.sizeLowerBound());
        EXPECT_EQ(back.toString(), original.toString());
    }

    // Taken as written: no joining. A count of 0 after the dots means the
    // stored size. The tail ends the parse.
    EXPECT_EQ(CompactSet<int>(QStringLiteral("0-1,2")).rangeCount(), 2);
    EXPECT_EQ(CompactSet<int>(QStringLiteral("0-3,.../0")).sizeLowerBound(), 4);
    CompactSet<int> bound;
    EXPECT_TRUE(bound.fromString(QStringLiteral("3,/>,junk"), nullptr));
    EXPECT_TRUE(bound.countIsLowerBound());
    EXPECT_EQ(bound.rangeCount(), 1);
    CompactSet<int> slash;
    slash.setBrief(true);
    EXPECT_TRUE(slash.fromString(QStringLiteral("/"), nullptr));
    EXPECT_FALSE(slash.isBrief() || slash.isElided() || slash.countIsLowerBound());
}

TEST(CompactSet, StringFormRejectsBadTokens)
{
    QString bad = QStringLiteral("unset");
    CompactSet<int> set;
    EXPECT_FALSE(set.fromString(QStringLiteral("a"), &bad));
    EXPECT_EQ(bad, QStringLiteral("a"));
    CompactSet<int> gap;
    EXPECT_FALSE(gap.fromString(QStringLiteral("1,,2"), &bad));
    EXPECT_TRUE(bad.isEmpty());
    EXPECT_EQ(rangesOf(gap), list({R(1, 2)})); // what came before stays
}
