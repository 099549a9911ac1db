#include "textsummary.h"

#include <QFileInfo>
#include <QStringList>

#include <cmath>

#include "mpicalls.h"
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

const struct
{
    const char* id;
    const char* name;
} InstructionNames[] = {
    { "instr_fp", "floating point" },     { "instr_vector_fp", "vector floating point" },
    { "instr_int", "integer" },           { "instr_vector_int", "vector integer" },
    { "instr_mem", "memory" },            { "instr_branch", "branch" },
    { "instr_scalar_fp", "scalar floating point" }, { "instr_scalar_int", "scalar integer" },
    { "instr_implicit_mem", "implicit memory" },    { "instr_other", "other" },
};

} // namespace

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
    QString facts = QStringLiteral("%1, %2, ran %3, %4 per process every %5 ms, %6 CPU time")
                        .arg(plural(profile.rankCount(), "rank", "ranks"))
                        .arg(plural(profile.threadCount(), "thread", "threads"))
                        .arg(formatDuration(double(run.wallMs > 0 ? run.wallMs : profile.durationMs()) * 1e6))
                        .arg(plural(run.samplesPerProcess, "sample", "samples"))
                        .arg(run.intervalMs)
                        .arg(formatDuration(cpu));
    out << fit(facts, SummaryWidth);
    if (run.interrupted)
        out << QStringLiteral("Sampling was stopped early.");
    if (run.exitStatus != 0)
        out << QStringLiteral("The program exited with status %1.").arg(run.exitStatus);

    QList<FunctionFigure> functions;
    // Functions that would show 0.0% self time are left out.
    for (const FunctionFigure& f : profile.functions(top)) {
        if (f.selfNs * 2000 >= profile.cpuNs() && f.selfNs > 0)
            functions.append(f);
    }
    out << QString() << QStringLiteral("Top functions by self time (share of all CPU time)");
    out << QStringLiteral("   self   total  %1 where").arg(QStringLiteral("function"), -48);
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

    const QMap<QString, double> mix = profile.instructionMix();
    QStringList mixItems;
    for (const auto& name : InstructionNames) {
        const auto it = mix.constFind(QLatin1String(name.id));
        if (it != mix.constEnd())
            mixItems << QStringLiteral("%1% %2").arg(std::lround(*it)).arg(QLatin1String(name.name));
    }
    if (!mixItems.isEmpty())
        out << QString() << wrap(QStringLiteral("Instruction mix:"), mixItems);

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
