// Names shared by every piece of zor: commands, message targets and metric
// identifiers. Each is a Latin-1 C string exported by libzor-network.
#ifndef ZOR_CONSTANTS_H
#define ZOR_CONSTANTS_H

// Message targets.
extern const char* const XML_TARGET_PROFILER;
extern const char* const XML_TARGET_DEBUGGER;

// Commands of the profiler.
extern const char* const CMD_ZOR_INIT;
extern const char* const CMD_ZOR_PLAY;
extern const char* const CMD_ZOR_STOP;
extern const char* const CMD_ZOR_KILL;
extern const char* const CMD_ZOR_FINISH;
extern const char* const CMD_ZOR_SEND_SAMPLES;
extern const char* const CMD_ZOR_SEND_HISTOGRAM;
extern const char* const CMD_ZOR_SEND_EXTERNAL_METRICS;
extern const char* const CMD_ZOR_SEND_METRIC_ERRORS;

// Commands of the debugger.
extern const char* const CMD_DETACH;
extern const char* const CMD_REATTACH;
extern const char* const CMD_GET_THREADS;
extern const char* const CMD_SET_THREAD;
extern const char* const CMD_SET_LANGUAGE;

// Metrics shown over time.
extern const char* const METRIC_CPU_TIME_PERCENT;
extern const char* const METRIC_RSS_BYTES;
extern const char* const METRIC_CHARS_READ;
extern const char* const METRIC_CHARS_WRITTEN;
extern const char* const METRIC_LUSTRE_CHARS_READ;
extern const char* const METRIC_LUSTRE_CHARS_WRITTEN;
extern const char* const METRIC_MPI_TIME_IN_CALL;
extern const char* const METRIC_INSTR_FP;
extern const char* const METRIC_INSTR_INT;
extern const char* const METRIC_INSTR_MEM;
extern const char* const METRIC_INSTR_VECTOR_FP;
extern const char* const METRIC_INSTR_VECTOR_INT;
extern const char* const METRIC_INSTR_BRANCH;
extern const char* const METRIC_INSTR_SCALAR_FP;
extern const char* const METRIC_INSTR_SCALAR_INT;
extern const char* const METRIC_INSTR_IMPLICIT_MEM;
extern const char* const METRIC_INSTR_OTHER;

// Single values of a whole run.
extern const char* const METRIC_ERRORS;
extern const char* const METRIC_NUM_MISSING_BACKTRACE;
extern const char* const METRIC_AV_SAMPLE_INTERVAL_NS;
extern const char* const METRIC_NUM_PHDR_CACHE_REBUILDS;
extern const char* const METRIC_NUM_PHDR_CACHE_CHECK_FOR_CHANGES;
extern const char* const METRIC_NUM_DOWNSAMPLES;
extern const char* const METRIC_NUM_SAMPLES_SKIPPED_WHILE_SUSPENDED;
extern const char* const METRIC_NUM_SAMPLES_TAKEN_WHILE_RESUMING;
extern const char* const METRIC_NUM_SAMPLES_TAKEN_IN_TOTAL;
extern const char* const METRIC_NUM_CORES_PER_NODE;
extern const char* const METRIC_NUM_PHYSICAL_CORES_PER_NODE;
extern const char* const METRIC_PEAK_NUM_NON_MAIN_THREADS;
extern const char* const METRIC_NUM_MPI_THREADS;
extern const char* const METRIC_NUM_OMP_THREADS;
extern const char* const METRIC_NUM_OMP_THREADS_WITH_REGIONS;
extern const char* const METRIC_NUM_MONITOR_THREADS;
extern const char* const METRIC_CUDA_RUNTIME_VERSION;
extern const char* const METRIC_NUM_CUDA_KERNELS_LAUNCHED;
extern const char* const METRIC_MIN_CUDA_KERNEL_DURATION;
extern const char* const METRIC_MAX_CUDA_KERNEL_DURATION;
extern const char* const METRIC_MEAN_CUDA_KERNEL_DURATION;
extern const char* const METRIC_MIN_CUDA_KERNEL_SAMPLING_PERIOD;
extern const char* const METRIC_MAX_CUDA_KERNEL_SAMPLING_PERIOD;

// Names of frames that stand for no function of the program.
extern const char* const ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION;
extern const char* const ZOR_FUNCTION_NAME_FOR_PARTIAL_TRACE;

#endif
