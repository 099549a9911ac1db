#include "scriptedsamplesource.h"

#include "coroutinecont.h"
#include "exception.h"
#include "profilerresponses.h"
#include "samplelist.h"

ScriptedSampleSource::ScriptedSampleSource(std::shared_ptr<SourceScript> script, const SampleSourceSettings& settings)
    : mScript(std::move(script))
{
    ++mScript->created;
    mScript->settings = settings;
}

ScriptedSampleSource::~ScriptedSampleSource()
{
    ++mScript->destroyed;
}

Profiler::SampleSourceFactory ScriptedSampleSource::factory(std::shared_ptr<SourceScript> script)
{
    return [script](TharnInterface&, const SampleSourceSettings& settings) -> ProfilerSampleSource* {
        if (script->constructorFailure)
            throw new Exception(*script->constructorFailure);
        return new ScriptedSampleSource(script, settings);
    };
}

bool ScriptedSampleSource::readSamples(SampleList& list)
{
    ++mScript->readCalls;
    if (mScript->waitForStop && !mStopped)
        CoroutineCont::yieldUntil(this, SIGNAL(stopping()));
    if (mNextBatch < mScript->batches.size()) {
        for (Sample* sample : mScript->batches.at(mNextBatch))
            list.addSample(sample);
        if (mNextBatch == mScript->failAfterBatch && mScript->readFailure)
            throw new Exception(*mScript->readFailure);
        ++mNextBatch;
    } else if (mScript->failAfterBatch >= 0 && mScript->readFailure) {
        throw new Exception(*mScript->readFailure);
    }
    return mNextBatch < mScript->batches.size();
}

void ScriptedSampleSource::provideMetrics(ProfilerPlayResponse& response)
{
    for (auto it = mScript->runMetrics.constBegin(); it != mScript->runMetrics.constEnd(); ++it)
        response.setMetric(it.key(), it.value());
}

void ScriptedSampleSource::provideGpuProfilingInfo(ProfilerPlayResponse& response)
{
    response.setCudaProfilingEnabled(mScript->settings.cudaEnabled);
}

void ScriptedSampleSource::readMpiCallMetrics(MpiCallMetrics& metrics)
{
    metrics.clear();
    for (const MpiCallMetric& call : mScript->mpiCalls)
        metrics.addCall(call);
}

void ScriptedSampleSource::readMetricErrors(MetricErrorMap& errors)
{
    errors = mScript->metricErrors;
}

void ScriptedSampleSource::stop()
{
    ++mScript->stops;
    if (mStopped)
        return;
    mStopped = true;
    emit stopping();
}

void ScriptedSampleSource::terminate()
{
    ++mScript->terminates;
}
