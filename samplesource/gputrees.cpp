// The GPU side of a sample: the kernels that ran, their lines and why their
// warps stalled, each sample's hits adding up to one unit of time.
#include "preloadsamplesource.h"

#include "constants.h"
#include "debugger.h"
#include "gpuprofilepsvmodelitem.h"
#include "profilerresponses.h"
#include "ssample.h"

int PreloadSampleSource::convertGpuProfilerStallReason(int reason) const
{
    // The sampler's numbering and the platform's may part one day; today
    // they agree.
    static const GpuProfilerStallReason::Enum reasons[quorvex::GpuProfilerTypes::StallReason::COUNT] = {
        GpuProfilerStallReason::Invalid,
        GpuProfilerStallReason::None,
        GpuProfilerStallReason::InstructionFetch,
        GpuProfilerStallReason::ExecutionDependency,
        GpuProfilerStallReason::MemoryDependency,
        GpuProfilerStallReason::Texture,
        GpuProfilerStallReason::Synchronization,
        GpuProfilerStallReason::ConstantMemoryDependency,
        GpuProfilerStallReason::PipeBusy,
        GpuProfilerStallReason::MemoryThrottle,
        GpuProfilerStallReason::NotSelected,
        GpuProfilerStallReason::Other,
    };
    if (static_cast<unsigned int>(reason) >= quorvex::GpuProfilerTypes::StallReason::COUNT)
        return -1;
    return reasons[reason];
}

GpuProfilePSVModelItem* PreloadSampleSource::createGpuPsvModel(const quorvex::SSample& sample)
{
    const quorvex::kernelhitlist_t hits = sample.kernelHits();
    const double n = hits.size();
    GpuProfilePSVModelItem* root = new GpuProfilePSVModelItem;
    GpuProfilePSVModelItem* program = root->addProgramNode(Position(programDisplayName(), QString(), -1, -1));
    if (hits.empty())
        return root;

    for (const quorvex::zor_shared_ptr<quorvex::SGpuKernelHit>& pointer : hits) {
        const quorvex::SGpuKernelHit& hit = *pointer;
        QString name = mDebugger->demangleName(mGpuData.kernelName(hit.kernelNameId(), nullptr));
        const int parenthesis = name.indexOf(QLatin1Char('('));
        if (parenthesis >= 1)
            name.truncate(parenthesis);
        GpuProfilePSVModelItem* kernel = program->addKernelHit(Position(name));

        const std::uint64_t total = hit.totalSamples();
        // Summed over all lines of the hit so far, not per line: with the
        // latency switch on, a line's "no stall" share includes the lines
        // before it. Kept as it is on purpose.
        std::uint64_t all = 0;
        std::uint64_t latency = 0;
        for (const auto& line : hit.lineHits()) {
            StallReasonCounts counts;
            const Position position = mGpuData.positionForLocationId(line.first, nullptr);
            for (int r = 0; r < quorvex::GpuProfilerTypes::StallReason::COUNT; ++r) {
                all += line.second.samples[r];
                latency += line.second.latencySamples[r];
                const int reason = convertGpuProfilerStallReason(r);
                double value = line.second.samples[r];
                if (mUseGpuLatencyStalls)
                    value = reason == GpuProfilerStallReason::None ? 0.0 : double(line.second.latencySamples[r]);
                counts.inc(static_cast<GpuProfilerStallReason::Enum>(reason), value / double(total) / n);
            }
            if (mUseGpuLatencyStalls) {
                const std::uint32_t issued = static_cast<std::uint32_t>(all - latency);
                counts.inc(GpuProfilerStallReason::None, double(issued) / double(total) / n);
            }
            kernel->addLineHit(position, counts);
        }
        if (hit.lineHits().empty() || total == 0)
            kernel->addUnknownStalls(1.0 / n);
        else
            kernel->addDroppedSampleStalls(double(total - all) / double(total) / n);
    }
    return root;
}

void PreloadSampleSource::provideGpuProfilingInfo(ProfilerPlayResponse& response)
{
    response.setCudaProfilingEnabled(mCudaProfilingEnabled);
    response.setCudaUsedByTarget(mGpuData.numKernelLaunches() != 0);
    response.setMetric(QLatin1String(METRIC_CUDA_RUNTIME_VERSION), SampleValue(mGpuData.cudaRuntimeVersion()));
    response.setMetric(QLatin1String(METRIC_NUM_CUDA_KERNELS_LAUNCHED),
                       SampleValue(static_cast<unsigned long>(mGpuData.numKernelLaunches())));
    response.setMetric(QLatin1String(METRIC_MIN_CUDA_KERNEL_DURATION), SampleValue(mGpuData.minKernelDurationMs()));
    response.setMetric(QLatin1String(METRIC_MAX_CUDA_KERNEL_DURATION), SampleValue(mGpuData.maxKernelDurationMs()));
    response.setMetric(QLatin1String(METRIC_MEAN_CUDA_KERNEL_DURATION), SampleValue(mGpuData.meanKernelDurationMs()));
    response.setMetric(QLatin1String(METRIC_MIN_CUDA_KERNEL_SAMPLING_PERIOD),
                       SampleValue(static_cast<unsigned long>(mGpuData.minSamplingPeriodInCycles())));
    response.setMetric(QLatin1String(METRIC_MAX_CUDA_KERNEL_SAMPLING_PERIOD),
                       SampleValue(static_cast<unsigned long>(mGpuData.maxSamplingPeriodInCycles())));
}
