#include "profilerresponses.h"

#include <algorithm>
#include <limits>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include "sample.h"
#include "xmlreading.h"
#include "xmlvalues.h"
#include "xmlwriting.h"

namespace {

const QString Yes = QStringLiteral("yes");

void writeFlag(QXmlStreamWriter& writer, const QString& name, bool value)
{
    if (value)
        writer.writeAttribute(name, Yes);
}

bool readFlag(const QXmlStreamAttributes& attributes, const char* name)
{
    return attributes.value(QLatin1String(name)) == Yes;
}

bool fail(QString* error, const QString& text)
{
    *error = text;
    return false;
}

// Reads a required integer attribute into `value`.
template <typename T>
bool readNumber(const QXmlStreamAttributes& attributes, const char* name, T* value, QString* error)
{
    bool ok = false;
    const qlonglong number = attributes.value(QLatin1String(name)).toLongLong(&ok);
    if (!ok || number < std::numeric_limits<T>::min() || number > std::numeric_limits<T>::max())
        return fail(error, QStringLiteral("missing or bad attribute \"%1\"").arg(QLatin1String(name)));
    *value = static_cast<T>(number);
    return true;
}

// For elements without children: moves to their end.
bool skipToEnd(QXmlStreamReader& reader, QString* error)
{
    reader.skipCurrentElement();
    return reader.hasError() ? fail(error, xmlReadError(reader, QString())) : true;
}

bool readEnd(QXmlStreamReader& reader, QString* error)
{
    return reader.hasError() ? fail(error, xmlReadError(reader, QString())) : true;
}

} // namespace

// ProfilerSamplerInitResponse

void ProfilerSamplerInitResponse::writeContent(QXmlStreamWriter& writer) const
{
    writeFlag(writer, QStringLiteral("wrappedMpiCalls"), mHasWrappedMpiCalls);
}

bool ProfilerSamplerInitResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    mHasWrappedMpiCalls = readFlag(reader.attributes(), "wrappedMpiCalls");
    return skipToEnd(reader, error);
}

// ProfilerPlayResponse

ProfilerPlayResponse::ProfilerPlayResponse()
    : ProfilerPlayResponse(-1, false, 0, 0, QMap<QString, unsigned int>(), false, false, false,
                           QSet<Category::OmpCompiler::Enum>())
{
}

ProfilerPlayResponse::ProfilerPlayResponse(int rank, bool interrupted, int sampleCount, long long duration,
                                           const QMap<QString, unsigned int>& uncategorisedInstructions,
                                           bool mpiThreadMultiple, bool notSelected, bool hasOmpRegions,
                                           const QSet<Category::OmpCompiler::Enum>& ompRuntimes)
    : mRank(rank)
    , mInterrupted(interrupted)
    , mSampleCount(sampleCount)
    , mDuration(duration)
    , mUncategorisedInstructions(uncategorisedInstructions)
    , mMpiThreadMultiple(mpiThreadMultiple)
    , mNotSelected(notSelected)
    , mHasOmpRegions(hasOmpRegions)
    , mOmpRuntimes(ompRuntimes)
    , mStopReason(0)
    , mCudaUsedByTarget(false)
    , mCudaProfilingEnabled(false)
{
}

bool ProfilerPlayResponse::operator==(const ProfilerPlayResponse& other) const
{
    return mRank == other.mRank && mInterrupted == other.mInterrupted && mSampleCount == other.mSampleCount
        && mDuration == other.mDuration && mUncategorisedInstructions == other.mUncategorisedInstructions
        && mMpiThreadMultiple == other.mMpiThreadMultiple && mNotSelected == other.mNotSelected
        && mHasOmpRegions == other.mHasOmpRegions && mOmpRuntimes == other.mOmpRuntimes
        && mStopReason == other.mStopReason && mCudaUsedByTarget == other.mCudaUsedByTarget
        && mCudaProfilingEnabled == other.mCudaProfilingEnabled && mOmpNumThreads == other.mOmpNumThreads
        && mCustomMetrics == other.mCustomMetrics && mMetrics == other.mMetrics
        && mThreadNames == other.mThreadNames;
}

void ProfilerPlayResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("rank"), QString::number(mRank));
    writer.writeAttribute(QStringLiteral("samples"), QString::number(mSampleCount));
    writer.writeAttribute(QStringLiteral("duration"), QString::number(mDuration));
    writer.writeAttribute(QStringLiteral("stopReason"), QString::number(mStopReason));
    writeFlag(writer, QStringLiteral("interrupted"), mInterrupted);
    writeFlag(writer, QStringLiteral("mpiThreadMultiple"), mMpiThreadMultiple);
    writeFlag(writer, QStringLiteral("notSelected"), mNotSelected);
    writeFlag(writer, QStringLiteral("ompRegions"), mHasOmpRegions);
    writeFlag(writer, QStringLiteral("cudaUsed"), mCudaUsedByTarget);
    writeFlag(writer, QStringLiteral("cudaProfiling"), mCudaProfilingEnabled);
    for (auto it = mUncategorisedInstructions.constBegin(); it != mUncategorisedInstructions.constEnd(); ++it) {
        writer.writeStartElement(QStringLiteral("uncategorised"));
        writer.writeAttribute(QStringLiteral("mnemonic"), it.key());
        writer.writeAttribute(QStringLiteral("count"), QString::number(it.value()));
        writer.writeEndElement();
    }
    QList<Category::OmpCompiler::Enum> runtimes = mOmpRuntimes.values();
    std::sort(runtimes.begin(), runtimes.end());
    for (Category::OmpCompiler::Enum runtime : runtimes) {
        writer.writeStartElement(QStringLiteral("ompRuntime"));
        writer.writeAttribute(QStringLiteral("id"), QString::number(runtime));
        writer.writeEndElement();
    }
    for (const QString& text : mOmpNumThreads)
        writer.writeTextElement(QStringLiteral("ompNumThreads"), text);
    for (auto rank = mCustomMetrics.constBegin(); rank != mCustomMetrics.constEnd(); ++rank) {
        for (auto it = rank->constBegin(); it != rank->constEnd(); ++it) {
            writer.writeStartElement(QStringLiteral("customMetric"));
            writer.writeAttribute(QStringLiteral("rank"), QString::number(rank.key()));
            writer.writeAttribute(QStringLiteral("id"), it.key());
            writer.writeAttribute(QStringLiteral("v"), sampleValueToString(it.value()));
            writer.writeEndElement();
        }
    }
    for (auto it = mMetrics.constBegin(); it != mMetrics.constEnd(); ++it) {
        writer.writeStartElement(QStringLiteral("metric"));
        writer.writeAttribute(QStringLiteral("id"), it.key());
        writer.writeAttribute(QStringLiteral("v"), sampleValueToString(it.value()));
        writer.writeEndElement();
    }
    for (auto it = mThreadNames.constBegin(); it != mThreadNames.constEnd(); ++it) {
        writer.writeStartElement(QStringLiteral("thread"));
        writer.writeAttribute(QStringLiteral("tid"), QString::number(it.key()));
        writer.writeAttribute(QStringLiteral("name"), it.value());
        writer.writeEndElement();
    }
}

bool ProfilerPlayResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes a = reader.attributes();
    if (!readNumber(a, "rank", &mRank, error) || !readNumber(a, "samples", &mSampleCount, error)
        || !readNumber(a, "duration", &mDuration, error) || !readNumber(a, "stopReason", &mStopReason, error))
        return false;
    mInterrupted = readFlag(a, "interrupted");
    mMpiThreadMultiple = readFlag(a, "mpiThreadMultiple");
    mNotSelected = readFlag(a, "notSelected");
    mHasOmpRegions = readFlag(a, "ompRegions");
    mCudaUsedByTarget = readFlag(a, "cudaUsed");
    mCudaProfilingEnabled = readFlag(a, "cudaProfiling");
    mUncategorisedInstructions.clear();
    mOmpRuntimes.clear();
    mOmpNumThreads.clear();
    mCustomMetrics.clear();
    mMetrics.clear();
    mThreadNames.clear();
    while (reader.readNextStartElement()) {
        const QXmlStreamAttributes e = reader.attributes();
        const QStringRef name = reader.name();
        if (name == QLatin1String("uncategorised")) {
            unsigned int count = 0;
            if (!readNumber(e, "count", &count, error))
                return false;
            mUncategorisedInstructions.insert(e.value(QLatin1String("mnemonic")).toString(), count);
        } else if (name == QLatin1String("ompRuntime")) {
            int id = 0;
            if (!readNumber(e, "id", &id, error))
                return false;
            mOmpRuntimes.insert(static_cast<Category::OmpCompiler::Enum>(id));
        } else if (name == QLatin1String("ompNumThreads")) {
            mOmpNumThreads.append(reader.readElementText());
            continue;
        } else if (name == QLatin1String("thread")) {
            int tid = 0;
            if (!readNumber(e, "tid", &tid, error))
                return false;
            mThreadNames.insert(tid, e.value(QLatin1String("name")).toString());
        } else if (name == QLatin1String("customMetric") || name == QLatin1String("metric")) {
            SampleValue value;
            if (!sampleValueFromString(e.value(QLatin1String("v")).toString(), &value))
                return fail(error, QStringLiteral("bad value of metric \"%1\"").arg(e.value(QLatin1String("id"))));
            const QString id = e.value(QLatin1String("id")).toString();
            if (name == QLatin1String("metric")) {
                mMetrics.insert(id, value);
            } else {
                int rank = 0;
                if (!readNumber(e, "rank", &rank, error))
                    return false;
                mCustomMetrics[rank].insert(id, value);
            }
        }
        reader.skipCurrentElement();
    }
    return readEnd(reader, error);
}

