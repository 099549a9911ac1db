#include "profilecommand.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <unistd.h>

#include "profile.h"
#include "reports.h"
#include "result.h"

namespace {

struct ProfileOptions
{
    int processes = 0; // 0: no MPI launcher
    int intervalMs = 20;
    int samples = 1000;
    QString output;
    ReportOptions reports;
    QString program;
    QStringList arguments;
};

bool positiveNumber(const QStringList& args, int* i, int* value, QString* error)
{
    const QString option = args.at(*i);
    QString text;
    if (!optionValue(args, i, &text, error))
        return false;
    bool ok = false;
    *value = text.toInt(&ok);
    if (!ok || *value < 1) {
        *error = QStringLiteral("%1 takes a positive number, not %2").arg(option, text);
        return false;
    }
    return true;
}

// 0: go on; otherwise the exit status, a message having been printed.
int parse(const QStringList& args, ProfileOptions* options)
{
    QString error;
    int i = 0;
    for (; i < args.size(); ++i) {
        const QString& arg = args.at(i);
        bool taken = false;
        bool ok = takeReportOption(args, &i, &options->reports, &error, &taken);
        if (!taken) {
            if (arg == QLatin1String("--")) {
                ++i;
                break;
            }
            if (arg == QLatin1String("--help") || arg == QLatin1String("-h")) {
                fputs("usage: zor profile [-n N] [--interval MS] [--samples N] [-o FILE] [--html FILE]\n"
                      "                   [--folded FILE] [--top N] [--quiet] -- PROGRAM [ARGS...]\n"
                      "(zor --help says more)\n",
                      stdout);
                return -1;
            }
            if (arg == QLatin1String("-n"))
                ok = positiveNumber(args, &i, &options->processes, &error);
            else if (arg == QLatin1String("--interval"))
                ok = positiveNumber(args, &i, &options->intervalMs, &error);
            else if (arg == QLatin1String("--samples"))
                ok = positiveNumber(args, &i, &options->samples, &error);
            else if (arg == QLatin1String("-o"))
                ok = optionValue(args, &i, &options->output, &error);
            else if (arg.startsWith(QLatin1Char('-'))) {
                error = QStringLiteral("unknown option %1 (see zor --help)").arg(arg);
                ok = false;
            } else {
                break; // the program, without "--" before it
            }
        }
        if (!ok) {
            complain(error);
            return 2;
        }
    }
    if (i >= args.size()) {
        complain(QStringLiteral("no program to profile (zor profile [options] -- PROGRAM [ARGS...])"));
        return 2;
    }
    options->program = args.at(i);
    options->arguments = args.mid(i + 1);
    return 0;
}

// The program as the shell would find it; a clear message when it can't be run.
bool resolveProgram(const QString& program, QString* path, QString* error)
{
    if (program.contains(QLatin1Char('/'))) {
        *path = program;
    } else {
        *path = QStandardPaths::findExecutable(program);
        if (path->isEmpty()) {
            // findExecutable skips files without execute permission; say which it is.
            for (const QString& dir : QString::fromLocal8Bit(qgetenv("PATH")).split(QLatin1Char(':'))) {
                const QFileInfo candidate(QDir(dir.isEmpty() ? QStringLiteral(".") : dir), program);
                if (candidate.isFile()) {
                    *error = QStringLiteral("%1 is not executable").arg(candidate.filePath());
                    return false;
                }
            }
            *error = QStringLiteral("no such program: %1 (not found in PATH)").arg(program);
            return false;
        }
    }
    const QFileInfo info(*path);
    if (!info.exists()) {
        *error = QStringLiteral("no such program: %1").arg(program);
        return false;
    }
    if (info.isDir() || access(QFile::encodeName(*path).constData(), X_OK) != 0) {
        *error = QStringLiteral("%1 is not executable").arg(program);
        return false;
    }
    return true;
}

QString defaultOutput(const QString& program, const QDateTime& started)
{
    return QStringLiteral("%1-%2.zor")
        .arg(QFileInfo(program).fileName(), started.toLocalTime().toString(QStringLiteral("yyyyMMdd-HHmmss")));
}

// zor-host lies beside zor, in the build tree and in an installed prefix alike.
QString hostProgram()
{
    return QDir(QCoreApplication::applicationDirPath()).filePath(QStringLiteral("zor-host"));
}

} // namespace

int runProfileCommand(const QStringList& args)
{
    ProfileOptions options;
    const int status = parse(args, &options);
    if (status != 0)
        return status < 0 ? 0 : status;
    QString program;
    QString error;
    if (!resolveProgram(options.program, &program, &error)) {
        complain(error);
        return 127;
    }
    const QString host = hostProgram();
    if (!QFileInfo(host).isExecutable()) {
        complain(QStringLiteral("cannot find zor-host beside zor (looked for %1)").arg(host));
        return 1;
    }
    const QDateTime started = QDateTime::currentDateTimeUtc();
    if (options.output.isEmpty())
        options.output = defaultOutput(options.program, started);
    complain(QStringLiteral("running programs through zor-host is not part of this build yet"));
    return 1;
}
