#include "textsummary.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <cstring>

#include "mpicalls.h"
#include "constants.h"
#include "profile.h"

namespace {

// The label column and the strip share 87 columns; the label column grows
// for the longest class present, up to MostLabelWidth.
const int StripWidth = 60;
const int LabelWidth = 27;
const int MostLabelWidth = 40;

// Cuts text to `width` columns, marking the cut; `keepEnd` keeps the end,
// which tells more of a path.
// A class's row counts its threads; a thread's own row is named by its id.
QString threadCount(const ActivityRow& row)
{
    return row.tid ? QString() : QStringLiteral(" (%1)").arg(row.threads);
}

QString fit(const QString& text, int width, bool keepEnd = false)
{
    if (text.size() <= width)
        return text;
    if (width <= 3)
        return text.left(width);
    return keepEnd ? QLatin1String("...") + text.right(width - 3) : text.left(width - 3) + QLatin1String("...");
}

QString where(const QString& file, int line)
{
    if (file.isEmpty())
        return QString();
    const QString name = QFileInfo(file).fileName();
    return line > 0 ? QStringLiteral("%1:%2").arg(name).arg(line) : name;
}

QChar shade(double busy)
{
    if (busy >= 0.75)
        return QLatin1Char('#');
    if (busy >= 0.5)
        return QLatin1Char('=');
    if (busy >= 0.25)
        return QLatin1Char(':');
    if (busy >= 0.05)
        return QLatin1Char('.');
    return QLatin1Char(' ');
}

QString plural(int n, const char* one, const char* many)
{
    return QStringLiteral("%1 %2").arg(n).arg(QLatin1String(n == 1 ? one : many));
}

// Joins items into lines of at most SummaryWidth columns, the first
// starting with `head`, the others indented.
QStringList wrap(const QString& head, const QStringList& items)
{
    QStringList lines;
    QString line = head;
    for (int i = 0; i < items.size(); ++i) {
        const QString item = items.at(i) + (i + 1 < items.size() ? QStringLiteral(",") : QString());
        if (line.size() + 1 + item.size() > SummaryWidth && line.trimmed().size() > 0 && line != head) {
            lines.append(line);
            line = QStringLiteral("   ");
        }
        line += QLatin1Char(' ') + item;
    }
    lines.append(fit(line, SummaryWidth));
    return lines;
}

// Breaks sentences into lines of at most SummaryWidth columns, each
// starting with `indent`.
QStringList wrapWords(const QString& text, const QString& indent = QString())
{
    QStringList lines;
    QString line = indent;
    for (const QString& word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (line.size() + 1 + word.size() > SummaryWidth && line.size() > indent.size()) {
            lines << line;
            line = indent;
        }
        line += (line.size() > indent.size() ? QStringLiteral(" ") : QString()) + word;
    }
    lines << fit(line, SummaryWidth);
    return lines;
}

bool isIdentifierChar(QChar c)
{
    return c.isLetterOrNumber() || c == QLatin1Char('_');
}

// The operator symbol that starts at `at` after the word "operator", so
// that "operator<<" or "operator()" isn't taken for brackets.
int operatorSymbolLength(const QString& name, int at)
{
    static const char* const symbols[] = { "()", "[]", "<=>", "->*", "<<=", ">>=", "<<", ">>", "<=", ">=", "==", "!=",
                                           "&&", "||", "++", "--", "->", "+=", "-=", "*=", "/=", "%=", "&=", "|=",
                                           "^=", "<", ">", "+", "-", "*", "/", "%", "&", "|", "^", "~", "!", "=", "," };
    for (const char* symbol : symbols) {
        if (name.midRef(at).startsWith(QLatin1String(symbol)))
            return int(qstrlen(symbol));
    }
    return 0;
}

// Replaces what lies inside brackets ("<...>", "(...)") from `level` deep
// on; the words "operator" and "(anonymous namespace)" are kept whole.
QString collapseBrackets(const QString& name, int level)
{
    static const QString anonymous = QStringLiteral("(anonymous namespace)");
    static const QString op = QStringLiteral("operator");
    QString out;
    int depth = 0;
    bool inside = false; // within a collapsed pair
    for (int i = 0; i < name.size(); ++i) {
        const QChar c = name.at(i);
        if (name.midRef(i).startsWith(anonymous)) {
            if (!inside)
                out += anonymous;
            i += anonymous.size() - 1;
            continue;
        }
        if (name.midRef(i).startsWith(op) && (i == 0 || !isIdentifierChar(name.at(i - 1)))) {
            int end = i + op.size();
            if (end == name.size() || !isIdentifierChar(name.at(end))) {
                while (end < name.size() && name.at(end) == QLatin1Char(' ') && operatorSymbolLength(name, end + 1) > 0)
                    ++end;
                end += operatorSymbolLength(name, end);
                if (!inside)
                    out += name.mid(i, end - i);
                i = end - 1;
                continue;
            }
        }
        if (c == QLatin1Char('<') || c == QLatin1Char('(')) {
            ++depth;
            if (depth == level && !inside) {
                const QChar close = c == QLatin1Char('<') ? QLatin1Char('>') : QLatin1Char(')');
                const bool empty = i + 1 < name.size() && name.at(i + 1) == close;
                out += c;
                if (!empty)
                    out += QLatin1String("...");
                inside = true;
                continue;
            }
        } else if (c == QLatin1Char('>') || c == QLatin1Char(')')) {
            if (depth == level && inside) {
                out += c;
                inside = false;
                --depth;
                continue;
            }
            depth = std::max(0, depth - 1);
        }
        if (!inside)
            out += c;
    }
    return out;
}

// A return type before the name: a space outside brackets before the
// parameters, where no "operator" (new, a conversion) comes first.
QString withoutReturnType(const QString& name)
{
    int depth = 0;
    for (int i = 0; i < name.size(); ++i) {
        const QChar c = name.at(i);
        if (depth == 0 && (c == QLatin1Char('(') || name.midRef(i).startsWith(QLatin1String("operator"))))
            return name;
        if (c == QLatin1Char('<'))
            ++depth;
        else if (c == QLatin1Char('>'))
            --depth;
        else if (depth == 0 && c == QLatin1Char(' '))
            return name.mid(i + 1);
    }
    return name;
}

// Drops outer qualifiers ("std::", a class) until the name fits `width`
// with "..." before it.
QString withoutOuterScopes(const QString& name, int width)
{
    QString rest = name;
    while (rest.size() + 3 > width) {
        int depth = 0, cut = -1;
        for (int i = 0; i + 1 < rest.size() && cut < 0; ++i) {
            const QChar c = rest.at(i);
            if (c == QLatin1Char('<') || c == QLatin1Char('('))
                ++depth;
            else if (c == QLatin1Char('>') || c == QLatin1Char(')'))
                --depth;
            else if (depth == 0 && c == QLatin1Char(':') && rest.at(i + 1) == QLatin1Char(':'))
                cut = i + 2;
        }
        if (cut < 0)
            break;
        rest = rest.mid(cut);
    }
    return rest.size() == name.size() ? name : QLatin1String("...") + rest;
}

// What an unwind status means, for a reader who doesn't know the unwinder.
QString unwindStatusWords(int code)
{
    switch (code) {
    case 6:
        return QStringLiteral("an invalid instruction address");
    case 7:
        return QStringLiteral("a bad frame");
    case 10:
        return QStringLiteral("code without unwind information");
    case 100:
        return QStringLiteral("a stack deeper than the sampler keeps");
    case 101:
        return QStringLiteral("a thread's stack was not taken in time");
    case 105:
        return QStringLiteral("threads clashed while their stacks were taken");
    case 106:
        return QStringLiteral("no frames");
    case 107:
        return QStringLiteral("the unwinder met unreadable memory");
    default:
        return code <= 10 ? QStringLiteral("an unwinder error") : QStringLiteral("a sampler error");
    }
}

} // namespace

