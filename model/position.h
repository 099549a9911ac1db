// A source position: function, file, line and column. Line and column are
// -1 where they are unknown.
#ifndef ZOR_POSITION_H
#define ZOR_POSITION_H

#include "pathstring.h"

#include <QString>

class Position
{
public:
    Position() : line(-1), column(-1) {}
    explicit Position(const QString& function) : function(function), line(-1), column(-1) {}
    Position(const QString& file, int line, int column) : file(file), line(line), column(column) {}
    Position(const QString& function, const QString& file, int line, int column)
        : function(function), file(file), line(line), column(column)
    {
    }
    Position(const QString& function, const PathString& file, int line, int column)
        : function(function), file(file.toString()), line(line), column(column)
    {
    }

    // "function (file:line)", leaving out what is unknown.
    QString displayName() const;
    bool hasFileAndLine() const { return !file.isEmpty() && line > 0; }

    bool operator==(const Position& other) const
    {
        return line == other.line && column == other.column && function == other.function && file == other.file;
    }
    bool operator!=(const Position& other) const { return !(*this == other); }

    QString function;
    QString file;
    int line;
    int column;
};

#endif
