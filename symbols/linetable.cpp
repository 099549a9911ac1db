#include "linetable.h"
#include "dwarfreader.h"

#include <algorithm>
#include <cstring>
#include <dwarf.h>

namespace {

const char* stringAt(const unsigned char* section, std::size_t size, std::uint64_t offset)
{
    if (!section || offset >= size || !std::memchr(section + offset, 0, size - offset))
        return nullptr;
    return reinterpret_cast<const char*>(section + offset);
}

// One field of a version 5 entry: its text for the string forms, its number
// for the others. False for a form a line table has no business with.
bool readField(DwarfReader& in, std::uint64_t form, int offsetSize, const LineTable::Sections& sections, const char** text,
               std::uint64_t* number)
{
    *text = nullptr;
    *number = 0;
    switch (form) {
    case DW_FORM_string: *text = in.string(); return true;
    case DW_FORM_line_strp:
        *text = stringAt(sections.lineStrings, sections.lineStringsSize, in.fixed(offsetSize));
        return *text != nullptr;
    case DW_FORM_strp:
        *text = stringAt(sections.strings, sections.stringsSize, in.fixed(offsetSize));
        return *text != nullptr;
    case DW_FORM_udata: *number = in.uleb(); return true;
    case DW_FORM_data1: *number = in.fixed(1); return true;
    case DW_FORM_data2: *number = in.fixed(2); return true;
    case DW_FORM_data4: *number = in.fixed(4); return true;
    case DW_FORM_data8: *number = in.fixed(8); return true;
    case DW_FORM_data16: in.skip(16); return true;
    case DW_FORM_block: in.skip(in.uleb()); return true;
    default: return false;
    }
}

// A version 5 table of directories or files: its entry format, then its
// entries, each given to `add` with its path and directory index.
template <class Add>
bool readEntries(DwarfReader& in, int offsetSize, const LineTable::Sections& sections, Add add)
{
    const unsigned formatCount = unsigned(in.fixed(1));
    std::vector<std::pair<std::uint64_t, std::uint64_t>> format;
    for (unsigned i = 0; i < formatCount && !in.bad(); ++i) {
        const std::uint64_t content = in.uleb();
        format.emplace_back(content, in.uleb());
    }
    const std::uint64_t count = in.uleb();
    for (std::uint64_t e = 0; e < count && !in.bad(); ++e) {
        const char* path = "";
        std::uint64_t directory = 0;
        for (const auto& field : format) {
            const char* text = nullptr;
            std::uint64_t number = 0;
            if (!readField(in, field.second, offsetSize, sections, &text, &number))
                return false;
            if (field.first == DW_LNCT_path) {
                if (!text)
                    return false;
                path = text;
            } else if (field.first == DW_LNCT_directory_index) {
                directory = number;
            }
        }
        add(path, directory);
    }
    return !in.bad();
}

} // namespace

namespace {

// Rows between two checkpoints: an answer runs the program over at most this
// many rows, and the checkpoints take a small fraction of the rows' memory.
constexpr unsigned checkpointEvery = 32;

} // namespace

namespace {

// LEB128 at `p`, moved past it; false where it runs past `end`. Most
// operands are a single byte.
inline bool readUleb(const unsigned char*& p, const unsigned char* end, std::uint64_t* value)
{
    if (p < end && *p < 0x80) {
        *value = *p++;
        return true;
    }
    DwarfReader in(p, end);
    *value = in.uleb();
    p = in.at();
    return !in.bad();
}

inline bool readSleb(const unsigned char*& p, const unsigned char* end, std::int64_t* value)
{
    if (p < end && *p < 0x80) {
        *value = std::int64_t(*p & 0x40 ? std::uint64_t(*p) | ~std::uint64_t(0x7f) : std::uint64_t(*p));
        ++p;
        return true;
    }
    DwarfReader in(p, end);
    *value = in.sleb();
    p = in.at();
    return !in.bad();
}

inline bool skipUleb(const unsigned char*& p, const unsigned char* end)
{
    while (p < end && (*p & 0x80))
        ++p;
    if (p >= end)
        return false;
    ++p;
    return true;
}

} // namespace

