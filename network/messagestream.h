// Messages over a byte stream (a local socket, or TCP between nodes): each
// message is a 4-byte big-endian length followed by that many bytes of its
// XML document. The stream is QtCore only; the programs hand it their
// socket as a QIODevice.
#ifndef ZOR_MESSAGESTREAM_H
#define ZOR_MESSAGESTREAM_H

#include <QByteArray>
#include <QList>
#include <QObject>

#include <memory>

#include "message.h"

class QIODevice;
class ResponseFactoryPlugin;

class MessageStream : public QObject
{
    Q_OBJECT

public:
    // A frame longer than this is taken for garbage on the stream.
    static const quint32 MaximumMessageBytes = 512u * 1024 * 1024;

    // Reads and writes `device`, which stays the caller's. `factory` rebuilds
    // responses; it may be null on a side that receives none.
    MessageStream(QIODevice* device, const ResponseFactoryPlugin* factory, QObject* parent = nullptr);
    // Waits for the messages still being read on other threads.
    ~MessageStream() override;

    // Writes one message; false if the device refused it.
    bool send(const Message& message);
    // Waits up to `msecs` (-1: no limit) until what was sent has left.
    bool flush(int msecs = 30000);

    bool hasMessage() const { return !mIncoming.isEmpty(); }
    Message takeMessage() { return mIncoming.takeFirst(); }
    // Blocks until a message is in, up to `msecs` (-1: no limit). False on
    // a timeout, a closed stream or a malformed message.
    bool waitForMessage(int msecs);

    // Set once a malformed message arrived; nothing is read after it.
    bool hasFailed() const { return !mError.isEmpty(); }
    QString errorString() const { return mError; }

    static QByteArray frame(const QByteArray& payload);

signals:
    // One or more messages can be taken.
    void messageReady();
    // A malformed message arrived; the stream reads no more.
    void failed(const QString& reason);

private slots:
    void readAvailable();

private:
    struct Reading;

    void fail(const QString& reason);
    // Moves the messages read, in the order they came, to mIncoming.
    void collect();

    QIODevice* mDevice;
    const ResponseFactoryPlugin* mFactory;
    QByteArray mBuffer;
    // Large messages (blocks of samples) are read on the thread pool, so
    // that several are read at once while more arrive.
    QList<std::shared_ptr<Reading>> mReading;
    // Taken from mReading while their threads still post to this stream.
    QList<std::shared_ptr<Reading>> mFinishing;
    QList<Message> mIncoming;
    QString mError;
    // A failure found behind messages still being read.
    QString mLateFailure;
};

#endif