// ProfilerProgressResponse

void ProfilerProgressResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("status"), QString::number(mStatus));
    writer.writeAttribute(QStringLiteral("progress"), QString::number(mProgress));
    writer.writeAttribute(QStringLiteral("memory"), QString::number(mMemory));
}

bool ProfilerProgressResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes a = reader.attributes();
    int status = 0;
    if (!readNumber(a, "status", &status, error) || !readNumber(a, "progress", &mProgress, error)
        || !readNumber(a, "memory", &mMemory, error))
        return false;
    if (status < RunOverTargetAlive || status > AnalysisComplete)
        return fail(error, QStringLiteral("unknown progress status %1").arg(status));
    mStatus = static_cast<Status>(status);
    return skipToEnd(reader, error);
}

// SampleBlockResponse

SampleBlockResponse::SampleBlockResponse(int blockSize, int blockNumber)
    : mBlockSize(blockSize)
    , mBlockNumber(blockNumber)
    , mCollectingHistograms(false)
{
}

SampleBlockResponse::SampleBlockResponse(const SampleBlockResponse& other)
    : ResponseAdaptor<SampleBlockResponse>(other)
    , mBlockSize(other.mBlockSize)
    , mBlockNumber(other.mBlockNumber)
    , mCollectingHistograms(other.mCollectingHistograms)
    , mProfiledRanks(other.mProfiledRanks)
{
    for (const Sample* sample : other.mSamples)
        mSamples.append(new Sample(*sample));
}

SampleBlockResponse::~SampleBlockResponse()
{
    qDeleteAll(mSamples);
}

void SampleBlockResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("blockSize"), QString::number(mBlockSize));
    writer.writeAttribute(QStringLiteral("blockNumber"), QString::number(mBlockNumber));
    writeFlag(writer, QStringLiteral("histograms"), mCollectingHistograms);
    if (!mProfiledRanks.isEmpty())
        writer.writeAttribute(QStringLiteral("profiledRanks"), mProfiledRanks.toString());
    QByteArray samples;
    XmlWriter out(&samples);
    SampleTreeTable trees;
    for (const Sample* sample : mSamples)
        sample->writeXml(out, &trees);
    writeRawXml(writer, samples);
}

bool SampleBlockResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes a = reader.attributes();
    if (!readNumber(a, "blockSize", &mBlockSize, error) || !readNumber(a, "blockNumber", &mBlockNumber, error))
        return false;
    mCollectingHistograms = readFlag(a, "histograms");
    mProfiledRanks = CompactSet<int>();
    QString badToken;
    if (!mProfiledRanks.fromString(a.value(QLatin1String("profiledRanks")).toString(), &badToken))
        return fail(error, QStringLiteral("bad profiled ranks near \"%1\"").arg(badToken));
    qDeleteAll(mSamples);
    mSamples.clear();
    SampleTreeTable trees;
    while (reader.readNextStartElement()) {
        if (reader.name() != QLatin1String("sample")) {
            reader.skipCurrentElement();
            continue;
        }
        Sample* sample = new Sample;
        if (!sample->readXml(reader, error, &trees)) {
            delete sample;
            return false;
        }
        mSamples.append(sample);
    }
    return readEnd(reader, error);
}

bool SampleBlockResponse::readXml(FastXmlReader& reader)
{
    int blockSize = 0;
    int blockNumber = 0;
    if (!reader.nameIs(QLatin1String("SampleBlockResponse"))
        || !reader.attribute(QLatin1String("blockSize")).toInt(&blockSize)
        || !reader.attribute(QLatin1String("blockNumber")).toInt(&blockNumber)) {
        reader.raiseError(QStringLiteral("not a block of samples, or its size or number"));
        return false;
    }
    CompactSet<int> ranks;
    QString badToken;
    if (!ranks.fromString(reader.attribute(QLatin1String("profiledRanks")).toString(), &badToken)) {
        reader.raiseError(QStringLiteral("bad profiled ranks"));
        return false;
    }
    mBlockSize = blockSize;
    mBlockNumber = blockNumber;
    mCollectingHistograms = reader.attribute(QLatin1String("histograms")) == QLatin1String("yes");
    mProfiledRanks = ranks;
    qDeleteAll(mSamples);
    mSamples.clear();
    SampleTreeTable trees;
    while (reader.readNextStartElement()) {
        if (!reader.nameIs(QLatin1String("sample"))) {
            reader.skipCurrentElement();
            continue;
        }
        Sample* sample = new Sample;
        if (!sample->readXml(reader, &trees)) {
            delete sample;
            return false;
        }
        mSamples.append(sample);
    }
    return !reader.hasError();
}

