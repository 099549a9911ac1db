#include "cpuinfo.h"
#include "samplefilebuilder.h"

#include <gtest/gtest.h>

#include <fstream>
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

TEST(ProcCpuInfoParser, TwoHyperthreadedSockets)
{
    std::string text;
    for (int p = 0; p < 16; ++p)
        text += block(p, p / 8, 8, 4);
    ParsedProcCpuInfo parsed = quorvex_parse_proc_cpu_info(text.c_str());
    EXPECT_TRUE(parsed.hasInfo);
    EXPECT_EQ(parsed.numLogicalProcessors, 16u);
    EXPECT_EQ(parsed.numRealCores, 0u);
    EXPECT_EQ(parsed.numDevices, 16u);
    quorvex_free_parsed_proc_cpu_info(parsed);

    // Larger than one read chunk, so the file path's reading is covered too.
    const CpuInfo info = fromText(text);
    EXPECT_TRUE(info.hasInfo());
    EXPECT_EQ(info.getNumLogicalProcessors(), 16u);
    EXPECT_EQ(info.getNumRealCores(), 8u);
    EXPECT_TRUE(info.isHyperthreadingEnabled());
    EXPECT_EQ(info.getNumPhysicalDevices(), 2u);
}

TEST(ProcCpuInfoParser, SparseTexts)
{
    ParsedProcCpuInfo one = quorvex_parse_proc_cpu_info("processor\t: 0\n");
    EXPECT_EQ(one.numLogicalProcessors, 1u);
    ASSERT_EQ(one.numDevices, 2u); // the unchecked last one, then the fallback
    EXPECT_FALSE(quorvex_cpu_device_is_valid(one.devices[0]));
    EXPECT_EQ(one.devices[1].siblings, 1u);
    EXPECT_EQ(one.devices[1].cpuCores, 1u);
    quorvex_free_parsed_proc_cpu_info(one);
    const CpuInfo single = fromText("processor\t: 0\n");
    EXPECT_EQ(single.getNumRealCores(), 1u);
    EXPECT_EQ(single.getNumPhysicalDevices(), 1u);

    const CpuInfo four = fromText("processor : 0\nprocessor : 1\nprocessor : 2\nprocessor : 3\n");
    EXPECT_EQ(four.getNumLogicalProcessors(), 4u);
    EXPECT_EQ(four.getNumRealCores(), 0u);
    EXPECT_EQ(four.getNumPhysicalDevices(), 0u);

    // Siblings below cpu cores make a device invalid (two processors, so no
    // fallback device either).
    const CpuInfo invalid = fromText(block(0, 0, 2, 4) + block(1, 0, 2, 4));
    EXPECT_EQ(invalid.getNumPhysicalDevices(), 0u);

    // A blank line at the very start ends the text.
    EXPECT_FALSE(fromText("\n" + block(0, 0, 2, 2)).hasInfo());
    const CpuInfo empty = fromText("");
    EXPECT_FALSE(empty.hasInfo());
    EXPECT_EQ(empty.getNumLogicalProcessors(), 0u);
}

TEST(CpuInfo, ConflictingDevicesAreReportedAndTheFirstKept)
{
    testing::internal::CaptureStderr();
    const CpuInfo info = fromText(block(0, 0, 8, 4) + block(1, 0, 4, 4) + block(2, 0, 8, 2));
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_NE(errors.find("failed to parse cpuinfo, siblings field mismatch: 8i != 4i"), std::string::npos) << errors;
    EXPECT_NE(errors.find("failed to parse cpuinfo, cpu cores field mismatch: 4i != 2i"), std::string::npos) << errors;
    EXPECT_EQ(info.getNumPhysicalDevices(), 1u);
    EXPECT_EQ(info.getNumRealCores(), 4u);
}

TEST(CpuInfo, MissingFileAndExplicitCounts)
{
    testing::internal::CaptureStderr();
    const CpuInfo missing("/nonexistent/cpuinfo");
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_NE(errors.find("\"No such file or directory\" when opening /nonexistent/cpuinfo"), std::string::npos);
    EXPECT_FALSE(missing.hasInfo());

    const CpuInfo doubled(8, 4);
    EXPECT_EQ(doubled.getNumRealCores(), 8u);
    EXPECT_TRUE(doubled.isHyperthreadingEnabled());
    const CpuInfo noCores(4, 0);
    EXPECT_EQ(noCores.getNumRealCores(), 0u);
    EXPECT_EQ(noCores.getNumPhysicalDevices(), 0u);
    EXPECT_TRUE(noCores.isHyperthreadingEnabled());
}

// The machine's own file, read in chunks, agrees with a plain count.
TEST(CpuInfo, ThisMachine)
{
    std::ifstream in("/proc/cpuinfo");
    if (!in)
        GTEST_SKIP() << "no /proc/cpuinfo";
    unsigned processors = 0;
    for (std::string line; std::getline(in, line);)
        processors += line.rfind("processor", 0) == 0;
    const CpuInfo info;
    EXPECT_TRUE(info.hasInfo());
    EXPECT_EQ(info.getNumLogicalProcessors(), processors);
}
