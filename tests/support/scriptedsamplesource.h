// A sample source that plays a script set up by a test, in place of the
// sampler in a real target, and records what the profiler asked of it.
#ifndef ZOR_TESTS_SCRIPTEDSAMPLESOURCE_H
#define ZOR_TESTS_SCRIPTEDSAMPLESOURCE_H

#include <QList>
#include <functional>
#include <memory>

#include "exception.h"
#include "profiler.h"
#include "samplesource.h"

class Sample;

// What the source does and answers. Shared between the test and the source,
// which may be created and destroyed by the profiler at any time.
struct SourceScript
{
    // Thrown (as a copy) by the factory instead of making a source.
    std::shared_ptr<Exception> constructorFailure;
    bool hasWrappedMpiCalls = false;
    // Each call of readSamples adds the next batch; it asks to be called
    // again while batches remain.
    QList<QList<Sample*>> batches;
    // Before its first batch, readSamples waits in a yield until stop().
    bool waitForStop = false;
    // Thrown (as a copy) by readSamples after the batch of this index was added.
    int failAfterBatch = -1;
    std::shared_ptr<Exception> readFailure;
    long long duration = 0;
    bool interrupted = false;
    bool mpiThreadMultiple = false;
    bool ompRegions = false;
    QSet<Category::OmpCompiler::Enum> ompRuntimes;
    QList<MpiCallMetric> mpiCalls;
    MetricErrorMap metricErrors;
    SelfProfilePoints selfProfile;
    QMap<QString, SampleValue> runMetrics;   // given in provideMetrics

    // What happened.
    int created = 0;
    int destroyed = 0;
    SampleSourceSettings settings;           // of the last source made
    bool lineMetrics = true;
    int stops = 0;
    int terminates = 0;
    int readCalls = 0;
};

class ScriptedSampleSource : public ProfilerSampleSource
{
    Q_OBJECT

public:
    ScriptedSampleSource(std::shared_ptr<SourceScript> script, const SampleSourceSettings& settings);
    ~ScriptedSampleSource() override;

    // The factory to give Profiler::setSampleSourceFactory.
    static Profiler::SampleSourceFactory factory(std::shared_ptr<SourceScript> script);

    bool readSamples(SampleList& list) override;
    int sampleInterval() const override { return 0; }
    long long duration() override { return mScript->duration; }
    bool hasWrappedMpiCalls() override { return mScript->hasWrappedMpiCalls; }
    void provideMetrics(ProfilerPlayResponse& response) override;
    void provideGpuProfilingInfo(ProfilerPlayResponse& response) override;
    bool interrupted() const override { return mScript->interrupted; }
    void enableLineMetrics(bool enable) override { mScript->lineMetrics = enable; }
    void readMpiCallMetrics(MpiCallMetrics& metrics) override;
    void readMetricErrors(MetricErrorMap& errors) override;
    SelfProfilePoints selfProfile() const override { return mScript->selfProfile; }
    bool isMPIThreadMultiple() const override { return mScript->mpiThreadMultiple; }
    bool hasOmpRegions() const override { return mScript->ompRegions; }
    QSet<Category::OmpCompiler::Enum> ompRuntimes() const override { return mScript->ompRuntimes; }

public slots:
    void stop() override;
    void terminate() override;

signals:
    void stopping();

private:
    std::shared_ptr<SourceScript> mScript;
    int mNextBatch = 0;
    bool mStopped = false;
};

#endif
