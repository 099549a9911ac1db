// What a function or a thread is, as far as the profiler sorts them.
//
// The rules name what the runtimes in use today really run: GCC's libgomp
// and LLVM's libomp for OpenMP, Open MPI (with PMIx) and MPICH for MPI, the
// CUDA driver and runtime for accelerators. Where a runtime is installed
// without symbols its thread entry points are static functions that no
// debugger can name; such a frame reads "<unknown> from <library>", and the
// rules then go by the library.
#ifndef ZOR_CATEGORY_H
#define ZOR_CATEGORY_H

#include <QHash>
#include <QString>

class Position;

class Category
{
public:
    enum Enum {
        Other = 0,
        // A call of MPI's interface: MPI_Send, pmpi_send_, MPI_Wait...
        MpiCall = 1,
        // The function that an MPI progress thread runs.
        MpiProgress = 2,
        // A frame with which the thread library starts every thread.
        ThreadStart = 3,
        // A wait in the kernel or the thread library: poll, futex, nanosleep.
        SystemWait = 4,
        // A call of the OpenMP runtime's interface: GOMP_parallel,
        // __kmpc_fork_call, omp_get_thread_num...
        OmpRuntimeCall = 5,
        // A body of a parallel region that the compiler outlined.
        OmpRegion = 7,
        // Code of the CUDA driver, runtime or tools library.
        Accelerator = 8,
        // The function that an OpenMP worker thread starts in.
        OmpWorkerEntry = 10,
        // The OpenMP runtime waiting at a barrier or for work.
        OmpWait = 11
    };

    // The OpenMP runtimes that the profiler tells apart.
    struct OmpCompiler {
        enum Enum { Unknown = 0, Gnu = 1, Intel = 2, Llvm = 3, Cray = 4, Nvidia = 5 };
    };

    // What the rules read from one name, so that a caller that meets the
    // same names again and again can keep it.
    struct NameFacts
    {
        // The category of the name on its own; Other when it tells none.
        Enum category;
        bool empty;
        bool ompWorker;
        bool mpiWorker;
        // What such a function calls is the body of a parallel region.
        bool runsRegionBodies;
        // A function of the OpenMP runtime's own.
        bool ompRuntimeInternal;
    };
    static NameFacts factsOf(const QString& function);
    // categoriseFunction from the facts of the two names.
    static Enum categorise(const NameFacts& function, const NameFacts& parent, Enum start);

    // The category of a frame named `function` whose caller stood at
    // `parent` (an empty function for a frame right below a thread's root).
    // `start` is what the caller already knows; it comes back when the name
    // settles nothing.
    static Enum categoriseFunction(const QString& function, const Position& parent, Enum start);
    // A thread's entry point of an OpenMP runtime's worker.
    static bool isOmpWorkerThread(const QString& function);
    // A thread's entry point of an MPI runtime's progress or service thread.
    static bool isMpiWorkerThread(const QString& function);
    // The OpenMP runtime that a frame gives away: its entry points, and the
    // names that each compiler gives the functions it outlines from
    // parallel regions. Unknown when it gives none away.
    static OmpCompiler::Enum ompRuntimeOfFunction(const QString& function);
    // The library named by an unknown frame ("<unknown> from /lib/libx.so.1"
    // gives "libx.so.1"); empty for any other name.
    static QString libraryOfUnknownFrame(const QString& function);
};

inline uint qHash(Category::OmpCompiler::Enum value, uint seed = 0)
{
    return ::qHash(static_cast<int>(value), seed);
}

#endif
