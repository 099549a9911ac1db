#include "mpicallfile.h"

#include "samplevalue.h"

#include <cstring>
#include <unistd.h>

namespace quorvex {

bool quorvex_write_mpi_calls(int fd, const MpiCallFigures* calls, std::size_t count)
{
    bool good = SampleValue(static_cast<long>(count)).writeToFile(fd) > 0;
    for (std::size_t i = 0; i < count && good; ++i) {
        const MpiCallFigures& call = calls[i];
        const std::size_t length = std::strlen(call.name);
        good = SampleValue(static_cast<long>(length)).writeToFile(fd) > 0
            && write(fd, call.name, length) == static_cast<ssize_t>(length)
            && SampleValue(static_cast<unsigned long>(call.calls)).writeToFile(fd) > 0
            && SampleValue(static_cast<unsigned long>(call.nanoseconds)).writeToFile(fd) > 0
            && SampleValue(static_cast<unsigned long>(call.bytesSent)).writeToFile(fd) > 0
            && SampleValue(static_cast<unsigned long>(call.bytesReceived)).writeToFile(fd) > 0;
    }
    return good;
}

bool quorvex_read_mpi_calls(int fd, std::vector<MpiCallRecord>& calls)
{
    SampleValue count;
    if (count.readFromFile(fd) < 0)
        return false;
    for (long i = 0; i < count.to_int64_t(); ++i) {
        SampleValue length;
        if (length.readFromFile(fd) < 0 || length.to_int64_t() < 0 || length.to_int64_t() > 4096)
            return false;
        std::string name(static_cast<std::size_t>(length.to_int64_t()), '\0');
        if (read(fd, &name[0], name.size()) != static_cast<ssize_t>(name.size()))
            return false;
        name.resize(std::strlen(name.c_str()));
        SampleValue figures[4];
        for (SampleValue& figure : figures) {
            if (figure.readFromFile(fd) < 0)
                return false;
        }
        MpiCallRecord record;
        record.name = name;
        record.calls = figures[0].to_uint64_t();
        record.nanoseconds = figures[1].to_uint64_t();
        record.bytesSent = figures[2].to_uint64_t();
        record.bytesReceived = figures[3].to_uint64_t();
        calls.push_back(record);
    }
    return true;
}

} // namespace quorvex