QString shortFunctionName(const QString& name, int width)
{
    if (name.size() <= width)
        return name;
    static const QString inlined = QStringLiteral(" [inlined]");
    const bool isInlined = name.endsWith(inlined);
    const QString base = isInlined ? name.left(name.size() - inlined.size()) : name;
    const QString suffix = isInlined ? inlined : QString();
    const int room = width - suffix.size();
    // "<unknown> from ..." and the like are not C++ names.
    if (room <= 3 || base.startsWith(QLatin1Char('<')) || base.startsWith(QLatin1Char('[')))
        return fit(name, width);
    QString shorter = collapseBrackets(base, 2);
    if (shorter.size() > room)
        shorter = collapseBrackets(base, 1);
    if (shorter.size() > room)
        shorter = withoutReturnType(shorter);
    if (shorter.size() > room)
        shorter = withoutOuterScopes(shorter, room);
    return fit(shorter, room, true) + suffix;
}

SamplingFacts samplingFacts(const Result& result)
{
    // Each process keeps at most a number of samples: past it, every other
    // one goes and the interval doubles.
    SamplingFacts facts;
    int most = 0, thinnings = 0;
    for (const RankResult& rank : result.ranks) {
        const int taken = rank.play.sampleCount();
        facts.fewest = facts.fewest < 0 ? taken : std::min(facts.fewest, taken);
        most = std::max(most, taken);
        thinnings = std::max(thinnings, rank.play.metrics().value(QLatin1String(METRIC_NUM_DOWNSAMPLES)).to_int());
    }
    facts.fewest = std::max(facts.fewest, 0);
    const int interval = result.run.intervalMs;
    QString count = facts.fewest == most ? plural(most, "sample", "samples")
                                         : QStringLiteral("%1-%2 samples").arg(facts.fewest).arg(most);
    if (result.ranks.size() > 1)
        count += QStringLiteral(" per process");
    if (thinnings > 0 && thinnings < 20)
        facts.text = QStringLiteral("%1 every %2 ms (%3 ms at first)").arg(count).arg(interval << thinnings).arg(interval);
    else
        facts.text = QStringLiteral("%1 every %2 ms").arg(count).arg(interval);
    return facts;
}

