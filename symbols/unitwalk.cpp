#include "unitwalk.h"
#include "dwarfreader.h"

#include <algorithm>
#include <cstring>
#include <dwarf.h>

namespace {

using Attribute = UnitReader::Attribute;
using Abbreviation = UnitReader::Abbreviation;

std::uint64_t valueAt(const unsigned char* at, int size)
{
    std::uint64_t value = 0;
    for (int i = 0; i < size; ++i)
        value |= std::uint64_t(at[i]) << (8 * i);
    return value;
}

// What a form's size depends on.
struct Unit
{
    unsigned version;
    int addressSize, offsetSize;
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

bool holdsDefinitions(std::uint32_t tag)
{
    return tag == DW_TAG_namespace || tag == DW_TAG_module;
}

// Scopes inside a function that may hold inlined code. A function defined
// inside another (a lambda's body, a nested function) is code of its own,
// found as the unit's functions are.
bool holdsInlined(std::uint32_t tag)
{
    return tag == DW_TAG_lexical_block || tag == DW_TAG_try_block || tag == DW_TAG_catch_block;
}

bool isIndexedAddress(std::uint64_t form)
{
    return form == DW_FORM_addrx || form == DW_FORM_addrx1 || form == DW_FORM_addrx2 || form == DW_FORM_addrx3
        || form == DW_FORM_addrx4 || form == DW_FORM_GNU_addr_index;
}

// Deeper than any real program nests: a loop in a broken file.
constexpr int maximumDepth = 200;

} // namespace

// What a DIE says of where its code lies and where it was called from.
struct UnitReader::Values
{
    std::uint64_t low = 0, high = 0, sibling = 0, ranges = 0, callFile = 0, callLine = 0;
    bool hasLow = false, hasHigh = false, highIsOffset = false, hasSibling = false, hasRanges = false;
    bool hasCallFile = false;
    // Some of it lies where this reader doesn't look (an indexed address,
    // an indexed range list).
    bool elsewhere = false;
    // Where the values of strings and references lie, with their forms;
    // null where the DIE has none.
    struct Place
    {
        const unsigned char* at = nullptr;
        std::uint16_t form = 0;
    };
    Place name, linkage, mipsLinkage, origin, declaration, compDir, statements;
};

bool UnitReader::readAbbreviations(std::uint64_t offset)
{
    // Read into tables kept from unit to unit, then copied at their size:
    // grown afresh for each unit they cost more in reallocation and
    // faulted-in memory than reading them.
    static thread_local std::vector<Abbreviation> abbreviations;
    static thread_local std::vector<Attribute> attributes;
    abbreviations.clear();
    attributes.clear();
    mImplicit.clear();
    const bool read = readAbbreviations(offset, &abbreviations, &attributes);
    mAbbreviations.assign(abbreviations.begin(), abbreviations.end());
    mAttributes.assign(attributes.begin(), attributes.end());
    return read;
}

bool UnitReader::readAbbreviations(std::uint64_t offset, std::vector<Abbreviation>* abbreviations,
                                   std::vector<Attribute>* attributes)
{
    if (offset >= mSections.abbrevSize)
        return false;
    const Unit unit{mVersion, mAddressSize, mOffsetSize};
    DwarfReader in(mSections.abbrev + offset, mSections.abbrev + mSections.abbrevSize);
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
        if (code >= abbreviations->size())
            abbreviations->resize(code + 1);
        Abbreviation& abbreviation = (*abbreviations)[code];
        abbreviation.known = true;
        const std::uint64_t tag = in.uleb();
        if (tag > 0xffff)
            return false;
        abbreviation.tag = std::uint16_t(tag);
        abbreviation.children = in.fixed(1) != 0;
        abbreviation.first = std::uint32_t(attributes->size());
        bool low = false, high = false, ranges = false;
        for (;;) {
            const std::uint64_t name = in.uleb();
            const std::uint64_t form = in.uleb();
            if (in.bad())
                return false;
            if (name == 0 && form == 0)
                break;
            if (name > 0xffff || form > 0xffff)
                return false;
            if (form == DW_FORM_implicit_const)
                mImplicit.emplace_back(std::uint32_t(attributes->size()), in.sleb());
            const int size = formSize(form, unit);
            if (size == -2)
                return false;
            const int at = abbreviation.size;
            abbreviation.size = size < 0 || abbreviation.size < 0 ? -1 : abbreviation.size + size;
            switch (name) {
            case DW_AT_sibling:
                abbreviation.sibling = true;
                abbreviation.siblingAt = form == DW_FORM_ref_addr || size <= 0 || size > 8 ? -1 : at;
                abbreviation.siblingSize = std::uint8_t(std::max(size, 0));
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
                abbreviation.highSize = std::uint8_t(std::max(size, 0));
                abbreviation.highIsOffset = form != DW_FORM_addr;
                abbreviation.reach = std::max(abbreviation.reach, at + size);
                abbreviation.direct = abbreviation.direct && abbreviation.highAt >= 0
                    && (form == DW_FORM_addr || form == DW_FORM_data1 || form == DW_FORM_data2
                        || form == DW_FORM_data4 || form == DW_FORM_data8);
                break;
            case DW_AT_ranges: ranges = true; break;
            default: break;
            }
            attributes->push_back({std::uint16_t(name), std::uint16_t(form), size});
        }
        abbreviation.count = std::uint32_t(attributes->size()) - abbreviation.first;
        abbreviation.direct = abbreviation.direct && !ranges && low == high;
    }
}

