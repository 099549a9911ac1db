#include "pathstring.h"

#include <QDir>

namespace {

// True when longer ends with shorter as whole path components.
bool endsWithComponents(const QString& longer, const QString& shorter)
{
    if (longer.size() <= shorter.size() || !longer.endsWith(shorter))
        return false;
    return longer.at(longer.size() - shorter.size() - 1) == QLatin1Char('/');
}

} // namespace

QString PathString::fileName() const
{
    const int slash = mPath.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? mPath : mPath.mid(slash + 1);
}

bool PathString::fileNamesEqual(const QString& a, const QString& b)
{
    if (a == b)
        return true;
    if (a.isEmpty() || b.isEmpty())
        return false;
    // Different base names can't be the same file; this settles most calls
    // without cleaning anything.
    const int slashA = a.lastIndexOf(QLatin1Char('/'));
    const int slashB = b.lastIndexOf(QLatin1Char('/'));
    if (QStringRef(&a, slashA + 1, a.size() - slashA - 1) != QStringRef(&b, slashB + 1, b.size() - slashB - 1))
        return false;

    QString cleanA = QDir::cleanPath(a);
    QString cleanB = QDir::cleanPath(b);
    if (cleanA == cleanB)
        return true;
    const bool absoluteA = cleanA.startsWith(QLatin1Char('/'));
    const bool absoluteB = cleanB.startsWith(QLatin1Char('/'));
    if (absoluteA && absoluteB)
        return false;
    // A relative name may carry leading ".." that a longer name resolves.
    auto stripParents = [](QString& path) {
        while (path.startsWith(QLatin1String("../")))
            path.remove(0, 3);
    };
    if (!absoluteA)
        stripParents(cleanA);
    if (!absoluteB)
        stripParents(cleanB);
    if (cleanA == cleanB)
        return true;
    return (!absoluteB && endsWithComponents(cleanA, cleanB)) || (!absoluteA && endsWithComponents(cleanB, cleanA));
}
