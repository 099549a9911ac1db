#include "preloadsamplesourceutils.h"
#include "metric.h"
#include "ssamplelist.h"
#include "timespec_utils.h"
#include "zor_assert.h"

#include <QFile>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <elf.h>

using quorvex::ONE_SECOND_NS;

long long PreloadSampleSourceUtils::msFromTimespec(timespec a, timespec b)
{
    return static_cast<long long>(a.tv_sec - b.tv_sec) * 1000 + static_cast<long long>(a.tv_nsec - b.tv_nsec) / 1000000;
}

long long PreloadSampleSourceUtils::nsFromTimespec(timespec t)
{
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

double PreloadSampleSourceUtils::clampPercentage(double x)
{
    if (x < 0)
        return 0;
    if (x < 100)
        return x;
    return 100;
}

double PreloadSampleSourceUtils::calculateScaleUpFactor(timespec a)
{
    if (a.tv_sec == 0 && a.tv_nsec == 0)
        return 1.0;
    ZOR_ASSERT(a.tv_nsec < ONE_SECOND_NS);
    ZOR_ASSERT(a.tv_nsec >=0);
    return 1e9 / std::fma(static_cast<double>(a.tv_sec), 1e9, static_cast<double>(a.tv_nsec));
}

namespace {

// Empty, for the walk back over a gap. A sample without the metric at all
// bounds the gap like a reported value: nothing can be stored there.
bool isEmptyAt(const quorvex::SSample& sample, unsigned int index)
{
    return sample.metrics().hasMetric(index) && sample.metrics().getMetricValue(index).empty();
}

} // namespace

void PreloadSampleSourceUtils::correctSparseMetrics(quorvex::SSampleList* samples,
                                                    const MetricDefinitions& definitions)
{
    const QMap<QString, Metric> metrics = definitions.getMetricsOnTimeDomain();
    for (unsigned int i = 0; i < samples->size(); ++i) {
        for (const Metric& metric : metrics) {
            if (!metric.isSparse())
                continue;
            const unsigned int index = metric.getIndex();
            const quorvex::SMetrics& reported = samples->at(i).metrics();
            if (!reported.hasMetric(index) || reported.getMetricValue(index).empty())
                continue;
            const SampleValue value = reported.getMetricValue(index);

            unsigned int first = i;
            while (first > 0 && isEmptyAt(samples->at(first - 1), index))
                --first;
            if (first == i)
                continue;

            timespec total = {0, 0};
            for (unsigned int k = first; k <= i; ++k)
                quorvex::timespec_add(total, samples->at(k).getMetricInterval(index));
            const double totalNs = static_cast<double>(nsFromTimespec(total));

            const bool divide = metric.getDivideBySampleTime();
            const quorvex::SMetric::NormalisationMode mode =
                divide ? quorvex::SMetric::DivideBySampleInterval : quorvex::SMetric::NoNormalisation;
            for (unsigned int k = first; k <= i; ++k) {
                quorvex::SSample& sample = samples->at(k);
                // The share uses the interval with the sample's fallback; the
                // stored interval is the metric's own.
                const double share = static_cast<double>(nsFromTimespec(sample.getMetricInterval(index))) / totalNs;
                const SampleValue spread = divide ? value * share : value;
                const timespec interval = sample.metrics().getMetricInterval(index);
                sample.metrics().setMetric(index, quorvex::SMetric(spread, interval, mode));
            }
        }
    }
}

namespace {

// From the lowest loadable page to the end of the highest loadable segment.
unsigned long long loadSpan(const QString& path)
{
    QFile file(path);
    Elf64_Ehdr header;
    if (!file.open(QIODevice::ReadOnly) || file.read(reinterpret_cast<char*>(&header), sizeof header) != sizeof header
        || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64
        || header.e_phentsize != sizeof(Elf64_Phdr) || !file.seek(qint64(header.e_phoff)))
        return 0;
    unsigned long long low = ~0ULL, high = 0;
    for (int i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment;
        if (file.read(reinterpret_cast<char*>(&segment), sizeof segment) != sizeof segment)
            return 0;
        if (segment.p_type != PT_LOAD)
            continue;
        low = std::min<unsigned long long>(low, segment.p_vaddr & ~0xfffULL);
        high = std::max<unsigned long long>(high, segment.p_vaddr + segment.p_memsz);
    }
    return high > low ? high - low : 0;
}

} // namespace

QList<SharedLibrary> PreloadSampleSourceUtils::readModulesList(const QString& path)
{
    // Latest first, so that where two objects held one place in turn the
    // later one is taken: a run spends most of its time after its libraries
    // have settled (an MPI library opens components in MPI_Init, closes
    // those it won't use, and the ones it uses take their places). Those
    // there at the end came last, those gone since the start first; the
    // transient ones came in between, in the order they were seen.
    QList<SharedLibrary> modules, transient, removed;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.readLine().startsWith("# zor modules 1:"))
        return modules;
    // "LOAD_ADDRESS BUILD_ID STATE PATH"; the path may hold spaces. Then
    // "map " and a line of /proc/PID/maps, for each mapping of a file.
    QByteArray maps;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (!line.endsWith('\n'))
            return {};
        if (line.startsWith("map ")) {
            maps += line.mid(4);
            continue;
        }
        const QList<QByteArray> fields = line.left(line.size() - 1).split(' ');
        bool ok = false;
        const unsigned long long start = fields.value(0).startsWith("0x") ? fields[0].mid(2).toULongLong(&ok, 16) : 0;
        if (!ok || fields.size() < 4)
            return {};
        const QString module = QFile::decodeName(fields.mid(3).join(' '));
        const unsigned long long span = loadSpan(module);
        if (!span)
            continue;
        const SharedLibrary library(module, start, start + span);
        if (fields[2] == "transient")
            transient.prepend(library);
        else if (fields[2] == "removed")
            removed.append(library);
        else
            modules.append(library);
    }
    // Code that the program mapped again elsewhere, there at the end or not.
    QList<SharedLibrary> remapped;
    for (const SharedLibrary& mapped : filesOfMaps(maps)) {
        if (mapped.isRemapping())
            remapped << mapped;
    }
    return modules + transient + removed + remapped;
}

