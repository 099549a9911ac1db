// Source positions of the distinct addresses of a real run: the symbols
// library (libdwfl for modules and DIEs, line tables of its own) against one
// `addr2line -i -f` process fed every address.
// The subject is a large binary with full debug information, Debian's
// python3.11d (scripts/install-deps.sh --bench installs it) running a small
// script under the sampler. Prints addresses per second for both.
//
// Both sides get the same addresses; how far their answers agree is printed
// too, so that the speeds compare like with like. Both start from nothing but
// the page cache: each fresh table is built in a process of its own, as each
// addr2line is, so that neither memory nor code pages warmed by an earlier
// pass make it look faster.
//
//   bench-position-decode [BINARY [SECONDS]]
#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSet>
#include <QTemporaryDir>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/resource.h>
#include <gelf.h>
#include <unistd.h>
#include <memory>
#include <vector>

#include "readsamples.h"
#include "ssamplelist.h"
#include "symboltable.h"

namespace {

void addTrace(const quorvex::SSimpleBacktrace& trace, QSet<unsigned long long>* addresses)
{
    for (unsigned long long address : trace.trace())
        addresses->insert(address);
}

double processCpuSeconds()
{
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + t.tv_nsec / 1e9;
}

// Of the children waited for so far.
double childrenCpuSeconds()
{
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// How far the file is placed from its own addresses, given where its first
// page lies: nothing for a fixed executable, the load address for a
// position-independent one.
unsigned long long loadBias(const QString& path, unsigned long long start)
{
    unsigned long long first = 0;
    elf_version(EV_CURRENT);
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    Elf* elf = fd >= 0 ? elf_begin(fd, ELF_C_READ, nullptr) : nullptr;
    size_t count = 0;
    if (elf && elf_getphdrnum(elf, &count) == 0) {
        for (size_t i = 0; i < count; ++i) {
            GElf_Phdr header;
            if (gelf_getphdr(elf, int(i), &header) && header.p_type == PT_LOAD) {
                first = header.p_vaddr & ~(header.p_align ? header.p_align - 1 : 0);
                break;
            }
        }
    }
    if (elf)
        elf_end(elf);
    if (fd >= 0)
        ::close(fd);
    return start - first;
}

// The innermost position of an address and how many inlined callers it has.
struct Decoded
{
    QString function;
    QString file;
    int line;
    int callers;
};

// addr2line -a -i -f: per address a line "0x...", then a function line and a
// "file:line" line for the position and for each inlined caller.
std::vector<Decoded> parseAddr2line(const QByteArray& output, size_t count)
{
    std::vector<Decoded> result;
    result.reserve(count);
    const QList<QByteArray> lines = output.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        if (lines[i].startsWith("0x")) {
            result.push_back({QString(), QString(), 0, -1});
            continue;
        }
        if (result.empty() || i + 1 >= lines.size())
            break;
        Decoded& d = result.back();
        if (++d.callers == 0) {
            const QByteArray where = lines[i + 1];
            const int colon = where.lastIndexOf(':');
            d.function = QString::fromUtf8(lines[i]);
            d.file = QString::fromUtf8(where.left(colon));
            // "file:line (discriminator n)"
            d.line = where.mid(colon + 1).split(' ').value(0).toInt();
            if (d.function == QLatin1String("??"))
                d.function.clear();
            if (d.file == QLatin1String("??"))
                d.file.clear();
        }
        ++i;
    }
    return result;
}

// One fresh table in this fresh process: the layout and the addresses from
// files, then the time of building the table, decoding every address with its
// inlined callers and dropping the table, on the clock and on the processor.
int freshPass(const char* mapsPath, const char* addressesPath)
{
    QFile mapsFile(QFile::decodeName(mapsPath));
    QFile addressFile(QFile::decodeName(addressesPath));
    if (!mapsFile.open(QIODevice::ReadOnly) || !addressFile.open(QIODevice::ReadOnly))
        return 1;
    const QList<SharedLibrary> libraries = SymbolTable::parseMaps(mapsFile.readAll());
    std::vector<unsigned long long> addresses;
    for (const QByteArray& line : addressFile.readAll().split('\n')) {
        if (!line.isEmpty())
            addresses.push_back(line.toULongLong(nullptr, 16));
    }
    QElapsedTimer clock;
    clock.start();
    const double cpuBefore = processCpuSeconds();
    size_t frames = 0;
    {
        SymbolTable table;
        table.setLibraries(libraries);
        for (unsigned long long address : addresses) {
            QList<SymbolPosition> callers;
            frames += table.position(address, &callers).line > 0 ? 1 + size_t(callers.size()) : 0;
        }
    }
    const double cpu = processCpuSeconds() - cpuBefore;
    printf("%.6f %.6f %zu\n", clock.nsecsElapsed() / 1e9, cpu, frames);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && qstrcmp(argv[1], "--fresh-pass") == 0)
        return freshPass(argv[2], argv[3]);
    const QString binary = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("/usr/bin/python3.11d");
    const QString seconds = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral("3");
    if (!QFileInfo(binary).isExecutable()) {
        fprintf(stderr, "bench-position-decode: %s is missing; scripts/install-deps.sh --bench installs it\n",
                qPrintable(binary));
        return 2;
    }
    QTemporaryDir dir;
    const QString samples = dir.filePath(QStringLiteral("samples"));
    const QString maps = dir.filePath(QStringLiteral("maps"));
    // Work that walks much of the interpreter: parsing, objects, regular
    // expressions, JSON; then the layout of the process, for the addresses.
    const QString script = QStringLiteral(
        "import json, re, time, decimal, fractions\n"
        "t = time.time()\n"
        "while time.time() - t < %1:\n"
        "    d = [json.loads(json.dumps({'k%d' % i: [i, str(i), i / 3.0]})) for i in range(100)]\n"
        "    re.sub('a+b', 'c', 'aab' * 100); sorted(str(i) for i in range(200))\n"
        "    sum(decimal.Decimal(i) / 7 for i in range(50)); fractions.Fraction(3, 7) ** 5\n"
        "    exec(compile('def f(x):\\n    return [y * 2 for y in range(x)]\\nf(30)', 's', 'exec'))\n"
        "open('%2', 'w').write(open('/proc/self/maps').read())\n")
                               .arg(seconds, maps);
    QProcess run;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral(ZOR_SAMPLER_LIBRARY));
    environment.insert(QStringLiteral("ZOR_SAMPLER_OUTPUT"), samples);
    environment.insert(QStringLiteral("ZOR_SAMPLER_OPTIONS"), QStringLiteral("interval=1,samples=20000"));
    run.setProcessEnvironment(environment);
    run.setProcessChannelMode(QProcess::ForwardedChannels);
    run.start(binary, {QStringLiteral("-c"), script});
    if (!run.waitForFinished(600000) || run.exitCode() != 0) {
        fprintf(stderr, "bench-position-decode: the run of %s failed\n", qPrintable(binary));
        return 1;
    }

    timespec start;
    int stopReason = 0;
    unsigned long rebuilds = 0, checks = 0, downsamples = 0;
    std::uint64_t skipped = 0, resuming = 0, total = 0;
    unsigned int spare1 = 0, spare2 = 0;
    QString omp;
    bool cuda = false, mpi = false;
    QMap<int, quorvex::SCallSite> callSites;
    errno = 0;
    std::unique_ptr<quorvex::SSampleList> list(quorvex_read_samples(
        QFile::encodeName(samples).constData(), &start, &stopReason, &rebuilds, &checks, &downsamples, &skipped,
        &resuming, &total, &spare1, &spare2, omp, &cuda, callSites, &mpi));
    QFile mapsFile(maps);
    if (!list || !mapsFile.open(QIODevice::ReadOnly)) {
        fprintf(stderr, "bench-position-decode: the run left no samples or no layout\n");
        return 1;
    }
    const QList<SharedLibrary> libraries = SymbolTable::parseMaps(mapsFile.readAll());
    SharedLibrary subject;
    for (const SharedLibrary& library : libraries) {
        if (QFileInfo(library.path()).canonicalFilePath() == QFileInfo(binary).canonicalFilePath())
            subject = library;
    }
    QSet<unsigned long long> distinct;
    for (unsigned i = 0; i < list->size(); ++i) {
        addTrace(list->at(i).mainThreadTrace(), &distinct);
        for (std::size_t t = 0; t < list->at(i).otherThreads().size(); ++t)
            addTrace(list->at(i).otherThreads()[t], &distinct);
    }
    std::vector<unsigned long long> addresses;
    for (unsigned long long address : distinct) {
        if (address >= subject.start() && address < subject.end())
            addresses.push_back(address);
    }
    std::sort(addresses.begin(), addresses.end());
    if (addresses.empty()) {
        fprintf(stderr, "bench-position-decode: no sampled address lies in %s\n", qPrintable(binary));
        return 1;
    }

    // Each side from nothing but the page cache, best of a few: a fresh
    // process for each table, a fresh addr2line process. The first of each
    // also reads the files from disk where they weren't cached.
    const int fresh = 5;
    QFile addressFile(dir.filePath(QStringLiteral("addresses")));
    if (!addressFile.open(QIODevice::WriteOnly))
        return 1;
    for (unsigned long long address : addresses)
        addressFile.write(QByteArray::number(address, 16) + '\n');
    addressFile.close();
    QElapsedTimer clock;
    double cold = 1e9, coldCpu = 1e9;
    for (int i = 0; i < fresh; ++i) {
        QProcess pass;
        pass.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        pass.start(QStringLiteral("/proc/self/exe"), {QStringLiteral("--fresh-pass"), maps, addressFile.fileName()});
        const QList<QByteArray> figures =
            pass.waitForFinished(600000) ? pass.readAllStandardOutput().trimmed().split(' ') : QList<QByteArray>();
        if (pass.exitCode() != 0 || figures.size() != 3) {
            fprintf(stderr, "bench-position-decode: a fresh pass failed\n");
            return 1;
        }
        cold = std::min(cold, figures[0].toDouble());
        coldCpu = std::min(coldCpu, figures[1].toDouble());
    }
    // The answers, for the agreement below, from a table of this process.
    std::vector<Decoded> ours;
    ours.reserve(addresses.size());
    size_t frames = 0;
    SymbolTable table;
    table.setLibraries(libraries);
    for (unsigned long long address : addresses) {
        QList<SymbolPosition> callers;
        const SymbolPosition where = table.position(address, &callers);
        frames += 1 + size_t(callers.size());
        ours.push_back({where.function, where.file, where.line, int(callers.size())});
    }
    const int repeats = 20;
    clock.restart();
    for (int r = 0; r < repeats; ++r) {
        for (unsigned long long address : addresses) {
            QList<SymbolPosition> callers;
            table.position(address, &callers);
        }
    }
    const double warm = clock.nsecsElapsed() / 1e9 / repeats;

    // addr2line with the file's own addresses, each answer behind its address.
    const unsigned long long bias = loadBias(binary, subject.start());
    QByteArray input;
    for (unsigned long long address : addresses)
        input += QByteArray::number(address - bias, 16) + '\n';
    double external = 1e9, externalCpu = 1e9;
    QByteArray output;
    for (int i = 0; i < fresh; ++i) {
        QProcess addr2line;
        clock.restart();
        const double childrenBefore = childrenCpuSeconds();
        addr2line.start(QStringLiteral("addr2line"),
                        {QStringLiteral("-a"), QStringLiteral("-i"), QStringLiteral("-f"), QStringLiteral("-e"), binary});
        addr2line.waitForStarted();
        addr2line.write(input);
        addr2line.closeWriteChannel();
        output.clear();
        while (addr2line.state() != QProcess::NotRunning || addr2line.bytesAvailable()) {
            addr2line.waitForReadyRead(100);
            output += addr2line.readAllStandardOutput();
        }
        addr2line.waitForFinished();
        external = std::min(external, clock.nsecsElapsed() / 1e9);
        externalCpu = std::min(externalCpu, childrenCpuSeconds() - childrenBefore);
    }
    // What of addr2line's time is its start, which a fresh table in a
    // running process doesn't pay: the same with no address.
    double started = 1e9;
    for (int i = 0; i < fresh; ++i) {
        QProcess addr2line;
        clock.restart();
        addr2line.start(QStringLiteral("addr2line"),
                        {QStringLiteral("-a"), QStringLiteral("-i"), QStringLiteral("-f"), QStringLiteral("-e"), binary});
        addr2line.waitForStarted();
        addr2line.closeWriteChannel();
        addr2line.waitForFinished();
        started = std::min(started, clock.nsecsElapsed() / 1e9);
    }

    // Agreement on the innermost function, file and line, and on the number
    // of inlined callers.
    const std::vector<Decoded> theirs = parseAddr2line(output, addresses.size());
    size_t sameFunction = 0, sameLine = 0, sameDepth = 0;
    QStringList differences;
    for (size_t i = 0; i < addresses.size() && i < theirs.size(); ++i) {
        const Decoded& a = ours[i];
        const Decoded& b = theirs[i];
        const bool function = a.function == b.function;
        // addr2line names a file as its line table spells it, which may be
        // relative to the unit's directory.
        const bool line = a.line == b.line && QFileInfo(a.file).fileName() == QFileInfo(b.file).fileName();
        sameFunction += function;
        sameLine += line;
        sameDepth += a.callers == b.callers;
        if ((!function || !line || a.callers != b.callers) && differences.size() < 5)
            differences << QStringLiteral("  0x%1: %2 %3:%4 +%5 callers / addr2line %6 %7:%8 +%9 callers")
                               .arg(addresses[i] - bias, 0, 16)
                               .arg(a.function, a.file).arg(a.line).arg(a.callers)
                               .arg(b.function, b.file).arg(b.line).arg(b.callers);
    }

    const double n = double(addresses.size());
    printf("%zu distinct addresses of %s from %u samples (%zu frames with inlined callers)\n", addresses.size(),
           qPrintable(binary), unsigned(list->size()), frames);
    printf("symbols, fresh process and table:       %10.0f addresses/s (%.4f s, best of %d)\n", n / cold, cold, fresh);
    printf("symbols, files read:                    %10.0f addresses/s (%.4f s a pass)\n", n / warm, warm);
    printf("addr2line -a -i -f, one process:        %10.0f addresses/s (%.4f s, best of %d)\n", n / external, external,
           fresh);
    printf("addr2line with no address (its start):  %.4f s\n", started);
    printf("symbols / addr2line: %.1fx fresh, %.1fx files read\n", external / cold, external / warm);
    // On a busy machine the processor time of each side says more than the
    // time on the clock.
    printf("processor time, fresh: symbols %.4f s, addr2line %.4f s: %.1fx\n", coldCpu, externalCpu,
           externalCpu / coldCpu);
    printf("agreement with addr2line: function %.1f%%, file and line %.1f%%, inlined callers %.1f%% (%zu answers)\n",
           100.0 * sameFunction / n, 100.0 * sameLine / n, 100.0 * sameDepth / n, theirs.size());
    for (const QString& difference : differences)
        printf("%s\n", qPrintable(difference));
    return 0;
}
