#include "unitwalk.h"
#include "dwarfreader.h"

#include <algorithm>
#include <dwarf.h>

namespace {

struct Attribute
{
    std::uint32_t name;
    std::uint32_t form;
    // The size of its form; -1 for one of variable size.
    int size;
};

struct Abbreviation
{
    std::uint32_t tag = 0;
    bool known = false;
    bool children = false;
    bool sibling = false;
    // The size of all its attributes where every form has a fixed size;
    // -1 otherwise.
    int size = 0;
    std::uint32_t first = 0, count = 0;
    // Where the sibling reference, the low and the high address lie from
    // the first attribute, where only forms of fixed size come before them;
    // -1 where it has none or they lie behind one of variable size.
    int siblingAt = -1, lowAt = -1, highAt = -1;
    int siblingSize = 0, highSize = 0;
    // How far those reach past the first attribute.
    int reach = 0;
    // Each of those it has lies at a known place, the high address is an
    // offset from the low one, and it has no other ranges.
    bool direct = true;
    bool highIsOffset = false;
};

std::uint64_t valueAt(const unsigned char* at, int size)
{
    std::uint64_t value = 0;
    for (int i = 0; i < size; ++i)
        value |= std::uint64_t(at[i]) << (8 * i);
    return value;
}

struct Unit
{
    const unsigned char* section;
    const unsigned char* begin;
    const unsigned char* end;
    unsigned version;
    int addressSize, offsetSize;
    std::vector<Abbreviation> abbreviations;
    std::vector<Attribute> attributes;
};

// The size of a form of fixed size; -1 for one of variable size, -2 for one
// this reader doesn't know.
int formSize(std::uint64_t form, const Unit& unit)
{
    switch (form) {
    case DW_FORM_flag_present:
    case DW_FORM_implicit_const: return 0;
    case DW_FORM_data1:
    case DW_FORM_ref1:
    case DW_FORM_flag:
    case DW_FORM_strx1:
    case DW_FORM_addrx1: return 1;
    case DW_FORM_data2:
    case DW_FORM_ref2:
    case DW_FORM_strx2:
    case DW_FORM_addrx2: return 2;
    case DW_FORM_strx3:
    case DW_FORM_addrx3: return 3;
    case DW_FORM_data4:
    case DW_FORM_ref4:
    case DW_FORM_strx4:
    case DW_FORM_addrx4:
    case DW_FORM_ref_sup4: return 4;
    case DW_FORM_data8:
    case DW_FORM_ref8:
    case DW_FORM_ref_sig8:
    case DW_FORM_ref_sup8: return 8;
    case DW_FORM_data16: return 16;
    case DW_FORM_addr: return unit.addressSize;
    case DW_FORM_strp:
    case DW_FORM_line_strp:
    case DW_FORM_sec_offset:
    case DW_FORM_strp_sup:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt: return unit.offsetSize;
    case DW_FORM_ref_addr: return unit.version <= 2 ? unit.addressSize : unit.offsetSize;
    case DW_FORM_udata:
    case DW_FORM_sdata:
    case DW_FORM_ref_udata:
    case DW_FORM_strx:
    case DW_FORM_addrx:
    case DW_FORM_loclistx:
    case DW_FORM_rnglistx:
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index:
    case DW_FORM_string:
    case DW_FORM_block1:
    case DW_FORM_block2:
    case DW_FORM_block4:
    case DW_FORM_block:
    case DW_FORM_exprloc:
    case DW_FORM_indirect: return -1;
    default: return -2;
    }
}

// Reads one attribute's value: its number for the forms of fixed size up to
// eight bytes and the LEB128 ones, nothing for the others. False for a form
// this reader doesn't know.
bool readForm(DwarfReader& in, std::uint64_t form, const Unit& unit, std::uint64_t* value)
{
    *value = 0;
    switch (form) {
    case DW_FORM_udata:
    case DW_FORM_ref_udata:
    case DW_FORM_strx:
    case DW_FORM_addrx:
    case DW_FORM_loclistx:
    case DW_FORM_rnglistx:
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index: *value = in.uleb(); return true;
    case DW_FORM_sdata: *value = std::uint64_t(in.sleb()); return true;
    case DW_FORM_string: in.string(); return true;
    case DW_FORM_block1: in.skip(in.fixed(1)); return true;
    case DW_FORM_block2: in.skip(in.fixed(2)); return true;
    case DW_FORM_block4: in.skip(in.fixed(4)); return true;
    case DW_FORM_block:
    case DW_FORM_exprloc: in.skip(in.uleb()); return true;
    case DW_FORM_indirect: {
        const std::uint64_t actual = in.uleb();
        return actual != DW_FORM_indirect && readForm(in, actual, unit, value);
    }
    default: {
        const int size = formSize(form, unit);
        if (size < 0)
            return false;
        if (size <= 8)
            *value = in.fixed(size);
        else
            in.skip(std::uint64_t(size));
        return true;
    }
    }
}

bool readAbbreviations(const UnitSections& sections, std::uint64_t offset, Unit* unit)
{
    if (offset >= sections.abbrevSize)
        return false;
    DwarfReader in(sections.abbrev + offset, sections.abbrev + sections.abbrevSize);
    for (;;) {
        const std::uint64_t code = in.uleb();
        if (in.bad())
            return false;
        if (code == 0)
            return true;
        // Codes are small and dense in practice; a huge one isn't worth a
        // table.
        if (code > 100000)
            return false;
        if (code >= unit->abbreviations.size())
            unit->abbreviations.resize(code + 1);
        Abbreviation& abbreviation = unit->abbreviations[code];
        abbreviation.known = true;
        abbreviation.tag = std::uint32_t(in.uleb());
        abbreviation.children = in.fixed(1) != 0;
        abbreviation.first = std::uint32_t(unit->attributes.size());
        bool low = false, high = false, ranges = false;
        for (;;) {
            const std::uint64_t name = in.uleb();
            const std::uint64_t form = in.uleb();
            if (in.bad())
                return false;
            if (name == 0 && form == 0)
                break;
            if (form == DW_FORM_implicit_const)
                in.sleb(); // the value lives here, not in the DIE
            const int size = formSize(form, *unit);
            if (size == -2)
                return false;
            const int at = abbreviation.size;
            abbreviation.size = size < 0 || abbreviation.size < 0 ? -1 : abbreviation.size + size;
            switch (name) {
            case DW_AT_sibling:
                abbreviation.sibling = true;
                abbreviation.siblingAt = form == DW_FORM_ref_addr || size <= 0 || size > 8 ? -1 : at;
                abbreviation.siblingSize = size;
                abbreviation.reach = std::max(abbreviation.reach, at + size);
                abbreviation.direct = abbreviation.direct && abbreviation.siblingAt >= 0;
                break;
            case DW_AT_low_pc:
                low = true;
                abbreviation.lowAt = form == DW_FORM_addr ? at : -1;
                abbreviation.reach = std::max(abbreviation.reach, at + size);
                abbreviation.direct = abbreviation.direct && abbreviation.lowAt >= 0;
                break;
            case DW_AT_high_pc:
                high = true;
                abbreviation.highAt = size > 0 && size <= 8 ? at : -1;
                abbreviation.highSize = size;
                abbreviation.highIsOffset = form != DW_FORM_addr;
                abbreviation.reach = std::max(abbreviation.reach, at + size);
                abbreviation.direct = abbreviation.direct && abbreviation.highAt >= 0
                    && (form == DW_FORM_addr || form == DW_FORM_data1 || form == DW_FORM_data2
                        || form == DW_FORM_data4 || form == DW_FORM_data8);
                break;
            case DW_AT_ranges: ranges = true; break;
            default: break;
            }
            unit->attributes.push_back({std::uint32_t(name), std::uint32_t(form), size});
        }
        abbreviation.count = std::uint32_t(unit->attributes.size()) - abbreviation.first;
        abbreviation.direct = abbreviation.direct && !ranges && low == high;
    }
}

bool holdsDefinitions(std::uint32_t tag)
{
    return tag == DW_TAG_namespace || tag == DW_TAG_module;
}

// The DIEs from `in` to the end of their siblings; with `collect`, the
// functions among them and inside their namespaces.
bool walk(DwarfReader& in, const Unit& unit, int depth, bool collect, std::vector<UnitFunction>* functions)
{
    // Deeper than any real program nests: a loop in a broken file.
    if (depth > 200)
        return false;
    for (;;) {
        const unsigned char* start = in.at();
        const std::uint64_t code = in.uleb();
        if (in.bad())
            return false;
        if (code == 0)
            return true;
        if (code >= unit.abbreviations.size() || !unit.abbreviations[code].known)
            return false;
        const Abbreviation& abbreviation = unit.abbreviations[code];
        const bool function = collect && abbreviation.tag == DW_TAG_subprogram;
        const bool descend = collect && holdsDefinitions(abbreviation.tag);
        const auto record = [&](std::uint64_t low, std::uint64_t high) {
            if (low < high)
                functions->push_back({std::uint64_t(start - unit.section), low, high, false});
        };
        // Most DIEs: what is needed of them lies at known places.
        const unsigned char* attributes = in.at();
        const bool jump = abbreviation.siblingAt >= 0 && !descend;
        if (abbreviation.direct && (abbreviation.size >= 0 || jump)) {
            if (std::size_t(abbreviation.size >= 0 ? abbreviation.size : abbreviation.reach) > in.left())
                return false;
            if (function && abbreviation.lowAt >= 0) {
                const std::uint64_t low = valueAt(attributes + abbreviation.lowAt, unit.addressSize);
                const std::uint64_t high = valueAt(attributes + abbreviation.highAt, abbreviation.highSize);
                record(low, abbreviation.highIsOffset ? low + high : high);
            }
            if (jump) {
                const std::uint64_t offset = std::uint64_t(unit.begin - unit.section)
                    + valueAt(attributes + abbreviation.siblingAt, abbreviation.siblingSize);
                const unsigned char* next = unit.section + offset;
                if (offset > std::uint64_t(unit.end - unit.section) || next <= attributes)
                    return false;
                in = DwarfReader(next, unit.end);
                continue;
            }
            in.skip(std::uint64_t(abbreviation.size));
            if (abbreviation.children && !walk(in, unit, depth + 1, descend, functions))
                return false;
            continue;
        }
        std::uint64_t low = 0, high = 0, sibling = 0;
        bool hasLow = false, hasHigh = false, highIsOffset = false, elsewhere = false, hasSibling = false;
        for (std::uint32_t i = 0; i < abbreviation.count; ++i) {
            const Attribute& attribute = unit.attributes[abbreviation.first + i];
            std::uint64_t value = 0;
            if (attribute.size >= 0 && attribute.size <= 8)
                value = in.fixed(attribute.size);
            else if (!readForm(in, attribute.form, unit, &value))
                return false;
            switch (attribute.name) {
            case DW_AT_sibling:
                // A reference within the unit, or (ref_addr) in the section.
                if (attribute.form == DW_FORM_ref_addr) {
                    sibling = value;
                } else {
                    sibling = std::uint64_t(unit.begin - unit.section) + value;
                }
                hasSibling = true;
                break;
            case DW_AT_low_pc:
                hasLow = true;
                low = value;
                elsewhere = elsewhere || attribute.form != DW_FORM_addr;
                break;
            case DW_AT_high_pc:
                hasHigh = true;
                high = value;
                highIsOffset = attribute.form != DW_FORM_addr;
                // An indexed address is libdw's to read.
                elsewhere = elsewhere || attribute.form == DW_FORM_addrx || attribute.form == DW_FORM_addrx1
                    || attribute.form == DW_FORM_addrx2 || attribute.form == DW_FORM_addrx3
                    || attribute.form == DW_FORM_addrx4 || attribute.form == DW_FORM_GNU_addr_index;
                break;
            case DW_AT_ranges: elsewhere = elsewhere || !(hasLow && hasHigh); break;
            default: break;
            }
        }
        if (in.bad())
            return false;
        if (function) {
            if (hasLow && hasHigh && !elsewhere) {
                if (highIsOffset)
                    high += low;
                record(low, high);
            } else if (elsewhere) {
                functions->push_back({std::uint64_t(start - unit.section), 0, 0, true});
            }
        }
        if (!abbreviation.children)
            continue;
        if (descend) {
            if (!walk(in, unit, depth + 1, true, functions))
                return false;
        } else if (hasSibling) {
            const unsigned char* next = unit.section + sibling;
            if (sibling > std::uint64_t(unit.end - unit.section) || next <= in.at())
                return false;
            in = DwarfReader(next, unit.end);
        } else if (!walk(in, unit, depth + 1, false, functions)) {
            return false;
        }
    }
}

} // namespace

