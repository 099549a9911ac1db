#include "hostconnection.h"

#include <QIODevice>
#include <QRegularExpression>
#include <QTimer>

#include <csignal>
#include <cstring>

#include "profilerresponses.h"
#include "sampleencoder.h"

namespace {

int signalNumber(QString name)
{
    if (name.startsWith(QLatin1String("SIG")))
        name = name.mid(3);
    for (int number = 1; number < NSIG; ++number) {
        const char* abbreviation = sigabbrev_np(number);
        if (abbreviation && name == QLatin1String(abbreviation))
            return number;
    }
    return name.toInt();
}

} // namespace

void readExitStatus(const QVariantMap& values, int* exitCode, int* signal)
{
    *exitCode = values.value(QStringLiteral("exitCode"), 0).toInt();
    *signal = values.value(QStringLiteral("signal"), 0).toInt();
    // In words: "exited normally", "exited with code N" (octal where the
    // debugger writes a leading 0), "killed by signal SIGX".
    const QString status = values.value(QStringLiteral("status")).toString();
    QRegularExpressionMatch match = QRegularExpression(QStringLiteral("exited with code (\\d+)")).match(status);
    if (match.hasMatch()) {
        const QString code = match.captured(1);
        *exitCode = code.toInt(nullptr, code.startsWith(QLatin1Char('0')) ? 8 : 10);
    }
    match = QRegularExpression(QStringLiteral("(?:killed by signal|terminated with signal) (SIG\\w+|\\d+)")).match(status);
    if (match.hasMatch())
        *signal = signalNumber(match.captured(1));
}

HostConnection::HostConnection(QIODevice* socket, const ResponseFactoryPlugin* factory, QObject* parent)
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
    connect(socket, SIGNAL(disconnected()), this, SLOT(closed()));
    // Messages may already wait in the socket, read past the host's token.
    if (socket->bytesAvailable() > 0)
        QTimer::singleShot(0, socket, [socket]() { emit socket->readyRead(); });
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

void HostConnection::encodeBlocksWith(SampleEncoder* encoder)
{
    mEncoder = encoder;
    mEncodedList = encoder ? encoder->newList() : -1;
}

QList<Sample> HostConnection::takeSamples(QList<int>* tickets)
{
    if (tickets)
        *tickets = mBlocksInOrder && mEncodedBlocks.size() == mBlocks.size() ? mEncodedBlocks : QList<int>();
    mEncodedBlocks.clear();
    mBlocksInOrder = true;
    QList<Sample> samples;
    for (const QList<Sample>& block : qAsConst(mBlocks))
        samples += block;
    mBlocks.clear();
    return samples;
}

void HostConnection::closed()
{
    if (mBroken.isEmpty())
        mBroken = QStringLiteral("the host closed the connection");
    emit changed();
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
        mRankCount = message.values.value(QString::fromLatin1(HelloKeys::RankCount), 1).toInt();
        break;
    case Message::ResponseMessage:
        if (auto block = std::dynamic_pointer_cast<SampleBlockResponse>(message.response)) {
            // The block owns its samples; copies share their data.
            const int number = block->blockNumber();
            mBlocksInOrder = mBlocksInOrder && number == mBlocks.size() && !mBlocks.contains(number);
            QList<Sample>& samples = mBlocks[number];
            for (const Sample* sample : block->samples())
                samples.append(*sample);
            if (mEncoder && mBlocksInOrder && mEncodedBlocks.size() == number)
                mEncodedBlocks.append(mEncoder->add(mEncodedList, samples));
            else
                mBlocksInOrder = false;
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
            emit notice(mRankCount > 1 ? QStringLiteral("rank %1: %2").arg(mRank).arg(message.exception->fullMessage())
                                       : message.exception->fullMessage());
        break;
    case Message::TargetExit:
        mTargetEnded = true;
        mTargetEndedAt.start();
        readExitStatus(message.values, &mExitCode, &mExitSignal);
        mChildrenCpuMs = message.values.value(QStringLiteral("childrenCpuMs"), -1).toLongLong();
        mProcessCpuMs = message.values.value(QStringLiteral("processCpuMs"), -1).toLongLong();
        mExitStatusKnown = message.values.contains(QStringLiteral("exitCode"))
            || message.values.contains(QStringLiteral("signal"))
            || message.values.value(QStringLiteral("status")).toString().contains(
                QRegularExpression(QStringLiteral("exited|killed|terminated")));
        break;
    case Message::CommandMessage:
    case Message::Cancel:
        break;
    }
}
