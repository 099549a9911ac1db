/* The sampler's public functions and variables. gdb reads the debug
 * information of this file, for their types, at its first question in
 * every profiled program: plain C with nothing but the declarations is a
 * few hundred bytes to read, where the C++ behind them gave it 77 KB and
 * 12 ms. */
#include "capi.h"
#include "quorvex_sampler.h"

#define ZS_API __attribute__((visibility("default")))

ZS_API volatile int quorvex_sampling_finished;
ZS_API char quorvex_sampler_error[1024];

ZS_API int quorvex_init_sampler_now(int numSamples, int intervalMs, const char* path, int allThreads,
                                    unsigned int startOffsetMs, unsigned int stopOffsetMs)
{
    return zs_api_init_sampler_now(numSamples, intervalMs, path, allThreads, startOffsetMs, stopOffsetMs);
}

ZS_API int quorvex_set_boundary_frame_ip(unsigned long ip)
{
    return zs_api_set_boundary_frame_ip(ip);
}

ZS_API int quorvex_sampler_version(void)
{
    return zs_api_sampler_version();
}

ZS_API int quorvex_write_debug_log(int on)
{
    return zs_api_write_debug_log(on);
}

ZS_API int quorvex_set_GPUProfiler_configuration(int cudaEnabled, int enablePcSampling)
{
    return zs_api_set_GPUProfiler_configuration(cudaEnabled, enablePcSampling);
}

ZS_API int quorvex_ui_stop_sampling(void)
{
    return zs_api_ui_stop_sampling();
}

ZS_API int quorvex_sampler_signal(void)
{
    return zs_api_sampler_signal();
}

ZS_API void quorvex_set_thread_in_mpi(int inMpi)
{
    zs_api_set_thread_in_mpi(inMpi);
}