// One loop for both the first run and each answer, with `emit` inlined into
// it: a program's opcodes come in no predictable order, and a call or a
// check per opcode beyond its own work shows in the time of a fresh table.
template <class Emit>
bool LineTable::run(const unsigned char* at, State state, Emit emit) const
{
    const unsigned char* p = at;
    const unsigned char* const end = mProgramEnd;
    const Special* const specials = mSpecials.data();
    const unsigned opcodeBase = mOpcodeBase;
    while (p < end) {
        const unsigned opcode = *p++;
        if (opcode >= opcodeBase) {
            state.address += specials[opcode].address;
            state.line += std::uint32_t(specials[opcode].line);
            if (!emit(state, false, p))
                return true;
            continue;
        }
        // The commonest others each by a branch of its own, which the
        // processor predicts from the opcodes before far better than the
        // switch's one jump; a column, a one-byte line advance and a
        // one-byte discriminator are most of them.
        if (opcode == DW_LNS_set_column) {
            if (!skipUleb(p, end))
                return false;
            continue;
        }
        if (opcode == DW_LNS_negate_stmt)
            continue;
        if (opcode == DW_LNS_copy) {
            if (!emit(state, false, p))
                return true;
            continue;
        }
        if (opcode == DW_LNS_advance_line && p < end && *p < 0x80) {
            state.line += std::uint32_t(std::int32_t(*p) - (*p & 0x40 ? 0x80 : 0));
            ++p;
            continue;
        }
        if (opcode == 0 && end - p >= 3 && p[0] == 2 && p[1] == DW_LNE_set_discriminator && p[2] < 0x80) {
            p += 3;
            continue;
        }
        switch (opcode) {
        case 0: {
            std::uint64_t size = 0;
            if (!readUleb(p, end, &size) || size == 0 || size > std::uint64_t(end - p))
                return false;
            const unsigned char* next = p + size;
            const unsigned sub = *p++;
            if (sub == DW_LNE_end_sequence) {
                p = next;
                if (!emit(state, true, p))
                    return true;
                state = State{0, 1, 1};
            } else if (sub == DW_LNE_set_address) {
                const std::uint64_t width = size - 1;
                if (width != std::uint64_t(mAddressSize) && width != 8 && width != 4)
                    return false;
                std::uint64_t value = 0;
                for (std::uint64_t i = 0; i < width; ++i)
                    value |= std::uint64_t(p[i]) << (8 * i);
                state.address = value;
            }
            // Others (discriminators, files defined in the program) give
            // no row and change nothing kept here.
            p = next;
            break;
        }
        case DW_LNS_copy:
            if (!emit(state, false, p))
                return true;
            break;
        case DW_LNS_advance_pc: {
            std::uint64_t value = 0;
            if (!readUleb(p, end, &value))
                return false;
            state.address += std::uint64_t(mMinimumLength) * value;
            break;
        }
        case DW_LNS_advance_line: {
            std::int64_t value = 0;
            if (!readSleb(p, end, &value))
                return false;
            state.line += std::uint32_t(value);
            break;
        }
        case DW_LNS_set_file: {
            std::uint64_t value = 0;
            if (!readUleb(p, end, &value))
                return false;
            state.file = std::uint32_t(value);
            break;
        }
        case DW_LNS_set_column:
            if (!skipUleb(p, end))
                return false;
            break;
        case DW_LNS_negate_stmt:
        case DW_LNS_set_basic_block:
        case DW_LNS_set_prologue_end:
        case DW_LNS_set_epilogue_begin: break;
        case DW_LNS_const_add_pc: state.address += specials[255].address; break;
        case DW_LNS_fixed_advance_pc:
            if (end - p < 2)
                return false;
            state.address += std::uint64_t(p[0]) | std::uint64_t(p[1]) << 8;
            p += 2;
            break;
        default:
            // set_isa and any opcode newer than this reader: skipped by
            // their operand counts.
            for (unsigned i = 0; i < mOperandCounts[opcode]; ++i) {
                if (!skipUleb(p, end))
                    return false;
            }
            break;
        }
    }
    return true;
}

