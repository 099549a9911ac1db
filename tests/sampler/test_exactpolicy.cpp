// Runs with the exact storage policy, chosen before any backtrace exists.
#include "samplefilebuilder.h"
#include "ssimplebacktrace.h"

#include <gtest/gtest.h>

using namespace quorvex;
using namespace zortest;

namespace {
const bool g_policyChosen = [] {
    SSimpleBacktrace::setStoragePolicy(SSimpleBacktrace::StoragePolicyExact);
    return true;
}();
}

TEST(ExactPolicy, StorageFollowsTheTraceSize)
{
    ASSERT_TRUE(g_policyChosen);
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
    EXPECT_TRUE(bt.isValid());
    EXPECT_EQ(bt.trace().capacity(), 0u);
}
