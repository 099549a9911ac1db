// What both `zor profile` and `zor report` do with a result: the summary and
// the report files that the options ask for.
#ifndef ZOR_FRONTEND_REPORTS_H
#define ZOR_FRONTEND_REPORTS_H

#include <QString>
#include <QStringList>

#include <cstdio>

class Profile;

struct ReportOptions
{
    QString html;
    QString folded;
    int top = 10;
    bool quiet = false;
};

// Reads the value of an option that takes one; false, with a message, when
// it is missing. `i` moves past what was read.
bool optionValue(const QStringList& args, int* i, QString* value, QString* error);
// Takes the report options at args[*i], if it is one; `error` says what is wrong.
bool takeReportOption(const QStringList& args, int* i, ReportOptions* options, QString* error, bool* taken);

// Prints the summary to `out` unless quiet and writes the files; false, with
// the reason, when a file can't be written.
bool writeReports(const Profile& profile, const ReportOptions& options, FILE* out, QString* error);

// "zor: " and the message on standard error.
void complain(const QString& message);

#endif