bool LineTable::decode(const Sections& sections, std::uint64_t offset)
{
    mCheckpoints.clear();
    mSequences.clear();
    mDirectories.clear();
    mFiles.clear();
    mProgram = mProgramEnd = nullptr;
    if (!sections.line || offset >= sections.lineSize)
        return false;
    DwarfReader unit(sections.line + offset, sections.line + sections.lineSize);
    std::uint64_t length = unit.fixed(4);
    int offsetSize = 4;
    if (length == 0xffffffff) {
        length = unit.fixed(8);
        offsetSize = 8;
    }
    if (unit.bad() || length > unit.left())
        return false;
    DwarfReader in(unit.at(), unit.at() + length);
    const unsigned version = unsigned(in.fixed(2));
    if (version < 2 || version > 5)
        return false;
    mAddressSize = 8;
    if (version >= 5) {
        mAddressSize = int(in.fixed(1));
        in.fixed(1); // segment selector size
    }
    const std::uint64_t headerLength = in.fixed(offsetSize);
    if (in.bad() || headerLength > in.left())
        return false;
    const unsigned char* program = in.at() + headerLength;
    mMinimumLength = unsigned(in.fixed(1));
    const unsigned maximumOperations = version >= 4 ? unsigned(in.fixed(1)) : 1;
    in.fixed(1); // default_is_stmt
    mLineBase = int(std::int8_t(in.fixed(1)));
    mLineRange = unsigned(in.fixed(1));
    mOpcodeBase = unsigned(in.fixed(1));
    // Several operations per instruction (VLIW) aren't for this reader.
    if (in.bad() || mLineRange == 0 || mOpcodeBase == 0 || maximumOperations != 1)
        return false;
    mSpecials.assign(256, Special{0, 0});
    for (unsigned opcode = mOpcodeBase; opcode < 256; ++opcode) {
        const unsigned adjusted = opcode - mOpcodeBase;
        mSpecials[opcode] = {mMinimumLength * (adjusted / mLineRange), mLineBase + int(adjusted % mLineRange)};
    }
    mOperandCounts.assign(mOpcodeBase, 0);
    for (unsigned i = 1; i < mOpcodeBase; ++i)
        mOperandCounts[i] = static_cast<unsigned char>(in.fixed(1));

    if (version >= 5) {
        if (!readEntries(in, offsetSize, sections, [&](const char* path, std::uint64_t) { mDirectories.push_back(path); })
            || !readEntries(in, offsetSize, sections,
                            [&](const char* path, std::uint64_t directory) { mFiles.push_back({path, directory}); }))
            return false;
        // Directory 0 is the unit's compilation directory, which the caller
        // puts before every relative path: kept here too, a relative one
        // (a build that mapped its prefix to ".", as Debian's are) came
        // twice, "nptl/nptl/lowlevellock.c".
        if (!mDirectories.empty())
            mDirectories.front() = "";
    } else {
        // Directory 0 is the unit's own, file 0 none: both counted from 1.
        mDirectories.push_back("");
        for (const char* directory; *(directory = in.string());)
            mDirectories.push_back(directory);
        mFiles.push_back({"", 0});
        for (const char* name; !in.bad() && *(name = in.string());) {
            const std::uint64_t directory = in.uleb();
            in.uleb(); // modification time
            in.uleb(); // size
            mFiles.push_back({name, directory});
        }
    }
    if (in.bad() || program > sections.line + sections.lineSize || program > unit.at() + length)
        return false;

    mProgram = program;
    mProgramEnd = unit.at() + length;
    // A row takes some three bytes of a program: room for the checkpoints
    // up front, rather than copies as they grow (pages never written to
    // cost nothing).
    mCheckpoints.reserve(std::size_t(mProgramEnd - mProgram) / (2 * checkpointEvery) + 1);
    bool open = false, backwards = false;
    std::uint64_t last = 0;
    // Rows left before the next checkpoint; the first row of a sequence
    // opens it with one. `last` is 0 between sequences.
    unsigned countdown = 1;
    const auto row = [&](const State& state, bool end, const unsigned char* after) __attribute__((always_inline)) {
        if (!end) {
            if (state.address < last) {
                backwards = true;
                return false;
            }
            last = state.address;
            if (--countdown == 0) {
                if (!open) {
                    mSequences.push_back(
                        {state.address, state.address, 0, std::uint32_t(mCheckpoints.size()), 0, false});
                    open = true;
                }
                mCheckpoints.push_back({state, std::uint32_t(after - mProgram)});
                ++mSequences.back().checkpointCount;
                countdown = checkpointEvery;
            }
            return true;
        }
        // A sequence without rows holds nothing.
        if (open) {
            mSequences.back().end = state.address;
            mSequences.back().rowAtEnd = last == state.address;
        }
        open = false;
        last = 0;
        countdown = 1;
        return true;
    };
    const bool read = run(mProgram, State{0, 1, 1}, row);
    // A sequence left open at the end has no end: dropped.
    if (open)
        mSequences.pop_back();
    if (!read || backwards || std::uint64_t(mProgramEnd - mProgram) > 0xffffffffu) {
        mCheckpoints.clear();
        mSequences.clear();
        return false;
    }
    std::stable_sort(mSequences.begin(), mSequences.end(),
                     [](const Sequence& a, const Sequence& b) { return a.start < b.start; });
    std::uint64_t reach = 0;
    for (Sequence& sequence : mSequences) {
        reach = std::max(reach, sequence.end);
        sequence.reach = reach;
    }
    return true;
}

