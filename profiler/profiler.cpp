#include "profiler.h"

#include <QCoreApplication>
#include <memory>

#include "command.h"
#include "constants.h"
#include "debugger.h"
#include "exception.h"
#include "managedsamplelist.h"
#include "profilerresponses.h"
#include "samplelist.h"
#include "samplesource.h"
#include "tharninterface.h"

namespace {

// Until the sampler's own source is part of the plug-in, a run without a
// factory from outside can't start; it says so as the command's answer.
ProfilerSampleSource* missingSource(TharnInterface&, const SampleSourceSettings&)
{
    throw new Exception(20008, QCoreApplication::translate("QObject", "This build of ZOR has no sampler source."));
}

Profiler::SampleSourceFactory& sourceFactory()
{
    static Profiler::SampleSourceFactory factory = &missingSource;
    return factory;
}

// An attribute read as a number, or `fallback` when it is missing or won't convert.
int intAttribute(const Command& command, const char* key, int fallback)
{
    bool ok = false;
    const int value = command.getValue(QLatin1String(key)).toInt(&ok);
    return ok ? value : fallback;
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
    sourceFactory() = factory ? factory : SampleSourceFactory(&missingSource);
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

    QMap<QString, unsigned int> uncategorisedInstructions;
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