bool UnitReader::string(const unsigned char* at, unsigned form, const char** text) const
{
    const unsigned char* section = nullptr;
    std::size_t size = 0;
    std::uint64_t offset = 0;
    switch (form) {
    case DW_FORM_string:
        section = mSections.info;
        size = mSections.infoSize;
        offset = std::uint64_t(at - section);
        break;
    case DW_FORM_strp:
        section = mSections.strings;
        size = mSections.stringsSize;
        offset = valueAt(at, mOffsetSize);
        break;
    case DW_FORM_line_strp:
        section = mSections.lineStrings;
        size = mSections.lineStringsSize;
        offset = valueAt(at, mOffsetSize);
        break;
    default:
        // Indexed strings and those of a supplementary file are libdw's.
        return false;
    }
    if (!section || offset >= size || !std::memchr(section + offset, 0, size - offset))
        return false;
    *text = reinterpret_cast<const char*>(section + offset);
    return true;
}

bool UnitReader::reference(const unsigned char* at, unsigned form, std::uint64_t* offset) const
{
    std::uint64_t value = 0;
    switch (form) {
    case DW_FORM_ref1: value = valueAt(at, 1); break;
    case DW_FORM_ref2: value = valueAt(at, 2); break;
    case DW_FORM_ref4: value = valueAt(at, 4); break;
    case DW_FORM_ref8: value = valueAt(at, 8); break;
    case DW_FORM_ref_udata: {
        DwarfReader in(at, mEnd);
        value = in.uleb();
        if (in.bad())
            return false;
        break;
    }
    case DW_FORM_ref_addr: {
        // Only where it lies in this unit, whose abbreviations are known.
        const std::uint64_t target = valueAt(at, mVersion <= 2 ? mAddressSize : mOffsetSize);
        if (target < std::uint64_t(mBegin - mSections.info))
            return false;
        value = target - std::uint64_t(mBegin - mSections.info);
        break;
    }
    default: return false;
    }
    if (value >= std::uint64_t(mEnd - mBegin))
        return false;
    *offset = std::uint64_t(mBegin - mSections.info) + value;
    return true;
}

bool UnitReader::name(std::uint64_t offset, const char** linkage, const char** plain) const
{
    // As libdw integrates them: the first of each along the chain of
    // abstract origins and the declarations they complete, the origin first.
    const Values::Place* found[3] = {nullptr, nullptr, nullptr};
    Values chain[17];
    for (int hop = 0; hop < 17; ++hop) {
        if (offset >= std::uint64_t(mEnd - mSections.info) || mSections.info + offset < mChildren)
            return false;
        const unsigned char* at = mSections.info + offset;
        DwarfReader in(at, mEnd);
        const std::uint64_t code = in.uleb();
        at = in.at();
        if (in.bad() || code == 0 || code >= mAbbreviations.size() || !mAbbreviations[code].known)
            return false;
        Values& values = chain[hop];
        if (!readDie(at, mAbbreviations[code], &values))
            return false;
        const Values::Place* places[3] = {&values.linkage, &values.mipsLinkage, &values.name};
        for (int i = 0; i < 3; ++i) {
            if (!found[i] && places[i]->at)
                found[i] = places[i];
        }
        const Values::Place& next = values.origin.at ? values.origin : values.declaration;
        if (!next.at)
            break;
        if (!reference(next.at, next.form, &offset))
            return false;
    }
    // A linkage name, else the plain one; an empty one counts as none.
    const char* text[3] = {nullptr, nullptr, nullptr};
    for (int i = 0; i < 3; ++i) {
        if (found[i] && !string(found[i]->at, found[i]->form, &text[i]))
            return false;
    }
    *linkage = text[0] && *text[0] ? text[0] : text[1] && *text[1] ? text[1] : nullptr;
    *plain = text[2];
    return true;
}

