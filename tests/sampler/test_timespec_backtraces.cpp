#include "recordio.h"
#include "scallsite.h"
#include "ssample.h"
#include "timespec_utils.h"

#include <gtest/gtest.h>

using namespace quorvex;
using namespace zortest;

namespace {
const timespec ZERO = {0, 0};
}

TEST(Timespec, ArithmeticCarriesAndBorrows)
{
    timespec a = {0, 999999999};
    timespec_add(a, timespec{0, 1});
    EXPECT_EQ(a.tv_sec, 1);
    EXPECT_EQ(a.tv_nsec, 0);

    timespec b = {1, 0};
    timespec_subtract(b, timespec{0, 1});
    EXPECT_EQ(b.tv_sec, 0);
    EXPECT_EQ(b.tv_nsec, 999999999);

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
    timespec negative = {0, -1};
    EXPECT_DEATH(timespec_subtract(negative, ZERO), "Assertion `a\\.tv_nsec >= 0' failed");
    EXPECT_DEATH(timespec_toDouble(negative), "Assertion `a\\.tv_nsec >=0' failed");
}

TEST(SSimpleBacktrace, GrowingPolicyKeepsCapacityForAnEmptyTrace)
{
    EXPECT_EQ(SSimpleBacktrace::storagePolicy(), SSimpleBacktrace::StoragePolicyGrowing);
    SSimpleBacktrace bt;
    bt.set(makeBacktraceData({1, 2, 3}), 7);
    const size_t capacity = bt.trace().capacity();
    bt.set(makeBacktraceData({}), 7);
    EXPECT_TRUE(bt.isValid());
    EXPECT_TRUE(bt.trace().empty());
    EXPECT_EQ(bt.trace().capacity(), capacity);

    bt.invalidate();
    EXPECT_FALSE(bt.isValid());
    EXPECT_DEATH(bt.tid(), "Assertion `mValid' failed");
}

TEST(SSimpleBacktraceDeathTest, PolicyIsLockedOnceABacktraceExists)
{
    SSimpleBacktrace bt;
    EXPECT_DEATH(SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyExact),
                 "ZOR: Unable to change backtrace storage policy\n.*Assertion `false' failed");
}

TEST(SSimpleBacktrace, FileFormRoundTripsSignedAndEmptyValues)
{
    SSimpleBacktrace in;
    in.set(makeBacktraceData({0xffffffffffffffffUL, 0x401000}, -3, true), -1);
    SSimpleBacktrace out;
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(out.tid(), -1);
    EXPECT_EQ(out.unwindStatus(), -3);
    EXPECT_TRUE(out.stopsAtCallingFrame());
    EXPECT_EQ(out.trace(), in.trace());

    SSimpleBacktrace empty;
    empty.set(makeBacktraceData({}, 0), 5);
    ASSERT_TRUE(roundTrip(empty, out));
    EXPECT_TRUE(out.isValid());
    EXPECT_TRUE(out.trace().empty());

    // 3 tag bytes, 4 words, 2 frames, 4 tag bytes.
    TempFile file;
    writeRecord(file, in);
    EXPECT_EQ(file.contents().size(), 3u + 4 * 8 + 2 * 8 + 4);
}

TEST(SSimpleBacktrace, TruncatedRecordReadsFalseAndStaysInvalid)
{
    SSimpleBacktrace in;
    in.set(makeBacktraceData({1, 2, 3}), 9);
    TempFile file;
    writeRecord(file, in);
    truncateBy(file, 10);
    SSimpleBacktrace out;
    out.set(makeBacktraceData({4}), 1);
    EXPECT_FALSE(readRecord(file, out));
    EXPECT_FALSE(out.isValid());
}

TEST(SSimpleBacktraceDeathTest, WrongTagsAndFlagsAreAssertions)
{
    SSimpleBacktrace in;
    in.set(makeBacktraceData({1}), 9);
    TempFile file;
    writeRecord(file, in);
    SSimpleBacktrace out;
    patchByte(file, 1, 'x');
    EXPECT_DEATH(readRecord(file, out), "Assertion `obuff\\[1\\] == 'b'' failed");
    writeRecord(file, in);
    patchByte(file, 3 + 8 + 8, 2); // the calling-frame flag
    EXPECT_DEATH(readRecord(file, out), "Assertion `stopsAtCallingFrame==0 \\|\\| stopsAtCallingFrame==1' failed");
    writeRecord(file, in);
    patchByte(file, file.contents().size() - 4, 'x');
    EXPECT_DEATH(readRecord(file, out), "Assertion `cbuff\\[0\\] == '/'' failed");
}

TEST(SBacktrace, FileFormCarriesThePerThreadFacts)
{
    SBacktrace in;
    in.set(makeBacktraceData({10, 20}, 0, false, -7), true, 42, timespec{3, 999999999}, true);
    SBacktrace out;
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(compareBacktraces(in, out), "");
    EXPECT_EQ(out.parallelId(), -7);

    TempFile file;
    writeRecord(file, in);
    // The in-MPI word sits right after "bt".
    const size_t simpleBytes = 3 + 4 * 8 + 2 * 8 + 4;
    patchByte(file, simpleBytes + 2, 5);
    EXPECT_DEATH(readRecord(file, out), "Assertion `inMpi==0 \\|\\| inMpi==1' failed");
}

