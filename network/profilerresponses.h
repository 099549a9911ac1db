// The responses of the profiler's commands.
#ifndef ZOR_PROFILERRESPONSES_H
#define ZOR_PROFILERRESPONSES_H

#include <QList>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>

#include "category.h"
#include "compactset.h"
#include "metric.h"
#include "mpicallmetrics.h"
#include "response.h"
#include "samplehistogram.h"
#include "selfprofilepoints.h"

class FastXmlReader;
class Sample;

// The sampler is armed; sent from within CMD_ZOR_PLAY, before the run.
class ProfilerSamplerInitResponse : public ResponseAdaptor<ProfilerSamplerInitResponse>
{
public:
    explicit ProfilerSamplerInitResponse(bool hasWrappedMpiCalls = false) : mHasWrappedMpiCalls(hasWrappedMpiCalls) {}
    static QString staticElementName() { return QStringLiteral("ProfilerSamplerInitResponse"); }

    bool hasWrappedMpiCalls() const { return mHasWrappedMpiCalls; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    bool mHasWrappedMpiCalls;
};

// The end of a run on one process.
class ProfilerPlayResponse : public ResponseAdaptor<ProfilerPlayResponse>
{
public:
    ProfilerPlayResponse();
    ProfilerPlayResponse(int rank, bool interrupted, int sampleCount, long long duration,
                         const QMap<QString, unsigned int>& uncategorisedInstructions, bool mpiThreadMultiple,
                         bool notSelected, bool hasOmpRegions, const QSet<Category::OmpCompiler::Enum>& ompRuntimes);
    static QString staticElementName() { return QStringLiteral("ProfilerPlayResponse"); }

    void setStopReason(int reason) { mStopReason = reason; }
    void setCudaUsedByTarget(bool used) { mCudaUsedByTarget = used; }
    void setCudaProfilingEnabled(bool enabled) { mCudaProfilingEnabled = enabled; }
    void addOmpNumThreadsString(const QString& text) { mOmpNumThreads.append(text); }
    void setSingleValueCustomMetric(int rank, const QString& id, const SampleValue& value)
    {
        mCustomMetrics[rank].insert(id, value);
    }
    void setMetric(const QString& id, const SampleValue& value) { mMetrics.insert(id, value); }
    // The names that threads of the process gave themselves, by thread id.
    void setThreadName(int tid, const QString& name) { mThreadNames.insert(tid, name); }

    int rank() const { return mRank; }
    bool interrupted() const { return mInterrupted; }
    int sampleCount() const { return mSampleCount; }
    long long duration() const { return mDuration; }
    QMap<QString, unsigned int> uncategorisedInstructions() const { return mUncategorisedInstructions; }
    bool mpiThreadMultiple() const { return mMpiThreadMultiple; }
    bool notSelected() const { return mNotSelected; }
    bool hasOmpRegions() const { return mHasOmpRegions; }
    QSet<Category::OmpCompiler::Enum> ompRuntimes() const { return mOmpRuntimes; }
    int stopReason() const { return mStopReason; }
    bool cudaUsedByTarget() const { return mCudaUsedByTarget; }
    bool cudaProfilingEnabled() const { return mCudaProfilingEnabled; }
    QStringList ompNumThreadsStrings() const { return mOmpNumThreads; }
    QMap<int, QMap<QString, SampleValue>> singleValueCustomMetrics() const { return mCustomMetrics; }
    QMap<QString, SampleValue> metrics() const { return mMetrics; }
    QMap<int, QString> threadNames() const { return mThreadNames; }

    bool operator==(const ProfilerPlayResponse& other) const;

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    int mRank;
    bool mInterrupted;
    int mSampleCount;
    long long mDuration;
    QMap<QString, unsigned int> mUncategorisedInstructions;
    bool mMpiThreadMultiple;
    bool mNotSelected;
    bool mHasOmpRegions;
    QSet<Category::OmpCompiler::Enum> mOmpRuntimes;
    int mStopReason;
    bool mCudaUsedByTarget;
    bool mCudaProfilingEnabled;
    QStringList mOmpNumThreads;
    QMap<int, QMap<QString, SampleValue>> mCustomMetrics;
    QMap<QString, SampleValue> mMetrics;
    QMap<int, QString> mThreadNames;
};

// How far a run or its analysis has got.
class ProfilerProgressResponse : public ResponseAdaptor<ProfilerProgressResponse>
{
public:
    enum Status {
        RunOverTargetAlive = 0,
        RunOverTargetGone = 1,
        SamplesRead = 2,
        AnalysisProgress = 3,
        AnalysisComplete = 4
    };

    ProfilerProgressResponse() : mStatus(RunOverTargetAlive), mProgress(0), mMemory(0) {}
    // `progress`: percentage points gained since the last report;
    // `memory`: percent of the node's memory in use.
    ProfilerProgressResponse(Status status, int progress, short memory)
        : mStatus(status), mProgress(progress), mMemory(memory) {}
    static QString staticElementName() { return QStringLiteral("ProfilerProgressResponse"); }

