#include "sfileio.h"
#include "zor_print.h"

#include <cerrno>
#include <unistd.h>

namespace quorvex {
namespace fileio {

void writeBytes(int fd, const void* data, std::size_t size, const char* file, int line)
{
    errno = 0;
    if (::write(fd, data, size) == -1)
        report_io_error(file, line, errno);
}

bool readBytes(int fd, void* data, std::size_t size, const char* file, int line)
{
    errno = 0;
    const ssize_t n = ::read(fd, data, size);
    if (n == -1) {
        report_io_error(file, line, errno);
        return false;
    }
    return static_cast<std::size_t>(n) == size;
}

} // namespace fileio
} // namespace quorvex
