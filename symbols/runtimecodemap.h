// Names of code that a program made while it ran (a JIT compiler's), which
// lies in no file and has no symbols. Runtimes that want it profiled write a
// map of it: /tmp/perf-PID.map, one line "START SIZE NAME" per piece of
// code, START and SIZE in hex. Java does so with
// -XX:+UnlockDiagnosticVMOptions -XX:+DumpPerfMapAtExit, Node.js with
// --perf-basic-prof.
#ifndef ZOR_RUNTIMECODEMAP_H
#define ZOR_RUNTIMECODEMAP_H

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <map>

class RuntimeCodeMap
{
public:
    struct Code
    {
        unsigned long long end = 0;
        QString name;
    };

    RuntimeCodeMap() = default;
    // The map at `path`, unless it was last written before `notBefore`:
    // a map of an earlier process with the same id, left in /tmp.
    RuntimeCodeMap(const QString& path, const QDateTime& notBefore);

    // The map of process `pid`, started at `started`.
    static RuntimeCodeMap ofProcess(int pid, const QDateTime& started);
    // When process `pid` started, from /proc; invalid where it can't be read.
    static QDateTime processStart(int pid);

    // The name of the code at `address`; false where the map names none.
    // A map that changed since it was last read is read again first: a
    // runtime may add to it while the program runs, or write it at the end.
    bool name(unsigned long long address, QString* name);

    // The pieces of code of a map's text by start. Where pieces overlap the
    // later line wins, as code made later took the place of earlier code;
    // lines that don't read as a piece are left out.
    static std::map<unsigned long long, Code> parse(const QByteArray& text);

private:
    void refresh();

    QString mPath;
    QDateTime mNotBefore;
    qint64 mReadSize = -1;
    QDateTime mReadTime;
    std::map<unsigned long long, Code> mCode;
};

#endif
