/* What the generated wrappers (wrappers.c) and the wrapper's core
 * (wrapper.c) share. Nothing here is exported but the wrappers. */
#ifndef ZOR_MPIWRAPPER_H
#define ZOR_MPIWRAPPER_H

#include "quorvex_mpi_hooks.h"

#include <mpi.h>

#define ZW_HIDDEN __attribute__((visibility("hidden")))
/* The wrappers, whatever the headers declare: shmem.h exports nothing. */
#define ZW_EXPORT __attribute__((visibility("default")))

/* Set while this thread is inside a wrapped call: calls that MPI makes of
 * itself are passed straight on and not counted as the program's. */
extern __thread int zw_depth __attribute__((tls_model("initial-exec"))) ZW_HIDDEN;

/* Generated: the wrapped calls by index, and their figures. */
extern const char* const zw_call_names[] ZW_HIDDEN;
extern const int zw_call_count ZW_HIDDEN;
extern struct quorvex_mpi_figures zw_figures[] ZW_HIDDEN;

/* Several threads may be in MPI at once: the figures are added atomically. */
extern int zw_shared_figures ZW_HIDDEN;

static inline unsigned long long zw_enter(void)
{
    zw_depth = 1;
    return quorvex_mpi_enter();
}

static inline void zw_add(unsigned long long* figure, unsigned long long value)
{
    if (zw_shared_figures)
        __atomic_fetch_add(figure, value, __ATOMIC_RELAXED);
    else
        *figure += value;
}

static inline void zw_leave(int call, unsigned long long start, unsigned long long sent,
                            unsigned long long received)
{
    const unsigned long long end = quorvex_mpi_leave(start);
    struct quorvex_mpi_figures* figures = &zw_figures[call];
    zw_add(&figures->calls, 1);
    zw_add(&figures->ticks, end - start);
    if (sent)
        zw_add(&figures->bytesSent, sent);
    if (received)
        zw_add(&figures->bytesReceived, received);
    zw_depth = 0;
}

/* After MPI_Init (level 0) and MPI_Init_thread. */
void zw_after_init(int providedLevel, int result) ZW_HIDDEN;
/* After shmem_init_thread. */
void zw_after_shmem_init(int providedLevel, int result) ZW_HIDDEN;

/* The byte helpers of calls.def. */
unsigned long long zw_bytes(long long count, MPI_Datatype type) ZW_HIDDEN;
unsigned long long zw_bytes_per_rank(const int* counts, MPI_Datatype type, MPI_Comm comm) ZW_HIDDEN;
int zw_ranks(MPI_Comm comm) ZW_HIDDEN;
int zw_is_root(int root, MPI_Comm comm) ZW_HIDDEN;

#define B(count, type) zw_bytes((count), (type))
#define V(counts, type, comm) zw_bytes_per_rank((counts), (type), (comm))
#define N(comm) ((unsigned long long)zw_ranks(comm))
#define ROOT(root, comm) zw_is_root((root), (comm))

#endif
