#include "sfileio.h"
#include "zor_print.h"

#include <cerrno>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quorvex {
namespace fileio {

namespace {

// The innermost read-ahead of this thread; an outer one on another
// descriptor is found through mOuter.
thread_local ReadAhead* tCurrent = nullptr;
// The same for write-behinds.
thread_local WriteBehind* tCurrentWrite = nullptr;

// Writes all of it, going on after a partial write or an interruption.
bool writeFully(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

ssize_t retrying(int fd, void* data, std::size_t size)
{
    ssize_t n;
    do {
        n = ::read(fd, data, size);
    } while (n < 0 && errno == EINTR);
    return n;
}

} // namespace

ssize_t writeSome(int fd, const void* data, std::size_t size)
{
    if (WriteBehind* behind = tCurrentWrite) {
        if (behind->fd() == fd || (behind = WriteBehind::of(fd)))
            return behind->write(data, size);
    }
    return ::write(fd, data, size);
}

void writeBytes(int fd, const void* data, std::size_t size, const char* file, int line)
{
    errno = 0;
    if (writeSome(fd, data, size) == -1)
        report_io_error(file, line, errno);
}

WriteBehind::WriteBehind(int fd, char* buffer, std::size_t capacity)
    : mFd(fd), mBuffer(buffer), mCapacity(buffer ? capacity : 0), mSize(0), mFailed(false), mOuter(tCurrentWrite)
{
    tCurrentWrite = this;
}

WriteBehind::~WriteBehind()
{
    tCurrentWrite = mOuter;
    const int savedErrno = errno;
    flush();
    errno = savedErrno;
}

WriteBehind* WriteBehind::of(int fd)
{
    WriteBehind* behind = tCurrentWrite;
    while (behind && behind->mFd != fd)
        behind = behind->mOuter;
    return behind;
}

bool WriteBehind::flush()
{
    const std::size_t size = mSize;
    mSize = 0;
    if (mFailed) {
        errno = EIO;
        return false;
    }
    if (!writeFully(mFd, mBuffer, size)) {
        mFailed = true;
        return false;
    }
    return true;
}

ssize_t WriteBehind::write(const void* data, std::size_t size)
{
    if (mFailed) {
        errno = EIO;
        return -1;
    }
    if (mSize + size > mCapacity && !flush())
        return -1;
    if (size > mCapacity)
        return writeFully(mFd, static_cast<const char*>(data), size) ? static_cast<ssize_t>(size) : -1;
    std::memcpy(mBuffer + mSize, data, size);
    mSize += size;
    return static_cast<ssize_t>(size);
}

ReadAhead::ReadAhead(int fd, std::size_t capacity)
    : mFd(fd)
    , mBuffer(nullptr)
    , mCapacity(0)
    , mMapping(MAP_FAILED)
    , mMappingSize(0)
    , mMappedFrom(0)
    , mBegin(0)
    , mEnd(0)
    , mOuter(tCurrent)
{
    tCurrent = this;
    const int savedErrno = errno;
    struct stat status;
    const off_t at = ::lseek(fd, 0, SEEK_CUR);
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && at >= 0 && status.st_size > at) {
        mMappingSize = static_cast<std::size_t>(status.st_size);
        mMapping = ::mmap(nullptr, mMappingSize, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
        if (mMapping != MAP_FAILED) {
            mMappedFrom = at;
            mBuffer = static_cast<char*>(mMapping) + at;
            mEnd = mMappingSize - static_cast<std::size_t>(at);
            mCapacity = mEnd;
        }
    }
    if (mMapping == MAP_FAILED) {
        mBuffer = static_cast<char*>(std::malloc(capacity));
        mCapacity = mBuffer ? capacity : 0;
    }
    // Whether the file could be mapped is nobody's business but ours.
    errno = savedErrno;
}

ReadAhead::~ReadAhead()
{
    tCurrent = mOuter;
    if (mMapping != MAP_FAILED) {
        const int savedErrno = errno;
        ::munmap(mMapping, mMappingSize);
        ::lseek(mFd, mMappedFrom + static_cast<off_t>(mBegin), SEEK_SET);
        errno = savedErrno;
    } else {
        std::free(mBuffer);
    }
}

ReadAhead* ReadAhead::of(int fd)
{
    ReadAhead* ahead = tCurrent;
    while (ahead && ahead->mFd != fd)
        ahead = ahead->mOuter;
    return ahead;
}

bool ReadAhead::fill(std::size_t wanted)
{
    // A mapped file holds all there is.
    if (mMapping != MAP_FAILED)
        return true;
    if (mBegin > 0) {
        std::memmove(mBuffer, mBuffer + mBegin, mEnd - mBegin);
        mEnd -= mBegin;
        mBegin = 0;
    }
    while (mEnd < wanted) {
        const ssize_t n = retrying(mFd, mBuffer + mEnd, mCapacity - mEnd);
        if (n < 0)
            return false;
        if (n == 0)
            break;
        mEnd += static_cast<std::size_t>(n);
    }
    return true;
}

ssize_t ReadAhead::read(void* data, std::size_t size)
{
    char* out = static_cast<char*>(data);
    std::size_t available = mEnd - mBegin;
    if (available < size) {
        if (size > mCapacity && mMapping == MAP_FAILED) {
            // Larger than the buffer: what it holds, then straight from the
            // descriptor.
            std::memcpy(out, mBuffer + mBegin, available);
            mBegin = mEnd = 0;
            std::size_t done = available;
            while (done < size) {
                const ssize_t n = retrying(mFd, out + done, size - done);
                if (n < 0)
                    return -1;
                if (n == 0)
                    break;
                done += static_cast<std::size_t>(n);
            }
            return static_cast<ssize_t>(done);
        }
        if (!fill(size))
            return -1;
        available = mEnd - mBegin;
        if (available < size)
            size = available;
    }
    std::memcpy(out, mBuffer + mBegin, size);
    mBegin += size;
    return static_cast<ssize_t>(size);
}

ssize_t readSome(int fd, void* data, std::size_t size)
{
    if (ReadAhead* ahead = tCurrent) {
        if (ahead->fd() == fd || (ahead = ReadAhead::of(fd)))
            return ahead->read(data, size);
    }
    return ::read(fd, data, size);
}

bool readBytes(int fd, void* data, std::size_t size, const char* file, int line)
{
    errno = 0;
    const ssize_t n = readSome(fd, data, size);
    if (n == -1) {
        report_io_error(file, line, errno);
        return false;
    }
    return static_cast<std::size_t>(n) == size;
}

} // namespace fileio
} // namespace quorvex
