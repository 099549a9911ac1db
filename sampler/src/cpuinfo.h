// How many logical processors and real cores the node has, and whether
// hyper-threading is on, from /proc/cpuinfo.
#ifndef ZOR_CPUINFO_H
#define ZOR_CPUINFO_H

#include "proccpuinfoparser.h"

#include <vector>

namespace quorvex {

class CpuInfo
{
public:
    // A null path means "/proc/cpuinfo".
    explicit CpuInfo(const char* path = nullptr);
    CpuInfo(int logical, int real);

    void addPhysicalDevice(const quorvex_cpu_device_t& device);

    unsigned int getNumLogicalProcessors() const { return mNumLogicalProcessors; }
    unsigned int getNumRealCores() const { return mNumRealCores; }
    bool isHyperthreadingEnabled() const { return mHyperthreadingEnabled; }
    bool hasInfo() const { return mHasInfo; }
    unsigned int getNumPhysicalDevices() const { return static_cast<unsigned int>(mPhysicalDevices.size()); }

private:
    unsigned int mNumLogicalProcessors;
    unsigned int mNumRealCores;
    bool mHyperthreadingEnabled;
    bool mHasInfo;
    std::vector<quorvex_cpu_device_t> mPhysicalDevices;
};

} // namespace quorvex

#endif
