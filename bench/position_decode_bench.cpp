// Source positions of the distinct addresses of a real run: libdwfl (the
// symbols library) against one `addr2line -i -f` process fed every address.
// The subject is a large binary with full debug information, Debian's
// python3.11d (scripts/install-deps.sh --bench installs it) running a small
// script under the sampler. Prints addresses per second for both.
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

} // namespace

int main(int argc, char** argv)
{
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

    // libdwfl: the first pass reads the files, the second finds them read.
    SymbolTable table;
    QElapsedTimer clock;
    clock.start();
    table.setLibraries(libraries);
    size_t frames = 0;
    for (unsigned long long address : addresses) {
        QList<SymbolPosition> callers;
        table.position(address, &callers);
        frames += 1 + size_t(callers.size());
    }
    const double cold = clock.nsecsElapsed() / 1e9;
    const int repeats = 20;
    clock.restart();
    for (int r = 0; r < repeats; ++r) {
        for (unsigned long long address : addresses) {
            QList<SymbolPosition> callers;
            table.position(address, &callers);
        }
    }
    const double warm = clock.nsecsElapsed() / 1e9 / repeats;

    // One addr2line process for all of them, file-relative addresses.
    QByteArray input;
    for (unsigned long long address : addresses)
        input += QByteArray::number(address - subject.start(), 16) + '\n';
    QProcess addr2line;
    clock.restart();
    addr2line.start(QStringLiteral("addr2line"), {QStringLiteral("-i"), QStringLiteral("-f"), QStringLiteral("-e"), binary});
    addr2line.waitForStarted();
    addr2line.write(input);
    addr2line.closeWriteChannel();
    QByteArray output;
    while (addr2line.state() != QProcess::NotRunning || addr2line.bytesAvailable()) {
        addr2line.waitForReadyRead(100);
        output += addr2line.readAllStandardOutput();
    }
    const double external = clock.nsecsElapsed() / 1e9;

    const double n = double(addresses.size());
    printf("%zu distinct addresses of %s from %u samples (%zu frames with inlined callers)\n", addresses.size(),
           qPrintable(binary), unsigned(list->size()), frames);
    printf("libdwfl, first pass reading the files: %10.0f addresses/s (%.3f s)\n", n / cold, cold);
    printf("libdwfl, files read:                   %10.0f addresses/s (%.4f s a pass)\n", n / warm, warm);
    printf("addr2line -i -f, one process:          %10.0f addresses/s (%.3f s, %d lines)\n", n / external, external,
           int(output.count('\n')));
    printf("libdwfl / addr2line: %.1fx first pass, %.1fx files read\n", external / cold, external / warm);
    return 0;
}
