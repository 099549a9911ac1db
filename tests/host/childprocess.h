// Real processes for tests of what /proc tells: a child that sleeps, which
// can be turned into a zombie and then reaped.
#ifndef ZOR_TESTS_CHILDPROCESS_H
#define ZOR_TESTS_CHILDPROCESS_H

#include <QFile>
#include <csignal>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

class ChildProcess
{
public:
    // Starts "sleep 60".
    ChildProcess()
    {
        mPid = fork();
        if (mPid == 0) {
            execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
            _exit(127);
        }
        // The name and parent only show once the child has exec'd, and its
        // memory only settles once it sleeps: wait for both.
        QByteArray previous;
        for (int i = 0, steady = 0; i < 2000 && steady < 3; ++i) {
            const QByteArray stat = proc("stat");
            const QByteArray resident = proc("statm").split(' ').value(1);
            // "pid (comm) state ...": sleep's name holds no parenthesis.
            const bool sleeping = proc("cmdline").startsWith("sleep") && stat.mid(stat.indexOf(") ") + 2, 1) == "S";
            steady = sleeping && resident == previous ? steady + 1 : 0;
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
        if (mPid > 0 && !mReaped) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
            mReaped = true;
        }
    }

private:
    QByteArray proc(const char* entry) const
    {
        QFile file(QStringLiteral("/proc/%1/%2").arg(mPid).arg(QLatin1String(entry)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    pid_t mPid = -1;
    bool mReaped = false;
};

#endif
