#include "category.h"

#include "constants.h"
#include "position.h"

#include <QRegExp>

namespace {

bool startsWithAny(const QString& text, std::initializer_list<const char*> prefixes)
{
    for (const char* prefix : prefixes) {
        if (text.startsWith(QLatin1String(prefix)))
            return true;
    }
    return false;
}

bool containsAny(const QString& text, std::initializer_list<const char*> parts)
{
    for (const char* part : parts) {
        if (text.contains(QLatin1String(part)))
            return true;
    }
    return false;
}

bool equalsAny(const QString& text, std::initializer_list<const char*> names)
{
    for (const char* name : names) {
        if (text == QLatin1String(name))
            return true;
    }
    return false;
}

// Libraries by file name: "libgomp.so.1", "libomp-14.so.5".
bool isOmpLibrary(const QString& library)
{
    return startsWithAny(library, {"libgomp.so", "libgomp-", "libomp.so", "libomp-", "libiomp5"});
}

bool isMpiLibrary(const QString& library)
{
    // Open MPI's own libraries, its components ("mca_btl_tcp.so"), PMIx,
    // MPICH, and UCX, whose asynchronous thread both MPIs may start.
    return startsWithAny(library, {"libopen-pal.so", "libopen-rte.so", "libmpi.so", "libpmix.so", "mca_",
                                   "libmpich.so", "libmpichcxx.so", "libucs.so"});
}

bool isAcceleratorLibrary(const QString& library)
{
    return startsWithAny(library, {"libcuda.so", "libcudart.so", "libcupti.so", "libnvidia-", "libnvrtc"});
}

bool isAcceleratorName(const QString& function)
{
    // Driver entry points are "cu" and a capitalised word: cuLaunchKernel.
    static const QRegExp driverName(QStringLiteral("cu[A-Z][a-z].*"));
    return startsWithAny(function, {"cuda", "__cuda", "CU_ETID_", "cupti"})
        || (function.startsWith(QLatin1String("cu")) && driverName.exactMatch(function));
}

bool isOmpRegionName(const QString& function)
{
    // GCC: "main._omp_fn.0"; Clang: ".omp_outlined.", "__omp_outlined__";
    // the Intel compilers: "main_$_par_region0".
    return containsAny(function, {"._omp_fn.", ".omp_outlined.", "__omp_outlined__", "_par_region", "_par_loop"});
}

bool isOmpWaitName(const QString& function)
{
    if (function.startsWith(QLatin1String("gomp_")) || function.startsWith(QLatin1String("__kmp_")))
        return containsAny(function, {"barrier", "wait", "suspend", "yield", "sleep"});
    return function == QLatin1String("GOMP_barrier") || function == QLatin1String("__kmpc_barrier");
}

} // namespace

QString Category::libraryOfUnknownFrame(const QString& function)
{
    static const QString prefix = QLatin1String(ZOR_FUNCTION_NAME_FOR_UNKNOWN_FUNCTION) + QLatin1String(" from ");
    if (!function.startsWith(prefix))
        return QString();
    const int slash = function.lastIndexOf(QLatin1Char('/'));
    return function.mid(slash >= prefix.size() ? slash + 1 : prefix.size());
}

bool Category::isOmpWorkerThread(const QString& function)
{
    // libgomp's workers start in gomp_thread_start, libomp's in
    // __kmp_launch_worker, which calls __kmp_launch_thread. All three are
    // static: without symbols only the library is known.
    if (equalsAny(function, {"gomp_thread_start", "__kmp_launch_worker", "__kmp_launch_thread"}))
        return true;
    return isOmpLibrary(libraryOfUnknownFrame(function));
}

bool Category::isMpiWorkerThread(const QString& function)
{
    // Open MPI's and PMIx's progress threads run a static progress_engine,
    // MPICH's asynchronous progress thread progress_fn, UCX's service thread
    // ucs_async_thread_func.
    if (equalsAny(function, {"progress_engine", "progress_fn", "ucs_async_thread_func"}))
        return true;
    return isMpiLibrary(libraryOfUnknownFrame(function));
}

