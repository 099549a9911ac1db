#include "procmetrics.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zorsampler {

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

} // namespace zorsampler
