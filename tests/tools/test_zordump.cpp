#include "samplefilebuilder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/wait.h>

using namespace zortest;

namespace {

// The exit status and standard output and error together.
std::pair<int, std::string> dump(const std::string& path)
{
    FILE* pipe = popen((std::string(ZOR_DUMP_PATH) + " '" + path + "' 2>&1").c_str(), "r");
    std::string output;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        output.append(chunk, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), output};
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

    const auto [status, out] = dump(file.path());
    ASSERT_EQ(status, 0) << out;
    const quorvex::SSample& last = builder.list().at(3);
    std::vector<std::string> expected = {
        "samples taken in total: 123456\n", "OpenMP threads: \"" + std::string(builder.header().ompThreadsText) + "\"",
        "samples: 4\n", "sample 3: time ", "call sites: 2\n",
        "  thread " + std::to_string(last.mainThreadTrace().tid()) + " (main): status " +
            std::to_string(last.mainThreadTrace().unwindStatus())};
    char hex[32];
    for (const auto* trace : {&last.otherThreads()[0].trace(), &builder.callSites()[1].callSite()->trace()})
        for (unsigned long frame : *trace) {
            snprintf(hex, sizeof hex, " 0x%lx", frame);
            expected.push_back(hex);
        }
    for (const std::string& text : expected)
        EXPECT_NE(out.find(text), std::string::npos) << text << " in\n" << out;
}

TEST(ZorDump, BadFilesGiveTheReadersMessageAndFail)
{
    SampleFileBuilder builder(8, 2, 5);
    builder.addRandom(RandomSampleShape());
    TempFile file;
    const std::vector<char> bytes = builder.bytes();
    file.setContents(std::vector<char>(bytes.begin(), bytes.end() - 3));
    auto [status, out] = dump(file.path());
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("truncated or damaged"), std::string::npos) << out;

    const auto version = builder.header().version;
    builder.header().version = 699;
    builder.writeTo(file);
    std::tie(status, out) = dump(file.path());
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("incompatible older version of the sampler libraries (699, 700 required)"), std::string::npos)
        << out;

    // A damaged module list beside a good file.
    builder.header().version = version;
    builder.writeTo(file);
    const std::string modules = file.path() + ".modules";
    for (const char* text : {"# zor modules 1: x\n0x1000 - moved /lib/a.so\n", "something else\n"}) {
        std::ofstream(modules) << text;
        std::tie(status, out) = dump(file.path());
        EXPECT_EQ(status, 1);
        EXPECT_NE(out.find("not a module list"), std::string::npos) << out;
    }
    remove(modules.c_str());
}

// A real run of the example under the sampler: every frame of the dump names
// its function, and the hot ones their lines in the example's source.
TEST(ZorDump, NamesFunctionsFilesAndLinesOfARealRun)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer build can't preload the sampler";
#endif
    TempFile file;
    const std::string run = "LD_PRELOAD='" ZOR_SAMPLER_LIBRARY "' ZOR_SAMPLER_OUTPUT='" + file.path()
        + "' ZOR_SAMPLER_OPTIONS=interval=2 '" ZOR_EXAMPLE "' --work 200 >/dev/null 2>&1";
    ASSERT_EQ(system(run.c_str()), 0);
    const auto [status, out] = dump(file.path());
    ASSERT_EQ(status, 0) << out.substr(0, 2000);
    // The module list follows, each with its load address and build id.
    EXPECT_NE(out.find(std::string("\nmodule ") + ZOR_EXAMPLE + " at 0x"), std::string::npos) << out.substr(0, 2000);
    int frames = 0, named = 0;
    std::map<std::string, int> hot;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        // "      #0 0x401234 spin_alpha at /…/examples/hotspots.c:52"
        if (line.compare(0, 7, "      #") != 0)
            continue;
        ++frames;
        named += line.find(" ??") == std::string::npos;
        for (const char* function : {"spin_alpha", "spin_beta", "spin_gamma", "spin_delta", "spin_epsilon"}) {
            const std::string where = std::string(" ") + function + " at ";
            const std::size_t at = line.find(where);
            if (at == std::string::npos || line.find("examples/hotspots.c:", at) == std::string::npos)
                continue;
            const int number = std::atoi(line.c_str() + line.rfind(':') + 1);
            // The spinning functions are one-liners in the 40s to 60s.
            EXPECT_TRUE(number > 40 && number < 70) << line;
            ++hot[function];
        }
    }
    EXPECT_GT(frames, 100);
    // Frames in the C library's start-up code may lack a symbol of their own.
    EXPECT_GT(named, frames * 9 / 10);
    EXPECT_EQ(hot.size(), 5u) << out.substr(0, 3000);

    // A program rebuilt since the run has another build id: no positions
    // from it, rather than wrong ones.
    const std::string modules = file.path() + ".modules";
    std::ifstream in(modules);
    std::string list, line;
    while (std::getline(in, line)) {
        const std::size_t id = line.find(' ');
        if (line.find(ZOR_EXAMPLE) != std::string::npos && id != std::string::npos && line.compare(id + 1, 1, "-") != 0)
            line.replace(id + 1, line.find(' ', id + 1) - id - 1, "00ff");
        list += line + "\n";
    }
    std::ofstream(modules) << list;
    const auto [changedStatus, changed] = dump(file.path());
    remove(modules.c_str());
    EXPECT_EQ(changedStatus, 0);
    EXPECT_NE(changed.find(std::string("no positions in ") + ZOR_EXAMPLE + ": the file has changed since the run"),
              std::string::npos)
        << changed.substr(0, 2000);
    EXPECT_EQ(changed.find(" spin_alpha at "), std::string::npos);
}
