// Facts about processes on this host, read afresh from /proc on each call.
// Nothing here throws or prints: a failure gives the neutral result.
#ifndef ZOR_PROCINFO_H
#define ZOR_PROCINFO_H

#include <QList>
#include <QString>

class ProcInfo
{
public:
    // True when a signal could be sent to it: zombies exist too.
    static bool exists(int pid);
    // The executable's path; empty when it can't be read.
    static QString getExe(int pid);
    // The first word of the command line; empty when there is none, as for
    // kernel threads.
    static QString getName(int pid);
    // The parent's pid, or -1.
    static int getParent(int pid);
    // Some child's pid, or -1.
    static int getChild(int pid);
    // The pids on the host; with a positive filter, only this user's.
    static QList<int> getList(int filter);
    // Exists and isn't a zombie.
    static bool alive(int pid);
};

#endif