bool UnitReader::open(const UnitSections& sections, std::uint64_t unitOffset)
{
    mSections = sections;
    mCompDir = nullptr;
    mCompDirKnown = mHasStatements = mStatementsKnown = false;
    mAbbreviations.clear();
    mAttributes.clear();
    mImplicit.clear();
    mChildren = nullptr;
    if (!sections.info || !sections.abbrev || unitOffset >= sections.infoSize)
        return false;
    mBegin = sections.info + unitOffset;
    DwarfReader header(mBegin, sections.info + sections.infoSize);
    std::uint64_t length = header.fixed(4);
    mOffsetSize = 4;
    if (length == 0xffffffff) {
        length = header.fixed(8);
        mOffsetSize = 8;
    }
    if (header.bad() || length > header.left())
        return false;
    mEnd = header.at() + length;
    mVersion = unsigned(header.fixed(2));
    std::uint64_t abbreviations = 0;
    if (mVersion >= 5) {
        const unsigned type = unsigned(header.fixed(1));
        // Skeletons and split units keep their DIEs elsewhere.
        if (type != DW_UT_compile && type != DW_UT_partial)
            return false;
        mAddressSize = int(header.fixed(1));
        abbreviations = header.fixed(mOffsetSize);
    } else {
        abbreviations = header.fixed(mOffsetSize);
        mAddressSize = int(header.fixed(1));
    }
    if (header.bad() || mVersion < 2 || mVersion > 5 || (mAddressSize != 4 && mAddressSize != 8)
        || !readAbbreviations(abbreviations))
        return false;
    // The unit's own DIE: its base address, then where its children start.
    const unsigned char* at = header.at();
    DwarfReader in(at, mEnd);
    const std::uint64_t code = in.uleb();
    if (in.bad() || code == 0 || code >= mAbbreviations.size() || !mAbbreviations[code].known)
        return false;
    at = in.at();
    Values root;
    if (!readDie(at, mAbbreviations[code], &root))
        return false;
    // Without a low address the base is 0.
    mBase = root.low;
    mBaseKnown = !root.hasLow || !root.elsewhere;
    mCompDirKnown = !root.compDir.at || string(root.compDir.at, root.compDir.form, &mCompDir);
    mStatementsKnown = true;
    mHasStatements = root.statements.at != nullptr;
    if (mHasStatements) {
        const unsigned form = root.statements.form;
        if (form == DW_FORM_sec_offset || form == DW_FORM_data4 || form == DW_FORM_data8)
            mStatements = valueAt(root.statements.at, form == DW_FORM_data8 ? 8 : form == DW_FORM_data4 ? 4 : mOffsetSize);
        else
            mStatementsKnown = false;
    }
    mChildren = at;
    mHasChildren = mAbbreviations[code].children;
    return true;
}

