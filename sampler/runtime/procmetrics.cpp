#include "procmetrics.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zorsampler {

namespace {

const char* skipSpaces(const char* p)
{
    while (*p == ' ' || *p == '\t')
        ++p;
    return p;
}

// A decimal number at `p`; null if there is none.
const char* parseNumber(const char* p, std::uint64_t& value)
{
    if (*p < '0' || *p > '9')
        return nullptr;
    value = 0;
    while (*p >= '0' && *p <= '9')
        value = value * 10 + static_cast<std::uint64_t>(*p++ - '0');
    return p;
}

bool startsWith(const char* text, const char* prefix)
{
    while (*prefix) {
        if (*text++ != *prefix++)
            return false;
    }
    return true;
}

} // namespace

bool ProcFile::open(const char* path)
{
    mFd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (mFd < 0)
        return false;
    mOpen = true;
    struct stat status;
    if (fstat(mFd, &status) == 0) {
        mDevice = status.st_dev;
        mInode = status.st_ino;
    }
    return true;
}

long ProcFile::read(char* buffer, std::size_t size) const
{
    if (!mOpen || size == 0)
        return -1;
    const ssize_t n = pread(mFd, buffer, size - 1, 0);
    if (n < 0)
        return -1;
    buffer[n] = '\0';
    return static_cast<long>(n);
}

void ProcFile::close()
{
    if (!mOpen)
        return;
    struct stat status;
    if (fstat(mFd, &status) == 0 && status.st_dev == mDevice && status.st_ino == mInode)
        ::close(mFd);
    mOpen = false;
}

bool parseResidentPages(const char* text, std::uint64_t& pages)
{
    std::uint64_t size = 0;
    const char* p = parseNumber(skipSpaces(text), size);
    if (!p || *p != ' ')
        return false;
    return parseNumber(skipSpaces(p), pages) != nullptr;
}

bool parseIoCounters(const char* text, std::uint64_t& charsRead, std::uint64_t& charsWritten)
{
    bool haveRead = false;
    bool haveWritten = false;
    for (const char* line = text; *line;) {
        if (startsWith(line, "rchar:"))
            haveRead = parseNumber(skipSpaces(line + 6), charsRead) != nullptr;
        else if (startsWith(line, "wchar:"))
            haveWritten = parseNumber(skipSpaces(line + 6), charsWritten) != nullptr;
        while (*line && *line != '\n')
            ++line;
        if (*line == '\n')
            ++line;
    }
    return haveRead && haveWritten;
}

} // namespace zorsampler
