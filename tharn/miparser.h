// GDB's machine interface, one output line at a time: result records
// (^done, ^error), asynchronous records (*stopped, =thread-group-exited) and
// stream records (~ console, @ target, & log), with their values.
#ifndef ZOR_MIPARSER_H
#define ZOR_MIPARSER_H

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

// A value: a C string, a tuple {a="x",...} or a list [..].
struct MiValue
{
    enum Kind { String, Tuple, List };
    Kind kind = String;
    QString text;
    // Items of a tuple or list; names are empty in a list of plain values.
    QList<QPair<QString, MiValue>> items;

    // The first item called `name`; an empty string when there is none.
    MiValue operator[](const QString& name) const;
    QString str(const QString& name) const { return (*this)[name].text; }
};

struct MiRecord
{
    // '^' result, '*' exec, '+' status, '=' notify, '~' console, '@' target,
    // '&' log; 0 for the prompt or a line that isn't of the interface.
    char type = 0;
    int token = -1;
    // "done", "error", "stopped", ... for results and asynchronous records.
    QString className;
    MiValue results;
    // The text of a stream record.
    QString stream;
};

// False for a line that isn't an interface record ("(gdb)" included).
bool parseMiLine(const QByteArray& line, MiRecord* record);

// The text of a C string literal starting at `*pos` (on the quote); `*pos`
// ends after the closing quote. False for a malformed literal.
bool parseCString(const QByteArray& text, int* pos, QByteArray* value);

// A string quoted for an interface command's argument.
QString miQuote(const QString& text);

#endif
