// Real processes for tests of what /proc tells: a child that sleeps, which
// can be turned into a zombie and then reaped.
#ifndef ZOR_TESTS_CHILDPROCESS_H
#define ZOR_TESTS_CHILDPROCESS_H

#include <csignal>
#include <cstdio>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

class ChildProcess
{
public:
    // Starts "sleep 60", optionally under another user id (needs root).
    explicit ChildProcess(uid_t uid = uid_t(-1))
    {
        mPid = fork();
        if (mPid == 0) {
            if (uid != uid_t(-1) && setuid(uid) != 0)
                _exit(127);
            execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
            _exit(127);
        }
        // The name and parent only show once the child has exec'd; wait
        // until its command line says so.
        for (int i = 0; i < 2000 && !hasExeced(); ++i)
            usleep(1000);
    }
    ~ChildProcess() { reap(); }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return mPid; }

    // Kills it and waits until it has ended, without reaping it.
    void makeZombie()
    {
        kill(mPid, SIGKILL);
        siginfo_t info;
        waitid(P_PID, id_t(mPid), &info, WEXITED | WNOWAIT);
    }
    void reap()
    {
        if (mPid <= 0 || mReaped)
            return;
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mReaped = true;
    }
    bool reaped() const { return mReaped; }

private:
    bool hasExeced() const
    {
        char path[64];
        snprintf(path, sizeof path, "/proc/%d/cmdline", int(mPid));
        FILE* file = fopen(path, "r");
        if (!file)
            return false;
        char word[16] = {};
        const size_t n = fread(word, 1, sizeof word - 1, file);
        fclose(file);
        return n >= 5 && std::string(word) == "sleep";
    }

    pid_t mPid = -1;
    bool mReaped = false;
};

#endif
