// The input and output discipline shared by every raw record: one write(2)
// or read(2) per field on a plain descriptor, errno cleared before each call.
// A failed write is reported and the writer carries on; a failed read is
// reported and gives false; a short read, end of file included, gives false
// without a word.
//
// A reader of a whole file installs a ReadAhead on its descriptor: the
// records' reads are then served from a large buffer, with the outcome of
// reading the file field by field, at a fraction of the system calls.
#ifndef ZOR_SFILEIO_H
#define ZOR_SFILEIO_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/types.h>

namespace quorvex {
namespace fileio {

void writeBytes(int fd, const void* data, std::size_t size, const char* file, int line);
// What write(2) would give: `size`, or -1 with errno. Gathered by the
// WriteBehind of `fd` if this thread has one, else written by write(2).
ssize_t writeSome(int fd, const void* data, std::size_t size);
// What read(2) would give on a plain file: `size` bytes, fewer only at the
// end of the data, -1 with errno on an error. Served by the ReadAhead of
// `fd` if this thread has one, else by read(2) itself.
ssize_t readSome(int fd, void* data, std::size_t size);
bool readBytes(int fd, void* data, std::size_t size, const char* file, int line);

// Buffers the reads of one descriptor on this thread for as long as it
// lives. Reads go on where the descriptor stood. A plain file is mapped into
// memory and read from there, which spares the copy into a buffer; the
// descriptor is then left just behind what was read. Anything else goes
// through a buffer: what was read ahead and not taken is lost when the
// read-ahead goes, so it belongs to readers that own the whole rest of the
// file; unlike bare read(2) it waits for a slow writer of a pipe until the
// bytes asked for are there or the writer is gone. A mapped file must not
// shrink while it is read.
class ReadAhead
{
public:
    explicit ReadAhead(int fd, std::size_t capacity = 256 * 1024);
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // The same as readSome on its descriptor.
    ssize_t read(void* data, std::size_t size);
    int fd() const { return mFd; }
    // The next `size` bytes where they lie, if they are at hand; else null,
    // and nothing is taken.
    const char* take(std::size_t size)
    {
        if (mEnd - mBegin < size)
            return nullptr;
        const char* at = mBuffer + mBegin;
        mBegin += size;
        return at;
    }

    // The read-ahead of `fd` on this thread, or null.
    static ReadAhead* of(int fd);

private:
    // Adds to the buffer until it holds `wanted` bytes or the data ends;
    // false on an error.
    bool fill(std::size_t wanted);

    int mFd;
    // The buffer, or the rest of the mapped file.
    char* mBuffer;
    std::size_t mCapacity;
    void* mMapping;
    std::size_t mMappingSize;
    off_t mMappedFrom;
    std::size_t mBegin;
    std::size_t mEnd;
    ReadAhead* mOuter;
};

// The reads of one record reader: the descriptor's read-ahead is looked up
// once, and fields at hand in it are taken without a call. The outcome is
// that of readBytes on the descriptor.
class RecordInput
{
public:
    explicit RecordInput(int fd) : mFd(fd), mAhead(ReadAhead::of(fd)) {}

    int fd() const { return mFd; }
    // The next `size` bytes where they lie, if the read-ahead has them at
    // hand; else null, and nothing is taken.
    const char* take(std::size_t size) { return mAhead ? mAhead->take(size) : nullptr; }
    bool read(void* data, std::size_t size, const char* file, int line)
    {
        if (const char* at = take(size)) {
            std::memcpy(data, at, size);
            return true;
        }
        return readBytes(mFd, data, size, file, line);
    }
    // The next `size` bytes: in place when they are at hand, else read into
    // `scratch`, which has room for them; null where read would be false.
    const char* view(void* scratch, std::size_t size, const char* file, int line)
    {
        if (const char* at = take(size))
            return at;
        return readBytes(mFd, scratch, size, file, line) ? static_cast<const char*>(scratch) : nullptr;
    }
    // The same as readSome.
    ssize_t readSome(void* data, std::size_t size)
    {
        if (const char* at = take(size)) {
            std::memcpy(data, at, size);
            return static_cast<ssize_t>(size);
        }
        return fileio::readSome(mFd, data, size);
    }

private:
    int mFd;
    ReadAhead* mAhead;
};

// Gathers the writes of one descriptor on this thread in a buffer that the
// caller provides, so that it can serve a signal handler, which mustn't
// allocate: the buffer goes out in one write(2) whenever it is full, at
// flush and when the WriteBehind goes. A failed write is reported with the
// place of the field that filled the buffer, or of the flush; the writer
// carries on as with bare writes, and later fields are dropped.
class WriteBehind
{
public:
    WriteBehind(int fd, char* buffer, std::size_t capacity);
    ~WriteBehind();
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    // The same as writeSome on its descriptor.
    ssize_t write(const void* data, std::size_t size);
    // Writes out what the buffer holds; false on an error, with errno.
    bool flush();
    int fd() const { return mFd; }
    static WriteBehind* of(int fd);

private:
    int mFd;
    char* mBuffer;
    std::size_t mCapacity;
    std::size_t mSize;
    bool mFailed;
    WriteBehind* mOuter;
};

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
#define QUORVEX_READ_FROM(in, data, size) (in).read((data), (size), __FILE__, __LINE__)
#define QUORVEX_VIEW_FROM(in, scratch, size) (in).view((scratch), (size), __FILE__, __LINE__)

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
