// zor report FILE [--html FILE] [--folded FILE] [--top N]: the summary and
// reports of a saved result, without the program.
#ifndef ZOR_FRONTEND_REPORTCOMMAND_H
#define ZOR_FRONTEND_REPORTCOMMAND_H

#include <QStringList>

int runReportCommand(const QStringList& args);

#endif