QMap<int, QString> PreloadSampleSourceUtils::readThreadNames(const QString& path)
{
    QMap<int, QString> names;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return names;
    while (!file.atEnd()) {
        QByteArray line = file.readLine(256);
        if (line.endsWith('\n'))
            line.chop(1);
        const int space = line.indexOf(' ');
        bool ok = false;
        const int tid = space > 0 ? line.left(space).toInt(&ok) : 0;
        if (!ok || tid <= 0 || space + 1 >= line.size())
            continue;
        // A name is any bytes the program chose: what isn't text is shown
        // as such rather than sent on.
        QString name = QString::fromUtf8(line.mid(space + 1));
        for (QChar& c : name) {
            if (c.unicode() < 0x20 || c.unicode() == 0x7f)
                c = QLatin1Char('?');
        }
        names.insert(tid, name);
    }
    return names;
}

QList<SharedLibrary> PreloadSampleSourceUtils::withModules(QList<SharedLibrary> libraries,
                                                           const QList<SharedLibrary>& more)
{
    // Where two objects held one place in turn, the one there now wins, and
    // among the others the first of `more`.
    for (const SharedLibrary& module : more) {
        bool overlaps = false;
        for (int i = 0; i < libraries.size() && !overlaps; ++i) {
            const SharedLibrary& library = libraries.at(i);
            overlaps = library.isRangeKnown() && library.start() < module.end() && module.start() < library.end();
        }
        if (!overlaps)
            libraries.append(module);
    }
    return libraries;
}
