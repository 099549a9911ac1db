// The functions with code at the top of a compilation unit, read straight
// from .debug_info with the unit's abbreviations. A large unit holds
// thousands of types and declarations at its top level; stepping over them
// here, a size known per abbreviation, costs a fraction of libdw's reading of
// each DIE.
#ifndef ZOR_UNITWALK_H
#define ZOR_UNITWALK_H

#include <cstddef>
#include <cstdint>
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

struct UnitSections
{
    const unsigned char* info = nullptr;
    std::size_t infoSize = 0;
    const unsigned char* abbrev = nullptr;
    std::size_t abbrevSize = 0;
};

// The subprograms at the top of the unit at `unitOffset` of .debug_info and
// inside its namespaces and modules, in the order of the DIEs, each with code
// or code elsewhere. False for a unit it can't read (a form or a kind of unit
// it doesn't know, a truncated one); `functions` is then empty.
bool unitFunctions(const UnitSections& sections, std::uint64_t unitOffset, std::vector<UnitFunction>* functions);

#endif
