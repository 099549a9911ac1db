#include "reportcommand.h"

#include "profile.h"
#include "reports.h"
#include "result.h"

int runReportCommand(const QStringList& args)
{
    ReportOptions options;
    QString path;
    QString error;
    for (int i = 0; i < args.size(); ++i) {
        bool taken = false;
        if (!takeReportOption(args, &i, &options, &error, &taken)) {
            complain(error);
            return 2;
        }
        if (taken)
            continue;
        if (args.at(i) == QLatin1String("--help")) {
            fputs("usage: zor report FILE [--html FILE] [--folded FILE] [--top N] [--quiet]\n", stdout);
            return 0;
        }
        if (args.at(i).startsWith(QLatin1Char('-')) || !path.isEmpty()) {
            complain(QStringLiteral("unknown option %1 (see zor --help)").arg(args.at(i)));
            return 2;
        }
        path = args.at(i);
    }
    if (path.isEmpty()) {
        complain(QStringLiteral("zor report needs a result file (see zor --help)"));
        return 2;
    }
    Result result;
    if (!ResultFile::read(path, &result, &error)) {
        complain(error);
        return 1;
    }
    const Profile profile(result);
    if (!writeReports(profile, options, stdout, &error)) {
        complain(error);
        return 1;
    }
    return 0;
}
