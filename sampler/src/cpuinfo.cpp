#include "cpuinfo.h"
#include "safe_malloc.h"
#include "zor_print.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace quorvex {

namespace {
const std::size_t READ_CHUNK = 1024;
const std::size_t GROWTH = READ_CHUNK + 1;
}

CpuInfo::CpuInfo(const char* path)
    : mNumLogicalProcessors(0), mNumRealCores(0), mHyperthreadingEnabled(false), mHasInfo(false)
{
    if (!path)
        path = "/proc/cpuinfo";
    errno = 0;
    const int fd = ::open(path, O_RDONLY);
    if (fd < 0 || errno != 0) {
        SafeMessage().str("Error at ").str(__FILE__).str(":").dec(__LINE__).str(": \"").str(strerror(errno))
            .str("\" when opening ").str(path).str("\n").writeTo(2);
        if (fd >= 0)
            ::close(fd);
        return;
    }

    // A read shorter than a chunk leaves a gap of zeros at which parsing
    // stops; /proc hands out whole chunks until the end, so that is fine.
    std::size_t capacity = GROWTH;
    char* text = static_cast<char*>(quorvex_safe_calloc(1, capacity));
    std::size_t position = 0;
    for (;;) {
        errno = 0;
        const ssize_t n = ::read(fd, text + position, READ_CHUNK);
        if (n < 0) {
            SafeMessage().str("Error at ").str(__FILE__).str(":").dec(__LINE__).str(": ").str(strerror(errno))
                .str("\n").writeTo(2);
            break;
        }
        if (n == 0)
            break;
        text = static_cast<char*>(quorvex_safe_realloc(text, capacity + GROWTH));
        std::memset(text + capacity, 0, GROWTH);
        capacity += GROWTH;
        position += READ_CHUNK;
    }

    ParsedProcCpuInfo parsed = quorvex_parse_proc_cpu_info(text);
    mNumLogicalProcessors = static_cast<unsigned int>(parsed.numLogicalProcessors);
    mNumRealCores = static_cast<unsigned int>(parsed.numRealCores);
    mHasInfo = parsed.hasInfo;
    for (std::uint64_t i = 0; i < parsed.numDevices; ++i)
        addPhysicalDevice(parsed.devices[i]);
    quorvex_free_parsed_proc_cpu_info(parsed);
    quorvex_safe_free(text);
    ::close(fd);
}

CpuInfo::CpuInfo(int logical, int real)
    : mNumLogicalProcessors(static_cast<unsigned int>(logical)), mNumRealCores(static_cast<unsigned int>(real)),
      mHyperthreadingEnabled(logical > real), mHasInfo(true)
{
    // A valid device adds `real` once more: callers have always seen twice
    // the real cores from this constructor, and that is kept.
    const quorvex_cpu_device_t device = {0, static_cast<std::uint32_t>(logical), static_cast<std::uint32_t>(real)};
    addPhysicalDevice(device);
}

void CpuInfo::addPhysicalDevice(const quorvex_cpu_device_t& device)
{
    if (!quorvex_cpu_device_is_valid(device))
        return;
    bool known = false;
    for (const quorvex_cpu_device_t& stored : mPhysicalDevices) {
        if (stored.physicalId != device.physicalId)
            continue;
        known = true;
        if (stored.siblings != device.siblings) {
            SafeMessage().str("ZOR: Error at ").str(__FILE__).str(":").dec(__LINE__)
                .str(": failed to parse cpuinfo, siblings field mismatch: ").udec(stored.siblings).str("i != ")
                .udec(device.siblings).str("i\n").writeTo(2);
        } else if (stored.cpuCores != device.cpuCores) {
            SafeMessage().str("ZOR: Error at ").str(__FILE__).str(":").dec(__LINE__)
                .str(": failed to parse cpuinfo, cpu cores field mismatch: ").udec(stored.cpuCores).str("i != ")
                .udec(device.cpuCores).str("i\n").writeTo(2);
        }
    }
    if (known)
        return;
    mPhysicalDevices.push_back(device);
    mNumRealCores += device.cpuCores;
    if (device.siblings != device.cpuCores)
        mHyperthreadingEnabled = true;
}

} // namespace quorvex
