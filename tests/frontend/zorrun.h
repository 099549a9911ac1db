// Runs of the zor program for the end-to-end tests, and what they leave.
#ifndef ZOR_TESTS_ZORRUN_H
#define ZOR_TESTS_ZORRUN_H

#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <unistd.h>

struct Outcome
{
    int status = -1;
    bool timedOut = false;
    QString out;
    QString err;
    // Processes still running after zor ended, and files it left in TMPDIR
    // apart from the plug-in's directory for the user.
    QStringList leftBehind;
    // What the processes under this one were doing when the bound was hit.
    QString atTimeout;
};

inline QByteArray procText(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Every process below this one (orphans that it adopted included), and each
// of their threads with its state and where in the kernel it waits.
inline QString processesBelowThis()
{
    QMap<int, QList<int>> children;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const QByteArray stat = procText(QStringLiteral("/proc/%1/stat").arg(entry));
        const int close = stat.lastIndexOf(')');
        if (entry.toInt() > 0 && close > 0)
            children[stat.mid(close + 2).split(' ').value(1).toInt()] << entry.toInt();
    }
    QString text;
    QList<int> todo = children.value(getpid());
    while (!todo.isEmpty()) {
        const int pid = todo.takeFirst();
        todo += children.value(pid);
        text += QStringLiteral("%1 %2\n").arg(pid).arg(QString::fromLocal8Bit(
                    procText(QStringLiteral("/proc/%1/cmdline").arg(pid)).replace('\0', ' ').left(160)));
        const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
        for (const QString& tid : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QByteArray stat = procText(tasks + QLatin1Char('/') + tid + QStringLiteral("/stat"));
            const int close = stat.lastIndexOf(')');
            text += QStringLiteral("  %1 %2 %3 %4\n")
                        .arg(tid, QString::fromLocal8Bit(stat.mid(stat.indexOf('(') + 1, close - stat.indexOf('(') - 1)),
                             QString::fromLatin1(stat.mid(close + 2, 1)),
                             QString::fromLatin1(procText(tasks + QLatin1Char('/') + tid + QStringLiteral("/wchan"))));
        }
    }
    return text;
}

// zor with a bound: past it, two Ctrl-Cs abort the run, and then it is killed.
inline Outcome zor(const QStringList& args, const QProcessEnvironment& env = QProcessEnvironment::systemEnvironment(),
                   int timeoutMs = 60000, const QString& directory = QString(),
                   const QString& program = QStringLiteral(ZOR_PROGRAM))
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(directory);
    process.start(program, args);
    Outcome run;
    if (!process.waitForFinished(timeoutMs)) {
        run.timedOut = true;
        run.atTimeout = processesBelowThis();
        for (int i = 0; i < 2; ++i, QThread::msleep(500))
            ::kill(pid_t(process.processId()), SIGINT);
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
        }
    }
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

// The environment with TMPDIR set to `temporary`, which a run must leave empty.
inline QProcessEnvironment withTmpdir(const QString& temporary)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("TMPDIR"), temporary);
    return env;
}

// What a run left in its temporary directory, apart from the plug-in's
// directory for the user, where processes of one node meet.
inline QStringList leftovers(const QString& directory)
{
    QStringList entries = QDir(directory).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    entries.removeAll(QStringLiteral("zor-%1").arg(getuid()));
    return entries;
}

// The lines of folded stacks: frames outermost first, and the figure.
inline QList<QPair<QStringList, double>> foldedLines(const QByteArray& folded)
{
    QList<QPair<QStringList, double>> lines;
    for (const QByteArray& line : folded.split('\n')) {
        const int space = line.lastIndexOf(' ');
        if (space > 0)
            lines.append({QString::fromUtf8(line.left(space)).split(QLatin1Char(';')), line.mid(space + 1).toDouble()});
    }
    return lines;
}

#endif
