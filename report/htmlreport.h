// The HTML report: one self-contained page, its script and styles inline and
// the run's figures embedded as JSON, so that it works from file:// and
// fetches nothing. It shows the activity timeline of every rank and class of
// thread, a flame graph, the merged call tree top-down and bottom-up, the
// hottest functions and lines, and the run's metrics.
#ifndef ZOR_REPORT_HTMLREPORT_H
#define ZOR_REPORT_HTMLREPORT_H

#include <QByteArray>
#include <QJsonObject>

class Profile;

// The figures the page draws from.
QJsonObject htmlReportData(const Profile& profile);
QByteArray htmlReport(const Profile& profile);

#endif
