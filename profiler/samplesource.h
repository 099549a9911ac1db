// Where samples come from. The profiler holds a ProfilerSampleSource for the
// length of a run: a SampleSource that is also a QObject, so that the
// profiler's signals reach its stop() and terminate() slots, with the few
// further questions that the profiler asks at the end of a run.
#ifndef ZOR_SAMPLESOURCE_H
#define ZOR_SAMPLESOURCE_H

#include <QObject>
#include <QSet>

#include "category.h"
#include "metric.h"
#include "mpicallmetrics.h"
#include "selfprofilepoints.h"

class ProfilerPlayResponse;
class SampleList;

class SampleSource
{
public:
    virtual ~SampleSource() = default;

    // Adds samples to the list; true means it wants to be called again.
    virtual bool readSamples(SampleList& list) = 0;
    virtual int sampleInterval() const = 0;
    // Length of the run in milliseconds.
    virtual long long duration() = 0;
    // Asks the run to end in good order.
    virtual void stop() = 0;
    // Ends the run at once.
    virtual void terminate() = 0;
    virtual bool hasWrappedMpiCalls() = 0;
    virtual void provideMetrics(ProfilerPlayResponse& response) = 0;
    virtual void provideGpuProfilingInfo(ProfilerPlayResponse& response) = 0;
    // The run was stopped before the target ended.
    virtual bool interrupted() const = 0;
};

// A source with no samples. It stays abstract: nothing creates one.
class FakeSampleSource : public SampleSource
{
public:
    bool readSamples(SampleList& list) override;
    int sampleInterval() const override { return 100; }
};

class ProfilerSampleSource : public QObject, public SampleSource
{
    Q_OBJECT

public:
    explicit ProfilerSampleSource(QObject* parent = nullptr) : QObject(parent) {}

    virtual void enableLineMetrics(bool enable) = 0;
    virtual void readMpiCallMetrics(MpiCallMetrics& metrics) = 0;
    virtual void readMetricErrors(MetricErrorMap& errors) = 0;
    virtual SelfProfilePoints selfProfile() const = 0;
    virtual bool isMPIThreadMultiple() const = 0;
    virtual bool hasOmpRegions() const = 0;
    virtual QSet<Category::OmpCompiler::Enum> ompRuntimes() const = 0;

public slots:
    void stop() override = 0;
    void terminate() override = 0;
};

// What the profiler hands a new source, from the attributes of CMD_ZOR_PLAY.
struct SampleSourceSettings
{
    int numSamples = 0;
    int initialInterval = 20;
    MetricDefinitions metrics;
    unsigned int timestamp = 0;
    unsigned int startOffset = 0;
    unsigned int stopOffset = 0;
    bool cudaEnabled = false;
    bool enableCudaPcSampling = false;
    // This rank was left out of "selectedRanks".
    bool notSelected = false;
};

#endif