TEST(SBacktraceList, GrowsPastThePoolAndReusesObjectsAfterClear)
{
    const timespec cpu = {0, 5};
    SBacktraceList list(2);
    for (int i = 0; i < 3; ++i)
        list.addBacktrace(makeBacktraceData({static_cast<unsigned long>(i)}), false, 100 + i, cpu, false);
    EXPECT_EQ(list.size(), 3u);
    EXPECT_TRUE(list.isPreallocated(&list[0]));
    EXPECT_TRUE(list.isPreallocated(&list[1]));
    EXPECT_FALSE(list.isPreallocated(&list[2]));
    SBacktrace* third = &list[2];

    list.clear();
    EXPECT_EQ(list.count(), 0u);
    for (int i = 0; i < 3; ++i)
        list.addBacktrace(makeBacktraceData({7}), false, i, cpu, false);
    EXPECT_EQ(&list[2], third);

    SBacktraceList unpooled(0);
    unpooled.addBacktrace(makeBacktraceData({7}), false, 1, cpu, false);
    EXPECT_FALSE(unpooled.isPreallocated(&unpooled[0]));

    EXPECT_DEATH(list[3], "ZOR: SBacktraceList index out of bounds: 3, size=3");
}

TEST(SBacktraceList, CopiesShareNoObjects)
{
    SBacktraceList list(1);
    list.addBacktrace(makeBacktraceData({1, 2}), true, 5, timespec{1, 1}, false);
    list.addBacktrace(makeBacktraceData({3}), false, 6, timespec{2, 2}, true);
    SBacktraceList copy(list);
    ASSERT_EQ(copy.size(), 2u);
    EXPECT_NE(&copy[0], &list[0]);
    EXPECT_TRUE(copy.isPreallocated(&copy[0]));
    copy[0].cpuTime().tv_sec = 99;
    EXPECT_EQ(list[0].cpuTime().tv_sec, 1);

    SBacktraceList assigned(4);
    assigned = list;
    EXPECT_EQ(compareBacktraces(assigned[1], list[1]), "");
    assigned = assigned;
    EXPECT_EQ(assigned.size(), 2u);
}

TEST(SBacktraceList, RoundTripAndTruncation)
{
    SBacktraceList in(0);
    for (int i = 0; i < 4; ++i)
        in.addBacktrace(makeBacktraceData({1, 2, static_cast<unsigned long>(i)}, i), i % 2 == 0, i, timespec{0, i},
                        false);
    SBacktraceList out(1);
    ASSERT_TRUE(roundTrip(in, out));
    ASSERT_EQ(out.size(), 4u);
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(compareBacktraces(in[i], out[i]), "") << i;

    // A backtrace whose frames are cut short ends the process rather than
    // giving false; the last record's own fields take its last 45 bytes.
    TempFile file;
    writeRecord(file, in);
    truncateBy(file, 50);
    EXPECT_DEATH(readRecord(file, out), "Assertion `bt->isValid\\(\\)' failed");
}

TEST(SCallSite, RoundTripAndFailedNestedTrace)
{
    BacktraceData data = makeBacktraceData({0x10, 0x20}, 1);
    SCallSite in(12, -4, &data, 0xfeedfacecafeUL);
    SCallSite out;
    ASSERT_TRUE(roundTrip(in, out));
    EXPECT_EQ(compareCallSites(in, out), "");

    TempFile file;
    writeRecord(file, in);
    truncateBy(file, 1);
    SCallSite cut;
    EXPECT_FALSE(readRecord(file, cut));
    EXPECT_FALSE(cut.isValid());
    EXPECT_DEATH(cut.parallelId(), "Assertion `mValid' failed");
}

TEST(SSampleBacktraceIterator, GivesTheMainThreadFirst)
{
    SSample sample(2);
    sample.makeValid(makeBacktraceData({1}), ZERO, ZERO, ZERO, false, false, 10, {10, 11, 12}, ZERO, false);
    sample.addThreadBacktrace(makeBacktraceData({2}), false, 11, ZERO, false);
    sample.addThreadBacktrace(makeBacktraceData({3}), false, 12, ZERO, false);

    SSampleBacktraceIterator it(sample);
    EXPECT_FALSE(it.wasMainThread());
    std::vector<int> tids;
    std::vector<bool> main;
    while (it.hasNext()) {
        tids.push_back(it.next().tid());
        main.push_back(it.wasMainThread());
    }
    EXPECT_EQ(tids, (std::vector<int>{10, 11, 12}));
    EXPECT_EQ(main, (std::vector<bool>{true, false, false}));
    EXPECT_DEATH(it.next(), "");
}
