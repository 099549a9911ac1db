#include "position.h"

QString Position::displayName() const
{
    QString place = file;
    if (!place.isEmpty() && line > 0)
        place += QLatin1Char(':') + QString::number(line);
    if (function.isEmpty())
        return place;
    if (place.isEmpty())
        return function;
    return function + QLatin1String(" (") + place + QLatin1Char(')');
}
