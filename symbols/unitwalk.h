// The functions with code at the top of a compilation unit, and the inlined
// instances inside one of them, read straight from .debug_info with the
// unit's abbreviations. A large unit holds thousands of types and
// declarations at its top level; stepping over them here, a size known per
// abbreviation, costs a fraction of libdw's reading of each DIE.
#ifndef ZOR_UNITWALK_H
#define ZOR_UNITWALK_H

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

struct UnitFunction
{
    // Of the DIE, in .debug_info.
    std::uint64_t offset;
    std::uint64_t low, high;
    // Its code lies in ranges this walk doesn't read (DW_AT_ranges, an
    // indexed address): `low` and `high` mean nothing, libdw reads them.
    bool elsewhere;
};

// An inlined instance inside a function, in the order of the DIEs.
struct InlinedScope
{
    // Of the DIE, in .debug_info.
    std::uint64_t offset;
    // The instance it lies in, as an index into the same list; -1 for one
    // directly in the function.
    int parent;
    // How deep its DIE lies below the function's, lexical blocks counted.
    int depth;
    std::uint32_t callFile, callLine;
    bool hasCallFile;
    // Its code: `rangeCount` ranges from `firstRange` of the list of ranges.
    std::uint32_t firstRange, rangeCount;
};

struct CodeRange
{
    std::uint64_t low, high;
};

// Sections that may be missing are null.
struct UnitSections
{
    const unsigned char* info = nullptr;
    std::size_t infoSize = 0;
    const unsigned char* abbrev = nullptr;
    std::size_t abbrevSize = 0;
    // Ranges of DWARF 5 and of earlier versions.
    const unsigned char* rnglists = nullptr;
    std::size_t rnglistsSize = 0;
    const unsigned char* ranges = nullptr;
    std::size_t rangesSize = 0;
    const unsigned char* strings = nullptr;
    std::size_t stringsSize = 0;
    const unsigned char* lineStrings = nullptr;
    std::size_t lineStringsSize = 0;
};

class UnitReader
{
public:
    // Reads the header and abbreviations of the unit at `unitOffset` of
    // .debug_info. False for a unit it can't read (a form or a kind of unit
    // it doesn't know, a truncated one).
    bool open(const UnitSections& sections, std::uint64_t unitOffset);

    // The subprograms at the top of the unit and inside its namespaces and
    // modules, in the order of the DIEs, each with code or code elsewhere.
    // False for a unit it can't read; `functions` is then empty.
    bool functions(std::vector<UnitFunction>* functions) const;

    // The inlined instances below the function whose DIE lies at
    // `functionOffset`, with their code ranges appended to `ranges`; an
    // instance without code is left out with all it holds. False where
    // something can't be read here (a form, ranges in a form this reader
    // doesn't know); the lists are then as they were.
    bool inlined(std::uint64_t functionOffset, std::vector<InlinedScope>* scopes, std::vector<CodeRange>* ranges) const;

    // The names of the function or inlined instance whose DIE lies at
    // `offset`, its own or those of its abstract origin or the declaration it completes:
    // its linkage name (null without one) and its plain name (null without
    // one). False where a name or a reference lies where this reader
    // doesn't look.
    bool name(std::uint64_t offset, const char** linkage, const char** plain) const;

    // Of the unit's own DIE, once opened: the directory it was compiled in
    // (null without one) and the offset of its line program; false where
    // they lie where this reader doesn't look.
    bool compDir(const char** directory) const
    {
        *directory = mCompDir;
        return mCompDirKnown;
    }
    bool statements(bool* has, std::uint64_t* offset) const
    {
        *has = mHasStatements;
        *offset = mStatements;
        return mStatementsKnown;
    }

    struct Attribute
    {
        std::uint16_t name;
        std::uint16_t form;
        // The size of its form; -1 for one of variable size.
        std::int32_t size;
    };
    struct Abbreviation
    {
        std::uint16_t tag = 0;
        bool known = false;
        bool children = false;
        // It has a DW_AT_sibling.
        bool sibling = false;
        // Each of the sibling, the low and the high address it has lies at a
        // known place, the high address is an offset from the low one, and
        // it has no other ranges.
        bool direct = true;
        bool highIsOffset = false;
        std::uint8_t siblingSize = 0, highSize = 0;
        // The size of all its attributes where every form has a fixed size;
        // -1 otherwise.
        std::int32_t size = 0;
        std::uint32_t first = 0, count = 0;
        // Where the sibling reference, the low and the high address lie from
        // the first attribute, where only forms of fixed size come before
        // them; -1 where it has none or they lie behind one of variable
        // size.
        std::int32_t siblingAt = -1, lowAt = -1, highAt = -1;
        // How far those reach past the first attribute.
        std::int32_t reach = 0;
    };

private:
    struct Values;
    bool readAbbreviations(std::uint64_t offset);
    bool readAbbreviations(std::uint64_t offset, std::vector<Abbreviation>* abbreviations,
                           std::vector<Attribute>* attributes);
    bool walk(const unsigned char*& at, int depth, bool collect, std::vector<UnitFunction>* functions) const;
    bool readDie(const unsigned char*& at, const Abbreviation& abbreviation, Values* values) const;
    bool skipAttributes(const unsigned char*& at, const Abbreviation& abbreviation) const;
    bool skipChildren(const unsigned char*& at, const Values& values, int depth) const;
    bool scopes(const unsigned char*& at, int parent, int depth, std::vector<InlinedScope>* scopes,
                std::vector<CodeRange>* ranges) const;
    bool readRanges(std::uint64_t offset, std::vector<CodeRange>* ranges) const;
    bool string(const unsigned char* at, unsigned form, const char** text) const;
    bool reference(const unsigned char* at, unsigned form, std::uint64_t* offset) const;

    UnitSections mSections;
    const unsigned char* mBegin = nullptr;
    const unsigned char* mEnd = nullptr;
    // Where the unit's top-level DIEs start.
    const unsigned char* mChildren = nullptr;
    bool mHasChildren = false;
    unsigned mVersion = 0;
    int mAddressSize = 8, mOffsetSize = 4;
    // The unit's base address, for its ranges; unknown where its low address
    // is indexed.
    std::uint64_t mBase = 0;
    bool mBaseKnown = true;
    const char* mCompDir = nullptr;
    bool mCompDirKnown = false;
    std::uint64_t mStatements = 0;
    bool mHasStatements = false, mStatementsKnown = false;
    std::vector<Abbreviation> mAbbreviations;
    std::vector<Attribute> mAttributes;
    // The values of DW_FORM_implicit_const attributes, by their index in
    // mAttributes: they live in the abbreviation, not in the DIE.
    std::vector<std::pair<std::uint32_t, std::int64_t>> mImplicit;
};

#endif
