// zor profile [options] -- PROGRAM [ARGS...]: runs a program under the
// profiler through zor-host, saves the result and prints the summary.
#ifndef ZOR_FRONTEND_PROFILECOMMAND_H
#define ZOR_FRONTEND_PROFILECOMMAND_H

#include <QStringList>

int runProfileCommand(const QStringList& args);

#endif
