#include "preloadsamplesourceutils.h"

#include <QFile>
#include <QRegExp>

QStringList PreloadSampleSourceUtils::readSysMemInfo()
{
    QFile file(QStringLiteral("/proc/meminfo"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QStringList();
    return QString::fromLocal8Bit(file.readAll()).split(QLatin1Char('\n'), Qt::KeepEmptyParts);
}

void PreloadSampleSourceUtils::parseSysMemInfo(const QStringList& lines, unsigned long long& total, unsigned long long& free)
{
    static const QRegExp blanks(QStringLiteral("\\s+"));
    unsigned long long memFree = 0;
    unsigned long long buffers = 0;
    unsigned long long cached = 0;
    for (const QString& line : lines) {
        const QStringList fields = line.split(blanks, Qt::KeepEmptyParts);
        if (fields.size() < 2)
            continue;
        const QString& key = fields.at(0);
        if (key == QLatin1String("MemTotal:"))
            total = fields.at(1).toULongLong();
        else if (key == QLatin1String("MemFree:"))
            memFree = fields.at(1).toULongLong();
        else if (key == QLatin1String("Buffers:"))
            buffers = fields.at(1).toULongLong();
        else if (key == QLatin1String("Cached:"))
            cached = fields.at(1).toULongLong();
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
