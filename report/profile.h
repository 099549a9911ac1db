// The figures of a saved run that every report shows: the call tree of all
// threads of all ranks merged by position, CPU time per node, the hottest
// functions and lines, how busy each class of thread was over the run, the
// instruction mix, time in MPI and unwind problems.
//
// Times are CPU time: a resampled sample carries, per thread, the CPU time
// that the thread spent in its stretch of the run, and that time goes to the
// sample's call path. A thread that waits costs nothing here; the activity
// strips show when it waited.
#ifndef ZOR_REPORT_PROFILE_H
#define ZOR_REPORT_PROFILE_H

#include <QHash>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include <memory>

#include "result.h"
#include "zorpsvmodelitem.h"

struct NodeTime
{
    quint64 totalNs = 0; // on the path
    quint64 selfNs = 0;  // at the end of the path
};

struct FunctionFigure
{
    QString function;
    QString file; // of its hottest line, or of a frame of it when it has no self time
    int line = -1;
    quint64 selfNs = 0;
    quint64 totalNs = 0; // once per path, however often the function recurs on it
};

struct LineFigure
{
    QString file;
    int line = -1;
    QString function;
    quint64 selfNs = 0;
};

// One class of threads (the main threads, OpenMP workers, ...) of one rank,
// or of all ranks together (rank -1).
struct ActivityRow
{
    int rank = -1;
    QString label;
    int threads = 0;
    // A thread that stood out of its class has a row of its own.
    int tid = 0;
    quint64 cpuNs = 0;
    // Per stretch of the run, the share of the row's threads' time spent on
    // a processor, 0 to 1.
    QVector<double> busy;
};

// One class of instructions in the instruction mix.
struct InstructionClassShare
{
    QString name;
    double percent = 0;
    QStringList examples; // its commonest mnemonics, commonest first
};

struct UnwindFigures
{
    int threadSamples = 0;
    int failed = 0;
    QMap<int, int> byCode; // status code to number of samples that had it
};

// The main thread's class frame and a plain thread's marked entry repeat the
// function right below them: the reports show the two as one frame.
bool echoesParent(const PSVModelItem* node);

class Profile
{
public:
    explicit Profile(const Result& result);
    ~Profile();

    const Result& result() const { return mResult; }

    // Root of the merged tree: program frame, class frame, the frames of the
    // thread. Counts per rank are thread-samples (IntProcessMap).
    const ZORPSVModelItem* tree() const { return mTree.get(); }
    NodeTime time(const PSVModelItem* node) const { return mTimes.value(node); }
    // Children sorted by total time, longest first.
    QList<const PSVModelItem*> sortedChildren(const PSVModelItem* node) const;

    int rankCount() const { return mResult.ranks.size(); }
    int threadCount() const { return mThreadCount; }
    int sampleCount() const { return mSampleCount; }
    long long durationMs() const { return mDurationMs; }
    quint64 cpuNs() const { return mCpuNs; }
    // The fewest threads whose CPU time makes nine tenths of the run's.
    int threadsDoingMostWork() const;

    // Sorted by self time, longest first; `limit` < 0 for all.
    QList<FunctionFigure> functions(int limit = -1) const;
    QList<LineFigure> lines(int limit = -1) const;
    // Rows per rank and class when `perRank`, else per class over all ranks;
    // `buckets` stretches of equal length.
    QList<ActivityRow> activity(int buckets, bool perRank) const;
    // How the CPU time of the thread-samples splits by the class of the
    // instruction that each was running, each instruction in one class, the
    // ones in none last; the shares add up to 100. Empty when the run has no
    // instructions.
    QList<InstructionClassShare> instructionMix() const;
    // The share of the CPU time, out of MPI and accelerator waits, whose
    // instruction was read; the mix is of it alone, and left empty under
    // a tenth.
    double instructionsRead() const;
    // Share of the main threads' samples that waited for a child process,
    // whose own work isn't sampled; `function` gets the function waited in.
    double childWaitShare(QString* function = nullptr) const;
    // Share of the main threads' samples that were inside MPI, per rank;
    // empty when no rank was ever in MPI.
    QMap<int, double> mpiShare() const;
    UnwindFigures unwindFigures() const { return mUnwind; }

    // The function names of a node's path, program frame first.
    static QStringList functionPath(const PSVModelItem* node);

private:
    struct ThreadSample
    {
        int rank;
        int tid;
        // The stretch of the run that the sample stands for, in milliseconds.
        double beginMs;
        double endMs;
        quint64 cpuNs;
        QString label;
        QString name; // the thread's own, if it named itself
    };
    void build();

    Result mResult;
    std::unique_ptr<ZORPSVModelItem> mTree;
    QHash<const PSVModelItem*, NodeTime> mTimes;
    int mThreadCount = 0;
    int mSampleCount = 0;
    long long mDurationMs = 0;
    quint64 mCpuNs = 0;
    UnwindFigures mUnwind;
    QList<FunctionFigure> mFunctions;
    QList<LineFigure> mLines;
    QHash<QPair<QString, bool>, quint64> mInstructionNs; // CPU time by mnemonic and implicit memory
    quint64 mUnreadInstructionNs = 0;
    QMap<int, QPair<int, int>> mMpi;        // rank to main-thread samples in MPI and in all
    QPair<int, int> mChildWait;             // main-thread samples waiting for a child, and all
    QString mChildWaitFunction;
    QVector<ThreadSample> mThreadSamples;
};

#endif
