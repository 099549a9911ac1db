// What the product asks of ProcInfo (a process's parent, the list of all)
// and the resident size SelfProfile measures, against real processes: this
// test, a sleeping child, the same child as a zombie, and after it has been
// reaped.
#include <gtest/gtest.h>
#include <algorithm>
#include <unistd.h>

#include "childprocess.h"
#include "procinfo.h"
#include "selfprofile.h"

namespace {

TEST(ProcInfo, AChildAliveAsAZombieAndGone)
{
    const int self = int(getpid());
    ChildProcess child;
    const int pid = child.pid();
    EXPECT_EQ(ProcInfo::getParent(pid), self);
    const QList<int> all = ProcInfo::getList(0);
    EXPECT_TRUE(all.contains(pid));
    // Only pids: "self", "cpuinfo" and the like never show.
    EXPECT_TRUE(std::all_of(all.begin(), all.end(), [](int p) { return p > 0; }));
    EXPECT_GT(SelfProfile::rssForPid(pid), 0);

    // A zombie keeps its parent, and has no memory left.
    child.makeZombie();
    EXPECT_EQ(ProcInfo::getParent(pid), self);
    EXPECT_EQ(SelfProfile::rssForPid(pid), 0);

    // Gone: the neutral answers.
    child.reap();
    EXPECT_EQ(ProcInfo::getParent(pid), -1);
    EXPECT_FALSE(ProcInfo::getList(0).contains(pid));
    EXPECT_EQ(SelfProfile::rssForPid(pid), 0);

    EXPECT_EQ(ProcInfo::getParent(1), 0); // the root of the tree
}

} // namespace
