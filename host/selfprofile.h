// What a phase of the back-end's own work costs: its time, and how much the
// resident memory of the back-end, the debugger and the target grew.
#ifndef ZOR_SELFPROFILE_H
#define ZOR_SELFPROFILE_H

#include <QString>
#include <QTime>

#include "selfprofilepoints.h"

class TharnInterface;

class SelfProfile
{
public:
    // Starts measuring: takes the three processes' memory now.
    SelfProfile(TharnInterface& host, const QString& name);

    // Ends the phase, which handled `elements` items. The point is made
    // whether or not the report switch is on; with it on, it is also
    // printed.
    SelfProfilePoint finish(int elements);

    static long pageSize();
    // The resident memory of a process in kiB; 0 when it can't be read, as
    // for a process that has gone.
    static long rssForPid(int pid);

private:
    QString name;
    TharnInterface* host;
    long startSelfRss;
    long startDebuggerRss;
    long startTargetRss;
    QTime timer;
};

#endif
