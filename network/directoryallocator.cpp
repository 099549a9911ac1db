#include "directoryallocator.h"

#include <QDir>
#include <QFile>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void refuse(const QString& directory, const char* why)
{
    qWarning("ZOR: not using the temporary directory %s: %s", qPrintable(directory), why);
}

} // namespace

QString DirectoryAllocator::getUserTemporary(const QString& base)
{
    const QString parent = base.isEmpty() ? QDir::tempPath() : base;
    const QString directory = parent + QStringLiteral("/zor-") + QString::number(::getuid());
    const QByteArray name = QFile::encodeName(directory);

    if (::mkdir(name.constData(), 0700) != 0 && errno != EEXIST) {
        refuse(directory, std::strerror(errno));
        return QString();
    }
    // Whoever made it, it has to be a real directory of ours that nobody
    // else may enter, since the sampler's files and the locks live there.
    struct stat status;
    if (::lstat(name.constData(), &status) != 0) {
        refuse(directory, std::strerror(errno));
        return QString();
    }
    if (!S_ISDIR(status.st_mode)) {
        refuse(directory, "it is not a directory");
        return QString();
    }
    if (status.st_uid != ::getuid()) {
        refuse(directory, "another user owns it");
        return QString();
    }
    if ((status.st_mode & 077) != 0) {
        refuse(directory, "others have access to it");
        return QString();
    }
    return directory;
}

QString DirectoryAllocator::getTemporaryFile(const QString& directory, const QString& prefix)
{
    if (directory.isEmpty())
        return QString();
    QByteArray pattern = QFile::encodeName(directory + QLatin1Char('/') + prefix) + "-XXXXXX";
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0)
        return QString();
    ::close(fd);
    return QFile::decodeName(pattern);
}