    Status status() const { return mStatus; }
    int progress() const { return mProgress; }
    short memory() const { return mMemory; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    Status mStatus;
    int mProgress;
    short mMemory;
};

// One block of resampled samples. The block owns the samples added to it
// unless clearAndReleaseSampleOwnership() is called before it is destroyed.
class SampleBlockResponse : public ResponseAdaptor<SampleBlockResponse>
{
public:
    SampleBlockResponse(int blockSize = 0, int blockNumber = 0);
    SampleBlockResponse(const SampleBlockResponse& other);
    SampleBlockResponse& operator=(const SampleBlockResponse& other) = delete;
    ~SampleBlockResponse() override;
    static QString staticElementName() { return QStringLiteral("SampleBlockResponse"); }

    void setCollectingHistogramsFlag(bool collecting) { mCollectingHistograms = collecting; }
    void addProfiledRanks(const CompactSet<int>& ranks) { mProfiledRanks.insert(ranks, true); }
    void addSample(Sample* sample) { mSamples.append(sample); }
    // Forgets the samples without deleting them.
    void clearAndReleaseSampleOwnership() { mSamples.clear(); }

    int blockSize() const { return mBlockSize; }
    int blockNumber() const { return mBlockNumber; }
    bool collectingHistograms() const { return mCollectingHistograms; }
    const CompactSet<int>& profiledRanks() const { return mProfiledRanks; }
    const QList<Sample*>& samples() const { return mSamples; }

    // Reads the element at which reader stands, as readXml does, with our
    // own reader, which stops at anything it doesn't know.
    bool readXml(FastXmlReader& reader);
    using Response::readXml;

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    int mBlockSize;
    int mBlockNumber;
    bool mCollectingHistograms;
    CompactSet<int> mProfiledRanks;
    QList<Sample*> mSamples;
};

// The end of the block stream of CMD_ZOR_SEND_SAMPLES.
class SendSamplesResponse : public ResponseAdaptor<SendSamplesResponse>
{
public:
    SendSamplesResponse(int rank = -1, int numSamples = 0) : mRank(rank), mNumSamples(numSamples) {}
    static QString staticElementName() { return QStringLiteral("SendSamplesResponse"); }

    int rank() const { return mRank; }
    int numSamples() const { return mNumSamples; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    int mRank;
    int mNumSamples;
};

// One block of histograms, one per resampled sample.
class HistogramBlockResponse : public ResponseAdaptor<HistogramBlockResponse>
{
public:
    HistogramBlockResponse(int blockSize = 0, int blockNumber = 0, int numBins = 0)
        : mBlockSize(blockSize), mBlockNumber(blockNumber), mNumBins(numBins) {}
    static QString staticElementName() { return QStringLiteral("HistogramBlockResponse"); }

    void addHistogram(const SampleHistogram& histogram) { mHistograms.append(histogram); }

    int blockSize() const { return mBlockSize; }
    int blockNumber() const { return mBlockNumber; }
    int numBins() const { return mNumBins; }
    const QList<SampleHistogram>& histograms() const { return mHistograms; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    int mBlockSize;
    int mBlockNumber;
    int mNumBins;
    QList<SampleHistogram> mHistograms;
};

// The end of the block stream of CMD_ZOR_SEND_HISTOGRAM.
class SendHistogramsResponse : public ResponseAdaptor<SendHistogramsResponse>
{
public:
    static QString staticElementName() { return QStringLiteral("SendHistogramsResponse"); }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;
};

class SendMetricErrorsResponse : public ResponseAdaptor<SendMetricErrorsResponse>
{
public:
    explicit SendMetricErrorsResponse(const MetricErrorMap& errors = MetricErrorMap()) : mErrors(errors) {}
    static QString staticElementName() { return QStringLiteral("SendMetricErrorsResponse"); }

    const MetricErrorMap& errors() const { return mErrors; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    MetricErrorMap mErrors;
};

// What is known only at the end of a run: MPI call figures and the cost of
// the back-end's own phases.
class SendMetricsCollectedAtTheEndResponse : public ResponseAdaptor<SendMetricsCollectedAtTheEndResponse>
{
public:
    SendMetricsCollectedAtTheEndResponse() : mHasMpiCallMetrics(false), mHasSelfProfilePoints(false) {}
    static QString staticElementName() { return QStringLiteral("SendMetricsCollectedAtTheEndResponse"); }

    void setMpiCallMetrics(const MpiCallMetrics& metrics)
    {
        mMpiCallMetrics = metrics;
        mHasMpiCallMetrics = true;
    }
    void setSelfProfilePoints(const SelfProfilePoints& points)
    {
        mSelfProfilePoints = points;
        mHasSelfProfilePoints = true;
    }

    bool hasMpiCallMetrics() const { return mHasMpiCallMetrics; }
    bool hasSelfProfilePoints() const { return mHasSelfProfilePoints; }
    const MpiCallMetrics& mpiCallMetrics() const { return mMpiCallMetrics; }
    const SelfProfilePoints& selfProfilePoints() const { return mSelfProfilePoints; }

protected:
    void writeContent(QXmlStreamWriter& writer) const override;
    bool readContent(QXmlStreamReader& reader, QString* error) override;

private:
    bool mHasMpiCallMetrics;
    bool mHasSelfProfilePoints;
    MpiCallMetrics mMpiCallMetrics;
    SelfProfilePoints mSelfProfilePoints;
};

#endif
