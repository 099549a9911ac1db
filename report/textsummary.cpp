#include "textsummary.h"

#include <QFileInfo>
#include <QStringList>

#include <cmath>

#include "mpicalls.h"
#include "constants.h"
#include "profile.h"

namespace {

const int StripWidth = 60;
const int LabelWidth = 26;

// Cuts text to `width` columns, marking the cut; `keepEnd` keeps the end,
// which tells more of a path.
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

} // namespace

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

QString textSummary(const Profile& profile, int top)
{
    const RunInfo& run = profile.result().run;
    const double cpu = double(profile.cpuNs());
    QStringList out;

    out << fit(QStringLiteral("zor: %1").arg(run.commandLine()), SummaryWidth);
    const SamplingFacts sampling = samplingFacts(profile.result());
    QString facts = QStringLiteral("%1, %2, ran %3, %4, %5 CPU time")
                        .arg(plural(profile.rankCount(), "rank", "ranks"))
                        .arg(plural(profile.threadCount(), "thread", "threads"))
                        .arg(formatDuration(double(run.wallMs > 0 ? run.wallMs : profile.durationMs()) * 1e6))
                        .arg(sampling.text)
                        .arg(formatDuration(cpu));
    out << fit(facts, SummaryWidth);
    // Two standard deviations of a share of one half.
    // A program that execs ends its sampling, not its run.
    const qint64 sampledMs = run.wallMs > 0 ? run.wallMs : profile.durationMs();
    const bool execed = !run.interrupted && run.programMs - sampledMs > std::max<qint64>(500, sampledMs / 5);
    if (sampling.fewest == 0 && !execed)
        out << fit(QStringLiteral("No samples: the program ended within its first interval of %1 ms; "
                                  "try a shorter --interval.")
                       .arg(run.intervalMs),
                   SummaryWidth);
    else if (sampling.fewest > 0 && sampling.fewest < 10)
        out << QStringLiteral("Too few samples for the shares to mean much; a shorter --interval takes more.");
    else if (sampling.fewest > 0 && sampling.fewest < 400)
        out << fit(QStringLiteral("With %1 a share may be off by up to %2 points; a shorter --interval takes more.")
                       .arg(plural(sampling.fewest, "sample", "samples"))
                       .arg(std::lround(100 / std::sqrt(double(sampling.fewest)))),
                   SummaryWidth);
    if (run.interrupted)
        out << QStringLiteral("Sampling was stopped early.");
    if (run.exitStatus != 0)
        out << QStringLiteral("The program exited with status %1.").arg(run.exitStatus);

    if (execed)
        out << wrapWords(QStringLiteral("Sampling ended %1 before the program did, most likely because it replaced "
                                        "itself with another program (exec), which zor does not follow: to see that "
                                        "program's time, profile it directly.")
                             .arg(formatDuration(double(run.programMs - sampledMs) * 1e6)));
    QString waitedIn;
    const double waited = profile.childWaitShare(&waitedIn);
    if (waited >= 0.25)
        out << wrapWords(QStringLiteral("The program waited for programs that it started through %1 of the run (in %2). "
                                        "zor samples only the program that it starts: to see their time, profile "
                                        "them directly.")
                             .arg(formatPercent(waited, 1), waitedIn));

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
                       .arg(fit(f.function, 48), -48)
                       .arg(where(f.file, f.line)),
                   SummaryWidth);
    }
    if (functions.isEmpty())
        out << QStringLiteral("  (no samples with a call stack)");
    // Code without symbols, all of a library's in one line, is worth naming.
    quint64 unnamedNs = 0;
    QStringList unnamedIn;
    static const QString unknown = QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION);
    for (const FunctionFigure& f : profile.functions()) {
        if (!f.function.startsWith(unknown))
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

    QList<LineFigure> lines;
    for (const LineFigure& l : profile.lines(top)) {
        if (l.selfNs * 2000 >= profile.cpuNs() && l.selfNs > 0)
            lines.append(l);
    }
    if (!lines.isEmpty()) {
        out << QString() << QStringLiteral("Hottest source lines");
        out << QStringLiteral("   self  %1 function").arg(QStringLiteral("line"), -40);
        for (const LineFigure& l : lines) {
            out << fit(QStringLiteral("%1  %2 %3")
                           .arg(formatPercent(l.selfNs, cpu), 7)
                           .arg(fit(where(l.file, l.line), 40, true), -40)
                           .arg(l.function),
                       SummaryWidth);
        }
    }

    const QList<ActivityRow> rows = profile.activity(StripWidth, false);
    if (!rows.isEmpty()) {
        out << QString()
            << fit(QStringLiteral("Activity over %1 (a column is %2; '#' busy >75%, '=' >50%, ':' >25%, '.' >5%)")
                       .arg(formatDuration(profile.durationMs() * 1e6))
                       .arg(formatDuration(profile.durationMs() * 1e6 / StripWidth)),
                   SummaryWidth);
        for (const ActivityRow& row : rows) {
            QString strip;
            double sum = 0;
            for (double busy : row.busy) {
                strip += shade(busy);
                sum += busy;
            }
            const QString label = QStringLiteral("%1 (%2)").arg(row.label).arg(row.threads);
            out << QStringLiteral("  %1|%2| %3 busy")
                       .arg(fit(label, LabelWidth), -LabelWidth)
                       .arg(strip)
                       .arg(QStringLiteral("%1%").arg(std::lround(100 * sum / row.busy.size())), 4);
        }
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
        out << QString() << QStringLiteral("Instruction mix: CPU time by the instruction that each thread was running")
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
    QString unwindLine;
    if (unwind.failed == 0) {
        unwindLine = QStringLiteral("Unwind problems: none");
    } else {
        QStringList codes;
        for (auto it = unwind.byCode.constBegin(); it != unwind.byCode.constEnd() && codes.size() < 4; ++it)
            codes << QStringLiteral("%1 x%2").arg(it.key()).arg(it.value());
        if (unwind.byCode.size() > codes.size())
            codes << QStringLiteral("...");
        unwindLine = QStringLiteral("Unwind problems: %1 of %2 stacks (status %3); details: ZOR_VERBOSE_UNWIND_ERRORS=1")
                         .arg(unwind.failed)
                         .arg(unwind.threadSamples)
                         .arg(codes.join(QStringLiteral(", ")));
    }
    out << QString() << fit(unwindLine, SummaryWidth);
    return out.join(QLatin1Char('\n')) + QLatin1Char('\n');
}
