/* The functions and variables of libquorvex-sampler.so that the back-end
 * reaches through the debugger, by these names, and that programs linked
 * with the sampler may call themselves. C linkage, usable from C and C++.
 *
 * A run: quorvex_set_boundary_frame_ip, quorvex_sampler_version and
 * quorvex_set_GPUProfiler_configuration while the target stands stopped,
 * then quorvex_init_sampler_now arms sampling. Sampling ends when
 * quorvex_ui_stop_sampling is called or when the program exits; either way
 * the data file is written over the configuration at `path`, "PATH.mpi" (MPI
 * wrapper loaded) and "PATH.errorMessages" (something to report) are written
 * beside it, and "PATH.running", created at
 * arming, is deleted last, as the sign that the results are complete. */
#ifndef QUORVEX_SAMPLER_H
#define QUORVEX_SAMPLER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Results of quorvex_init_sampler_now and quorvex_ui_stop_sampling. Every
 * code but 0 leaves one line of explanation in quorvex_sampler_error. */
enum {
    QUORVEX_SAMPLER_OK = 0,
    QUORVEX_SAMPLER_ALREADY_ARMED = 1,   /* arming a second time */
    QUORVEX_SAMPLER_BAD_ARGUMENTS = 2,   /* a count, an interval or a path out of range */
    QUORVEX_SAMPLER_BAD_CONFIG = 3,      /* the configuration at the path is missing or malformed */
    QUORVEX_SAMPLER_BAD_OUTPUT = 4,      /* the path can't be written */
    QUORVEX_SAMPLER_RUNNING_FILE = 5,    /* "PATH.running" exists already or can't be created */
    QUORVEX_SAMPLER_SETUP_FAILED = 6,    /* signal, timer or memory could not be set up */
    QUORVEX_SAMPLER_NOT_ARMED = 7,       /* stopping what was never armed */
    QUORVEX_SAMPLER_OTHER_PROCESS = 8    /* stopping in a child that fork made of the sampled process */
};

/* Stop reasons in the data file's header. */
enum {
    QUORVEX_STOP_PROGRAM_ENDED = 1,
    QUORVEX_STOP_ON_REQUEST = 2
};

/* Set to 1 by the back-end before it stops sampling; no sample is taken
 * once it is set. */
extern volatile int quorvex_sampling_finished;

/* The reason for the last non-zero code, NUL-terminated. */
extern char quorvex_sampler_error[1024];

/* Arms sampling. `numSamples`: the most samples kept (the list thins itself
 * when full, and the interval then doubles). `intervalMs`: the first
 * sampling interval in milliseconds. `path`: the configuration to read, and
 * where the results go. `allThreads`: 1 samples every thread, 0 the thread
 * that arms (the main thread) only. `startOffsetMs`: the first sample is
 * taken that long after arming (0: one interval after). `stopOffsetMs`:
 * sampling stops by itself that long after arming, with stop reason 2 (0:
 * never). Returns 0 when armed. */
int quorvex_init_sampler_now(int numSamples, int intervalMs, const char* path, int allThreads,
                             unsigned int startOffsetMs, unsigned int stopOffsetMs);

/* Unwinding stops before a frame at this instruction address, so that a
 * main thread's backtrace ends at the program's main function. 0: no
 * boundary. */
int quorvex_set_boundary_frame_ip(unsigned long ip);

/* The version of the data file that this sampler writes. */
int quorvex_sampler_version(void);

/* 1: the sampler reports arming, thinning and stopping on standard error. */
int quorvex_write_debug_log(int on);

/* This sampler profiles no GPU: asking for it is noted in the debug log,
 * the data file says that GPU profiling was off, and the result is -1.
 * Asking for nothing returns 0. */
int quorvex_set_GPUProfiler_configuration(int cudaEnabled, int enablePcSampling);

/* Stops sampling and writes the results (stop reason 2). Everything is on
 * disk when it returns. */
int quorvex_ui_stop_sampling(void);

/* The real-time signal that the sampler takes for itself. A handler that
 * the program installs for it is still called for every instance that the
 * sampler didn't send. */
int quorvex_sampler_signal(void);

/* Marks the calling thread as inside (1) or outside (0) an MPI call; an
 * MPI wrapper calls this around the calls it wraps. */
void quorvex_set_thread_in_mpi(int inMpi);

#ifdef __cplusplus
}
#endif

#endif
