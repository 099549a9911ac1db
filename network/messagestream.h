// Messages over a byte stream (a local socket, or TCP between nodes): each
// message is a 4-byte big-endian length followed by that many bytes of its
// XML document. The stream is QtCore only; the programs hand it their
// socket as a QIODevice.
#ifndef ZOR_MESSAGESTREAM_H
#define ZOR_MESSAGESTREAM_H

#include <QByteArray>
#include <QList>
#include <QObject>

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
    void fail(const QString& reason);

    QIODevice* mDevice;
    const ResponseFactoryPlugin* mFactory;
    QByteArray mBuffer;
    QList<Message> mIncoming;
    QString mError;
};

#endif
