// What the debugger hands the plug-in about the target: its libraries, its
// threads, the source position of an address; and the command that selects
// a thread.
#ifndef ZOR_DEBUGGERTYPES_H
#define ZOR_DEBUGGERTYPES_H

#include <QList>
#include <QString>

#include "command.h"
#include "response.h"

// One library mapped into the target.
class SharedLibrary
{
public:
    SharedLibrary() : mStart(0), mEnd(0), mRangeKnown(false) {}
    // The range is [start, end).
    SharedLibrary(const QString& path, unsigned long long start, unsigned long long end)
        : mPath(path), mStart(start), mEnd(end), mRangeKnown(true)
    {
    }
    // A library whose address range the debugger couldn't tell.
    explicit SharedLibrary(const QString& path) : mPath(path), mStart(0), mEnd(0), mRangeKnown(false) {}

    QString path() const { return mPath; }
    QString name() const { return mPath; }
    unsigned long long start() const { return mStart; }
    unsigned long long end() const { return mEnd; }
    bool isRangeKnown() const { return mRangeKnown; }

    bool operator==(const SharedLibrary& other) const
    {
        return mPath == other.mPath && mStart == other.mStart && mEnd == other.mEnd
            && mRangeKnown == other.mRangeKnown;
    }

private:
    QString mPath;
    unsigned long long mStart;
    unsigned long long mEnd;
    bool mRangeKnown;
};

// One thread of the target.
class ThreadResponse
{
public:
    ThreadResponse() : mUniqueId(-1), mDebuggerId(-1), mTid(0) {}
    ThreadResponse(int uniqueId, int debuggerId, int tid, const QString& name = QString())
        : mUniqueId(uniqueId), mDebuggerId(debuggerId), mTid(tid), mName(name)
    {
    }

    // Stays the same for the life of the thread, across detach and reattach.
    int uniqueId() const { return mUniqueId; }
    // The number by which the debugger selects the thread now.
    int debuggerId() const { return mDebuggerId; }
    int tid() const { return mTid; }
    QString name() const { return mName; }

    bool operator==(const ThreadResponse& other) const
    {
        return mUniqueId == other.mUniqueId && mDebuggerId == other.mDebuggerId && mTid == other.mTid
            && mName == other.mName;
    }

private:
    int mUniqueId;
    int mDebuggerId;
    int mTid;
    QString mName;
};

// The answer to CMD_GET_THREADS.
class ThreadsResponse : public ResponseAdaptor<ThreadsResponse>
{
public:
    ThreadsResponse() : mActive(-1) {}
    // `active` indexes `threads`; -1 when no thread is selected.
    ThreadsResponse(const QList<ThreadResponse>& threads, int active) : mThreads(threads), mActive(active) {}
    static QString staticElementName() { return QStringLiteral("ThreadsResponse"); }

    int getNumThreads() const { return mThreads.size(); }
    ThreadResponse getThread(int index) const { return mThreads.value(index); }
    // The selected thread; a default one when none is.
    ThreadResponse getActiveThread() const { return mThreads.value(mActive); }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    QList<ThreadResponse> mThreads;
    int mActive;
};

// Where an address or a function lies in the source. The caller of the
// debugger owns it.
class PositionResponse : public ResponseAdaptor<PositionResponse>
{
public:
    PositionResponse() : line(0), mHasSymbol(false) {}
    PositionResponse(const QString& function, const QString& file, int line, bool hasSymbol)
        : file(file), line(line), function(function), mHasSymbol(hasSymbol)
    {
    }
    static QString staticElementName() { return QStringLiteral("PositionResponse"); }

    // The address lies in a named function.
    bool hasSymbol() const { return mHasSymbol; }
    bool hasFileAndLine() const { return !file.isEmpty() && line > 0; }

    QString file;
    int line;
    QString function;

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    bool mHasSymbol;
};

// CMD_SET_THREAD for the thread the debugger knows by `debuggerId`.
class SetThreadCommand : public Command
{
public:
    explicit SetThreadCommand(int debuggerId);
    int threadId() const;
};

#endif