bool UnitReader::readDie(const unsigned char*& at, const Abbreviation& abbreviation, Values* values) const
{
    const Unit unit{mVersion, mAddressSize, mOffsetSize};
    DwarfReader in(at, mEnd);
    for (std::uint32_t i = 0; i < abbreviation.count; ++i) {
        const Attribute& attribute = mAttributes[abbreviation.first + i];
        const Values::Place place{in.at(), attribute.form};
        std::uint64_t value = 0;
        if (attribute.form == DW_FORM_implicit_const) {
            // Only a call site's file and line are wanted of these.
            if (attribute.name == DW_AT_call_file || attribute.name == DW_AT_call_line) {
                for (const auto& implicit : mImplicit) {
                    if (implicit.first == abbreviation.first + i)
                        value = std::uint64_t(implicit.second);
                }
            }
        } else if (attribute.size >= 0 && attribute.size <= 8) {
            value = in.fixed(attribute.size);
        } else if (!readForm(in, attribute.form, unit, &value)) {
            return false;
        }
        switch (attribute.name) {
        case DW_AT_sibling:
            // A reference within the unit, or (ref_addr) in the section.
            values->sibling = attribute.form == DW_FORM_ref_addr ? value : std::uint64_t(mBegin - mSections.info) + value;
            values->hasSibling = true;
            break;
        case DW_AT_low_pc:
            values->hasLow = true;
            values->low = value;
            values->elsewhere = values->elsewhere || attribute.form != DW_FORM_addr;
            break;
        case DW_AT_high_pc:
            values->hasHigh = true;
            values->high = value;
            values->highIsOffset = attribute.form != DW_FORM_addr;
            // An indexed address is libdw's to read.
            values->elsewhere = values->elsewhere || isIndexedAddress(attribute.form);
            break;
        case DW_AT_ranges:
            values->hasRanges = true;
            values->ranges = value;
            // An index into the unit's list of range lists isn't read here.
            values->elsewhere = values->elsewhere
                || !(attribute.form == DW_FORM_sec_offset || attribute.form == DW_FORM_data4
                     || attribute.form == DW_FORM_data8);
            break;
        case DW_AT_call_file:
            values->hasCallFile = true;
            values->callFile = value;
            break;
        case DW_AT_call_line: values->callLine = value; break;
        case DW_AT_name: values->name = place; break;
        case DW_AT_linkage_name: values->linkage = place; break;
        case DW_AT_MIPS_linkage_name: values->mipsLinkage = place; break;
        case DW_AT_abstract_origin: values->origin = place; break;
        case DW_AT_specification: values->declaration = place; break;
        case DW_AT_comp_dir: values->compDir = place; break;
        case DW_AT_stmt_list: values->statements = place; break;
        default: break;
        }
    }
    at = in.at();
    return !in.bad();
}

bool UnitReader::skipAttributes(const unsigned char*& at, const Abbreviation& abbreviation) const
{
    if (abbreviation.size >= 0) {
        if (std::size_t(abbreviation.size) > std::size_t(mEnd - at))
            return false;
        at += abbreviation.size;
        return true;
    }
    const Unit unit{mVersion, mAddressSize, mOffsetSize};
    DwarfReader in(at, mEnd);
    for (std::uint32_t i = 0; i < abbreviation.count; ++i) {
        const Attribute& attribute = mAttributes[abbreviation.first + i];
        std::uint64_t value = 0;
        if (attribute.size >= 0)
            in.skip(std::uint64_t(attribute.size));
        else if (!readForm(in, attribute.form, unit, &value))
            return false;
    }
    at = in.at();
    return !in.bad();
}

bool UnitReader::skipChildren(const unsigned char*& at, const Values& values, int depth) const
{
    if (values.hasSibling) {
        const unsigned char* next = mSections.info + values.sibling;
        if (values.sibling > std::uint64_t(mEnd - mSections.info) || next <= at)
            return false;
        at = next;
        return true;
    }
    return walk(at, depth + 1, false, nullptr);
}

