#include "reports.h"

#include <QSaveFile>

#include "foldedstacks.h"
#include "htmlreport.h"
#include "profile.h"
#include "textsummary.h"

bool optionValue(const QStringList& args, int* i, QString* value, QString* error)
{
    const QString option = args.at(*i);
    if (*i + 1 >= args.size() || args.at(*i + 1).isEmpty()) {
        *error = QStringLiteral("%1 needs a value").arg(option);
        return false;
    }
    *i += 1;
    *value = args.at(*i);
    return true;
}

bool takeReportOption(const QStringList& args, int* i, ReportOptions* options, QString* error, bool* taken)
{
    const QString& arg = args.at(*i);
    *taken = true;
    if (arg == QLatin1String("--html"))
        return optionValue(args, i, &options->html, error);
    if (arg == QLatin1String("--folded"))
        return optionValue(args, i, &options->folded, error);
    if (arg == QLatin1String("--quiet")) {
        options->quiet = true;
        return true;
    }
    if (arg == QLatin1String("--top")) {
        QString value;
        if (!optionValue(args, i, &value, error))
            return false;
        bool ok = false;
        options->top = value.toInt(&ok);
        if (!ok || options->top < 1) {
            *error = QStringLiteral("--top takes a positive number, not %1").arg(value);
            return false;
        }
        return true;
    }
    *taken = false;
    return true;
}

namespace {

bool save(const QString& path, const QByteArray& data, QString* error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace

bool writeReports(const Profile& profile, const ReportOptions& options, FILE* out, QString* error)
{
    if (!options.quiet) {
        fputs(textSummary(profile, options.top).toLocal8Bit().constData(), out);
        fflush(out);
    }
    if (!options.folded.isEmpty() && !save(options.folded, foldedStacks(profile), error))
        return false;
    if (!options.html.isEmpty()) {
        if (!save(options.html, htmlReport(profile), error))
            return false;
        if (!options.quiet)
            fprintf(out, "HTML report: %s\n", qPrintable(options.html));
    }
    return true;
}

void complain(const QString& message)
{
    fprintf(stderr, "zor: %s\n", qPrintable(message));
}
