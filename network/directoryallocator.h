// Private temporary files of one user: a directory that only its owner can
// enter, and files created there under new names that nobody else can take
// first.
#ifndef ZOR_DIRECTORYALLOCATOR_H
#define ZOR_DIRECTORYALLOCATOR_H

#include <QString>

class DirectoryAllocator
{
public:
    // The user's private directory "zor-UID" under `base`, or under the
    // system's temporary directory when `base` is empty, created with mode
    // 0700 if missing. A directory of that name that isn't ours, is a
    // symbolic link or is open to others is refused with a warning: the
    // result is then empty.
    static QString getUserTemporary(const QString& base);
    // A new, empty file "PREFIX-XXXXXX" in `directory`, created exclusively;
    // its path, or an empty string when none could be created.
    static QString getTemporaryFile(const QString& directory, const QString& prefix);
};

#endif
