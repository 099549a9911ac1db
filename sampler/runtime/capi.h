/* The sampler's side of its public functions (quorvex_sampler.h), hidden:
 * capi.c forwards each public function to its namesake here. */
#ifndef ZOR_SAMPLER_CAPI_H
#define ZOR_SAMPLER_CAPI_H

#ifdef __cplusplus
extern "C" {
#endif

int zs_api_init_sampler_now(int numSamples, int intervalMs, const char* path, int allThreads,
                            unsigned int startOffsetMs, unsigned int stopOffsetMs);
int zs_api_set_boundary_frame_ip(unsigned long ip);
int zs_api_sampler_version(void);
int zs_api_write_debug_log(int on);
int zs_api_set_GPUProfiler_configuration(int cudaEnabled, int enablePcSampling);
int zs_api_ui_stop_sampling(void);
int zs_api_sampler_signal(void);
void zs_api_set_thread_in_mpi(int inMpi);

#ifdef __cplusplus
}
#endif

#endif
