#include "zor_print.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace quorvex {

void SafeMessage::put(char c)
{
    // One byte stays free for the terminating NUL; longer text is cut.
    if (mLength + 1 < Capacity) {
        mBuffer[mLength++] = c;
        mBuffer[mLength] = '\0';
    }
}

SafeMessage& SafeMessage::str(const char* text)
{
    if (!text)
        text = "(null)";
    while (*text)
        put(*text++);
    return *this;
}

SafeMessage& SafeMessage::udec(unsigned long long value)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0)
        put(digits[--n]);
    return *this;
}

SafeMessage& SafeMessage::dec(long long value)
{
    if (value < 0) {
        put('-');
        // Negate in unsigned arithmetic so that the minimum value works.
        return udec(0ULL - static_cast<unsigned long long>(value));
    }
    return udec(static_cast<unsigned long long>(value));
}

SafeMessage& SafeMessage::hex(unsigned long long value)
{
    char digits[20];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[value & 0xF];
        value >>= 4;
    } while (value != 0);
    while (n > 0)
        put(digits[--n]);
    return *this;
}

SafeMessage& SafeMessage::ptr(std::uintptr_t value)
{
    if (value == 0)
        return str("(nil)");
    str("0x");
    return hex(value);
}

void SafeMessage::writeTo(int fd) const
{
    safe_write_all(fd, mBuffer, mLength);
}

void safe_write_all(int fd, const void* data, std::size_t size)
{
    const int savedErrno = errno;
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, p, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        if (n == 0)
            break;
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    errno = savedErrno;
}

void report_io_error(const char* file, int line, int error)
{
    SafeMessage message;
    message.str("Error at ").str(file).str(":").dec(line).str(": ").str(strerror(error)).str("\n");
    message.writeTo(2);
}

} // namespace quorvex