bool UnitReader::walk(const unsigned char*& at, int depth, bool collect, std::vector<UnitFunction>* functions) const
{
    if (depth > maximumDepth)
        return false;
    const std::uint64_t unitOffset = std::uint64_t(mBegin - mSections.info);
    DwarfReader in(at, mEnd);
    for (;;) {
        const unsigned char* start = in.at();
        const std::uint64_t code = in.uleb();
        if (in.bad())
            return false;
        if (code == 0) {
            at = in.at();
            return true;
        }
        if (code >= mAbbreviations.size() || !mAbbreviations[code].known)
            return false;
        const Abbreviation& abbreviation = mAbbreviations[code];
        const bool function = collect && abbreviation.tag == DW_TAG_subprogram;
        const bool descend = collect && holdsDefinitions(abbreviation.tag);
        const auto record = [&](std::uint64_t low, std::uint64_t high) {
            if (low < high)
                functions->push_back({std::uint64_t(start - mSections.info), low, high, false});
        };
        // Most DIEs: what is needed of them lies at known places.
        const unsigned char* attributes = in.at();
        const bool jump = abbreviation.siblingAt >= 0 && !descend;
        if (abbreviation.direct && (abbreviation.size >= 0 || jump)) {
            if (std::size_t(abbreviation.size >= 0 ? abbreviation.size : abbreviation.reach) > in.left())
                return false;
            if (function && abbreviation.lowAt >= 0) {
                const std::uint64_t low = valueAt(attributes + abbreviation.lowAt, mAddressSize);
                const std::uint64_t high = valueAt(attributes + abbreviation.highAt, abbreviation.highSize);
                record(low, abbreviation.highIsOffset ? low + high : high);
            }
            if (jump) {
                const std::uint64_t offset =
                    unitOffset + valueAt(attributes + abbreviation.siblingAt, abbreviation.siblingSize);
                const unsigned char* next = mSections.info + offset;
                if (offset > std::uint64_t(mEnd - mSections.info) || next <= attributes)
                    return false;
                in = DwarfReader(next, mEnd);
                continue;
            }
            in.skip(std::uint64_t(abbreviation.size));
            if (abbreviation.children) {
                const unsigned char* next = in.at();
                if (!walk(next, depth + 1, descend, functions))
                    return false;
                in = DwarfReader(next, mEnd);
            }
            continue;
        }
        const unsigned char* next = in.at();
        // Nothing is wanted of it but where it ends.
        if (!function && !descend && (!abbreviation.children || !abbreviation.sibling)) {
            if (!skipAttributes(next, abbreviation)
                || (abbreviation.children && !walk(next, depth + 1, false, nullptr)))
                return false;
            in = DwarfReader(next, mEnd);
            continue;
        }
        Values values;
        if (!readDie(next, abbreviation, &values))
            return false;
        if (function) {
            if (values.hasLow && values.hasHigh && !values.elsewhere) {
                record(values.low, values.highIsOffset ? values.low + values.high : values.high);
            } else if (values.elsewhere || (values.hasRanges && !(values.hasLow && values.hasHigh))) {
                functions->push_back({std::uint64_t(start - mSections.info), 0, 0, true});
            }
        }
        if (abbreviation.children) {
            if (descend ? !walk(next, depth + 1, true, functions) : !skipChildren(next, values, depth))
                return false;
        }
        in = DwarfReader(next, mEnd);
    }
}

bool UnitReader::functions(std::vector<UnitFunction>* functions) const
{
    functions->clear();
    if (!mChildren)
        return false;
    const unsigned char* at = mChildren;
    if (mHasChildren && !walk(at, 0, true, functions)) {
        functions->clear();
        return false;
    }
    return true;
}

bool UnitReader::readRanges(std::uint64_t offset, std::vector<CodeRange>* ranges) const
{
    std::uint64_t base = mBase;
    bool baseKnown = mBaseKnown;
    const auto add = [&](std::uint64_t low, std::uint64_t high) {
        if (low < high)
            ranges->push_back({low, high});
    };
    if (mVersion < 5) {
        if (!mSections.ranges || offset >= mSections.rangesSize)
            return false;
        DwarfReader in(mSections.ranges + offset, mSections.ranges + mSections.rangesSize);
        const std::uint64_t selector = mAddressSize == 8 ? ~std::uint64_t(0) : 0xffffffffu;
        for (;;) {
            const std::uint64_t begin = in.fixed(mAddressSize);
            const std::uint64_t end = in.fixed(mAddressSize);
            if (in.bad())
                return false;
            if (begin == 0 && end == 0)
                return true;
            if (begin == selector) {
                base = end;
                baseKnown = true;
                continue;
            }
            if (!baseKnown)
                return false;
            add(base + begin, base + end);
        }
    }
    if (!mSections.rnglists || offset >= mSections.rnglistsSize)
        return false;
    DwarfReader in(mSections.rnglists + offset, mSections.rnglists + mSections.rnglistsSize);
    for (;;) {
        const unsigned kind = unsigned(in.fixed(1));
        if (in.bad())
            return false;
        switch (kind) {
        case DW_RLE_end_of_list: return true;
        case DW_RLE_offset_pair: {
            const std::uint64_t begin = in.uleb();
            const std::uint64_t end = in.uleb();
            if (!baseKnown)
                return false;
            add(base + begin, base + end);
            break;
        }
        case DW_RLE_base_address:
            base = in.fixed(mAddressSize);
            baseKnown = true;
            break;
        case DW_RLE_start_end: {
            const std::uint64_t begin = in.fixed(mAddressSize);
            add(begin, in.fixed(mAddressSize));
            break;
        }
        case DW_RLE_start_length: {
            const std::uint64_t begin = in.fixed(mAddressSize);
            add(begin, begin + in.uleb());
            break;
        }
        default:
            // Indexed addresses are libdw's to read.
            return false;
        }
        if (in.bad())
            return false;
    }
}

