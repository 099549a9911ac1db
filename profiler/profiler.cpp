#include "profiler.h"

#include <QCoreApplication>
#include <memory>

#include "command.h"
#include "constants.h"
#include "debugger.h"
#include "exception.h"
#include "instructioncategories.h"
#include "managedsamplelist.h"
#include "preloadsamplesource.h"
#include "profilerresponses.h"
#include "resample.h"
#include "sample.h"
#include "samplelist.h"
#include "samplesranges.h"
#include "samplesource.h"
#include "tharninterface.h"

namespace {

// The product's source: the sampler preloaded into the target, armed
// through the debugger.
ProfilerSampleSource* preloadSource(TharnInterface& host, const SampleSourceSettings& settings)
{
    return new PreloadSampleSource(host, settings.numSamples, settings.initialInterval, settings.metrics,
                                   settings.timestamp, settings.startOffset, settings.stopOffset,
                                   settings.cudaEnabled, settings.enableCudaPcSampling, settings.notSelected);
}

Profiler::SampleSourceFactory& sourceFactory()
{
    static Profiler::SampleSourceFactory factory = &preloadSource;
    return factory;
}

// An attribute read as a number, or `fallback` when it is missing or won't convert.
int intAttribute(const Command& command, const char* key, int fallback)
{
    bool ok = false;
    const int value = command.getValue(QLatin1String(key)).toInt(&ok);
    return ok ? value : fallback;
}

// A required number: `code` and `message` when it is missing or won't convert.
int requiredIntAttribute(const Command& command, const char* key, int code, const char* message)
{
    bool ok = false;
    const int value = command.getValue(QLatin1String(key)).toInt(&ok);
    if (!ok)
        throw new Exception(code, QString::fromLatin1(message));
    return value;
}

unsigned int uintAttribute(const Command& command, const char* key)
{
    bool ok = false;
    const unsigned int value = command.getValue(QLatin1String(key)).toUInt(&ok);
    return ok ? value : 0;
}

} // namespace

void Profiler::setSampleSourceFactory(const SampleSourceFactory& factory)
{
    sourceFactory() = factory ? factory : SampleSourceFactory(&preloadSource);
}

Profiler::Profiler(Command&, TharnInterface& tharn, ZORProfiler& owner)
    : host(&tharn)
    , plugin(&owner)
    , sampleSource(nullptr)
    , sampleList(nullptr)
    , resampledSamples(nullptr)
    , currentUid(-1)
    , cancelled(true)
    , stopRequested(false)
    , mpiCallMetrics(tharn.processRank())
    , notSelected(false)
{
}

Profiler::~Profiler()
{
    delete sampleList;
    delete resampledSamples;
    delete sampleSource;
}

bool Profiler::messageHandlerAcceptsTarget(const QString& target)
{
    return target == QLatin1String(XML_TARGET_PROFILER);
}

bool Profiler::handleIncomingCommand(Command& command)
{
    if (command.name == QLatin1String(CMD_ZOR_STOP)) {
        // Runs even while a queued command waits in a yield: that is how a
        // run is stopped. It gets no answer.
        stopRequested = true;
        emit stopSampleSource();
        return false;
    }
    return true;
}

void Profiler::handleQueuedCommand(Command& command)
{
    currentUid = command.getUid();
    currentCommandName = command.name;
    cancelled = false;
    try {
        Response* response = nullptr;
        const QString& name = command.name;
        if (name == QLatin1String(CMD_ZOR_PLAY))
            response = play(command);
        else if (name == QLatin1String(CMD_ZOR_INIT))
            response = init(command);
        else if (name == QLatin1String(CMD_ZOR_SEND_SAMPLES))
            response = sendSamples(command);
        else if (name == QLatin1String(CMD_ZOR_SEND_HISTOGRAM))
            response = sendHistograms(command);
        else if (name == QLatin1String(CMD_ZOR_SEND_EXTERNAL_METRICS))
            response = sendMetricsCollectedAtTheEnd(command);
        else if (name == QLatin1String(CMD_ZOR_SEND_METRIC_ERRORS))
            response = sendMetricErrors(command);
        else if (name == QLatin1String(CMD_ZOR_KILL))
            kill(command);
        else if (name == QLatin1String(CMD_ZOR_FINISH))
            finish(command);
        else
            throw new Exception(20004, QCoreApplication::translate("ZORProfiler", "Unrecognised command \"%0\" sent to ZOR")
                                           .arg(name));
        if (response) {
            if (!isCancelled())
                host->replyToCommand(command, response);
            delete response;
        }
    } catch (Exception* exception) {
        // A failure answers its command even when the command was cancelled.
        if (exception) {
            exception->setSource(QString::fromLatin1(XML_TARGET_PROFILER));
            host->replyWithException(command, exception);
            delete exception;
        }
    }
    currentCommandName.clear();
    currentUid = -1;
}