// SendSamplesResponse

void SendSamplesResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("rank"), QString::number(mRank));
    writer.writeAttribute(QStringLiteral("numSamples"), QString::number(mNumSamples));
}

bool SendSamplesResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes a = reader.attributes();
    if (!readNumber(a, "rank", &mRank, error) || !readNumber(a, "numSamples", &mNumSamples, error))
        return false;
    return skipToEnd(reader, error);
}

// HistogramBlockResponse

void HistogramBlockResponse::writeContent(QXmlStreamWriter& writer) const
{
    writer.writeAttribute(QStringLiteral("blockSize"), QString::number(mBlockSize));
    writer.writeAttribute(QStringLiteral("blockNumber"), QString::number(mBlockNumber));
    writer.writeAttribute(QStringLiteral("numBins"), QString::number(mNumBins));
    for (const SampleHistogram& histogram : mHistograms)
        histogram.writeXml(writer);
}

bool HistogramBlockResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    const QXmlStreamAttributes a = reader.attributes();
    if (!readNumber(a, "blockSize", &mBlockSize, error) || !readNumber(a, "blockNumber", &mBlockNumber, error)
        || !readNumber(a, "numBins", &mNumBins, error))
        return false;
    mHistograms.clear();
    while (reader.readNextStartElement()) {
        if (reader.name() != QLatin1String("histogram")) {
            reader.skipCurrentElement();
            continue;
        }
        SampleHistogram histogram;
        if (!histogram.readXml(reader, error))
            return false;
        mHistograms.append(histogram);
    }
    return readEnd(reader, error);
}

// SendHistogramsResponse

void SendHistogramsResponse::writeContent(QXmlStreamWriter&) const
{
}

bool SendHistogramsResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    return skipToEnd(reader, error);
}

// SendMetricErrorsResponse

void SendMetricErrorsResponse::writeContent(QXmlStreamWriter& writer) const
{
    for (auto metric = mErrors.constBegin(); metric != mErrors.constEnd(); ++metric) {
        for (auto it = metric->constBegin(); it != metric->constEnd(); ++it) {
            writer.writeStartElement(QStringLiteral("error"));
            writer.writeAttribute(QStringLiteral("key"), metric.key());
            writer.writeAttribute(QStringLiteral("id"), QString::number(it.key()));
            writer.writeAttribute(QStringLiteral("metric"), it->metric());
            writer.writeAttribute(QStringLiteral("errorId"), QString::number(it->errorId()));
            writer.writeAttribute(QStringLiteral("rank"), QString::number(it->rank()));
            writer.writeCharacters(it->message());
            writer.writeEndElement();
        }
    }
}

bool SendMetricErrorsResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    mErrors.clear();
    while (reader.readNextStartElement()) {
        const QXmlStreamAttributes e = reader.attributes();
        int id = 0, errorId = 0, rank = 0;
        if (!readNumber(e, "id", &id, error) || !readNumber(e, "errorId", &errorId, error)
            || !readNumber(e, "rank", &rank, error))
            return false;
        const QString key = e.value(QLatin1String("key")).toString();
        const QString metric = e.value(QLatin1String("metric")).toString();
        mErrors[key].insert(id, MetricError(metric, errorId, reader.readElementText(), rank));
    }
    return readEnd(reader, error);
}

// SendMetricsCollectedAtTheEndResponse

void SendMetricsCollectedAtTheEndResponse::writeContent(QXmlStreamWriter& writer) const
{
    if (mHasMpiCallMetrics)
        mMpiCallMetrics.writeXml(writer);
    if (mHasSelfProfilePoints)
        mSelfProfilePoints.writeXml(writer);
}

bool SendMetricsCollectedAtTheEndResponse::readContent(QXmlStreamReader& reader, QString* error)
{
    mHasMpiCallMetrics = false;
    mHasSelfProfilePoints = false;
    while (reader.readNextStartElement()) {
        if (reader.name() == QLatin1String("mpiCallMetrics")) {
            if (!mMpiCallMetrics.readXml(reader, error))
                return false;
            mHasMpiCallMetrics = true;
        } else if (reader.name() == QLatin1String("selfProfilePoints")) {
            if (!mSelfProfilePoints.readXml(reader, error))
                return false;
            mHasSelfProfilePoints = true;
        } else {
            reader.skipCurrentElement();
        }
    }
    return readEnd(reader, error);
}
