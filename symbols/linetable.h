// The line table of one compilation unit, decoded from its DWARF line
// program (versions 2 to 5). A unit's program is run once to note where each
// sequence lies and, every few rows, the machine's state and place in the
// program; an address is then answered by running the program on from the
// nearest such checkpoint below it. Holding every row (or libdw's node per
// row) cost megabytes of fresh memory for a large program, and faulting that
// memory in cost more than decoding.
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
        std::uint64_t address = 0;
        std::uint32_t line = 0;
        std::uint32_t file = 0;
    };

    // The sections a line program refers to; `lineStrings` and `strings`
    // may be empty. They must outlive the table.
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
    // one, addresses that go back within a sequence); the table is then
    // empty.
    bool decode(const Sections& sections, std::uint64_t offset);

    // The row whose position holds `address`: the last one at or below it
    // within the sequence that holds it; false outside every sequence.
    bool find(std::uint64_t address, Row* row) const;

    // The name of file `index` as the table gives it, joined to its
    // directory; empty for an index the table lacks.
    std::string fileName(std::uint32_t index) const;
    std::size_t fileCount() const { return mFiles.size(); }

private:
    struct State
    {
        std::uint64_t address;
        std::uint32_t line;
        std::uint32_t file;
    };
    struct Checkpoint
    {
        State state;
        // Where the program goes on after the row of `state`.
        std::uint32_t offset;
    };
    struct Sequence
    {
        std::uint64_t start, end;
        // The greatest end of this sequence and those that start before it:
        // where a search for an overlapping one may stop.
        std::uint64_t reach;
        std::uint32_t firstCheckpoint, checkpointCount;
        // Its last row lies at its end, a position without code that an
        // address just past the sequence's last instruction still gets.
        bool rowAtEnd;
    };
    // Runs the program from `at` with `state`, giving `emit` each row (and
    // the end of each sequence) until it returns false or the program ends.
    // False for a program that can't be read.
    template <class Emit>
    bool run(const unsigned char* at, State state, Emit emit) const;

    const unsigned char* mProgram = nullptr;
    const unsigned char* mProgramEnd = nullptr;
    unsigned mMinimumLength = 1;
    int mLineBase = 0;
    unsigned mLineRange = 1;
    unsigned mOpcodeBase = 1;
    int mAddressSize = 8;
    std::vector<unsigned char> mOperandCounts;
    // What each special opcode adds to the address and the line.
    struct Special
    {
        std::uint32_t address;
        std::int32_t line;
    };
    std::vector<Special> mSpecials;
    std::vector<Checkpoint> mCheckpoints;
    std::vector<Sequence> mSequences;
    // Names in place in the sections.
    struct File
    {
        const char* name;
        std::uint64_t directory;
    };
    std::vector<const char*> mDirectories;
    std::vector<File> mFiles;
};

#endif
