// A file path as debuggers and compilers report it: absolute, relative to
// the build directory, or with "." and ".." left in.
#ifndef ZOR_PATHSTRING_H
#define ZOR_PATHSTRING_H

#include <QString>

class PathString
{
public:
    PathString() {}
    explicit PathString(const QString& path) : mPath(path) {}

    const QString& toString() const { return mPath; }
    bool isEmpty() const { return mPath.isEmpty(); }
    // The last component: "a.c" for "/src/a.c".
    QString fileName() const;

    // Whether two reported names stand for the same file: equal after
    // cleaning, or one relative name is a trailing part of the other
    // ("src/a.c" and "/home/me/src/a.c").
    static bool fileNamesEqual(const QString& a, const QString& b);

    bool operator==(const PathString& other) const { return fileNamesEqual(mPath, other.mPath); }
    bool operator!=(const PathString& other) const { return !(*this == other); }

private:
    QString mPath;
};

#endif
