#include "foldedstacks.h"

#include <QMap>

#include "profile.h"

namespace {

// ";" separates frames and a line ends the path, so neither may stand in a name.
QString frameName(QString name)
{
    name.replace(QLatin1Char(';'), QLatin1Char(':'));
    name.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return name.isEmpty() ? QStringLiteral("[unknown]") : name;
}

void collect(const Profile& profile, const PSVModelItem* node, QString prefix, QMap<QString, quint64>* paths)
{
    if (node->parent()) {
        if (!echoesParent(node))
            prefix += (prefix.isEmpty() ? QString() : QStringLiteral(";")) + frameName(node->position().function);
        const quint64 self = profile.time(node).selfNs;
        if (self > 0)
            (*paths)[prefix] += self;
    }
    for (const PSVModelItem* child : node->childNodes())
        collect(profile, child, prefix, paths);
}

} // namespace

QByteArray foldedStacks(const Profile& profile)
{
    // Frames at different lines of one function are one frame here, so their
    // paths are summed before rounding.
    QMap<QString, quint64> paths;
    collect(profile, profile.tree(), QString(), &paths);
    QByteArray out;
    for (auto it = paths.constBegin(); it != paths.constEnd(); ++it) {
        const quint64 us = (it.value() + 500) / 1000;
        if (us > 0)
            out += it.key().toUtf8() + ' ' + QByteArray::number(us) + '\n';
    }
    return out;
}
