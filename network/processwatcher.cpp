#include "processwatcher.h"

#include <QList>
#include <cerrno>
#include <signal.h>

namespace {

int gMultiple = 1;

QList<ProcessWatcher*>& watchers()
{
    static QList<ProcessWatcher*> list;
    return list;
}

} // namespace

ProcessWatcher::ProcessWatcher(int pid, QObject* parent) : QObject(parent), mPid(pid)
{
    connect(&mTimer, SIGNAL(timeout()), this, SLOT(check()));
    applyInterval();
    watchers().append(this);
}

ProcessWatcher::~ProcessWatcher()
{
    watchers().removeAll(this);
}

void ProcessWatcher::setTimerIntervalMultiple(int multiple)
{
    gMultiple = multiple < 1 ? 1 : multiple;
    for (ProcessWatcher* watcher : watchers())
        watcher->applyInterval();
}

int ProcessWatcher::timerIntervalMultiple()
{
    return gMultiple;
}

void ProcessWatcher::start()
{
    mTimer.start();
}

void ProcessWatcher::stop()
{
    mTimer.stop();
}

void ProcessWatcher::applyInterval()
{
    // setInterval restarts a running timer with the new interval.
    mTimer.setInterval(BaseIntervalMs * gMultiple);
}

void ProcessWatcher::check()
{
    if (::kill(mPid, 0) == 0 || errno == EPERM)
        return;
    mTimer.stop();
    emit processExited(mPid);
}
