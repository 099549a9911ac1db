#include "samplefilebuilder.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <sys/wait.h>

using namespace zortest;

namespace {

struct DumpRun
{
    int status;
    std::string output; // standard output and error together
};

DumpRun dump(const std::string& path)
{
    FILE* pipe = popen((std::string(ZOR_DUMP_PATH) + " '" + path + "' 2>&1").c_str(), "r");
    DumpRun run{-1, ""};
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0)
        run.output.append(chunk, n);
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

std::string hex(unsigned long value)
{
    char text[32];
    snprintf(text, sizeof text, "0x%lx", value);
    return text;
}

} // namespace

TEST(ZorDump, PrintsHeaderSamplesAndCallSites)
{
    SampleFileBuilder builder(16, 4, 21);
    RandomSampleShape shape;
    shape.numSamples = 4;
    builder.addRandom(shape);
    builder.header().numTakenInTotal = 123456;
    TempFile file;
    builder.writeTo(file);

    const DumpRun run = dump(file.path());
    ASSERT_EQ(run.status, 0) << run.output;
    const std::string& out = run.output;
    EXPECT_NE(out.find("samples taken in total: 123456\n"), std::string::npos);
    EXPECT_NE(out.find("OpenMP threads: \"" + std::string(builder.header().ompThreadsText) + "\""), std::string::npos);
    EXPECT_NE(out.find("samples: 4\n"), std::string::npos);
    EXPECT_NE(out.find("sample 3: time "), std::string::npos);
    EXPECT_NE(out.find("call sites: 2\n"), std::string::npos);

    const quorvex::SSample& last = builder.list().at(3);
    EXPECT_NE(out.find("  thread " + std::to_string(last.mainThreadTrace().tid()) + " (main): status " +
                       std::to_string(last.mainThreadTrace().unwindStatus())),
              std::string::npos)
        << out;
    for (unsigned long frame : last.otherThreads()[0].trace())
        EXPECT_NE(out.find(hex(frame)), std::string::npos);
    for (unsigned long frame : builder.callSites()[1].callSite()->trace())
        EXPECT_NE(out.find(hex(frame)), std::string::npos);
}

TEST(ZorDump, BadFilesGiveTheMessageAndFail)
{
    SampleFileBuilder builder(8, 2, 5);
    builder.addRandom(RandomSampleShape());
    TempFile file;
    std::vector<char> bytes = builder.bytes();
    file.setContents(std::vector<char>(bytes.begin(), bytes.end() - 3));
    DumpRun run = dump(file.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("truncated or damaged"), std::string::npos) << run.output;

    builder.header().version = 699;
    builder.writeTo(file);
    run = dump(file.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("incompatible older version of the sampler libraries (699, 700 required)"),
              std::string::npos)
        << run.output;

    run = dump("/nonexistent/file");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.output.find("Quorvex Sampler: Error reading /nonexistent/file: No such file or directory"),
              std::string::npos);
}
