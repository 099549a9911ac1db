// Formatting of short messages for code that may run in a signal handler or
// while the target's allocator is being intercepted: no stdio, no heap. A
// message is built in a fixed buffer and handed to write(2) in one call.
#ifndef ZOR_PRINT_H
#define ZOR_PRINT_H

#include <cstddef>
#include <cstdint>

namespace quorvex {

class SafeMessage
{
public:
    SafeMessage() : mLength(0) { mBuffer[0] = '\0'; }

    SafeMessage& str(const char* text);
    SafeMessage& dec(long long value);
    SafeMessage& udec(unsigned long long value);
    // As printf's "%p": "0x" and lower-case digits, "(nil)" for zero.
    SafeMessage& ptr(std::uintptr_t value);
    SafeMessage& hex(unsigned long long value);

    const char* text() const { return mBuffer; }
    std::size_t length() const { return mLength; }

    // Writes the whole message to fd, retrying after partial writes and
    // interruptions. errno is preserved.
    void writeTo(int fd) const;

private:
    void put(char c);

    enum { Capacity = 1024 };
    char mBuffer[Capacity];
    std::size_t mLength;
};

// write(2) of a whole buffer, errno preserved.
void safe_write_all(int fd, const void* data, std::size_t size);

// "Error at FILE:LINE: strerror(error)\n" on standard error, the report of a
// failed read or write of a raw record. Records are written and read outside
// signal handlers, so strerror is acceptable here.
void report_io_error(const char* file, int line, int error);

} // namespace quorvex

#endif
