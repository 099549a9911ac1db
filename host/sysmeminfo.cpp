#include "preloadsamplesourceutils.h"

#include <QFile>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

QStringList PreloadSampleSourceUtils::readSysMemInfo()
{
    QFile file(QStringLiteral("/proc/meminfo"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QStringList();
    return QString::fromLocal8Bit(file.readAll()).split(QLatin1Char('\n'), Qt::KeepEmptyParts);
}

void PreloadSampleSourceUtils::parseSysMemInfo(const QStringList& lines, unsigned long long& total, unsigned long long& free)
{
    parseSysMemInfo(lines.join(QLatin1Char('\n')).toLatin1().constData(), total, free);
}

void PreloadSampleSourceUtils::parseSysMemInfo(const char* text, unsigned long long& total, unsigned long long& free)
{
    // Each line is a key and a value after blanks, read in place: the
    // analysis asks this with every report of its progress.
    static const struct {
        const char* key;
        int which;
    } keys[] = {{"MemTotal:", 0}, {"MemFree:", 1}, {"Buffers:", 2}, {"Cached:", 3}};
    unsigned long long values[4] = {total, 0, 0, 0};
    for (const char* line = text; *line;) {
        const char* end = std::strchr(line, '\n');
        if (!end)
            end = line + std::strlen(line);
        for (const auto& key : keys) {
            const size_t length = std::strlen(key.key);
            if (size_t(end - line) > length && std::strncmp(line, key.key, length) == 0
                && (line[length] == ' ' || line[length] == '\t')) {
                values[key.which] = std::strtoull(line + length, nullptr, 10);
                break;
            }
        }
        line = *end ? end + 1 : end;
    }
    total = values[0];
    free = values[1] + values[2] + values[3];
}

bool PreloadSampleSourceUtils::readSysMem(unsigned long long& total, unsigned long long& free)
{
    // Bytes, without a QFile or a list of lines: a small run's analysis
    // asks this a few dozen times.
    const int fd = ::open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[16384];
    size_t used = 0;
    ssize_t got = 0;
    while (used + 1 < sizeof text && (got = ::read(fd, text + used, sizeof text - 1 - used)) > 0)
        used += size_t(got);
    ::close(fd);
    text[used] = 0;
    parseSysMemInfo(text, total, free);
    return used > 0;
}

short PreloadSampleSourceUtils::sysMemUsage(unsigned long long total, unsigned long long free)
{
    if (total == 0 || total <= free)
        return 0;
    return short((total - free) * 100.0 / total);
}

short PreloadSampleSourceUtils::calcSysMemUsage(const QStringList& lines)
{
    unsigned long long total = 0;
    unsigned long long free = 0;
    parseSysMemInfo(lines, total, free);
    return sysMemUsage(total, free);
}
