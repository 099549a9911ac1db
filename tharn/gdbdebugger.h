// The product's Debugger: GDB's machine interface for control of the target
// and calls into it, and the symbol table (libdwfl, Capstone) for positions
// and disassembly, which need no round trip to gdb.
//
// A program that the sampler can arm itself starts without gdb: the host
// starts it, and the sampler, where main would begin, takes the calls over
// a socket (its "arming channel") until the debugger detaches. What the
// channel can't do, and any later attach, gets a gdb started then.
//
// The target writes to pipes of the host, which copies what comes to its own
// standard output and error, so that gdb's output stays apart from it; it
// reads the host's standard input. A wrapper shell gives it those and
// preloads the sampler into it alone, never into gdb or the shell. While the
// debugger is detached, a pidfd tells when the target ends.
#ifndef ZOR_GDBDEBUGGER_H
#define ZOR_GDBDEBUGGER_H

#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <memory>

#include "debugger.h"
#include "miparser.h"
#include "runtimecodemap.h"
#include "symboldisassembler.h"
#include "symboltable.h"

class QSocketNotifier;

class GdbDebugger : public QObject, public Debugger
{
    Q_OBJECT

public:
    // Exception codes of the debugger.
    enum {
        StartFailed = 21010,
        DebuggerFailed = 21011,
        TargetGoneError = 21012,
        UnknownCommand = 21013
    };

    struct Options
    {
        QString gdb = QStringLiteral("gdb");
        // Libraries preloaded into the target, in this order.
        QStringList preload;
        // Longest wait for one answer of gdb.
        int timeoutMs = 120000;
        // Where the target's standard output and error go besides the
        // output that is collected; -1 for nowhere.
        int echoFds[2] = {1, 2};
        // Work of the caller's that fits into the tens of milliseconds gdb
        // takes to start, which this process would otherwise spend waiting.
        std::function<void()> whileGdbStarts;
        // Whether a program that the sampler can arm itself is started
        // without gdb: the sampler, preloaded, waits where main begins and
        // takes the calls that arm it over a socket. gdb starts only if it
        // is needed later, to stop the program again.
        bool armThroughSampler = true;
    };

    explicit GdbDebugger(const Options& options, QObject* parent = nullptr);

    // The path of the debugger `name` (a path or a name looked up in
    // `paths`, the system's search path when empty); for plain "gdb" on a
    // machine that has none, the GPU vendor's build of it, cuda-gdb, which
    // CUDA machines often carry alone. Empty when there is none.
    static QString locate(const QString& name, const QStringList& paths = {});
    ~GdbDebugger() override;

    // Starts gdb and `program` (path and arguments) under it, stopped at
    // main. False, with the reason in `error`, when gdb or the program
    // can't be started.
    bool start(const QStringList& program, QString* error);
    // A fresh gdb on the same target: attached again if it still lives.
    void restart();
    // Ends the target if it still lives, then gdb; waits for both.
    void terminate();

    int targetPid() const { return mTargetPid; }
    int gdbPid() const { return mGdb ? int(mGdb->processId()) : 0; }
    // Whether the program was started without gdb, for the sampler to arm
    // itself (which it may still be doing).
    bool isArmedThroughSampler() const { return mArmedThroughSampler; }
    bool isTargetGone() const { return mTargetGone; }
    bool isDetached() const { return mDetached; }
    // CPU time of the processes that the ended program started and waited
    // for, in milliseconds; -1 if not known.
    qint64 childrenCpuMs() const { return mChildrenCpuMs; }
    // The CPU time of the ended program, all its threads; -1 if not known.
    qint64 processCpuMs() const { return mProcessCpuMs; }
    QString programPath() const { return mProgram.value(0); }
    // Asked before each reattach: whether the program is being stopped from
    // outside, so that it may spin while gdb attaches.
    void setLowerTargetPriorityWhen(std::function<bool()> ask) { mLowerTargetFirst = std::move(ask); }
    SymbolTable& symbols() { return mSymbols; }

