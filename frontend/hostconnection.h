// The front-end's end of one zor-host: the messages of one rank, sorted into
// what the run needs. Answers are kept by the uid of their command; the
// blocks of samples that stream ahead of an answer are gathered as they come.
#ifndef ZOR_FRONTEND_HOSTCONNECTION_H
#define ZOR_FRONTEND_HOSTCONNECTION_H

#include <QElapsedTimer>
#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <memory>

#include "messagestream.h"
#include "sample.h"

class QIODevice;
class ResponseFactoryPlugin;
class SampleEncoder;

// How the program ended, from the host's targetExit message.
void readExitStatus(const QVariantMap& values, int* exitCode, int* signal);

class HostConnection : public QObject
{
    Q_OBJECT

public:
    // Takes the socket over: a local or a TCP one.
    HostConnection(QIODevice* socket, const ResponseFactoryPlugin* factory, QObject* parent = nullptr);
    ~HostConnection() override;

    // From the hello: -1 until it came.
    int rank() const { return mRank; }
    bool hasHello() const { return mHello; }
    QVariantMap hello() const { return mHelloValues; }
    int targetPid() const;

    // Sends a command and returns its uid.
    int send(Command command);
    void sendWithoutAnswer(const Command& command) { send(command); }
    void flush();

    // The answer to command `uid`, once it came: a response, or the message
    // of the failure that answered it.
    bool hasAnswer(int uid) const { return mAnswers.contains(uid) || mFailures.contains(uid); }
    std::shared_ptr<Response> answer(int uid) const { return mAnswers.value(uid); }
    QString failure(int uid) const { return mFailures.value(uid); }

    // Blocks that come in order go to `encoder` as they come.
    void encodeBlocksWith(SampleEncoder* encoder);
    // Samples of the blocks received so far, in block order. `tickets`
    // gets the encoder's tickets for them, in that order, or none unless
    // every block went to the encoder.
    QList<Sample> takeSamples(QList<int>* tickets = nullptr);

    // The analysis' progress in percent, 0 to 100.
    int analysisPercent() const { return mAnalysisPercent; }
    bool runOver() const { return mRunOver; }

    // The target's end, once the host told it: exit code, or signal number.
    bool targetEnded() const { return mTargetEnded; }
    int exitCode() const { return mExitCode; }
    int exitSignal() const { return mExitSignal; }
    // Whether the host could tell how the program ended.
    bool exitStatusKnown() const { return mExitStatusKnown; }
    // CPU time of the processes that the program started and waited for;
    // -1 if not known.
    qint64 childrenCpuMs() const { return mChildrenCpuMs; }
    qint64 processCpuMs() const { return mProcessCpuMs; }
    // Milliseconds since the program ended.
    qint64 msSinceTargetEnded() const { return mTargetEndedAt.isValid() ? mTargetEndedAt.elapsed() : 0; }

    // The connection broke or carried garbage.
    bool isBroken() const { return !mBroken.isEmpty(); }
    QString brokenReason() const { return mBroken; }

signals:
    void changed();
    // Something the host wants the user to know, in a line.
    void notice(const QString& text);

private slots:
    void takeMessages();
    void closed();

private:
    void handle(const Message& message);

    QIODevice* mSocket;
    MessageStream mStream;
    int mNextUid = 1;
    int mRank = -1;
    int mRankCount = 1;
    bool mHello = false;
    QVariantMap mHelloValues;
    QMap<int, std::shared_ptr<Response>> mAnswers;
    QMap<int, QString> mFailures;
    QMap<int, QList<Sample>> mBlocks; // block number to its samples
    SampleEncoder* mEncoder = nullptr;
    int mEncodedList = -1;
    QList<int> mEncodedBlocks; // a ticket per block of mBlocks, or none
    bool mBlocksInOrder = true;
    int mAnalysisPercent = 0;
    bool mRunOver = false;
    bool mTargetEnded = false;
    bool mExitStatusKnown = false;
    QElapsedTimer mTargetEndedAt;
    int mExitCode = 0;
    int mExitSignal = 0;
    qint64 mChildrenCpuMs = -1;
    qint64 mProcessCpuMs = -1;
    QString mBroken;
};

#endif
