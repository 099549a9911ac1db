// The one object that takes the host's commands on a back-end. It owns the
// sample source for the length of a run, the samples afterwards and what is
// reported at the end; it decides what runs at once and what waits in the
// host's queue, and turns every failure into the answer to the command that
// caused it.
#ifndef ZOR_PROFILER_H
#define ZOR_PROFILER_H

#include <QObject>
#include <QString>
#include <functional>

#include "compactset.h"
#include "metric.h"
#include "mpicallmetrics.h"
#include "selfprofilepoints.h"
#include "tharnmessagehandler.h"

class Command;
class ManagedSampleList;
class ProfilerSampleSource;
class Response;
class SampleList;
class TharnInterface;
class ZORProfiler;
struct SampleSourceSettings;

class Profiler : public QObject, public TharnMessageHandler
{
    Q_OBJECT

public:
    // Makes the source of a run. The product's factory arms the sampler in
    // the target; tests put a scripted source in its place.
    typedef std::function<ProfilerSampleSource*(TharnInterface& host, const SampleSourceSettings& settings)>
        SampleSourceFactory;
    // Replaces the factory for every Profiler made afterwards; an empty
    // function puts the product's own back.
    static void setSampleSourceFactory(const SampleSourceFactory& factory);

    Profiler(Command& command, TharnInterface& host, ZORProfiler& plugin);
    ~Profiler() override;

    bool handleIncomingCommand(Command& command) override;
    void handleQueuedCommand(Command& command) override;
    void cancelCommand(int uid) override;
    bool messageHandlerAcceptsTarget(const QString& target) override;

    bool isCancelled() const { return cancelled; }
    QString currentCommand() const { return currentCommandName; }

    // What the profiler holds, for the host's diagnostics and for tests.
    const SampleList* samples() const { return sampleList; }
    const CompactSet<int>& selectedRanks() const { return profiledRanks; }
    bool isNotSelected() const { return notSelected; }
    bool isStopRequested() const { return stopRequested; }
    const MetricDefinitions& definitions() const { return metricDefinitions; }

signals:
    void stopSampleSource();
    void terminateSampleSource();

private:
    Response* init(Command& command);
    Response* play(Command& command);
    void kill(Command& command);
    void finish(Command& command);

    TharnInterface* host;
    ZORProfiler* plugin;
    ProfilerSampleSource* sampleSource;
    SampleList* sampleList;
    ManagedSampleList* resampledSamples;
    int currentUid;
    bool cancelled;
    bool stopRequested;
    QString currentCommandName;
    MetricDefinitions metricDefinitions;
    MetricErrorMap metricErrors;
    MpiCallMetrics mpiCallMetrics;
    CompactSet<int> profiledRanks;
    bool notSelected;
    SelfProfilePoints selfProfilePoints;
};

#endif
