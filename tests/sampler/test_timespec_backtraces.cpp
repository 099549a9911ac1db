#include "recordio.h"
#include "scallsite.h"
#include "ssample.h"
#include "timespec_utils.h"

#include <gtest/gtest.h>

using namespace quorvex;
using namespace zortest;

namespace {
const timespec ZERO = {0, 0};
// Tags, four words, two frames and end tags: one SSimpleBacktrace of two frames.
const long SIMPLE_BYTES = 3 + 4 * 8 + 2 * 8 + 4;
}

TEST(Timespec, ArithmeticCarriesAndBorrows)
{
    timespec a = {0, 999999999};
    timespec_add(a, timespec{0, 1});
    EXPECT_TRUE(timespec_equal(a, timespec{1, 0}));
    timespec_subtract(a, timespec{0, 1});
    EXPECT_TRUE(timespec_equal(a, timespec{0, 999999999}));
    EXPECT_FALSE(timespec_less_than(timespec{3, 5}, timespec{3, 5}));
    EXPECT_TRUE(timespec_less_than(timespec{3, 5}, timespec{3, 6}));
    EXPECT_TRUE(timespec_less_than(timespec{2, 999999999}, timespec{3, 0}));
    EXPECT_DOUBLE_EQ(timespec_toDouble(timespec{1, 500}), 1000000500.0);
}

// The assertion report carries file, line, signature and expression, and
// the process ends whatever the build type.
TEST(TimespecDeathTest, UnnormalisedOperandEndsTheProcessWithAFullReport)
{
    timespec bad = {0, ONE_SECOND_NS};
    EXPECT_DEATH(timespec_add(bad, ZERO),
                 "ZOR: .*timespec_utils\\.cpp:[0-9]+: void quorvex::timespec_add\\(timespec&, const timespec&\\): "
                 "Assertion `a\\.tv_nsec < ONE_SECOND_NS' failed\\.");
}

TEST(SSimpleBacktrace, GrowingPolicyKeepsCapacityAndLocksOnceABacktraceExists)
{
    EXPECT_EQ(SSimpleBacktrace::storagePolicy(), SSimpleBacktrace::StoragePolicyGrowing);
    SSimpleBacktrace bt;
    bt.set(makeBacktraceData({1, 2, 3}), 7);
    const size_t capacity = bt.trace().capacity();
    bt.set(makeBacktraceData({}), 7);
    EXPECT_TRUE(bt.trace().empty());
    EXPECT_EQ(bt.trace().capacity(), capacity);
    bt.invalidate();
    EXPECT_DEATH(bt.tid(), "Assertion `mValid' failed");
    EXPECT_DEATH(SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyExact),
                 "ZOR: Unable to change backtrace storage policy\n.*Assertion `false' failed");
}

TEST(SSimpleBacktrace, FileForm)
{
    SSimpleBacktrace in, out;
    in.set(makeBacktraceData({0xffffffffffffffffUL, 0x401000}, -3, true), -1);
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(out.tid(), -1);
    EXPECT_EQ(out.unwindStatus(), -3);
    EXPECT_TRUE(out.stopsAtCallingFrame());
    EXPECT_EQ(out.trace(), in.trace());
    TempFile file;
    writeRecord(file, in);
    EXPECT_EQ(file.contents().size(), static_cast<size_t>(SIMPLE_BYTES));

    // Cut short: false, and the record that was valid is left invalid.
    writeTruncated(file, in, 10);
    EXPECT_FALSE(readRecord(file, out));
    EXPECT_FALSE(out.isValid());

    writePatched(file, in, 1, 'x');
    EXPECT_DEATH(readRecord(file, out), "Assertion `obuff\\[1\\] == 'b'' failed");
    writePatched(file, in, 3 + 8 + 8, 2); // the calling-frame flag
    EXPECT_DEATH(readRecord(file, out), "Assertion `stopsAtCallingFrame==0 \\|\\| stopsAtCallingFrame==1' failed");
}

TEST(SBacktraceDeathTest, BadInMpiWordIsAnAssertion)
{
    SBacktrace in, out;
    in.set(makeBacktraceData({10, 20}), true, 42, timespec{3, 999999999}, true);
    TempFile file;
    writePatched(file, in, SIMPLE_BYTES + 2, 5); // the word right after "bt"
    EXPECT_DEATH(readRecord(file, out), "Assertion `inMpi==0 \\|\\| inMpi==1' failed");
}

TEST(SBacktraceList, PoolGrowthReuseAndDeepCopies)
{
    SBacktraceList list(2);
    auto fill = [&list] {
        for (int i = 0; i < 3; ++i)
            list.addBacktrace(makeBacktraceData({1, 2}), i == 0, 100 + i, timespec{1, i}, false);
    };
    fill();
    EXPECT_TRUE(list.isPreallocated(&list[1]));
    EXPECT_FALSE(list.isPreallocated(&list[2]));
    SBacktrace* third = &list[2];
    list.clear();
    EXPECT_EQ(list.count(), 0u);
    fill();
    EXPECT_EQ(&list[2], third);
    EXPECT_DEATH(list[3], "ZOR: SBacktraceList index out of bounds: 3, size=3");

    SBacktraceList copy(list);
    EXPECT_NE(&copy[0], &list[0]);
    EXPECT_TRUE(copy.isPreallocated(&copy[0]));
    copy[0].cpuTime().tv_sec = 99;
    EXPECT_EQ(list[0].cpuTime().tv_sec, 1);
    SBacktraceList assigned(4);
    assigned = list;
    EXPECT_EQ(compareBacktraces(assigned[2], list[2]), "");
    assigned = assigned;
    EXPECT_EQ(assigned.size(), 3u);
}

// A backtrace whose frames are cut short ends the process rather than
// giving false; the last record's own fields take its last 45 bytes.
TEST(SBacktraceListDeathTest, ABacktraceCutShortIsAnAssertion)
{
    SBacktraceList in(0), out(1);
    for (int i = 0; i < 4; ++i)
        in.addBacktrace(makeBacktraceData({1, 2, 3}), false, i, ZERO, false);
    TempFile file;
    writeTruncated(file, in, 50);
    EXPECT_DEATH(readRecord(file, out), "Assertion `bt->isValid\\(\\)' failed");
}

TEST(SCallSite, RoundTripAndCutShort)
{
    BacktraceData data = makeBacktraceData({0x10, 0x20}, 1);
    SCallSite in(12, -4, &data, 0xfeedfacecafeUL), out, cut;
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(compareCallSites(in, out), "");
    TempFile file;
    writeTruncated(file, in, 1);
    EXPECT_FALSE(readRecord(file, cut));
    EXPECT_DEATH(cut.parallelId(), "Assertion `mValid' failed");
}

TEST(SSampleBacktraceIterator, GivesTheMainThreadFirst)
{
    SSample sample(2);
    sample.makeValid(makeBacktraceData({1}), ZERO, ZERO, ZERO, false, false, 10, {10, 11, 12}, ZERO, false);
    sample.addThreadBacktrace(makeBacktraceData({2}), false, 11, ZERO, false);
    sample.addThreadBacktrace(makeBacktraceData({3}), false, 12, ZERO, false);
    SSampleBacktraceIterator it(sample);
    std::vector<std::pair<int, bool>> seen;
    while (it.hasNext()) {
        const int tid = it.next().tid();
        seen.emplace_back(tid, it.wasMainThread());
    }
    EXPECT_EQ(seen, (std::vector<std::pair<int, bool>>{{10, true}, {11, false}, {12, false}}));
    EXPECT_DEATH(it.next(), "");
}