bool LineTable::find(std::uint64_t address, Row* row) const
{
    // Of the sequences that hold the address (discarded functions' ones may
    // overlap real code), the one that starts last.
    auto after = std::upper_bound(mSequences.begin(), mSequences.end(), address,
                                  [](std::uint64_t a, const Sequence& s) { return a < s.start; });
    const Sequence* sequence = nullptr;
    while (after != mSequences.begin()) {
        --after;
        if (after->reach < address)
            break;
        if (address < after->end || (address == after->end && after->rowAtEnd)) {
            sequence = &*after;
            break;
        }
    }
    if (!sequence)
        return false;
    const auto first = mCheckpoints.begin() + std::ptrdiff_t(sequence->firstCheckpoint);
    const auto checkpoint = std::upper_bound(first, first + std::ptrdiff_t(sequence->checkpointCount), address,
                                             [](std::uint64_t a, const Checkpoint& c) { return a < c.state.address; })
        - 1;
    // The last row at or below the address; the sequence's end lies above it.
    State found = checkpoint->state;
    run(mProgram + checkpoint->offset, found, [&](const State& state, bool end, const unsigned char*) __attribute__((always_inline)) {
        if (end || state.address > address)
            return false;
        found = state;
        return true;
    });
    row->address = found.address;
    row->line = found.line;
    row->file = found.file;
    return true;
}

std::string LineTable::fileName(std::uint32_t index) const
{
    if (index >= mFiles.size())
        return std::string();
    const File& file = mFiles[index];
    if (!*file.name || file.name[0] == '/' || file.directory >= mDirectories.size() || !*mDirectories[file.directory])
        return file.name;
    return std::string(mDirectories[file.directory]) + '/' + file.name;
}