void Profiler::cancelCommand(int uid)
{
    if (uid == currentUid)
        cancelled = true;
}

void Profiler::kill(Command&)
{
    emit terminateSampleSource();
}

Response* Profiler::init(Command& command)
{
    if (sampleSource)
        throw new Exception(20003, QStringLiteral("Profiler::init() has already been called"));

    SampleSourceSettings settings;
    settings.numSamples = intAttribute(command, "numSamples", 0);
    settings.initialInterval = intAttribute(command, "initialInterval", 20);

    // A list left from an earlier run stays allocated: its samples may still
    // be borrowed by the blocks of a result.
    sampleList = new SampleList(settings.numSamples);

    metricDefinitions = MetricDefinitions::fromQVariantMap(command.getValue(QStringLiteral("metricDefinitions")).toMap());
    settings.metrics = metricDefinitions;

    settings.timestamp = uintAttribute(command, "timestamp");
    settings.startOffset = uintAttribute(command, "startOffset");
    settings.stopOffset = uintAttribute(command, "stopOffset");
    settings.cudaEnabled = command.getFlagValue(QStringLiteral("cudaEnabled"), false);
    settings.enableCudaPcSampling = command.getFlagValue(QStringLiteral("enableCudaPcSampling"), false);

    const QString selected = command.getValue(QStringLiteral("selectedRanks")).toString();
    CompactSet<int> ranks;
    QString badToken;
    if (ranks.fromString(selected, &badToken))
        profiledRanks.insert(ranks, true);
    else
        qWarning("ZOR: ignoring the selected ranks \"%s\": \"%s\" is not a rank or a range of ranks",
                 qPrintable(selected), qPrintable(badToken));

    notSelected = !profiledRanks.isEmpty() && !profiledRanks.contains(host->processRank());
    settings.notSelected = notSelected;

    sampleSource = sourceFactory()(*host, settings);
    connect(this, SIGNAL(stopSampleSource()), sampleSource, SLOT(stop()));
    connect(this, SIGNAL(terminateSampleSource()), sampleSource, SLOT(terminate()));
    sampleSource->enableLineMetrics(command.getFlagValue(QStringLiteral("enableLineMetrics"), true));
    return new ProfilerSamplerInitResponse(sampleSource->hasWrappedMpiCalls());
}

Response* Profiler::play(Command& command)
{
    {
        // The host sees that the sampler is armed before the run begins.
        std::unique_ptr<Response> initResponse(init(command));
        host->sendResponse(initResponse.get());
    }
    std::unique_ptr<ProfilerSampleSource> source(sampleSource);
    sampleSource = nullptr;

    try {
        while (source->readSamples(*sampleList)) {
        }
        source->readMpiCallMetrics(mpiCallMetrics);
        source->readMetricErrors(metricErrors);
        selfProfilePoints = source->selfProfile();
    } catch (Exception* exception) {
        // Samples read before the failure are dropped with it.
        sampleList->clear();
        mpiCallMetrics.clear();
        throw new Exception(20019, QStringLiteral("Exception when reading sampler data"), exception, nullptr, 0);
    }

    // Mnemonics that no category knows, for the front-end to report.
    QMap<QString, unsigned int> uncategorisedInstructions;
    for (const Sample* sample : *sampleList) {
        for (const InstructionQuery& query : sample->backendOnly_instructions()) {
            if (!isCategorisedInstruction(query.instruction))
                ++uncategorisedInstructions[query.instruction];
        }
    }
    host->flushResponses();

    ProfilerPlayResponse* response = new ProfilerPlayResponse(
        host->processRank(), stopRequested || source->interrupted(), sampleList->size(), source->duration(),
        uncategorisedInstructions, source->isMPIThreadMultiple(), notSelected, source->hasOmpRegions(),
        source->ompRuntimes());
    source->provideMetrics(*response);
    source->provideGpuProfilingInfo(*response);
    return response;
}

void Profiler::finish(Command&)
{
    host->setTargetMonitoring(false);
    Debugger* debugger = host->getDebugger();
    if (!debugger || debugger->currentStatus(0).getState() == StatusResponse::TargetGone)
        return;
    Command detach(QString::fromLatin1(CMD_DETACH), QString::fromLatin1(XML_TARGET_DEBUGGER), nullptr);
    delete debugger->handleCommand(detach);
}