QString formatDuration(double ns)
{
    const double s = ns / 1e9;
    if (s >= 100)
        return QStringLiteral("%1 s").arg(s, 0, 'f', 0);
    if (s >= 1)
        return QStringLiteral("%1 s").arg(s, 0, 'f', 2);
    if (ns >= 1e6)
        return QStringLiteral("%1 ms").arg(ns / 1e6, 0, 'f', ns >= 1e8 ? 0 : 1);
    return QStringLiteral("%1 us").arg(ns / 1e3, 0, 'f', 0);
}

QString formatPercent(double part, double whole)
{
    if (!(whole > 0))
        return QStringLiteral("-");
    return QStringLiteral("%1%").arg(100.0 * part / whole, 0, 'f', 1);
}

QStringList runFacts(const Profile& profile)
{
    const RunInfo& run = profile.result().run;
    QStringList facts;
    facts << (profile.rankCount() > 1 ? plural(profile.rankCount(), "rank", "ranks") : QStringLiteral("1 process"));
    // A run without samples knows its threads and CPU time from none.
    if (profile.threadCount() > 0)
        facts << plural(profile.threadCount(), "thread", "threads");
    // Without samples the time is not known: the end of the run as zor
    // saw it comes tens of milliseconds late.
    const qint64 ranMs = run.wallMs > 0 ? run.wallMs : profile.durationMs();
    if (ranMs > 0)
        facts << QStringLiteral("ran %1").arg(formatDuration(double(ranMs) * 1e6));
    facts << samplingFacts(profile.result()).text;
    if (profile.threadCount() > 0)
        facts << QStringLiteral("%1 CPU time").arg(formatDuration(double(profile.cpuNs())));
    return facts;
}

