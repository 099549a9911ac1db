// One execution of a GPU kernel and what the GPU's own sampling says about
// it, per source line and stall reason.
#ifndef ZOR_SGPUKERNELHIT_H
#define ZOR_SGPUKERNELHIT_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>

namespace quorvex {
namespace GpuProfilerTypes {
namespace StallReason {
enum Enum {
    Invalid = 0,
    None = 1,
    InstructionFetch = 2,
    ExecutionDependency = 3,
    MemoryDependency = 4,
    Texture = 5,
    Synchronization = 6,
    ConstantMemoryDependency = 7,
    PipeBusy = 8,
    MemoryThrottle = 9,
    NotSelected = 10,
    Other = 11,
    COUNT = 12
};
} // namespace StallReason
} // namespace GpuProfilerTypes

class SGpuKernelHit
{
public:
    struct TLineHits
    {
        std::uint32_t samples[GpuProfilerTypes::StallReason::COUNT];
        std::uint32_t latencySamples[GpuProfilerTypes::StallReason::COUNT];
    };
    // Lines compare as signed numbers; that settles their order in the file.
    typedef std::map<unsigned int, TLineHits, std::less<int>> LineHitMap;

    SGpuKernelHit();
    SGpuKernelHit(unsigned int correlationId, unsigned int kernelNameId, timespec start, timespec end);

    void setSamplingRecordInfo(unsigned long dropped, unsigned long total, unsigned long period);
    void addLineHit(std::uint32_t line, GpuProfilerTypes::StallReason::Enum stallReason, std::uint32_t numSamples,
                    std::uint32_t numLatencySamples);

    unsigned int kernelNameId() const { return mKernelNameId; }
    unsigned int correlationId() const { return mCorrelationId; }
    const timespec& startTime() const { return mStartTime; }
    const timespec& endTime() const { return mEndTime; }
    std::uint64_t droppedSamples() const { return mDroppedSamples; }
    std::uint64_t totalSamples() const { return mTotalSamples; }
    std::uint64_t samplingPeriodInCycles() const { return mSamplingPeriodInCycles; }
    const LineHitMap& lineHits() const { return mLineHits; }

    void writeToFile(int fd) const;
    bool readFromFile(int fd);

private:
    std::uint32_t mCorrelationId;
    std::uint32_t mKernelNameId;
    timespec mStartTime;
    timespec mEndTime;
    std::uint64_t mDroppedSamples;
    std::uint64_t mTotalSamples;
    std::uint64_t mSamplingPeriodInCycles;
    LineHitMap mLineHits;
};

} // namespace quorvex

#endif
