// Whether gdb can start a program here and call a function in it: empty if
// so, otherwise why not (no gdb, tracing forbidden, or gdb 13 on a CPU with
// AMX state). Tests that need calls into a target skip with this reason.
#ifndef ZOR_TEST_GDBPROBE_H
#define ZOR_TEST_GDBPROBE_H

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QString>
#include <csignal>

// Whether a process has ended: gone, or a zombie that waits to be reaped.
inline bool processGone(int pid)
{
    if (pid <= 0 || ::kill(pid, 0) != 0)
        return true;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    return stat.open(QIODevice::ReadOnly) && stat.readAll().contains(") Z ");
}

// The sanitizers' runtime must be the first library of a program, so a build
// with them can't preload the sampler into one: empty where it can.
inline QString samplerPreloadProblem()
{
#ifdef __SANITIZE_ADDRESS__
    return QStringLiteral("the sanitizer build can't preload the sampler");
#else
    return QString();
#endif
}

inline QString gdbCallProblem(const QString& program)
{
    static const QString problem = [&program] {
        if (!samplerPreloadProblem().isEmpty())
            return samplerPreloadProblem();
        if (QStandardPaths::findExecutable(QStringLiteral("gdb")).isEmpty())
            return QStringLiteral("no gdb");
        QProcess probe;
        probe.setProcessChannelMode(QProcess::MergedChannels);
        probe.start(QStringLiteral("gdb"), {"-nx", "-batch", "-ex", "break main", "-ex", "run", "-ex",
                                            "print (int)getpid() > 0", "--args", program, "--seconds", "0"});
        probe.waitForFinished(60000);
        const QByteArray answer = probe.readAll();
        return answer.contains("$1 = 1") ? QString()
                                         : QStringLiteral("gdb can't call functions in a program here: ")
                + QString::fromLocal8Bit(answer.right(200));
    }();
    return problem;
}

#endif
