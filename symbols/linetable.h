// The line table of one compilation unit, decoded from its DWARF line
// program (versions 2 to 5) into a compact array that a binary search
// answers. libdw builds a node per row and sorts them all; this keeps rows of
// 16 bytes in the order the program gives them, which is already by address
// within each sequence, and is several times faster on large units.
#ifndef ZOR_LINETABLE_H
#define ZOR_LINETABLE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class LineTable
{
public:
    struct Row
    {
        std::uint64_t address;
        std::uint32_t line;
        std::uint32_t file : 31;
        // The first address past a sequence; no position of its own.
        std::uint32_t endSequence : 1;
    };

    // The sections a line program refers to; `lineStrings` and `strings`
    // may be empty.
    struct Sections
    {
        const unsigned char* line = nullptr;
        std::size_t lineSize = 0;
        const unsigned char* lineStrings = nullptr;
        std::size_t lineStringsSize = 0;
        const unsigned char* strings = nullptr;
        std::size_t stringsSize = 0;
    };

    // Decodes the program at `offset` of the line section. False for a
    // program it can't read (a form or layout it doesn't know, a truncated
    // one); the table is then empty.
    bool decode(const Sections& sections, std::uint64_t offset);

    // The row whose position holds `address`: the last one at or below it
    // within a sequence; null outside every sequence.
    const Row* find(std::uint64_t address) const;

    // The name of file `index` as the table gives it, joined to its
    // directory; empty for an index the table lacks.
    std::string fileName(std::uint32_t index) const;
    std::size_t fileCount() const { return mFiles.size(); }
    const std::vector<Row>& rows() const { return mRows; }

private:
    struct File
    {
        std::string name;
        std::uint64_t directory;
    };
    std::vector<Row> mRows;
    std::vector<std::string> mDirectories;
    std::vector<File> mFiles;
};

#endif