QStringList runNotes(const Profile& profile)
{
    const RunInfo& run = profile.result().run;
    const double cpu = double(profile.cpuNs());
    QStringList notes;
    const SamplingFacts sampling = samplingFacts(profile.result());
    // A program that execs ends its sampling, not its run.
    const qint64 sampledMs = run.wallMs > 0 ? run.wallMs : profile.durationMs();
    const bool execed = !run.interrupted && run.programMs - sampledMs > std::max<qint64>(500, sampledMs / 5);
    if (sampling.fewest == 0 && !execed)
        notes << QStringLiteral("No samples: the program ended within its first interval of %1 ms; "
                                "try a shorter --interval.")
                     .arg(run.intervalMs);
    else if (sampling.fewest > 0 && sampling.fewest < 10)
        notes << QStringLiteral("Too few samples for the shares to mean much; a shorter --interval takes more.");
    else if (sampling.fewest > 0 && sampling.fewest < 400)
        // Two standard deviations of a share of one half.
        notes << QStringLiteral("With %1 a share may be off by up to %2 points; a shorter --interval takes more.")
                     .arg(plural(sampling.fewest, "sample", "samples"))
                     .arg(std::lround(100 / std::sqrt(double(sampling.fewest))));
    if (run.interrupted)
        notes << QStringLiteral("Sampling was stopped early.");
    // Threads at work that outnumber the processors take turns on them.
    const int working = profile.threadsDoingMostWork();
    const double processorsUsed = run.cpus > 0 && sampledMs > 0 ? cpu / (run.cpus * double(sampledMs) * 1e6) : 0;
    if (working > run.cpus && processorsUsed >= 0.8)
        notes << QStringLiteral("%1 threads at work took turns on the %2 that the program could use, which they kept "
                                "%3 busy: each thread waited for the others. A strip below is its threads' share of "
                                "the processors that they could use.")
                     .arg(working)
                     .arg(plural(run.cpus, "processor", "processors"))
                     .arg(QStringLiteral("%1%").arg(std::lround(100 * std::min(1.0, processorsUsed))));
    if (run.exitSignal > 0 && !run.interrupted)
        notes << QStringLiteral("The program was killed by signal %1 (%2), exit status %3.")
                     .arg(run.exitSignal)
                     .arg(QString::fromLocal8Bit(strsignal(run.exitSignal)))
                     .arg(run.exitStatus);
    else if (run.exitStatus != 0)
        notes << QStringLiteral("The program exited with status %1.").arg(run.exitStatus);

    if (execed)
        notes << QStringLiteral("Sampling ended %1 before the program did, most likely because it replaced "
                                "itself with another program (exec), which zor does not follow: to see that "
                                "program's time, profile it directly.")
                     .arg(formatDuration(double(run.programMs - sampledMs) * 1e6));
    // Time that no sample saw: threads that lived and ended between two
    // samples, work before main or after sampling ended, and the sampler's
    // own, a few percent unless the machine is busy.
    const double unseenNs = double(run.processCpuMs) * 1e6 - cpu;
    if (run.processCpuMs >= 0 && !run.interrupted && !execed && unseenNs >= 1e8 && unseenNs >= 0.2 * run.processCpuMs * 1e6)
        notes << QStringLiteral("The program used %1 of CPU time, %2 of it where no sample saw it: in threads that "
                                "start and end between two samples, before main or after sampling ended, or in the "
                                "sampler's own work, which a busy machine makes dearer.")
                     .arg(formatDuration(double(run.processCpuMs) * 1e6), formatDuration(unseenNs));
    // What the program's children did, as the ended program tells it.
    const double childrenNs = double(run.childrenCpuMs) * 1e6;
    const bool busyChildren = run.childrenCpuMs >= 100 && childrenNs >= 0.1 * cpu;
    if (busyChildren)
        notes << QStringLiteral("Processes that the program started used %1 of CPU time beside its own %2. "
                                "zor samples only the program that it starts, not the processes that it "
                                "starts (fork, exec), so their time is in none of the figures below.")
                     .arg(formatDuration(childrenNs), formatDuration(cpu));
    QString waitedIn;
    const double waited = profile.childWaitShare(&waitedIn);
    if (waited >= 0.25 && !busyChildren)
        notes << QStringLiteral("The program waited for programs that it started through %1 of the run (in %2). "
                                "zor samples only the program that it starts: to see their time, profile "
                                "them directly.")
                     .arg(formatPercent(waited, 1), waitedIn);
    return notes;
}

