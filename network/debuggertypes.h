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
    // A second mapping of code of a library at [start, end), from `offset`
    // in its file: what a runtime makes when it copies its built-in code
    // near the code it generates. Its code is the library's own, at the
    // address where the library's mapping of that offset lies.
    static SharedLibrary remapping(const QString& path, unsigned long long start, unsigned long long end,
                                   unsigned long long offset)
    {
        SharedLibrary library(path, start, end);
        library.mOffset = static_cast<long long>(offset);
        return library;
    }
    bool isRemapping() const { return mOffset >= 0; }
    unsigned long long fileOffset() const { return mOffset < 0 ? 0 : static_cast<unsigned long long>(mOffset); }

    QString path() const { return mPath; }
    QString name() const { return mPath; }
    unsigned long long start() const { return mStart; }
    unsigned long long end() const { return mEnd; }
    bool isRangeKnown() const { return mRangeKnown; }

    bool operator==(const SharedLibrary& other) const
    {
        return mPath == other.mPath && mStart == other.mStart && mEnd == other.mEnd
            && mRangeKnown == other.mRangeKnown && mOffset == other.mOffset;
    }

private:
    QString mPath;
    unsigned long long mStart;
    unsigned long long mEnd;
    bool mRangeKnown;
    long long mOffset = -1;
};

// The files with code among the lines of a /proc/PID/maps, each over the
// range of its mappings, and the second mappings of their code (see
// SharedLibrary::remapping), told by lying far from where the file's mapping
// of the lowest offset puts their offset. The kernel's vDSO, in no file, is
// left out.
QList<SharedLibrary> filesOfMaps(const QByteArray& maps);

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
