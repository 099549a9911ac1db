#include "cpuinfo.h"
#include "samplefilebuilder.h"

#include <gtest/gtest.h>

#include <string>

using namespace quorvex;
using namespace zortest;

namespace {

std::string block(int processor, int physicalId, int siblings, int cores)
{
    return "processor\t: " + std::to_string(processor) + "\nvendor_id\t: Example\nphysical id\t: " +
           std::to_string(physicalId) + "\nsiblings\t: " + std::to_string(siblings) + "\ncore id\t\t: 3\n" +
           "cpu cores\t: " + std::to_string(cores) + "\nflags\t\t: fpu vme de pse\n\n";
}

CpuInfo fromText(const std::string& text)
{
    TempFile file("zor-cpuinfo");
    file.setContents(std::vector<char>(text.begin(), text.end()));
    return CpuInfo(file.path().c_str());
}

} // namespace

TEST(CpuInfo, CountsFromTexts)
{
    std::string twoSockets;
    for (int p = 0; p < 16; ++p)
        twoSockets += block(p, p / 8, 8, 4);
    struct Case
    {
        const char* what;
        CpuInfo info;
        bool hasInfo;
        unsigned logical, real;
    };
    const Case cases[] = {
        // Larger than one read chunk, so the chunked reading is covered too.
        {"two hyperthreaded sockets", fromText(twoSockets), true, 16, 8},
        // No device fields and one processor: the fallback device's cores.
        {"one bare processor", fromText("processor\t: 0\n"), true, 1, 1},
        {"four bare processors", fromText("processor : 0\nprocessor : 1\nprocessor : 2\nprocessor : 3\n"), true, 4, 0},
        {"siblings below cores", fromText(block(0, 0, 2, 4) + block(1, 0, 2, 4)), true, 2, 0},
        {"blank first line", fromText("\n" + block(0, 0, 2, 2)), false, 0, 0},
        {"empty", fromText(""), false, 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.info.hasInfo(), c.hasInfo) << c.what;
        EXPECT_EQ(c.info.getNumLogicalProcessors(), c.logical) << c.what;
        EXPECT_EQ(c.info.getNumRealCores(), c.real) << c.what;
    }
}

TEST(CpuInfo, ConflictsAndMissingFilesAreReported)
{
    testing::internal::CaptureStderr();
    const CpuInfo info = fromText(block(0, 0, 8, 4) + block(1, 0, 4, 4) + block(2, 0, 8, 2));
    const CpuInfo missing("/nonexistent/cpuinfo");
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_NE(errors.find("failed to parse cpuinfo, siblings field mismatch: 8i != 4i"), std::string::npos) << errors;
    EXPECT_NE(errors.find("failed to parse cpuinfo, cpu cores field mismatch: 4i != 2i"), std::string::npos) << errors;
    EXPECT_NE(errors.find("\"No such file or directory\" when opening /nonexistent/cpuinfo"), std::string::npos);
    EXPECT_EQ(info.getNumRealCores(), 4u);
    EXPECT_FALSE(missing.hasInfo());
}
