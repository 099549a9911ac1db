// The functions of a program as nm lists them, by name, with where each
// starts and ends: which function an address of a program that isn't
// position-independent lies in.
#ifndef ZOR_TEST_PROGRAMFUNCTIONS_H
#define ZOR_TEST_PROGRAMFUNCTIONS_H

#include <QProcess>
#include <cstdint>
#include <map>
#include <string>

struct FunctionRange
{
    std::uint64_t low = 0, high = 0;
    bool contains(std::uint64_t address) const { return address >= low && address < high; }
};

inline std::map<std::string, FunctionRange> functionsOf(const QString& program)
{
    QProcess nm;
    nm.start(QStringLiteral("nm"), {QStringLiteral("-S"), QStringLiteral("--defined-only"), program});
    nm.waitForFinished();
    std::map<std::string, FunctionRange> functions;
    for (const QByteArray& line : nm.readAllStandardOutput().split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        if (words.size() == 4 && (words[2] == "T" || words[2] == "t")) {
            const std::uint64_t low = words[0].toULongLong(nullptr, 16);
            functions[words[3].toStdString()] = FunctionRange{low, low + words[1].toULongLong(nullptr, 16)};
        }
    }
    return functions;
}

#endif