Category::NameFacts Category::factsOf(const QString& function)
{
    NameFacts facts;
    facts.empty = function.isEmpty();
    facts.ompWorker = isOmpWorkerThread(function);
    facts.mpiWorker = isMpiWorkerThread(function);
    facts.runsRegionBodies = equalsAny(function, {"__kmp_invoke_microtask", "GOMP_parallel", "GOMP_parallel_start"});
    facts.ompRuntimeInternal = function.startsWith(QLatin1String("__kmp")) || function.startsWith(QLatin1String("gomp_"));
    if (facts.empty)
        facts.category = Other;
    else if (isOmpRegionName(function))
        facts.category = OmpRegion;
    else if (facts.ompWorker)
        facts.category = OmpWorkerEntry;
    else if (isOmpWaitName(function))
        facts.category = OmpWait;
    else if (startsWithAny(function, {"GOMP_", "GOACC_", "omp_", "__kmpc_", "__kmp_"}))
        facts.category = OmpRuntimeCall;
    else if (facts.mpiWorker)
        facts.category = MpiProgress;
    else if (startsWithAny(function, {"MPI_", "PMPI_", "mpi_", "pmpi_"}))
        facts.category = MpiCall;
    else if (isAcceleratorName(function) || isAcceleratorLibrary(libraryOfUnknownFrame(function)))
        facts.category = Accelerator;
    else if (equalsAny(function, {"start_thread", "clone", "__clone", "clone3", "__clone3"}))
        facts.category = ThreadStart;
    else if (equalsAny(function, {"poll", "__poll", "ppoll", "epoll_wait", "epoll_pwait", "select", "pselect",
                                  "nanosleep", "__nanosleep", "clock_nanosleep", "__clock_nanosleep", "sched_yield",
                                  "pthread_cond_wait", "pthread_cond_timedwait", "__futex_abstimed_wait_common",
                                  "futex_wait", "sigwait", "sigtimedwait", "pause", "usleep", "sleep"}))
        facts.category = SystemWait;
    else
        facts.category = Other;
    return facts;
}

Category::Enum Category::categorise(const NameFacts& function, const NameFacts& parent, Enum start)
{
    if (function.empty)
        return start;
    if (function.category == OmpRegion)
        return OmpRegion;
    // The frame that a runtime calls to run a region is the region, whatever
    // the binary's symbols say of it.
    if (parent.runsRegionBodies && !function.ompRuntimeInternal)
        return OmpRegion;
    return function.category == Other ? start : function.category;
}

Category::Enum Category::categoriseFunction(const QString& function, const Position& parent, Enum start)
{
    return categorise(factsOf(function), factsOf(parent.function), start);
}

// Frames that give an OpenMP runtime away: its entry points, and the names
// that each compiler gives the functions it outlines from parallel regions.
Category::OmpCompiler::Enum Category::ompRuntimeOfFunction(const QString& function)
{
    if (function.startsWith(QLatin1String("GOMP_")) || function.contains(QLatin1String("._omp_fn.")))
        return Category::OmpCompiler::Gnu;
    if (function.contains(QLatin1String("__par_region")) || function.contains(QLatin1String("__par_loop")))
        return Category::OmpCompiler::Intel;
    if (function.startsWith(QLatin1String("_cray$mt")) || function.startsWith(QLatin1String("_cray_mt")))
        return Category::OmpCompiler::Cray;
    if (function.startsWith(QLatin1String("__nv_")) && function.contains(QLatin1String("_F1L")))
        return Category::OmpCompiler::Nvidia;
    if (function.contains(QLatin1String(".omp_outlined.")) || function.startsWith(QLatin1String("__kmpc_"))
        || function.startsWith(QLatin1String("__kmp_")))
        return Category::OmpCompiler::Llvm;
    return Category::OmpCompiler::Unknown;
}

