#include "messagestream.h"

#include <QDeadlineTimer>
#include <QIODevice>
#include <QtEndian>

MessageStream::MessageStream(QIODevice* device, const ResponseFactoryPlugin* factory, QObject* parent)
    : QObject(parent)
    , mDevice(device)
    , mFactory(factory)
{
    connect(mDevice, &QIODevice::readyRead, this, &MessageStream::readAvailable);
}

QByteArray MessageStream::frame(const QByteArray& payload)
{
    QByteArray framed(4, '\0');
    qToBigEndian<quint32>(quint32(payload.size()), framed.data());
    framed.append(payload);
    return framed;
}

bool MessageStream::send(const Message& message)
{
    const QByteArray framed = frame(message.toXml());
    return mDevice->write(framed) == framed.size();
}

bool MessageStream::flush(int msecs)
{
    QDeadlineTimer deadline(msecs);
    while (mDevice->bytesToWrite() > 0) {
        if (!mDevice->waitForBytesWritten(int(deadline.remainingTime())))
            return false;
    }
    return true;
}

bool MessageStream::waitForMessage(int msecs)
{
    QDeadlineTimer deadline(msecs);
    readAvailable();
    while (!hasMessage() && !hasFailed()) {
        if (!mDevice->waitForReadyRead(int(deadline.remainingTime())))
            break;
        readAvailable();
    }
    return hasMessage();
}

void MessageStream::readAvailable()
{
    if (hasFailed())
        return;
    mBuffer.append(mDevice->readAll());
    bool added = false;
    while (mBuffer.size() >= 4) {
        const quint32 length = qFromBigEndian<quint32>(mBuffer.constData());
        if (length > MaximumMessageBytes) {
            fail(QStringLiteral("a message of %1 bytes is over the limit; the stream is not of this protocol").arg(length));
            return;
        }
        if (quint32(mBuffer.size()) - 4 < length)
            break;
        const QByteArray payload = mBuffer.mid(4, int(length));
        mBuffer.remove(0, int(length) + 4);
        Message message;
        QString error;
        if (!Message::fromXml(payload, mFactory, &message, &error)) {
            fail(QStringLiteral("malformed message: %1").arg(error));
            return;
        }
        mIncoming.append(message);
        added = true;
    }
    if (added)
        emit messageReady();
}

void MessageStream::fail(const QString& reason)
{
    mError = reason;
    mBuffer.clear();
    emit failed(reason);
}