bool UnitReader::scopes(const unsigned char*& at, int parent, int depth, std::vector<InlinedScope>* scopes,
                        std::vector<CodeRange>* ranges) const
{
    if (depth > maximumDepth)
        return false;
    for (;;) {
        const unsigned char* start = at;
        DwarfReader in(at, mEnd);
        const std::uint64_t code = in.uleb();
        if (in.bad())
            return false;
        at = in.at();
        if (code == 0)
            return true;
        if (code >= mAbbreviations.size() || !mAbbreviations[code].known)
            return false;
        const Abbreviation& abbreviation = mAbbreviations[code];
        const bool wanted = abbreviation.tag == DW_TAG_inlined_subroutine || holdsInlined(abbreviation.tag);
        // Most DIEs below a function (parameters, variables, call sites)
        // are stepped over by their sibling or their size.
        if (!wanted && abbreviation.siblingAt >= 0) {
            const std::uint64_t offset =
                std::uint64_t(mBegin - mSections.info) + valueAt(at + abbreviation.siblingAt, abbreviation.siblingSize);
            if (std::size_t(abbreviation.reach) > std::size_t(mEnd - at) || offset > std::uint64_t(mEnd - mSections.info)
                || mSections.info + offset <= at)
                return false;
            at = mSections.info + offset;
            continue;
        }
        if (!wanted && (!abbreviation.children || !abbreviation.sibling)) {
            if (!skipAttributes(at, abbreviation) || (abbreviation.children && !walk(at, depth + 1, false, nullptr)))
                return false;
            continue;
        }
        Values values;
        if (!readDie(at, abbreviation, &values))
            return false;
        int here = parent;
        if (abbreviation.tag == DW_TAG_inlined_subroutine) {
            if (values.elsewhere)
                return false;
            const std::size_t before = ranges->size();
            // A low and high address come before a list of ranges, as libdw
            // reads them.
            if (values.hasLow && values.hasHigh) {
                const std::uint64_t high = values.highIsOffset ? values.low + values.high : values.high;
                if (values.low < high)
                    ranges->push_back({values.low, high});
            } else if (values.hasRanges && !readRanges(values.ranges, ranges)) {
                return false;
            }
            // A scope without code holds none.
            if (ranges->size() == before) {
                if (abbreviation.children && !skipChildren(at, values, depth))
                    return false;
                continue;
            }
            here = int(scopes->size());
            scopes->push_back({std::uint64_t(start - mSections.info), parent, depth, std::uint32_t(values.callFile),
                               std::uint32_t(values.callLine), values.hasCallFile, std::uint32_t(before),
                               std::uint32_t(ranges->size() - before)});
        } else if (!holdsInlined(abbreviation.tag)) {
            if (abbreviation.children && !skipChildren(at, values, depth))
                return false;
            continue;
        }
        if (abbreviation.children && !this->scopes(at, here, depth + 1, scopes, ranges))
            return false;
    }
}

bool UnitReader::inlined(std::uint64_t functionOffset, std::vector<InlinedScope>* scopes,
                         std::vector<CodeRange>* ranges) const
{
    if (!mChildren || functionOffset >= std::uint64_t(mEnd - mSections.info)
        || mSections.info + functionOffset < mChildren)
        return false;
    const std::size_t scopesBefore = scopes->size(), rangesBefore = ranges->size();
    const unsigned char* at = mSections.info + functionOffset;
    DwarfReader in(at, mEnd);
    const std::uint64_t code = in.uleb();
    at = in.at();
    Values values;
    bool read = !in.bad() && code != 0 && code < mAbbreviations.size() && mAbbreviations[code].known
        && readDie(at, mAbbreviations[code], &values);
    if (read && mAbbreviations[code].children)
        read = this->scopes(at, -1, 1, scopes, ranges);
    if (!read) {
        scopes->resize(scopesBefore);
        ranges->resize(rangesBefore);
    }
    return read;
}
