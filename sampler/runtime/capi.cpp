// What the public functions of capi.c do.
#include "capi.h"
#include "quorvex_sampler.h"
#include "runtime.h"
#include "samplerfile.h"
#include "samplerstate.h"
#include "sampling.h"

using namespace zorsampler;

#define ZS_API extern "C"

ZS_API int zs_api_init_sampler_now(int numSamples, int intervalMs, const char* path, int allThreads,
                                    unsigned int startOffsetMs, unsigned int stopOffsetMs)
{
    const ArmSettings settings = {numSamples, intervalMs, path, allThreads != 0, startOffsetMs, stopOffsetMs};
    return arm(settings, true);
}

ZS_API int zs_api_set_boundary_frame_ip(unsigned long ip)
{
    gState.boundaryIp = ip;
    return 0;
}

ZS_API int zs_api_sampler_version(void)
{
    return quorvex::QUORVEX_SAMPLER_FILE_VERSION;
}

ZS_API int zs_api_write_debug_log(int on)
{
    gState.debugLog = on != 0;
    return 0;
}

ZS_API int zs_api_set_GPUProfiler_configuration(int cudaEnabled, int enablePcSampling)
{
    gState.gpuRequested = cudaEnabled != 0 || enablePcSampling != 0;
    if (!gState.gpuRequested)
        return 0;
    quorvex::SafeMessage message = logLine();
    message.str("GPU profiling was asked for; this sampler has none\n");
    writeLog(message);
    return -1;
}

ZS_API int zs_api_ui_stop_sampling(void)
{
    return finish(QUORVEX_STOP_ON_REQUEST, false);
}

ZS_API int zs_api_sampler_signal(void)
{
    return zs_sampler_signal();
}

ZS_API void zs_api_set_thread_in_mpi(int inMpi)
{
    if (ThreadSlot* slot = currentSlot())
        slot->inMpi.store(inMpi != 0, std::memory_order_relaxed);
}
