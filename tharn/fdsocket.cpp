#include "fdsocket.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Waits for `events` on `fd` until the deadline: above 0 when they came,
// 0 at the deadline, below 0 on an error (errno).
int pollUntil(int fd, short events, const QDeadlineTimer& deadline)
{
    for (;;) {
        pollfd waiting = {fd, events, 0};
        const qint64 left = deadline.remainingTime();
        const int ready = ::poll(&waiting, 1, left < 0 ? -1 : int(left));
        if (ready >= 0 || errno != EINTR)
            return ready;
    }
}

// Connects the non-blocking socket `fd` within the deadline; 0 or the error.
int connectWithin(int fd, const sockaddr* address, socklen_t length, const QDeadlineTimer& deadline)
{
    if (::connect(fd, address, length) == 0)
        return 0;
    if (errno != EINPROGRESS && errno != EAGAIN && errno != EINTR)
        return errno;
    const int ready = pollUntil(fd, POLLOUT, deadline);
    if (ready < 0)
        return errno;
    if (ready == 0)
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
        return errno;
    return error;
}

} // namespace

FdSocket::FdSocket(QObject* parent) : QIODevice(parent) {}

FdSocket::~FdSocket()
{
    close();
}

bool FdSocket::connectToLocal(const QString& path, int timeoutMs)
{
    const QByteArray name = QFile::encodeName(path);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (name.isEmpty() || size_t(name.size()) >= sizeof address.sun_path) {
        setErrorString(QStringLiteral("%1: not a possible path of a local socket").arg(path));
        return false;
    }
    std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        setErrorString(systemError(errno));
        return false;
    }
    const int error = connectWithin(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address,
                                    QDeadlineTimer(timeoutMs));
    if (error != 0) {
        ::close(fd);
        setErrorString(systemError(error));
        return false;
    }
    return adopt(fd);
}

bool FdSocket::connectToTcp(const QString& host, quint16 port, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int lookup = getaddrinfo(host.toUtf8().constData(), QByteArray::number(port).constData(), &hints, &found);
    if (lookup != 0) {
        setErrorString(QStringLiteral("%1: %2").arg(host, QString::fromLocal8Bit(gai_strerror(lookup))));
        return false;
    }
    int error = EADDRNOTAVAIL;
    int fd = -1;
    for (addrinfo* candidate = found; candidate && fd < 0; candidate = candidate->ai_next) {
        fd = ::socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                      candidate->ai_protocol);
        if (fd < 0) {
            error = errno;
            continue;
        }
        error = connectWithin(fd, candidate->ai_addr, candidate->ai_addrlen, deadline);
        if (error != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    if (fd < 0) {
        setErrorString(systemError(error));
        return false;
    }
    // Messages are small and each is awaited: no batching.
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return adopt(fd);
}

bool FdSocket::adopt(int fd)
{
    mFd = fd;
    mLost = false;
    mReadNotifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(mReadNotifier, &QSocketNotifier::activated, this, [this]() { readAndTell(); });
    mWriteNotifier = new QSocketNotifier(fd, QSocketNotifier::Write, this);
    mWriteNotifier->setEnabled(false);
    connect(mWriteNotifier, &QSocketNotifier::activated, this, [this]() {
        writeOut();
        if (mOut.isEmpty() && mWriteNotifier)
            mWriteNotifier->setEnabled(false);
    });
    return QIODevice::open(QIODevice::ReadWrite | QIODevice::Unbuffered);
}

bool FdSocket::readAndTell()
{
    if (mFd < 0 || mLost)
        return false;
    const int before = mIn.size();
    QString ended;
    char chunk[65536];
    for (;;) {
        const ssize_t got = ::recv(mFd, chunk, sizeof chunk, 0);
        if (got > 0) {
            mIn.append(chunk, int(got));
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got == 0)
            ended = QStringLiteral("the front-end closed the connection");
        else if (errno != EAGAIN && errno != EWOULDBLOCK)
            ended = systemError(errno);
        break;
    }
    // What came before the end is read before the end is told.
    const bool arrived = mIn.size() > before;
    if (arrived)
        emit readyRead();
    if (!ended.isEmpty())
        lost(ended);
    return arrived;
}

bool FdSocket::writeOut()
{
    if (mFd < 0 || mLost)
        return false;
    qint64 written = 0;
    while (!mOut.isEmpty()) {
        // No SIGPIPE for a connection the front-end has closed.
        const ssize_t sent = ::send(mFd, mOut.constData(), size_t(mOut.size()), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (sent < 0) {
            lost(systemError(errno));
            return false;
        }
        mOut.remove(0, int(sent));
        written += sent;
    }
    if (written > 0)
        emit bytesWritten(written);
    return true;
}

void FdSocket::lost(const QString& why)
{
    if (mLost)
        return;
    mLost = true;
    setErrorString(why);
    if (mReadNotifier)
        mReadNotifier->setEnabled(false);
    if (mWriteNotifier)
        mWriteNotifier->setEnabled(false);
    emit disconnected();
}


qint64 FdSocket::bytesAvailable() const
{
    return mIn.size() + QIODevice::bytesAvailable();
}

qint64 FdSocket::bytesToWrite() const
{
    return mOut.size();
}

bool FdSocket::waitForReadyRead(int msecs)
{
    const QDeadlineTimer deadline(msecs);
    while (mFd >= 0 && !mLost) {
        // An error or a hang-up shows in the read that follows.
        if (pollUntil(mFd, POLLIN, deadline) == 0)
            return false;
        if (readAndTell())
            return true;
    }
    return false;
}

bool FdSocket::waitForBytesWritten(int msecs)
{
    const QDeadlineTimer deadline(msecs);
    while (mFd >= 0 && !mLost && !mOut.isEmpty()) {
        if (pollUntil(mFd, POLLOUT, deadline) == 0)
            return false;
        const int before = mOut.size();
        if (!writeOut())
            return false;
        if (mOut.size() < before)
            return true;
    }
    return false;
}

void FdSocket::close()
{
    if (mFd < 0)
        return;
    delete mReadNotifier;
    delete mWriteNotifier;
    mReadNotifier = nullptr;
    mWriteNotifier = nullptr;
    ::close(mFd);
    mFd = -1;
    QIODevice::close();
}

qint64 FdSocket::readData(char* data, qint64 maxSize)
{
    const int count = int(std::min<qint64>(maxSize, mIn.size()));
    std::memcpy(data, mIn.constData(), size_t(count));
    mIn.remove(0, count);
    // -1 only once the stream has ended and nothing is left.
    return count == 0 && mLost ? -1 : count;
}

qint64 FdSocket::writeData(const char* data, qint64 size)
{
    if (mFd < 0 || mLost)
        return -1;
    mOut.append(data, int(size));
    if (!writeOut())
        return -1;
    if (!mOut.isEmpty() && mWriteNotifier)
        mWriteNotifier->setEnabled(true);
    return size;
}
