// ProcInfo against real processes: this test, a sleeping child, the same
// child as a zombie, and after it has been reaped.
#include <QFileInfo>
#include <gtest/gtest.h>
#include <memory>
#include <pwd.h>
#include <unistd.h>

#include "childprocess.h"
#include "procinfo.h"

namespace {

TEST(ProcInfo, ALiveChild)
{
    ChildProcess child;
    const int pid = child.pid();
    EXPECT_TRUE(ProcInfo::exists(pid));
    EXPECT_TRUE(ProcInfo::alive(pid));
    EXPECT_EQ(ProcInfo::getName(pid), QStringLiteral("sleep"));
    EXPECT_EQ(QFileInfo(ProcInfo::getExe(pid)).fileName(), QStringLiteral("sleep"));
    EXPECT_EQ(ProcInfo::getParent(pid), int(getpid()));
    EXPECT_EQ(ProcInfo::getChild(int(getpid())), pid);
    EXPECT_EQ(ProcInfo::getChild(pid), -1);

    const QList<int> all = ProcInfo::getList(0);
    EXPECT_TRUE(all.contains(pid));
    EXPECT_TRUE(all.contains(int(getpid())));
    EXPECT_TRUE(ProcInfo::getList(1).contains(pid));
}

TEST(ProcInfo, AZombieExistsButIsNotAlive)
{
    ChildProcess child;
    child.makeZombie();
    const int pid = child.pid();
    EXPECT_TRUE(ProcInfo::exists(pid));
    EXPECT_FALSE(ProcInfo::alive(pid));
    EXPECT_EQ(ProcInfo::getParent(pid), int(getpid()));
    // A zombie has no command line left.
    EXPECT_TRUE(ProcInfo::getName(pid).isEmpty());
}

TEST(ProcInfo, AProcessThatHasGoneGivesTheNeutralAnswers)
{
    ChildProcess child;
    const int pid = child.pid();
    child.reap();
    EXPECT_FALSE(ProcInfo::exists(pid));
    EXPECT_FALSE(ProcInfo::alive(pid));
    EXPECT_EQ(ProcInfo::getParent(pid), -1);
    EXPECT_EQ(ProcInfo::getChild(int(getpid())), -1);
    EXPECT_TRUE(ProcInfo::getName(pid).isEmpty());
    EXPECT_TRUE(ProcInfo::getExe(pid).isEmpty());
    EXPECT_FALSE(ProcInfo::getList(0).contains(pid));
}

TEST(ProcInfo, TheRootOfTheTreeHasParentZero)
{
    EXPECT_EQ(ProcInfo::getParent(1), 0);
    EXPECT_TRUE(ProcInfo::alive(1));
}

TEST(ProcInfo, APositiveFilterKeepsOnlyThisUsersProcesses)
{
    // A process of another user: a child that gives up root, or else the
    // root-owned first process.
    const passwd* nobody = getpwnam("nobody");
    std::unique_ptr<ChildProcess> foreignChild;
    int foreign = 1;
    if (getuid() == 0) {
        ASSERT_NE(nobody, nullptr);
        foreignChild.reset(new ChildProcess(nobody->pw_uid));
        foreign = foreignChild->pid();
    }
    const QList<int> all = ProcInfo::getList(0);
    const QList<int> mine = ProcInfo::getList(1);
    EXPECT_TRUE(all.contains(foreign));
    EXPECT_FALSE(mine.contains(foreign));
    EXPECT_TRUE(mine.contains(int(getpid())));
    // Only pids: "self", "cpuinfo" and the like never show.
    for (int pid : all)
        EXPECT_GT(pid, 0);
}

} // namespace
