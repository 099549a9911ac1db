/* libquorvex-mpiwrapper.so: stands in front of the MPI C interface (through
 * its profiling twins, PMPI_*) and tells the sampler about every call;
 * libquorvex-shmemwrapper.so does the same for OpenSHMEM (pshmem_*) as well.
 * The wrappers themselves are generated (gen_wrappers.py); this is what
 * they call. */
#include "wrapper.h"

__thread int zw_depth __attribute__((tls_model("initial-exec")));
int zw_shared_figures;

__attribute__((constructor)) static void zw_load(void)
{
    quorvex_mpi_register_calls(zw_call_names, zw_figures, zw_call_count);
}

void zw_after_init(int providedLevel, int result)
{
    if (result != MPI_SUCCESS)
        return;
    if (providedLevel == MPI_THREAD_MULTIPLE) {
        zw_shared_figures = 1;
        quorvex_mpi_set_thread_multiple(1);
    }
}

#ifdef ZW_SHMEM
#include <shmem.h>

void zw_after_shmem_init(int providedLevel, int result)
{
    if (result == 0 && providedLevel == SHMEM_THREAD_MULTIPLE)
        zw_after_init(MPI_THREAD_MULTIPLE, MPI_SUCCESS);
}
#endif

unsigned long long zw_bytes(long long count, MPI_Datatype type)
{
    int size = 0;
    if (count <= 0 || type == MPI_DATATYPE_NULL || PMPI_Type_size(type, &size) != MPI_SUCCESS || size <= 0)
        return 0;
    return (unsigned long long)count * (unsigned long long)size;
}

int zw_ranks(MPI_Comm comm)
{
    int inter = 0;
    int size = 0;
    if (comm == MPI_COMM_NULL || PMPI_Comm_test_inter(comm, &inter) != MPI_SUCCESS)
        return 0;
    if ((inter ? PMPI_Comm_remote_size(comm, &size) : PMPI_Comm_size(comm, &size)) != MPI_SUCCESS)
        return 0;
    return size;
}

unsigned long long zw_bytes_per_rank(const int* counts, MPI_Datatype type, MPI_Comm comm)
{
    if (!counts)
        return 0;
    long long total = 0;
    const int ranks = zw_ranks(comm);
    for (int i = 0; i < ranks; ++i)
        total += counts[i] > 0 ? counts[i] : 0;
    return zw_bytes(total, type);
}

int zw_is_root(int root, MPI_Comm comm)
{
    if (root == MPI_ROOT)
        return 1;
    if (root == MPI_PROC_NULL || comm == MPI_COMM_NULL)
        return 0;
    int inter = 0;
    if (PMPI_Comm_test_inter(comm, &inter) != MPI_SUCCESS || inter)
        return 0;
    int rank = -1;
    return PMPI_Comm_rank(comm, &rank) == MPI_SUCCESS && rank == root;
}
