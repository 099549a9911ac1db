// Runs with the exact storage policy, chosen before any backtrace exists.
#include "samplefilebuilder.h"
#include "ssimplebacktrace.h"

#include <gtest/gtest.h>

using namespace quorvex;
using namespace zortest;

TEST(ExactPolicy, StorageFollowsTheTraceSize)
{
    SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyExact);
    SSimpleBacktrace bt;
    bt.set(makeBacktraceData({1, 2, 3}), 1);
    EXPECT_EQ(bt.trace().capacity(), 4u);
    const unsigned long* storage = bt.trace().data();
    bt.set(makeBacktraceData({4, 5, 6}), 1);
    EXPECT_EQ(bt.trace().data(), storage);
    EXPECT_EQ(bt.trace(), (backtrace_t{4, 5, 6}));
    bt.set(makeBacktraceData({7}), 1);
    EXPECT_EQ(bt.trace().capacity(), 2u);
    bt.set(makeBacktraceData({}), 1);
    EXPECT_EQ(bt.trace().capacity(), 0u);
}