Response* Profiler::sendSamples(Command& command)
{
    if (!sampleList)
        throw new Exception(20005, QStringLiteral("Profiler::play() has not yet been called"));
    const int blockSize = intAttribute(command, "blockSize", 8);
    const int numSamples = intAttribute(command, "numSamples", sampleList->size());
    const int numBlocks =
        requiredIntAttribute(command, "numBlocks", 20007, "CMD_SEND_SAMPLES missing numBlocks attribute");
    // The capacity is a 32-bit product, as the front-end computes it.
    const int capacity = static_cast<int>(static_cast<quint32>(numBlocks) * static_cast<quint32>(blockSize));
    if (numSamples > capacity)
        throw new Exception(20007, QStringLiteral("Not enough blocks: %0 blocks of %1 samples transfers %2 samples, "
                                                  "however %3 samples have been requested.")
                                       .arg(numBlocks)
                                       .arg(blockSize)
                                       .arg(capacity)
                                       .arg(numSamples));
    bool ok = false;
    long long duration = command.getValue(QStringLiteral("duration")).toLongLong(&ok);
    if (!ok)
        duration = 0;
    const bool collectHistograms = command.getFlagValue(QStringLiteral("collectHistograms"), false);

    // The raw list stays as it is, so that the front-end can ask again with
    // other numbers.
    MetricErrorMap errors;
    SampleList result = resample(sampleList->iterator(), duration, numSamples, metricDefinitions, errors);
    delete resampledSamples;
    resampledSamples = new ManagedSampleList(result.iterator());
    if (!errors.isEmpty())
        metricErrors.unite(errors);

    // Blocks borrow the samples: one sample is in one block at a time, and
    // nothing is copied for sending.
    QListIterator<Sample*> samples = resampledSamples->listIterator();
    for (int b = 0; b < numBlocks; ++b) {
        SampleBlockResponse block(blockSize, b);
        block.setCollectingHistogramsFlag(collectHistograms);
        block.addProfiledRanks(profiledRanks);
        for (int n = 0; n < blockSize && samples.hasNext(); ++n)
            block.addSample(samples.next());
        host->sendResponse(&block);
        block.clearAndReleaseSampleOwnership();
    }
    return new SendSamplesResponse(host->processRank(), numSamples);
}

Response* Profiler::sendHistograms(Command& command)
{
    const int numBlocks =
        requiredIntAttribute(command, "numBlocks", 20022, "CMD_SEND_HISTOGRAMS missing numBlocks attribute");
    const int blockSize =
        requiredIntAttribute(command, "blockSize", 20022, "CMD_SEND_HISTOGRAMS missing blockSize attribute");
    const int numBins =
        requiredIntAttribute(command, "numBins", 20022, "CMD_SEND_HISTOGRAMS missing numBins attribute");
    const QString wrongRanges = QStringLiteral("CMD_SEND_HISTOGRAMS specifies the wrong number of ranges");
    const QVariant rangesValue = command.getValue(QStringLiteral("ranges"));
    bool ok = false;
    const SamplesRanges ranges = SamplesRanges::fromBase64(rangesValue.toString(), &ok);
    if (!rangesValue.isValid() || !ok
        || ranges.numSamples() > static_cast<int>(static_cast<quint32>(numBlocks) * static_cast<quint32>(blockSize)))
        throw new Exception(20022, wrongRanges);
    // Histograms are binned on the kept result of CMD_ZOR_SEND_SAMPLES.
    if (!resampledSamples)
        throw new Exception(20022, QStringLiteral("CMD_SEND_HISTOGRAMS sent before CMD_SEND_SAMPLES"));

    QListIterator<Sample*> samples = resampledSamples->listIterator();
    int index = 0;
    for (int b = 0; b < numBlocks; ++b) {
        HistogramBlockResponse block(blockSize, b, numBins);
        for (int n = 0; n < blockSize && samples.hasNext(); ++n, ++index) {
            Sample* sample = samples.next();
            sample->backendOnly_calculateHistograms(numBins, ranges.getSampleRanges(index));
            block.addHistogram(sample->histogram());
        }
        host->sendResponse(&block);
    }
    return new SendHistogramsResponse;
}

Response* Profiler::sendMetricErrors(Command&) const
{
    return new SendMetricErrorsResponse(notSelected ? MetricErrorMap() : metricErrors);
}

Response* Profiler::sendMetricsCollectedAtTheEnd(Command&) const
{
    SendMetricsCollectedAtTheEndResponse* response = new SendMetricsCollectedAtTheEndResponse;
    if (!notSelected) {
        response->setMpiCallMetrics(mpiCallMetrics);
        response->setSelfProfilePoints(selfProfilePoints);
    }
    return response;
}
