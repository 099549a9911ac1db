// A lock between processes of one machine, held on a file: the first to
// lock it wins, the others see it taken until the winner unlocks or exits.
// The lock is an exclusive flock(2), which the kernel drops when the process
// dies, so a file left by a crashed process never blocks anybody.
#ifndef ZOR_PIDFILE_H
#define ZOR_PIDFILE_H

#include <QString>

class PidFile
{
public:
    // With `sharedBetweenUsers` a relative name lies in the system's
    // temporary directory, so that all users of the machine contend;
    // otherwise in the user's private one (DirectoryAllocator).
    explicit PidFile(bool sharedBetweenUsers);
    PidFile(const QString& name, bool sharedBetweenUsers);
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;
    // Unlocks.
    ~PidFile();

    // Unlocks first if this object holds a lock.
    void setName(const QString& name);
    // The file's full path; empty when its directory can't be had.
    QString path() const;

    // Takes the lock. With `wait` false it returns at once, true if the lock
    // was taken; with `wait` true it blocks until it is. The holder's pid is
    // written into the file for whoever wonders who holds it. True at once
    // if this object holds the lock already.
    bool lock(bool wait);
    void unlock();
    bool isLocked() const { return mFd >= 0; }

private:
    QString mName;
    bool mShared;
    int mFd;
};

#endif
