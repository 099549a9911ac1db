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
        // The name and parent only show once the child has exec'd, and its
        // memory only settles once it sleeps: wait for both.
        for (int i = 0; i < 2000 && !hasExeced(); ++i)
            usleep(1000);
        long previous = -1;
        for (int i = 0, steady = 0; i < 2000 && steady < 3; ++i) {
            const long resident = residentPages();
            steady = isSleeping() && resident == previous ? steady + 1 : 0;
            previous = resident;
            usleep(2000);
        }
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
    long residentPages() const
    {
        long size = 0;
        long resident = -1;
        FILE* file = fopen(procPath("statm").c_str(), "r");
        if (file) {
            if (fscanf(file, "%ld %ld", &size, &resident) != 2)
                resident = -1;
            fclose(file);
        }
        return resident;
    }
    bool isSleeping() const
    {
        char state = '?';
        FILE* file = fopen(procPath("stat").c_str(), "r");
        if (file) {
            // "pid (comm) state ...": sleep's name holds no parenthesis.
            if (fscanf(file, "%*d (%*[^)]) %c", &state) != 1)
                state = '?';
            fclose(file);
        }
        return state == 'S';
    }
    std::string procPath(const char* entry) const
    {
        return "/proc/" + std::to_string(mPid) + "/" + entry;
    }
    bool hasExeced() const
    {
        FILE* file = fopen(procPath("cmdline").c_str(), "r");
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
