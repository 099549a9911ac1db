#include "runtimecodemap.h"

#include <QFile>
#include <QFileInfo>

#include <unistd.h>

RuntimeCodeMap::RuntimeCodeMap(const QString& path, const QDateTime& notBefore) : mPath(path), mNotBefore(notBefore)
{
}

RuntimeCodeMap RuntimeCodeMap::ofProcess(int pid, const QDateTime& started)
{
    // The boot time that a start is told from is known to the second only.
    return RuntimeCodeMap(QStringLiteral("/tmp/perf-%1.map").arg(pid),
                          started.isValid() ? started.addSecs(-2) : QDateTime());
}

QDateTime RuntimeCodeMap::processStart(int pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    QFile system(QStringLiteral("/proc/stat"));
    if (!stat.open(QIODevice::ReadOnly) || !system.open(QIODevice::ReadOnly))
        return QDateTime();
    const QByteArray text = stat.readAll();
    // Field 22, counted after the name in parentheses (field 2), which may
    // hold spaces: clock ticks from boot to the start.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    bool ok = false;
    const qint64 ticks = fields.value(19).toLongLong(&ok);
    if (!ok)
        return QDateTime();
    qint64 boot = -1;
    for (const QByteArray& line : system.readAll().split('\n')) {
        if (line.startsWith("btime "))
            boot = line.mid(6).trimmed().toLongLong(&ok);
    }
    if (boot < 0 || !ok)
        return QDateTime();
    return QDateTime::fromMSecsSinceEpoch(boot * 1000 + ticks * 1000 / sysconf(_SC_CLK_TCK));
}

std::map<unsigned long long, RuntimeCodeMap::Code> RuntimeCodeMap::parse(const QByteArray& text)
{
    std::map<unsigned long long, Code> code;
    for (const QByteArray& raw : text.split('\n')) {
        const QByteArray line = raw.trimmed();
        const int first = line.indexOf(' ');
        const int second = first < 0 ? -1 : line.indexOf(' ', first + 1);
        if (second < 0)
            continue;
        bool startOk = false, sizeOk = false;
        QByteArray startText = line.left(first), sizeText = line.mid(first + 1, second - first - 1);
        for (QByteArray* number : {&startText, &sizeText}) {
            if (number->startsWith("0x") || number->startsWith("0X"))
                number->remove(0, 2);
        }
        const unsigned long long start = startText.toULongLong(&startOk, 16);
        const unsigned long long size = sizeText.toULongLong(&sizeOk, 16);
        const QString name = QString::fromUtf8(line.mid(second + 1).trimmed());
        if (!startOk || !sizeOk || size == 0 || start + size < start || name.isEmpty())
            continue;
        const unsigned long long end = start + size;
        // Pieces of earlier lines keep only what lies outside [start, end).
        auto it = code.lower_bound(start);
        if (it != code.begin()) {
            auto before = std::prev(it);
            if (before->second.end > start) {
                if (before->second.end > end)
                    code[end] = Code{before->second.end, before->second.name};
                before->second.end = start;
            }
        }
        it = code.lower_bound(start);
        while (it != code.end() && it->first < end) {
            if (it->second.end > end)
                code[end] = Code{it->second.end, it->second.name};
            it = code.erase(it);
        }
        code[start] = Code{end, name};
    }
    return code;
}

bool RuntimeCodeMap::name(unsigned long long address, QString* name)
{
    if (mPath.isEmpty())
        return false;
    refresh();
    auto it = mCode.upper_bound(address);
    if (it == mCode.begin())
        return false;
    --it;
    if (address >= it->second.end)
        return false;
    *name = it->second.name;
    return true;
}

void RuntimeCodeMap::refresh()
{
    const QFileInfo info(mPath);
    if (!info.exists()) {
        mCode.clear();
        mReadSize = -1;
        return;
    }
    const QDateTime modified = info.lastModified();
    if (info.size() == mReadSize && modified == mReadTime)
        return;
    mReadSize = info.size();
    mReadTime = modified;
    mCode.clear();
    if (mNotBefore.isValid() && modified < mNotBefore)
        return;
    QFile file(mPath);
    if (file.open(QIODevice::ReadOnly))
        mCode = parse(file.readAll());
}
