// The host's end of its connection to the front-end: a stream socket (local
// or TCP) as a QIODevice, with what the message stream needs of one. The
// host has no other use for Qt's network module, whose libraries cost every
// host's start more than a millisecond to load.
#ifndef ZOR_FDSOCKET_H
#define ZOR_FDSOCKET_H

#include <QByteArray>
#include <QIODevice>
#include <QString>

class QSocketNotifier;

class FdSocket : public QIODevice
{
    Q_OBJECT
public:
    explicit FdSocket(QObject* parent = nullptr);
    ~FdSocket() override;

    // Connects to a local socket at `path`, or to `host`:`port` over TCP,
    // within `timeoutMs`; false with errorString() set where it can't.
    bool connectToLocal(const QString& path, int timeoutMs);
    bool connectToTcp(const QString& host, quint16 port, int timeoutMs);

    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;
    bool waitForReadyRead(int msecs) override;
    bool waitForBytesWritten(int msecs) override;
    void close() override;

signals:
    // The other end closed the connection, or it failed.
    void disconnected();

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 size) override;

private:
    bool adopt(int fd);
    // Reads what has arrived and says so (readyRead), then tells of the
    // stream's end or failure (disconnected); true if anything arrived.
    bool readAndTell();
    // Writes what it can without waiting; false on an error.
    bool writeOut();
    void lost(const QString& why);

    int mFd = -1;
    QByteArray mIn;
    QByteArray mOut;
    QSocketNotifier* mReadNotifier = nullptr;
    QSocketNotifier* mWriteNotifier = nullptr;
    bool mLost = false;
};

#endif
