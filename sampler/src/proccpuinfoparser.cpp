#include "proccpuinfoparser.h"
#include "safe_malloc.h"
#include "zor_assert.h"

#include <cstring>

namespace {

const std::size_t LINE_BUFFER_BYTES = 1024;

bool isBlank(char c)
{
    return c == ' ' || (c >= 9 && c <= 13);
}

bool startsWith(const char* text, const char* key)
{
    return std::strncmp(text, key, std::strlen(key)) == 0;
}

// The first run of digits after the first word, or 0.
std::uint32_t valueAfterFirstWord(const char* wordEnd)
{
    const char* p = wordEnd;
    while (*p && !(*p >= '0' && *p <= '9'))
        ++p;
    std::uint32_t value = 0;
    while (*p >= '0' && *p <= '9') {
        value = value * 10 + static_cast<std::uint32_t>(*p - '0');
        ++p;
    }
    return value;
}

} // namespace

void quorvex_initialise_cpu_device(quorvex_cpu_device_t* cpuDevice)
{
    ZOR_ASSERT(cpuDevice != NULL);
    std::memset(cpuDevice, 0, sizeof *cpuDevice);
}

bool quorvex_cpu_device_is_valid(quorvex_cpu_device_t cpuDevice)
{
    return cpuDevice.cpuCores != 0 && cpuDevice.siblings >= cpuDevice.cpuCores;
}

void quorvex_initialise_parsed_proc_cpu_info(ParsedProcCpuInfo* cpuInfo)
{
    ZOR_ASSERT(cpuInfo != NULL);
    std::memset(cpuInfo, 0, sizeof *cpuInfo);
}

void internal_add_cpu_device(ParsedProcCpuInfo* cpuInfo, quorvex_cpu_device_t cpuDevice)
{
    quorvex_cpu_device_t* newCpuDeviceArray = static_cast<quorvex_cpu_device_t*>(
        quorvex_safe_realloc(cpuInfo->devices, (cpuInfo->numDevices + 1) * sizeof(quorvex_cpu_device_t)));
    ZOR_ASSERT(newCpuDeviceArray != NULL);
    newCpuDeviceArray[cpuInfo->numDevices] = cpuDevice;
    cpuInfo->devices = newCpuDeviceArray;
    ++cpuInfo->numDevices;
}

ParsedProcCpuInfo quorvex_parse_proc_cpu_info(const char* procCpuInfo)
{
    ZOR_ASSERT(procCpuInfo != NULL);
    ParsedProcCpuInfo result;
    quorvex_initialise_parsed_proc_cpu_info(&result);
    quorvex_cpu_device_t current;
    quorvex_initialise_cpu_device(&current);

    char line[LINE_BUFFER_BYTES];
    const char* cursor = procCpuInfo;
    while (*cursor != '\0' && *cursor != '\n') {
        const char* lineEnd = std::strchr(cursor, '\n');
        if (!lineEnd)
            lineEnd = cursor + std::strlen(cursor);
        // Longer lines are cut at the buffer's end; no key needs more.
        std::size_t length = static_cast<std::size_t>(lineEnd - cursor);
        if (length > LINE_BUFFER_BYTES - 1)
            length = LINE_BUFFER_BYTES - 1;
        std::memset(line, 0, sizeof line);
        std::memcpy(line, cursor, length);

        cursor = lineEnd;
        while (*cursor == '\n')
            ++cursor;

        const char* start = line;
        while (isBlank(*start))
            ++start;
        const char* wordEnd = start;
        while (*wordEnd && !isBlank(*wordEnd))
            ++wordEnd;

        switch (*start) {
        case 'p':
            if (startsWith(start, "physical id")) {
                current.physicalId = valueAfterFirstWord(wordEnd);
            } else if (startsWith(start, "processor")) {
                ++result.numLogicalProcessors;
                if (quorvex_cpu_device_is_valid(current))
                    internal_add_cpu_device(&result, current);
                quorvex_initialise_cpu_device(&current);
                result.hasInfo = true;
            }
            break;
        case 's':
            if (startsWith(start, "siblings"))
                current.siblings = valueAfterFirstWord(wordEnd);
            break;
        case 'c':
            if (startsWith(start, "cpu cores"))
                current.cpuCores = valueAfterFirstWord(wordEnd);
            break;
        default:
            break;
        }
    }

    if (result.hasInfo)
        internal_add_cpu_device(&result, current);

    bool anyValid = false;
    for (std::uint64_t i = 0; i < result.numDevices; ++i)
        anyValid = anyValid || quorvex_cpu_device_is_valid(result.devices[i]);
    // Hosts whose cpuinfo lists none of these fields and a single processor.
    if (!anyValid && result.numLogicalProcessors == 1) {
        quorvex_cpu_device_t single = {0, 1, 1};
        internal_add_cpu_device(&result, single);
    }
    return result;
}

void quorvex_free_parsed_proc_cpu_info(ParsedProcCpuInfo cpuInfo)
{
    quorvex_safe_free(cpuInfo.devices);
}
