// One analysed sample of one process: a time stamp, a value per metric and,
// per thread, a call tree, a CPU time and the instruction it was running.
// A value class with implicit sharing: copies are cheap until one of them
// changes. Operations named backendOnly_ belong to the back-end.
#ifndef ZOR_SAMPLE_H
#define ZOR_SAMPLE_H

#include <QList>
#include <QMap>
#include <QSet>
#include <QSharedDataPointer>
#include <QString>
#include <QVector>

#include "instructionquery.h"
#include "metric.h"
#include "samplehistogram.h"

class FastXmlReader;
class QXmlStreamReader;
class QXmlStreamWriter;
class XmlWriter;
class GpuProfilePSVModelItem;
class ZORPSVModelItem;
class SampleData;

// The trees of one list of samples in its wire form, numbered in the order
// they are written: a tree that is one written before, or equal to one in
// everything that travels, is named by its number ("ref"). At 1,000 samples
// a run has far fewer distinct trees, and every one of them costs the
// reader a tree of nodes. One table serves one list: written into one
// buffer, or read from one reader.
class SampleTreeTable
{
public:
    SampleTreeTable();
    ~SampleTreeTable();
    SampleTreeTable(const SampleTreeTable&) = delete;
    SampleTreeTable& operator=(const SampleTreeTable&) = delete;

    // Written or read whole, and named by number.
    int trees() const;
    int references() const;

    struct Data;

private:
    friend class Sample;
    Data* d;
};

// Where a thread ran; the same for all threads of one process.
struct ThreadContext
{
    int rank = -1;
    int pid = 0;
};

class Sample
{
public:
    enum ThreadType { MainThread = 0, OtherThread = 1, ParallelRegionThread = 2 };

    Sample();
    Sample(const MetricDefinitions& definitions, int rank);
    // With `repeat` set the copy is flagged as a repeat of its origin, which
    // resampling uses when one source sample stands for two ranges.
    Sample(const Sample& other, bool repeat);
    Sample(const Sample& other);
    Sample& operator=(const Sample& other);
    ~Sample();

    int rank() const;

    ScalarMetric metric(const QString& id) const;
    void setMetric(const QString& id, const SampleValue& value);
    QList<QString> metricIds() const;

    bool hasTimestamp() const;
    long long backendOnly_getTimestamp() const;
    void backendOnly_setTimestamp(long long milliseconds);

    bool isRepeat() const;
    void setIgnore(bool ignore);
    bool isIgnored() const;
    void addLibunwindErrorCode(int code);
    QList<int> libunwindErrorCodes() const;

    // Threads. The sample takes ownership of `tree`, which may be null.
    void backendOnly_addThread(ZORPSVModelItem* tree, int tid, const ThreadContext& context,
                               const InstructionQuery& instruction, ThreadType type, unsigned long long cpuTime,
                               bool sleeping);
    QSet<int> backendOnly_sampledTids() const;
    // The same, sorted, without building a hash: for loops over many samples.
    QVector<int> sampledTidList() const;
    bool backendOnly_hasSampleForThread(int tid) const;
    ThreadType backendOnly_threadType(int tid) const;
    bool backendOnly_isSleeping(int tid) const;
    ThreadContext backendOnly_threadContext(int tid) const;
    // CPU time in nanoseconds.
    unsigned long long backendOnly_cpuTime(int tid) const;
    void backendOnly_setCpuTime(int tid, unsigned long long cpuTime);
    // How much of this sample's CPU time resampling has already handed out.
    unsigned long long backendOnly_getAllocatedCpuTime(int tid) const;
    void backendOnly_addAllocatedCpuTime(int tid, unsigned long long cpuTime);
    QSet<int> backendOnly_liveThreads() const;
    QVector<int> liveTidList() const; // sorted
    void backendOnly_setLiveThreads(const QSet<int>& tids);
    // The same from a list, in any order and with repeats.
    void backendOnly_setLiveThreadList(QVector<int> tids);
    // Room for that many threads in all, for a sample built thread by thread.
    void backendOnly_reserveThreads(int count);
    InstructionQuery backendOnly_instruction(int tid) const;
    // The instructions of the sampled threads, in thread id order.
    QList<InstructionQuery> backendOnly_instructions() const;
    void backendOnly_setInstruction(int tid, const InstructionQuery& instruction);
    // The thread's tree, ready to be changed: a tree still shared with a
    // copy of this sample is cloned first. Null for an unknown thread.
    ZORPSVModelItem* backendOnly_mutablePsvModel(int tid);
    const ZORPSVModelItem* psvModel(int tid) const;
    void backendOnly_setThreadMetric(int tid, const QString& id, unsigned long value);
    QMap<QString, unsigned long> threadMetrics(int tid) const;

    // The GPU kernels that ran during the sample, as a tree; null when none
    // did. The sample takes ownership; copies share the tree, which nobody
    // changes once it is set.
    void setGpuPsvModel(GpuProfilePSVModelItem* tree);
    const GpuProfilePSVModelItem* gpuPsvModel() const;

    // Histograms over the ranges that the front-end worked out from all
    // processes: for each metric of `ranges`, the values of the threads that
    // carry it as a thread metric, or else the sample's own value, counted
    // into `numBins` equal bins. A value outside the range counts in the
    // nearest end bin; with a range of one value everything counts in the
    // first bin.
    void backendOnly_calculateHistograms(int numBins, const QMap<QString, SampleValueRange>& ranges);
    SampleHistogram histogram() const;

    // Wire form: a "sample" element. readXml expects the reader on its start
    // and replaces the whole content of this sample. In a list of samples
    // written and read with one table of trees, a thread whose tree came
    // before in the list names it instead of writing it again, and the
    // reader shares that tree again.
    void writeXml(QXmlStreamWriter& writer) const;
    void writeXml(XmlWriter& writer, SampleTreeTable* trees = nullptr) const;
    bool readXml(QXmlStreamReader& reader, QString* error, SampleTreeTable* trees = nullptr);
    // The same with our own reader, which stops at anything it doesn't know.
    bool readXml(FastXmlReader& reader, SampleTreeTable* trees = nullptr);

    // Equal in everything that travels in the wire form.
    bool operator==(const Sample& other) const;
    bool operator!=(const Sample& other) const { return !(*this == other); }

private:
    QSharedDataPointer<SampleData> d;
};

#endif
