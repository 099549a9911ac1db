/* How an MPI wrapper tells libquorvex-sampler.so about the MPI calls of the
 * program: which thread is inside one, for how long, and the figures per
 * call that end up in "PATH.mpi". Times are in ticks of the sampler's
 * clock, which only the sampler turns into nanoseconds. */
#ifndef QUORVEX_MPI_HOOKS_H
#define QUORVEX_MPI_HOOKS_H

#ifdef __cplusplus
extern "C" {
#endif

/* The figures of one MPI call, kept by the wrapper. */
struct quorvex_mpi_figures {
    unsigned long long calls;
    unsigned long long ticks;          /* inside the call, all calls together */
    unsigned long long bytesSent;
    unsigned long long bytesReceived;
};

/* The calling thread enters an MPI call: it is marked as in MPI until
 * quorvex_mpi_leave. Returns the tick count at the start. */
unsigned long long quorvex_mpi_enter(void);

/* The call that began at `start` returns. Returns the tick count now. */
unsigned long long quorvex_mpi_leave(unsigned long long start);

/* The wrapper's table: `count` names and figures, which the sampler reads
 * when it writes its results; calls that were never made are left out. The
 * arrays must live as long as the process. */
void quorvex_mpi_register_calls(const char* const* names, const struct quorvex_mpi_figures* figures, int count);

/* MPI_Init_thread granted MPI_THREAD_MULTIPLE (1) or not (0). */
void quorvex_mpi_set_thread_multiple(int multiple);

#ifdef __cplusplus
}
#endif

#endif