QString textSummary(const Profile& profile, int top)
{
    const RunInfo& run = profile.result().run;
    const double cpu = double(profile.cpuNs());
    QStringList out;

    out << fit(QStringLiteral("zor: %1").arg(run.commandLine()), SummaryWidth);
    out << wrapWords(runFacts(profile).join(QLatin1String(", ")));
    for (const QString& note : runNotes(profile))
        out << wrapWords(note);

    QList<FunctionFigure> functions;
    // Functions that would show 0.0% self time are left out.
    for (const FunctionFigure& f : profile.functions(top)) {
        if (f.selfNs * 2000 >= profile.cpuNs() && f.selfNs > 0)
            functions.append(f);
    }
    out << QString() << QStringLiteral("Top functions by self time (share of all CPU time)");
    out << QStringLiteral("   self   total  %1 hottest line").arg(QStringLiteral("function"), -48);
    for (const FunctionFigure& f : functions) {
        out << fit(QStringLiteral("%1 %2  %3 %4")
                       .arg(formatPercent(f.selfNs, cpu), 7)
                       .arg(formatPercent(f.totalNs, cpu), 7)
                       .arg(shortFunctionName(f.function, 48), -48)
                       .arg(where(f.file, f.line)),
                   SummaryWidth);
    }
    if (functions.isEmpty())
        out << QStringLiteral("  (no samples with a call stack)");
    // Code without symbols, all of a library's in one line, is worth naming.
    // Code outside any file was made as the program ran: symbols of no
    // package name it, its runtime's map does.
    quint64 unnamedNs = 0, generatedNs = 0;
    QStringList unnamedIn;
    static const QString unknown = QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION);
    // The OpenMP runtimes' own time, named or not, is threads that wait.
    static const QRegularExpression openMp(QStringLiteral("^(gomp_|__kmp|__ompt_)| from lib(gomp|omp|iomp5)\\.so"));
    quint64 openMpNs = 0;
    QString openMpLibrary;
    for (const FunctionFigure& f : profile.functions()) {
        const QRegularExpressionMatch match = openMp.match(f.function);
        if (!match.hasMatch())
            continue;
        openMpNs += f.selfNs;
        if (!match.captured(2).isEmpty())
            openMpLibrary = QStringLiteral("lib") + match.captured(2);
        else if (openMpLibrary.isEmpty())
            openMpLibrary = match.captured(1) == QLatin1String("gomp_") ? QStringLiteral("libgomp") : QStringLiteral("libomp");
    }
    const bool openMpNote = openMpNs * 10 >= profile.cpuNs() && openMpNs > 0;
    for (const FunctionFigure& f : profile.functions()) {
        if (f.function == unknown) {
            generatedNs += f.selfNs;
            continue;
        }
        if (!f.function.startsWith(unknown) || (openMpNote && openMp.match(f.function).hasMatch()))
            continue;
        unnamedNs += f.selfNs;
        const int from = f.function.indexOf(QLatin1String(" from "));
        const QString library = from < 0 ? QString() : f.function.mid(from + 6).section(QLatin1Char(' '), 0, 0);
        if (!library.isEmpty() && !unnamedIn.contains(library) && f.selfNs * 100 >= profile.cpuNs())
            unnamedIn << library;
    }
    if (unnamedNs * 10 >= profile.cpuNs() && unnamedNs > 0) {
        const QString where = unnamedIn.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(unnamedIn.join(QLatin1String(", ")));
        out << wrapWords(QStringLiteral("%1 of the CPU time is in code without symbols%2. Debug symbols for it (on "
                                        "Debian, a -dbgsym or -dbg package) would name its functions and lines.")
                             .arg(formatPercent(unnamedNs, cpu))
                             .arg(where),
                         QStringLiteral("  "));
    }
    if (openMpNote) {
        out << wrapWords(QStringLiteral("%1 of the CPU time is in the OpenMP runtime (%2), as a rule threads that wait "
                                        "at a barrier or for work and spin before they sleep (OMP_WAIT_POLICY=passive has "
                                        "them sleep at once): work shared unevenly between threads, or serial work "
                                        "between parallel regions, leaves them waiting.")
                             .arg(formatPercent(openMpNs, cpu), openMpLibrary),
                         QStringLiteral("  "));
    }
    if (generatedNs * 10 >= profile.cpuNs() && generatedNs > 0) {
        out << wrapWords(QStringLiteral("%1 of the CPU time is in code outside any file, made as the program ran (by a "
                                        "JIT compiler, for instance). A runtime that writes /tmp/perf-PID.map gets it "
                                        "named: Java with -XX:+UnlockDiagnosticVMOptions -XX:+DumpPerfMapAtExit, "
                                        "Node.js with --perf-basic-prof.")
                             .arg(formatPercent(generatedNs, cpu)),
                         QStringLiteral("  "));
    }

    QList<LineFigure> lines;
    for (const LineFigure& l : profile.lines(top)) {
        if (l.selfNs * 2000 >= profile.cpuNs() && l.selfNs > 0)
            lines.append(l);
    }
    if (!lines.isEmpty()) {
        out << QString() << QStringLiteral("Hottest source lines");
        out << QStringLiteral("   self  %1 function").arg(QStringLiteral("line"), -40);
        for (const LineFigure& l : lines) {
            out << QStringLiteral("%1  %2 %3")
                       .arg(formatPercent(l.selfNs, cpu), 7)
                       .arg(fit(where(l.file, l.line), 40, true), -40)
                       .arg(shortFunctionName(l.function, SummaryWidth - 50));
        }
    }

    // Of a program of many named threads (a managed runtime's), those that
    // were next to idle are counted rather than drawn.
    int idleRows = 0, idleThreads = 0;
    auto drawn = [&](QList<ActivityRow> rows) {
        const int MostRows = 8;
        idleRows = idleThreads = 0;
        for (int i = rows.size() - 1; i > 0 && rows.size() > MostRows; --i) {
            const ActivityRow& row = rows.at(i);
            const double busy = std::accumulate(row.busy.begin(), row.busy.end(), 0.0) / std::max(1, row.busy.size());
            if (busy < 0.01 && row.label != QLatin1String("main thread")) {
                ++idleRows;
                idleThreads += row.threads;
                rows.removeAt(i);
            }
        }
        return rows;
    };
    QList<ActivityRow> rows = drawn(profile.activity(StripWidth, false));
    int labelWidth = LabelWidth;
    for (const ActivityRow& row : rows)
        labelWidth = std::max(labelWidth, int(row.label.size() + threadCount(row).size()));
    labelWidth = std::min(labelWidth, MostLabelWidth);
    const int stripWidth = StripWidth + LabelWidth - labelWidth;
    if (stripWidth != StripWidth)
        rows = drawn(profile.activity(stripWidth, false));
    if (!rows.isEmpty()) {
        out << QString()
            << fit(QStringLiteral("Activity over %1 (a column is %2; '#' busy >75%, '=' >50%, ':' >25%, '.' >5%)")
                       .arg(formatDuration(profile.durationMs() * 1e6))
                       .arg(formatDuration(profile.durationMs() * 1e6 / stripWidth)),
                   SummaryWidth);
        for (const ActivityRow& row : rows) {
            QString strip;
            double sum = 0;
            for (double busy : row.busy) {
                strip += shade(busy);
                sum += busy;
            }
            // The count of threads stays when a long class name is cut.
            const QString count = threadCount(row);
            out << QStringLiteral("  %1|%2|%3 busy")
                       .arg(fit(row.label, labelWidth - count.size()) + count, -labelWidth)
                       .arg(strip)
                       .arg(QStringLiteral("%1%").arg(std::lround(100 * sum / row.busy.size())), 4);
        }
        if (idleRows > 0)
            out << QStringLiteral("  and %1 (%2), each under 1% busy")
                       .arg(plural(idleRows, "more row", "more rows"), plural(idleThreads, "thread", "threads"));
    }

    // Each class with its commonest mnemonics, since the classes are narrower
    // than their names may suggest (a 32-bit mov or an lea is in none).
    QStringList mixItems;
    for (const InstructionClassShare& share : profile.instructionMix()) {
        const bool none = share.name == QLatin1String("no class");
        mixItems << QStringLiteral("%1% %2 (%3)")
                        .arg(share.percent)
                        .arg(none ? QStringLiteral("in no class") : share.name)
                        .arg(QStringList(share.examples.mid(0, none ? 3 : 2)).join(QLatin1String(", ")));
    }
    if (!mixItems.isEmpty())
        out << QString()
            << QStringLiteral("Instruction mix: CPU time by the instruction that each thread was running%1")
                   .arg(profile.instructionsRead() < 0.9
                            ? QStringLiteral(" (read for %1)").arg(formatPercent(profile.instructionsRead(), 1))
                            : QString())
            << wrap(QStringLiteral("   "), mixItems);

    const QMap<int, double> mpi = profile.mpiShare();
    if (!mpi.isEmpty()) {
        double sum = 0, low = 1, high = 0;
        int lowRank = -1, highRank = -1;
        for (auto it = mpi.constBegin(); it != mpi.constEnd(); ++it) {
            sum += *it;
            if (*it < low || lowRank < 0) {
                low = *it;
                lowRank = it.key();
            }
            if (*it > high || highRank < 0) {
                high = *it;
                highRank = it.key();
            }
        }
        QString line = QStringLiteral("Time in MPI: %1 of the main threads' time").arg(formatPercent(sum, mpi.size()));
        if (mpi.size() > 1)
            line += QStringLiteral(" (least %1 on rank %2, most %3 on rank %4)")
                        .arg(formatPercent(low, 1))
                        .arg(lowRank)
                        .arg(formatPercent(high, 1))
                        .arg(highRank);
        out << QString() << fit(line, SummaryWidth);
    }
    const MpiCalls mpiCalls(profile.result());
    if (!mpiCalls.isEmpty())
        out << QString() << mpiCalls.summaryLines(top, SummaryWidth);

    const UnwindFigures unwind = profile.unwindFigures();
    if (unwind.failed == 0) {
        out << QString() << QStringLiteral("Unwind problems: none");
    } else {
        QStringList codes;
        for (auto it = unwind.byCode.constBegin(); it != unwind.byCode.constEnd() && codes.size() < 4; ++it)
            codes << QStringLiteral("status %1 x%2: %3").arg(it.key()).arg(it.value()).arg(unwindStatusWords(it.key()));
        if (unwind.byCode.size() > codes.size())
            codes << QStringLiteral("...");
        out << QString()
            << wrapWords(QStringLiteral("Unwind problems: %1 of %2 stacks (%3); ZOR_VERBOSE_UNWIND_ERRORS=1 before "
                                        "zor prints the stacks.")
                             .arg(unwind.failed)
                             .arg(unwind.threadSamples)
                             .arg(codes.join(QStringLiteral("; "))));
    }
    return out.join(QLatin1Char('\n')) + QLatin1Char('\n');
}
