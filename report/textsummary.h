// The summary of a run for a terminal: plain text, no colour, no line
// longer than SummaryWidth columns.
#ifndef ZOR_REPORT_TEXTSUMMARY_H
#define ZOR_REPORT_TEXTSUMMARY_H

#include <QString>

class Profile;

const int SummaryWidth = 100;

// `top`: how many functions and lines to list.
QString textSummary(const Profile& profile, int top);

// Shared with the other reports.
QString formatDuration(double nanoseconds);
QString formatPercent(double part, double whole);

#endif
