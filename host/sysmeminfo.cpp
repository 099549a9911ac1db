#include "preloadsamplesourceutils.h"

#include <QFile>

QStringList PreloadSampleSourceUtils::readSysMemInfo()
{
    QFile file(QStringLiteral("/proc/meminfo"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QStringList();
    return QString::fromLocal8Bit(file.readAll()).split(QLatin1Char('\n'), Qt::KeepEmptyParts);
}

void PreloadSampleSourceUtils::parseSysMemInfo(const QStringList& lines, unsigned long long& total, unsigned long long& free)
{
    // Each line is a key and a value between runs of blanks, read by hand:
    // the analysis asks this with every report of its progress, where a
    // split by a regular expression cost a fifth of a small run's analysis.
    unsigned long long memFree = 0;
    unsigned long long buffers = 0;
    unsigned long long cached = 0;
    for (const QString& line : lines) {
        const int size = line.size();
        int keyEnd = 0;
        while (keyEnd < size && !line.at(keyEnd).isSpace())
            ++keyEnd;
        if (keyEnd == size)
            continue;
        int valueStart = keyEnd;
        while (valueStart < size && line.at(valueStart).isSpace())
            ++valueStart;
        int valueEnd = valueStart;
        while (valueEnd < size && !line.at(valueEnd).isSpace())
            ++valueEnd;
        const QStringRef key = line.leftRef(keyEnd);
        unsigned long long* target = nullptr;
        if (key == QLatin1String("MemTotal:"))
            target = &total;
        else if (key == QLatin1String("MemFree:"))
            target = &memFree;
        else if (key == QLatin1String("Buffers:"))
            target = &buffers;
        else if (key == QLatin1String("Cached:"))
            target = &cached;
        if (target)
            *target = line.midRef(valueStart, valueEnd - valueStart).toULongLong();
    }
    free = memFree + buffers + cached;
}

short PreloadSampleSourceUtils::calcSysMemUsage(const QStringList& lines)
{
    unsigned long long total = 0;
    unsigned long long free = 0;
    parseSysMemInfo(lines, total, free);
    if (total == 0 || total <= free)
        return 0;
    return short((total - free) * 100.0 / total);
}
