// The input and output discipline shared by every raw record: one write(2)
// or read(2) per field on a plain descriptor, errno cleared before each call.
// A failed write is reported and the writer carries on; a failed read is
// reported and gives false; a short read, end of file included, gives false
// without a word.
#ifndef ZOR_SFILEIO_H
#define ZOR_SFILEIO_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quorvex {
namespace fileio {

void writeBytes(int fd, const void* data, std::size_t size, const char* file, int line);
bool readBytes(int fd, void* data, std::size_t size, const char* file, int line);

// Readers take the fixed-size fields of a record in one read where they can:
// on a plain file a short read only happens at the end, so the outcome is
// that of reading field by field, at a fraction of the system calls. The
// fields are then taken out of the block in order.
class FieldCursor
{
public:
    explicit FieldCursor(const void* block) : mNext(static_cast<const char*>(block)) {}

    template <typename T>
    T take()
    {
        T value;
        std::memcpy(&value, mNext, sizeof value);
        mNext += sizeof value;
        return value;
    }
    void take(void* out, std::size_t size)
    {
        std::memcpy(out, mNext, size);
        mNext += size;
    }

private:
    const char* mNext;
};

} // namespace fileio
} // namespace quorvex

#define QUORVEX_WRITE(fd, data, size) ::quorvex::fileio::writeBytes((fd), (data), (size), __FILE__, __LINE__)
#define QUORVEX_READ(fd, data, size) ::quorvex::fileio::readBytes((fd), (data), (size), __FILE__, __LINE__)

// Wide integers: signed fields are sign-extended to 64 bits on writing.
#define QUORVEX_WRITE_WIDE(fd, value) \
    do { \
        const std::int64_t wide_ = static_cast<std::int64_t>(value); \
        QUORVEX_WRITE((fd), &wide_, sizeof wide_); \
    } while (0)
#define QUORVEX_WRITE_UWIDE(fd, value) \
    do { \
        const std::uint64_t wide_ = static_cast<std::uint64_t>(value); \
        QUORVEX_WRITE((fd), &wide_, sizeof wide_); \
    } while (0)

#endif
