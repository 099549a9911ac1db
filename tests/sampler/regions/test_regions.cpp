// OpenMP programs under the sampler, one per runtime: a worker's backtrace
// stops where the runtime called the region's code, carries the region's id,
// and the region's call site in the data file continues it into the
// function that opened the region.
#include "../../support/programfunctions.h"
#include "../../support/samplefilereader.h"

#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

class Regions : public ::testing::TestWithParam<const char*>
{
};

TEST_P(Regions, WorkersStopAtTheRegionWhoseCallSiteIsTheOpeningFunction)
{
    const QString program = QString(ZOR_BIN_DIR) + "/zor-omp-example-" + GetParam();
    std::map<std::string, FunctionRange> functions = functionsOf(program);
    const FunctionRange hot = functions["hot_body"], opener = functions["open_region"], main = functions["main"];
    FunctionRange outlined;
    for (const auto& f : functions) {
        if (f.first.find("omp_fn") != std::string::npos || f.first.find("omp_outlined") != std::string::npos)
            outlined = f.second;
    }
    ASSERT_NE(hot.low, 0u);
    ASSERT_NE(outlined.low, 0u) << "no outlined region function in " << program.toStdString();

    QTemporaryDir dir;
    const QString output = dir.filePath("samples");
    QProcess run;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("LD_PRELOAD", ZOR_SAMPLER_LIBRARY);
    environment.insert("ZOR_SAMPLER_OUTPUT", output);
    environment.insert("ZOR_SAMPLER_OPTIONS", "interval=3");
    environment.insert("OMP_NUM_THREADS", "3");
    run.setProcessEnvironment(environment);
    run.start(program, {"40", "64"});
    ASSERT_TRUE(run.waitForFinished(120000));
    ASSERT_EQ(run.exitCode(), 0) << run.readAllStandardError().toStdString();
    ASSERT_TRUE(run.readAllStandardOutput().endsWith("ok\n"));

    const SampleFileRead file(output.toStdString());
    ASSERT_TRUE(file.list);
    const quorvex::SSampleList* list = file.list.get();
    const QMap<int, quorvex::SCallSite>& sites = file.callSites;
    EXPECT_EQ(file.ompText, "3");

    // One place opens regions, 40 times: its stack runs from open_region,
    // just after the call into the runtime, to main.
    ASSERT_EQ(sites.size(), 1);
    const quorvex::SCallSite& site = sites.first();
    EXPECT_EQ(site.tag(), 40u);
    const quorvex::backtrace_t& siteFrames = site.callSite()->trace();
    ASSERT_GE(siteFrames.size(), 2u);
    EXPECT_TRUE(opener.contains(siteFrames[0] - 1));
    EXPECT_TRUE(main.contains(siteFrames[1] - 1));

    // The workers in hot_body: their stacks end in the region's function and
    // carry the site's id; the opening thread's own stack runs on into
    // open_region without a mark.
    unsigned workers = 0, workersJoined = 0, opening = 0, openingWhole = 0;
    for (unsigned i = 0; i < list->size(); ++i) {
        quorvex::SSampleBacktraceIterator threads(list->at(i));
        while (threads.hasNext()) {
            const quorvex::SBacktrace& bt = threads.next();
            const quorvex::backtrace_t& frames = bt.trace();
            if (frames.empty() || !hot.contains(frames.front()))
                continue;
            if (threads.wasMainThread()) {
                ++opening;
                bool throughOpener = false;
                for (std::size_t k = 1; k < frames.size(); ++k)
                    throughOpener = throughOpener || opener.contains(frames[k] - 1);
                openingWhole += !bt.stopsAtCallingFrame() && throughOpener;
            } else {
                ++workers;
                workersJoined += bt.stopsAtCallingFrame() && sites.contains(bt.parallelId())
                    && frames.size() >= 2 && outlined.contains(frames.back() - 1);
            }
        }
    }
    ASSERT_GE(workers, 20u);
    EXPECT_GE(workersJoined, workers * 95 / 100) << workersJoined << " of " << workers;
    ASSERT_GE(opening, 10u);
    EXPECT_GE(openingWhole, opening * 95 / 100) << openingWhole << " of " << opening;
}

INSTANTIATE_TEST_SUITE_P(Runtimes, Regions, ::testing::Values("gcc", "clang"));

} // namespace
