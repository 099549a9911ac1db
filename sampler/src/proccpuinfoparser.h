// A parser of /proc/cpuinfo text that takes its memory from the safe
// allocator, so that it can run inside the profiled program.
#ifndef ZOR_PROCCPUINFOPARSER_H
#define ZOR_PROCCPUINFOPARSER_H

#include <cstdint>

struct quorvex_cpu_device_t
{
    std::uint32_t physicalId;
    std::uint32_t siblings;
    std::uint32_t cpuCores;
};

struct ParsedProcCpuInfo
{
    std::uint64_t numRealCores; // left at 0 by the parser
    std::uint64_t numLogicalProcessors;
    quorvex_cpu_device_t* devices;
    std::uint64_t numDevices;
    bool hasInfo;
};

void quorvex_initialise_cpu_device(quorvex_cpu_device_t* cpuDevice);
bool quorvex_cpu_device_is_valid(quorvex_cpu_device_t cpuDevice);
void quorvex_initialise_parsed_proc_cpu_info(ParsedProcCpuInfo* cpuInfo);
ParsedProcCpuInfo quorvex_parse_proc_cpu_info(const char* procCpuInfo);
void quorvex_free_parsed_proc_cpu_info(ParsedProcCpuInfo cpuInfo);
void internal_add_cpu_device(ParsedProcCpuInfo* cpuInfo, quorvex_cpu_device_t cpuDevice);

#endif
