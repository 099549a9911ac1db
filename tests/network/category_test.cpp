// The rules by which threads and frames are sorted, on the names that the
// installed runtimes really export or that a debugger gives their frames.
#include <gtest/gtest.h>

#include "category.h"
#include "gpuprofilepsvmodelitem.h"
#include "position.h"

namespace {

struct NameCase
{
    const char* function;
    const char* parent;
    Category::Enum category;
    bool ompWorker;
    bool mpiWorker;
};

TEST(Category, NamesOfTheRuntimes)
{
    const NameCase cases[] = {
        // libgomp: its worker entry is static; without symbols only the library is known.
        {"gomp_thread_start", "", Category::OmpWorkerEntry, true, false},
        {"<unknown> from libgomp.so.1", "", Category::OmpWorkerEntry, true, false},
        {"<unknown> from /usr/lib/x86_64-linux-gnu/libgomp.so.1", "", Category::OmpWorkerEntry, true, false},
        {"main._omp_fn.0", "gomp_thread_start", Category::OmpRegion, false, false},
        {"gomp_team_barrier_wait_end", "", Category::OmpWait, false, false},
        {"GOMP_parallel", "main", Category::OmpRuntimeCall, false, false},
        // libomp: workers start in __kmp_launch_worker; regions run from __kmp_invoke_microtask.
        {"__kmp_launch_worker", "", Category::OmpWorkerEntry, true, false},
        {"<unknown> from libomp.so.5", "", Category::OmpWorkerEntry, true, false},
        {".omp_outlined.", "__kmp_invoke_microtask", Category::OmpRegion, false, false},
        {"<unknown> from app", "__kmp_invoke_microtask", Category::OmpRegion, false, false},
        {"__kmp_fork_barrier", "", Category::OmpWait, false, false},
        {"__kmpc_fork_call", "main", Category::OmpRuntimeCall, false, false},
        // Open MPI and PMIx progress threads, MPICH's asynchronous one.
        {"progress_engine", "", Category::MpiProgress, false, true},
        {"<unknown> from libopen-pal.so.40", "", Category::MpiProgress, false, true},
        {"<unknown> from libpmix.so.2", "", Category::MpiProgress, false, true},
        {"progress_fn", "", Category::MpiProgress, false, true},
        {"MPI_Send", "main", Category::MpiCall, false, false},
        {"pmpi_allreduce_", "main", Category::MpiCall, false, false},
        // CUDA: driver and runtime names, unnamed frames of the driver.
        {"cuLaunchKernel", "main", Category::Accelerator, false, false},
        {"cudaDeviceSynchronize", "main", Category::Accelerator, false, false},
        {"<unknown> from libcuda.so.1", "", Category::Accelerator, false, false},
        {"curand", "main", Category::Other, false, false},
        // The thread library and waits.
        {"__clone3", "", Category::ThreadStart, false, false},
        {"start_thread", "__clone3", Category::ThreadStart, false, false},
        {"epoll_wait", "event_base_loop", Category::SystemWait, false, false},
        // The program's own names.
        {"main", "", Category::Other, false, false},
        {"<unknown> from libm.so.6", "", Category::Other, false, false},
        {"", "", Category::Other, false, false},
    };
    for (const NameCase& c : cases) {
        const QString function = QLatin1String(c.function);
        Position parent;
        parent.function = QLatin1String(c.parent);
        EXPECT_EQ(Category::categoriseFunction(function, parent, Category::Other), c.category) << c.function;
        EXPECT_EQ(Category::isOmpWorkerThread(function), c.ompWorker) << c.function;
        EXPECT_EQ(Category::isMpiWorkerThread(function), c.mpiWorker) << c.function;
    }
    // What the caller knew already comes back when the name settles nothing.
    EXPECT_EQ(Category::categoriseFunction(QStringLiteral("solve"), Position(), Category::MpiCall), Category::MpiCall);
}

TEST(GpuProfileTree, HitsAccumulateAndTreesMerge)
{
    StallReasonCounts half;
    half.inc(GpuProfilerStallReason::MemoryDependency, 0.5);
    half.inc(static_cast<GpuProfilerStallReason::Enum>(12), 7.0); // outside the table: ignored
    EXPECT_EQ(half.total(), 0.5);

    GpuProfilePSVModelItem a;
    GpuProfilePSVModelItem* kernel = a.addProgramNode(Position(QStringLiteral("app")))->addKernelHit(Position(QStringLiteral("k")));
    const Position line(QStringLiteral("k"), QStringLiteral("k.cu"), 3, -1);
    kernel->addLineHit(line, half);
    // The same kernel and line again add to the nodes that are there.
    a.addProgramNode(Position(QStringLiteral("app")))->addKernelHit(Position(QStringLiteral("k")))->addLineHit(line, half);
    kernel->addDroppedSampleStalls(0.25);
    ASSERT_EQ(a.children().size(), 1);
    ASSERT_EQ(kernel->children().size(), 1);
    EXPECT_EQ(kernel->children().at(0)->stalls().value(GpuProfilerStallReason::MemoryDependency), 1.0);
    EXPECT_EQ(a.totalStalls(), 1.25);

    GpuProfilePSVModelItem b(a);
    EXPECT_TRUE(b == a);
    b.merge(a);
    EXPECT_EQ(b.totalStalls(), 2.5);
    EXPECT_EQ(b.children().at(0)->children().size(), 1);
    EXPECT_FALSE(b == a);

    StallReasonCounts read;
    EXPECT_FALSE(read.fromString(QStringLiteral("1,2,3")));
    EXPECT_TRUE(read.isZero());
    EXPECT_TRUE(read.fromString(half.toString()));
    EXPECT_TRUE(read == half);
}

} // namespace
