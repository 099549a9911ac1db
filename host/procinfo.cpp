#include "procinfo.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

#include "syscalls.h"

namespace {

QString procPath(int pid, const char* entry)
{
    return QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(entry));
}

// The text after the first tab of a status line, as an int.
int valueAfterTab(const QString& line, bool* ok)
{
    const int tab = line.indexOf(QLatin1Char('\t'));
    *ok = false;
    if (tab < 0)
        return -1;
    return line.mid(tab + 1).trimmed().toInt(ok);
}

QStringList procEntries()
{
    return QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
}

} // namespace

bool ProcInfo::exists(int pid)
{
    return sc_kill(pid, 0) == 0;
}

QString ProcInfo::getExe(int pid)
{
    return QFileInfo(procPath(pid, "exe")).readLink();
}

QString ProcInfo::getName(int pid)
{
    QFile file(procPath(pid, "cmdline"));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray content = file.readAll();
    return QString::fromLocal8Bit(content.constData(), qstrnlen(content.constData(), uint(content.size())));
}

int ProcInfo::getParent(int pid)
{
    QFile file(procPath(pid, "status"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return -1;
    QTextStream stream(&file);
    for (QString line = stream.readLine(); !line.isNull(); line = stream.readLine()) {
        if (line.startsWith(QLatin1String("PPid:"))) {
            bool ok;
            const int parent = valueAfterTab(line, &ok);
            return ok ? parent : -1;
        }
    }
    return -1;
}

int ProcInfo::getChild(int pid)
{
    for (const QString& entry : procEntries()) {
        QFile file(QStringLiteral("/proc/%1/status").arg(entry));
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            continue;
        QTextStream stream(&file);
        // "Pid:" always comes before "PPid:" in a status file.
        int candidate = -1;
        for (QString line = stream.readLine(); !line.isNull(); line = stream.readLine()) {
            bool ok;
            if (line.startsWith(QLatin1String("Pid:"))) {
                candidate = valueAfterTab(line, &ok);
            } else if (line.startsWith(QLatin1String("PPid:"))) {
                if (valueAfterTab(line, &ok) == pid && ok)
                    return candidate;
                break;
            }
        }
    }
    return -1;
}

QList<int> ProcInfo::getList(int filter)
{
    QList<int> pids;
    const unsigned int uid = filter < 1 ? 0 : sc_getuid();
    for (const QString& entry : procEntries()) {
        bool isPid = false;
        const int pid = entry.toInt(&isPid);
        if (!isPid)
            continue;
        if (filter < 1) {
            pids.append(pid);
            continue;
        }
        QFile file(QStringLiteral("/proc/%1/status").arg(entry));
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            continue;
        QTextStream stream(&file);
        QString word;
        do {
            stream >> word;
        } while (!word.isEmpty() && word != QLatin1String("Uid:"));
        if (word.isEmpty())
            continue;
        stream >> word;
        bool ok = false;
        const unsigned int realUid = word.toUInt(&ok);
        if (ok && realUid == uid)
            pids.append(pid);
    }
    return pids;
}

bool ProcInfo::alive(int pid)
{
    if (!exists(pid))
        return false;
    QFile file(procPath(pid, "status"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    QTextStream stream(&file);
    for (QString line = stream.readLine(); !line.isNull(); line = stream.readLine()) {
        if (line.startsWith(QLatin1String("State:")))
            return !line.contains(QLatin1String("Z "));
    }
    return false;
}