    // Debugger
    Response* handleCommand(Command& command) override;
    StatusResponse currentStatus(int reserved) override;
    ThreadsResponse* handleGetThreads(Command& command, int reserved) override;
    void handleSetThread(Command& command) override;
    Response* handleDetach(Command& command) override;
    void setTargetVariable(const QString& name, const QString& value) override;
    QString readTargetString(const QString& name, const QString& defaultValue, int reserved) override;
    QString evaluateExpression(const QString& expression) override;
    QString mainFrameBoundaryIp() override { return mBoundaryIp; }
    QString mainFunctionName() override;
    Response* handleReattach(Command& command) override;
    void setSignalDisposition(const QString& name, const QString& disposition) override;
    QList<SharedLibrary> sharedLibraries() override;
    void keepSharedLibraries(QList<SharedLibrary>& libraries) override;
    QString demangleName(const QString& name) override;
    void prepareTarget() override;
    PositionResponse* positionOfAddress(unsigned long long address, int reserved,
                                        QList<PositionResponse*>* inlinedCallers) override;
    PositionResponse* positionOfFunction(const QString& name) override;
    QMap<unsigned long long, Instruction> disassembleRange(unsigned long long start, long long length,
                                                           unsigned long long* end) override;
    LanguageTag currentLanguage() override { return mLanguage; }
    void handleSetLanguage(Command& command) override;

signals:
    // The target has ended; `status` says how, in words, where known.
    void targetExited(const QString& status);

protected:
    unsigned long long addressValue(const QString& expression) override;

private slots:
    void readTargetOutput();
    void closeChildEnds();
    void pidfdReadable();

private:
    struct Answer
    {
        MiRecord result;
        // Console text printed while the command ran.
        QString console;
        // What the target did meanwhile: "Program received signal ...",
        // "[Inferior 1 (process N) exited ...]".
        QString events;
    };

    bool startGdb(QString* error);
    bool canArmThroughSampler() const;
    bool startWithArmingChannel(QString* error);
    // The next line from the sampler's channel; false when the channel has
    // closed, which the program's end does.
    bool channelLine(QByteArray* line);
    // One request and its answer; false when the program has gone.
    bool channelAsk(const QByteArray& request, QByteArray* answer);
    void closeChannel();
    // While the program waits on the channel: whether the channel answers
    // the debugger's calls, or gdb, attached beside it for what the channel
    // can't do.
    bool onChannel() const { return mChannel >= 0 && !mGdbBeside; }
    void attachGdbBeside();
    // What gdb would have printed of the program's end.
    QString endEvent() const;
    // Sends one command and waits for its result record; throws an
    // Exception* when gdb doesn't answer in time or has gone.
    Answer command(const QString& text);
    // Like command(), and throws the message of an ^error as well.
    Answer commandOk(const QString& text);
    void readGdb(int timeoutMs);
    void waitForStop(Answer* answer);
    Answer runToStrippedMain();
    void handleAsync(const MiRecord& record, Answer* answer);
    void readThreadsAndPid();
    void refreshSymbols();
    // Whether `address` lies in one of the files mapped into the program.
    bool inMappedFile(unsigned long long address) const;
    void readOwnLibrarySymbols();
    void watchTarget();
    void noteTargetGone(const QString& status);
    // How the target ended when it is a zombie; empty while it lives.
    QString zombieStatus();
    void lowerTargetPriority();
    std::function<bool()> mLowerTargetFirst;
    // Whether the target has ended or ends within `waitMs`; noted if so.
    bool targetEnds(int waitMs);
public:
    bool waitForTargetEnd(int msecs) override { return mDetached && targetEnds(msecs); }
private:
    void fail(int code, const QString& message);

    Options mOptions;
    QProcess* mGdb = nullptr;
    // gdb's data directory: empty, so that gdb's Python support (a third of
    // its start) is not loaded; nothing here uses it.
    std::unique_ptr<QTemporaryDir> mDataDirectory;
    QByteArray mGdbBuffer;
    int mNextToken = 1;
    bool mStopped = false;
    bool mBroken = false;
    QStringList mProgram;
    int mTargetPid = 0;
    bool mTargetGone = false;
    bool mDetached = false;
    // While gdb detaches, the program starts to run again.
    bool mDetaching = false;
    QString mExitStatus;
    // CPU time of the processes that the program started and waited for,
    // read from the ended program; -1 if not known.
    qint64 mChildrenCpuMs = -1;
    qint64 mProcessCpuMs = -1;
    QString mBoundaryIp;
    // The program's output, and its input, through descriptors that gdb
    // hands down to it: [0] standard output, [1] standard error, read here.
    int mOutput[2] = {-1, -1};
    QSocketNotifier* mOutputNotifiers[2] = {nullptr, nullptr};
    // The ends that the program writes, and its standard input, until gdb
    // has them.
    int mChildEnds[3] = {-1, -1, -1};
    int mPidfd = -1;
    QSocketNotifier* mPidfdNotifier = nullptr;
    QStringList mDispositionCommands;
    LanguageTag mLanguage = LanguageAuto;
    SymbolTable mSymbols;
    SymbolDisassembler mDisassembler;
    bool mSymbolsStale = true;
    QList<SharedLibrary> mKeptLibraries;
    // The sampler's end of the arming channel and what was read of it.
    int mChannel = -1;
    // The program's parent, where the host started it.
    int mKeeperPid = 0;
    QByteArray mChannelBuffer;
    bool mGdbBeside = false;
    bool mArmedThroughSampler = false;
    // Code the program made as it ran, named by the map its runtime wrote.
    RuntimeCodeMap mRuntimeCode;
};

#endif
