#include "compactset.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

typedef range<int> R;
typedef range<unsigned long long> U;

// [0,1), [2,3), ... : count ranges that neither overlap nor touch.
CompactSet<int> separateRanges(int count, bool brief)
{
    CompactSet<int> set;
    set.setBrief(brief);
    for (int i = 0; i < count; ++i)
        set.insert(R(2 * i, 2 * i + 1), true);
    return set;
}

} // namespace

TEST(CompactSet, MatchesAPlainSetUnderRandomInsertAndErase)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 50; ++round) {
        CompactSet<unsigned long long> set;
        std::set<unsigned long long> reference;
        for (int step = 0; step < 60; ++step) {
            const unsigned long long b = rng() % 80;
            const unsigned long long e = b + rng() % 12;
            const bool erase = rng() % 3 == 0;
            erase ? set.erase(U(b, e)) : set.insert(U(b, e), true);
            for (unsigned long long v = b; v < e; ++v)
                erase ? void(reference.erase(v)) : void(reference.insert(v));
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
    CompactSet<int> original(QStringLiteral("0-3"));
    CompactSet<int> copy(original);
    EXPECT_TRUE(copy.isSharedWith(original));
    copy.setBrief(true);
    EXPECT_FALSE(original.isBrief());
    CompactSet<int> second(original);
    second.insert(R(10, 12), true);
    second.erase(R(0, 1));
    EXPECT_EQ(original.toString(), QStringLiteral("0-3"));

    // minus leaves its operand alone and shares when there is nothing to take.
    CompactSet<unsigned long long> addresses(QStringLiteral("100-199"));
    const CompactSet<unsigned long long> rest = addresses.minus(CompactSet<unsigned long long>(QStringLiteral("150-159")));
    EXPECT_EQ(addresses.toString(), QStringLiteral("100-199"));
    EXPECT_EQ(rest.toString(), QStringLiteral("100-149,160-199"));
    EXPECT_TRUE(addresses.minus(CompactSet<unsigned long long>()).isSharedWith(addresses));
}

TEST(CompactSet, BriefSetsElideAndKeepCounting)
{
    CompactSet<int> set = separateRanges(BRIEF_RANGE_LIMIT, true);
    EXPECT_FALSE(set.isElided());
    // Above every range: counted, not stored.
    set.insert(R(100, 105), true);
    EXPECT_TRUE(set.isElided());
    EXPECT_EQ(set.sizeLowerBound(), 15);
    EXPECT_FALSE(set.contains(100));
    // Below the last range: it takes the last range's place.
    set.insert(R(-3, -2), true);
    EXPECT_EQ(set.rangeCount(), BRIEF_RANGE_LIMIT);
    EXPECT_TRUE(set.contains(-3) && !set.contains(18));
    // An overlap is counted again: the count runs ahead of the ranges.
    set.insert(R(0, 1), true);
    EXPECT_EQ(set.sizeLowerBound(), 17);
    // Once something goes uncounted the size is only what the ranges hold.
    set.insert(R(200, 300), false);
    EXPECT_TRUE(set.countIsLowerBound());
    EXPECT_EQ(set.sizeLowerBound(), 10);
    EXPECT_FALSE(separateRanges(30, false).isElided());

    // A set merged into a brief one counts once; a plain set that takes in an
    // elided one becomes elided with both sizes in its count; an empty one
    // simply shares it.
    CompactSet<int> brief = separateRanges(6, true);
    brief.insert(CompactSet<int>(QStringLiteral("100-101,103-104,106-107,109-110,112-113,115-116,118-119")), true);
    EXPECT_TRUE(brief.isElided());
    EXPECT_EQ(brief.sizeLowerBound(), 6 + 14);
    CompactSet<int> plain(QStringLiteral("1000-1009"));
    const CompactSet<int> elided = separateRanges(12, true);
    plain.insert(elided, true);
    EXPECT_TRUE(plain.isElided() && plain.isBrief() && !plain.contains(1000));
    EXPECT_EQ(plain.sizeLowerBound(), 12 + 10);
    CompactSet<int> empty;
    empty.insert(elided, true);
    EXPECT_TRUE(empty.isSharedWith(elided));
}

TEST(CompactSet, StringFormReadsBack)
{
    // Written sets read back equal, plain and elided alike. The string form
    // doesn't carry the brief flag, so compare what it does carry.
    CompactSet<int> big = separateRanges(15, true);
    big.insert(R(-10, -5), true);
    const CompactSet<int> elided(QStringLiteral("0-3,.../>42"));
    EXPECT_TRUE(elided.isElided() && elided.countIsLowerBound() && !elided.isBrief());
    EXPECT_EQ(elided.count(), 42);
    for (const CompactSet<int>& original : {separateRanges(15, false), big, elided, CompactSet<int>(QStringLiteral("-5--2,4"))}) {
        CompactSet<int> back;
        ASSERT_TRUE(back.fromString(original.toString(), nullptr)) << original.toString().toStdString();
        EXPECT_TRUE(std::equal(back.begin(), back.end(), original.begin(), original.end()));
        EXPECT_EQ(back.isElided(), original.isElided());
        EXPECT_EQ(back.sizeLowerBound(), original.sizeLowerBound());
        EXPECT_EQ(back.toString(), original.toString());
    }

    // Taken as written: no joining. A count of 0 after the dots means the
    // stored size. The tail ends the parse.
    EXPECT_EQ(CompactSet<int>(QStringLiteral("0-1,2")).rangeCount(), 2);
    EXPECT_EQ(CompactSet<int>(QStringLiteral("0-3,.../0")).sizeLowerBound(), 4);
    const CompactSet<int> bound(QStringLiteral("3,/>,junk"));
    EXPECT_TRUE(bound.countIsLowerBound() && bound.rangeCount() == 1);

    // Bad tokens: reported, and what came before stays.
    QString bad;
    CompactSet<int> set;
    EXPECT_FALSE(set.fromString(QStringLiteral("a"), &bad));
    EXPECT_EQ(bad, QStringLiteral("a"));
    EXPECT_FALSE(set.fromString(QStringLiteral("1,,2"), &bad));
    EXPECT_TRUE(bad.isEmpty());
    EXPECT_EQ(set.toString(), QStringLiteral("1"));
}