bool unitFunctions(const UnitSections& sections, std::uint64_t unitOffset, std::vector<UnitFunction>* functions)
{
    functions->clear();
    if (!sections.info || !sections.abbrev || unitOffset >= sections.infoSize)
        return false;
    // The abbreviations' tables kept from unit to unit: fresh ones for
    // each cost more in faulted-in memory than reading them.
    static thread_local Unit unit;
    unit.abbreviations.clear();
    unit.attributes.clear();
    unit.section = sections.info;
    unit.begin = sections.info + unitOffset;
    DwarfReader header(unit.begin, sections.info + sections.infoSize);
    std::uint64_t length = header.fixed(4);
    unit.offsetSize = 4;
    if (length == 0xffffffff) {
        length = header.fixed(8);
        unit.offsetSize = 8;
    }
    if (header.bad() || length > header.left())
        return false;
    unit.end = header.at() + length;
    unit.version = unsigned(header.fixed(2));
    std::uint64_t abbreviations = 0;
    if (unit.version >= 5) {
        const unsigned type = unsigned(header.fixed(1));
        // Skeletons and split units keep their DIEs elsewhere.
        if (type != DW_UT_compile && type != DW_UT_partial)
            return false;
        unit.addressSize = int(header.fixed(1));
        abbreviations = header.fixed(unit.offsetSize);
    } else {
        abbreviations = header.fixed(unit.offsetSize);
        unit.addressSize = int(header.fixed(1));
    }
    if (header.bad() || unit.version < 2 || unit.version > 5 || (unit.addressSize != 4 && unit.addressSize != 8)
        || !readAbbreviations(sections, abbreviations, &unit))
        return false;
    DwarfReader in(header.at(), unit.end);
    // The unit's own DIE, then its children.
    const std::uint64_t code = in.uleb();
    if (in.bad() || code == 0 || code >= unit.abbreviations.size() || !unit.abbreviations[code].known)
        return false;
    const Abbreviation& root = unit.abbreviations[code];
    for (std::uint32_t i = 0; i < root.count; ++i) {
        std::uint64_t value = 0;
        if (!readForm(in, unit.attributes[root.first + i].form, unit, &value))
            return false;
    }
    if (in.bad() || (root.children && !walk(in, unit, 0, true, functions))) {
        functions->clear();
        return false;
    }
    return true;
}
