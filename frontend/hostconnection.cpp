#include "hostconnection.h"

#include <QLocalSocket>

#include "profilerresponses.h"

HostConnection::HostConnection(QLocalSocket* socket, const ResponseFactoryPlugin* factory, QObject* parent)
    : QObject(parent)
    , mSocket(socket)
    , mStream(socket, factory)
{
    socket->setParent(this);
    connect(&mStream, &MessageStream::messageReady, this, &HostConnection::takeMessages);
    connect(&mStream, &MessageStream::failed, this, [this](const QString& reason) {
        mBroken = reason;
        emit changed();
    });
    connect(socket, &QLocalSocket::disconnected, this, [this]() {
        if (mBroken.isEmpty())
            mBroken = QStringLiteral("the host closed the connection");
        emit changed();
    });
    // Messages may already wait in the socket.
    takeMessages();
}

HostConnection::~HostConnection() = default;

int HostConnection::targetPid() const
{
    return mHelloValues.value(QString::fromLatin1(HelloKeys::TargetPid), 0).toInt();
}

int HostConnection::send(Command command)
{
    command.setUid(mNextUid++);
    if (!mStream.send(Message::forCommand(command)) && mBroken.isEmpty())
        mBroken = QStringLiteral("can't send %1: %2").arg(command.name, mSocket->errorString());
    return command.getUid();
}

void HostConnection::flush()
{
    mStream.flush(5000);
}

QList<Sample> HostConnection::takeSamples()
{
    QList<Sample> samples;
    for (const QList<Sample>& block : qAsConst(mBlocks))
        samples += block;
    mBlocks.clear();
    return samples;
}

void HostConnection::takeMessages()
{
    while (mStream.hasMessage())
        handle(mStream.takeMessage());
    emit changed();
}

void HostConnection::handle(const Message& message)
{
    switch (message.kind) {
    case Message::Hello:
        mHello = true;
        mHelloValues = message.values;
        mRank = message.values.value(QString::fromLatin1(HelloKeys::Rank), 0).toInt();
        break;
    case Message::ResponseMessage:
        if (auto block = std::dynamic_pointer_cast<SampleBlockResponse>(message.response)) {
            // The block owns its samples; copies share their data.
            QList<Sample>& samples = mBlocks[block->blockNumber()];
            for (const Sample* sample : block->samples())
                samples.append(*sample);
        } else if (auto histograms = std::dynamic_pointer_cast<HistogramBlockResponse>(message.response)) {
            mHistograms += histograms->histograms().size();
        } else if (auto progress = std::dynamic_pointer_cast<ProfilerProgressResponse>(message.response)) {
            switch (progress->status()) {
            case ProfilerProgressResponse::RunOverTargetAlive:
            case ProfilerProgressResponse::RunOverTargetGone:
            case ProfilerProgressResponse::SamplesRead:
                mRunOver = true;
                break;
            case ProfilerProgressResponse::AnalysisProgress:
                mRunOver = true;
                mAnalysisPercent = qBound(0, mAnalysisPercent + progress->progress(), 100);
                break;
            case ProfilerProgressResponse::AnalysisComplete:
                mRunOver = true;
                mAnalysisPercent = 100;
                break;
            }
        }
        break;
    case Message::Reply:
        mAnswers.insert(message.uid, message.response);
        break;
    case Message::ReplyException:
        mFailures.insert(message.uid, message.exception ? message.exception->fullMessage() : QStringLiteral("failed"));
        break;
    case Message::ExceptionMessage:
        if (message.exception)
            fprintf(stderr, "zor: rank %d: %s\n", mRank, qPrintable(message.exception->fullMessage()));
        break;
    case Message::TargetExit:
        mTargetEnded = true;
        mExitCode = message.values.value(QStringLiteral("exitCode"), 0).toInt();
        mExitSignal = message.values.value(QStringLiteral("signal"), 0).toInt();
        break;
    case Message::CommandMessage:
    case Message::Cancel:
        break;
    }
}
