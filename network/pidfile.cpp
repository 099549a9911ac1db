#include "pidfile.h"

#include <QDir>
#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "directoryallocator.h"

PidFile::PidFile(bool sharedBetweenUsers) : mShared(sharedBetweenUsers), mFd(-1) {}

PidFile::PidFile(const QString& name, bool sharedBetweenUsers) : mName(name), mShared(sharedBetweenUsers), mFd(-1) {}

PidFile::~PidFile()
{
    unlock();
}

void PidFile::setName(const QString& name)
{
    unlock();
    mName = name;
}

QString PidFile::path() const
{
    if (mName.isEmpty() || QDir::isAbsolutePath(mName))
        return mName;
    const QString directory = mShared ? QDir::tempPath() : DirectoryAllocator::getUserTemporary(QString());
    return directory.isEmpty() ? QString() : directory + QLatin1Char('/') + mName;
}

bool PidFile::lock(bool wait)
{
    if (mFd >= 0)
        return true;
    const QString file = path();
    if (file.isEmpty())
        return false;
    const QByteArray name = QFile::encodeName(file);
    int fd;
    for (;;) {
        // A file shared between users has to be writable by all of them.
        fd = ::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mShared ? 0666 : 0600);
        if (fd < 0)
            return false;
        int result;
        do {
            result = ::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB));
        } while (result != 0 && errno == EINTR);
        if (result != 0) {
            ::close(fd);
            return false;
        }
        // The holder before us removes the file before it unlocks: a lock
        // on a file that is no longer at the path locks nothing, so open the
        // path again.
        struct stat held, named;
        if (::fstat(fd, &held) == 0 && ::stat(name.constData(), &named) == 0 && held.st_dev == named.st_dev
            && held.st_ino == named.st_ino)
            break;
        ::close(fd);
    }
    mFd = fd;
    const QByteArray pid = QByteArray::number(qint64(::getpid())) + '\n';
    if (::ftruncate(fd, 0) == 0) {
        // Only a note for people; the lock is what counts.
        const ssize_t written = ::pwrite(fd, pid.constData(), size_t(pid.size()), 0);
        (void)written;
    }
    return true;
}

void PidFile::unlock()
{
    if (mFd < 0)
        return;
    // Removed while still locked, so that no file is left behind; whoever
    // opened it meanwhile sees that it is gone once it gets the lock.
    ::unlink(QFile::encodeName(path()).constData());
    ::flock(mFd, LOCK_UN);
    ::close(mFd);
    mFd = -1;
}
