#include "messagestream.h"

#include <QDeadlineTimer>
#include <QIODevice>
#include <QRunnable>
#include <QThreadPool>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <future>

namespace {

// Below this a message is read at once: a thread's hand-over costs more.
const int ReadElsewhereBytes = 64 * 1024;

} // namespace

struct MessageStream::Reading
{
    Message message;
    QString error;
    bool ok = false;
    // Set once the message is read; `finished` once its thread is done
    // with the stream too.
    std::atomic<bool> read{ false };
    std::promise<void> promise;
    std::future<void> finished = promise.get_future();
};

MessageStream::MessageStream(QIODevice* device, const ResponseFactoryPlugin* factory, QObject* parent)
    : QObject(parent)
    , mDevice(device)
    , mFactory(factory)
{
    connect(mDevice, &QIODevice::readyRead, this, &MessageStream::readAvailable);
}

MessageStream::~MessageStream()
{
    // A reading's thread posts to this stream before it finishes.
    for (const std::shared_ptr<Reading>& reading : mReading + mFinishing)
        reading->finished.wait();
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
        if (!mReading.isEmpty()) {
            // Reading a message in takes as long as it takes.
            mReading.first()->finished.wait();
            collect();
            continue;
        }
        if (!mDevice->waitForReadyRead(int(deadline.remainingTime())))
            break;
        readAvailable();
    }
    return hasMessage();
}

void MessageStream::readAvailable()
{
    if (hasFailed() || !mLateFailure.isEmpty())
        return;
    mBuffer.append(mDevice->readAll());
    // The frames taken are cut off once, at the end: a buffer of many
    // large frames would otherwise move its rest once per frame.
    int at = 0;
    while (mBuffer.size() - at >= 4) {
        const quint32 length = qFromBigEndian<quint32>(mBuffer.constData() + at);
        if (length > MaximumMessageBytes) {
            // The messages before it still come out first.
            mBuffer.clear();
            mLateFailure = QStringLiteral("a message of %1 bytes is over the limit; the stream is not of this protocol")
                               .arg(length);
            collect();
            return;
        }
        if (quint32(mBuffer.size() - at) - 4 < length)
            break;
        const QByteArray payload = mBuffer.mid(at + 4, int(length));
        at += int(length) + 4;
        std::shared_ptr<Reading> reading = std::make_shared<Reading>();
        mReading.append(reading);
        const ResponseFactoryPlugin* factory = mFactory;
        const auto read = [reading, payload, factory]() {
            reading->ok = Message::fromXml(payload, factory, &reading->message, &reading->error);
        };
        if (payload.size() < ReadElsewhereBytes) {
            read();
            reading->read.store(true, std::memory_order_release);
            reading->promise.set_value();
            continue;
        }
        QThreadPool::globalInstance()->start(QRunnable::create([this, reading, read]() {
            read();
            reading->read.store(true, std::memory_order_release);
            QMetaObject::invokeMethod(this, &MessageStream::collect, Qt::QueuedConnection);
            reading->promise.set_value();
        }));
    }
    mBuffer.remove(0, at);
    collect();
}

void MessageStream::collect()
{
    mFinishing.erase(std::remove_if(mFinishing.begin(), mFinishing.end(),
                                    [](const std::shared_ptr<Reading>& reading) {
                                        return reading->finished.wait_for(std::chrono::seconds(0))
                                            == std::future_status::ready;
                                    }),
                     mFinishing.end());
    bool added = false;
    while (!mReading.isEmpty() && !hasFailed() && mReading.first()->read.load(std::memory_order_acquire)) {
        const std::shared_ptr<Reading> reading = mReading.takeFirst();
        if (reading->finished.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
            mFinishing.append(reading);
        if (!reading->ok) {
            fail(QStringLiteral("malformed message: %1").arg(reading->error));
            break;
        }
        mIncoming.append(reading->message);
        added = true;
    }
    if (added)
        emit messageReady();
    if (mReading.isEmpty() && !mLateFailure.isEmpty() && !hasFailed())
        fail(mLateFailure);
}

void MessageStream::fail(const QString& reason)
{
    mError = reason;
    mBuffer.clear();
    emit failed(reason);
}
