// The summary of a run for a terminal: plain text, no colour, no line
// longer than SummaryWidth columns.
#ifndef ZOR_REPORT_TEXTSUMMARY_H
#define ZOR_REPORT_TEXTSUMMARY_H

#include <QString>
#include <QStringList>

class Profile;
struct Result;

const int SummaryWidth = 100;

// `top`: how many functions and lines to list.
QString textSummary(const Profile& profile, int top);

// The run in a few words ("1 process", "4 threads", "ran 1.2 s", ...), and
// what the figures leave out or how far they may be off, in sentences: the
// summary's and the page's.
QStringList runFacts(const Profile& profile);
QStringList runNotes(const Profile& profile);

// How many samples the figures rest on, and how often they were taken.
struct SamplingFacts
{
    int fewest = -1; // of any process
    QString text;    // "623 samples every 20 ms (5 ms at first)"
};
SamplingFacts samplingFacts(const Result& result);

// A function's name cut to `width` columns keeping what tells it apart: a
// C++ name loses its template arguments and parameters, then its return
// type, before its front is cut; " [inlined]" stays.
QString shortFunctionName(const QString& name, int width);

// Shared with the other reports.
QString formatDuration(double nanoseconds);
QString formatPercent(double part, double whole);

#endif
