// zor: the command a person runs.
//   zor profile [options] -- PROGRAM [ARGS...]   run a program under the profiler
//   zor report FILE [options]                     the reports of a saved result
#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

#include "profilecommand.h"
#include "reportcommand.h"
#include "reports.h"

namespace {

const char* const Usage =
    "usage: zor profile [options] -- PROGRAM [ARGS...]\n"
    "       zor report FILE [--html FILE] [--folded FILE] [--top N]\n"
    "\n"
    "zor profile runs PROGRAM with a sampling profiler and tells where its time went:\n"
    "the summary goes to standard error, the result to a file that zor report reads.\n"
    "\n"
    "  -n N            run N processes through the MPI launcher, one profiler host per rank\n"
    "  --ranks SET     with -n: keep the samples of these ranks only (such as 0-3,7)\n"
    "  --shmem         with -n: start an OpenSHMEM program through oshrun\n"
    "  --host LIST     with -n: the launcher's nodes (such as node1,node2:4)\n"
    "  --hostfile FILE with -n: the launcher's hostfile\n"
    "  --tcp[=ADDRESS] hosts call zor over TCP, at ADDRESS of this node; without it,\n"
    "                  they do so when the nodes or a hostfile name other nodes\n"
    "  --interval MS   sample every MS milliseconds (default 20)\n"
    "  --samples N     keep N samples per process over the run (default 1000)\n"
    "  -o FILE         the result file (default PROGRAM-YYYYMMDD-HHMMSS.zor here)\n"
    "  --html FILE     write an HTML report: timeline, call tree, flame graph\n"
    "  --folded FILE   write folded stacks for flame-graph tools (CPU microseconds)\n"
    "  --top N         list N functions and lines in the summary (default 10)\n"
    "  --quiet         no summary\n"
    "  --help          this text\n"
    "\n"
    "Ctrl-C stops sampling and still gives the result; a second Ctrl-C aborts.\n"
    "zor profile exits with the program's status.\n";

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    if (args.isEmpty()) {
        fputs(Usage, stderr);
        return 2;
    }
    const QString command = args.takeFirst();
    if (command == QLatin1String("--help") || command == QLatin1String("-h") || command == QLatin1String("help")) {
        fputs(Usage, stdout);
        return 0;
    }
    if (command == QLatin1String("report"))
        return runReportCommand(args);
    if (command == QLatin1String("profile"))
        return runProfileCommand(args);
    complain(QStringLiteral("unknown command %1 (see zor --help)").arg(command));
    return 2;
}
