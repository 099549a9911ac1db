#include "linetable.h"

#include <algorithm>
#include <cstring>
#include <dwarf.h>

namespace {

// A bounded little-endian reader: any read past the end marks it bad and
// gives 0.
class Reader
{
public:
    Reader(const unsigned char* begin, const unsigned char* end) : mAt(begin), mEnd(end) {}

    bool bad() const { return mBad; }
    bool atEnd() const { return mAt >= mEnd; }
    const unsigned char* at() const { return mAt; }
    std::size_t left() const { return mBad ? 0 : std::size_t(mEnd - mAt); }

    std::uint64_t fixed(int size)
    {
        if (left() < std::size_t(size)) {
            mBad = true;
            return 0;
        }
        std::uint64_t value = 0;
        for (int i = 0; i < size; ++i)
            value |= std::uint64_t(mAt[i]) << (8 * i);
        mAt += size;
        return value;
    }
    std::uint64_t uleb()
    {
        std::uint64_t value = 0;
        for (int shift = 0;; shift += 7) {
            if (mAt >= mEnd) {
                mBad = true;
                return 0;
            }
            const unsigned char byte = *mAt++;
            if (shift < 64)
                value |= std::uint64_t(byte & 0x7f) << shift;
            if (!(byte & 0x80))
                return value;
        }
    }
    std::int64_t sleb()
    {
        std::uint64_t value = 0;
        int shift = 0;
        unsigned char byte = 0;
        do {
            if (mAt >= mEnd) {
                mBad = true;
                return 0;
            }
            byte = *mAt++;
            if (shift < 64)
                value |= std::uint64_t(byte & 0x7f) << shift;
            shift += 7;
        } while (byte & 0x80);
        if (shift < 64 && (byte & 0x40))
            value |= ~std::uint64_t(0) << shift;
        return std::int64_t(value);
    }
    // A NUL-terminated string in place.
    const char* string()
    {
        const void* nul = mBad ? nullptr : std::memchr(mAt, 0, std::size_t(mEnd - mAt));
        if (!nul) {
            mBad = true;
            return "";
        }
        const char* text = reinterpret_cast<const char*>(mAt);
        mAt = static_cast<const unsigned char*>(nul) + 1;
        return text;
    }
    void skip(std::uint64_t size)
    {
        if (left() < size)
            mBad = true;
        else
            mAt += size;
    }

private:
    const unsigned char* mAt;
    const unsigned char* mEnd;
    bool mBad = false;
};

const char* stringAt(const unsigned char* section, std::size_t size, std::uint64_t offset)
{
    if (!section || offset >= size || !std::memchr(section + offset, 0, size - offset))
        return nullptr;
    return reinterpret_cast<const char*>(section + offset);
}

// One field of a version 5 entry: its text for the string forms, its number
// for the others. False for a form a line table has no business with.
bool readField(Reader& in, std::uint64_t form, int offsetSize, const LineTable::Sections& sections, const char** text,
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
bool readEntries(Reader& in, int offsetSize, const LineTable::Sections& sections, Add add)
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

bool LineTable::decode(const Sections& sections, std::uint64_t offset)
{
    mRows.clear();
    mDirectories.clear();
    mFiles.clear();
    if (!sections.line || offset >= sections.lineSize)
        return false;
    Reader unit(sections.line + offset, sections.line + sections.lineSize);
    std::uint64_t length = unit.fixed(4);
    int offsetSize = 4;
    if (length == 0xffffffff) {
        length = unit.fixed(8);
        offsetSize = 8;
    }
    if (unit.bad() || length > unit.left())
        return false;
    Reader in(unit.at(), unit.at() + length);
    const unsigned version = unsigned(in.fixed(2));
    if (version < 2 || version > 5)
        return false;
    int addressSize = 8;
    if (version >= 5) {
        addressSize = int(in.fixed(1));
        in.fixed(1); // segment selector size
    }
    const std::uint64_t headerLength = in.fixed(offsetSize);
    if (in.bad() || headerLength > in.left())
        return false;
    const unsigned char* program = in.at() + headerLength;
    const unsigned minimumLength = unsigned(in.fixed(1));
    const unsigned maximumOperations = version >= 4 ? unsigned(in.fixed(1)) : 1;
    const bool defaultIsStmt = in.fixed(1) != 0;
    (void)defaultIsStmt;
    const int lineBase = int(std::int8_t(in.fixed(1)));
    const unsigned lineRange = unsigned(in.fixed(1));
    const unsigned opcodeBase = unsigned(in.fixed(1));
    // Several operations per instruction (VLIW) aren't for this reader.
    if (in.bad() || lineRange == 0 || opcodeBase == 0 || maximumOperations != 1)
        return false;
    std::vector<unsigned> operandCounts(opcodeBase, 0);
    for (unsigned i = 1; i < opcodeBase; ++i)
        operandCounts[i] = unsigned(in.fixed(1));

    if (version >= 5) {
        if (!readEntries(in, offsetSize, sections, [&](const char* path, std::uint64_t) { mDirectories.emplace_back(path); })
            || !readEntries(in, offsetSize, sections,
                            [&](const char* path, std::uint64_t directory) { mFiles.push_back({path, directory}); }))
            return false;
    } else {
        // Directory 0 is the unit's own, file 0 none: both counted from 1.
        mDirectories.emplace_back();
        for (const char* directory; *(directory = in.string());)
            mDirectories.emplace_back(directory);
        mFiles.push_back({std::string(), 0});
        for (const char* name; !in.bad() && *(name = in.string());) {
            const std::uint64_t directory = in.uleb();
            in.uleb(); // modification time
            in.uleb(); // size
            mFiles.push_back({name, directory});
        }
    }
    if (in.bad() || program > sections.line + sections.lineSize)
        return false;

    Reader code(program, unit.at() + length);
    // Most rows take one byte of the program (a special opcode), and a
    // unit's program gives some 0.4 rows a byte.
    mRows.reserve(code.left() / 2);
    // Where each sequence starts in the rows, to put them in address order.
    std::vector<std::size_t> sequences{0};
    std::uint64_t address = 0;
    std::int64_t line = 1;
    std::uint64_t file = 1;
    auto reset = [&] {
        address = 0;
        line = 1;
        file = 1;
    };
    auto emit = [&](bool end) {
        mRows.push_back({address, std::uint32_t(line), std::uint32_t(file & 0x7fffffff), end ? 1u : 0u});
    };
    while (!code.atEnd() && !code.bad()) {
        const unsigned opcode = unsigned(code.fixed(1));
        if (opcode >= opcodeBase) {
            const unsigned adjusted = opcode - opcodeBase;
            address += std::uint64_t(minimumLength) * (adjusted / lineRange);
            line += lineBase + int(adjusted % lineRange);
            emit(false);
            continue;
        }
        switch (opcode) {
        case 0: {
            const std::uint64_t size = code.uleb();
            if (size == 0 || size > code.left())
                return false;
            const unsigned char* next = code.at() + size;
            const unsigned sub = unsigned(code.fixed(1));
            if (sub == DW_LNE_end_sequence) {
                emit(true);
                sequences.push_back(mRows.size());
                reset();
            } else if (sub == DW_LNE_set_address) {
                if (size - 1 != std::uint64_t(addressSize) && size - 1 != 8 && size - 1 != 4)
                    return false;
                address = code.fixed(int(size - 1));
            }
            // Others (discriminators, files defined in the program) give
            // no row and change nothing kept here.
            code.skip(std::uint64_t(next - code.at()));
            break;
        }
        case DW_LNS_copy: emit(false); break;
        case DW_LNS_advance_pc: address += std::uint64_t(minimumLength) * code.uleb(); break;
        case DW_LNS_advance_line: line += code.sleb(); break;
        case DW_LNS_set_file: file = code.uleb(); break;
        case DW_LNS_const_add_pc: address += std::uint64_t(minimumLength) * ((255 - opcodeBase) / lineRange); break;
        case DW_LNS_fixed_advance_pc: address += code.fixed(2); break;
        case DW_LNS_negate_stmt:
        case DW_LNS_set_basic_block:
        case DW_LNS_set_prologue_end:
        case DW_LNS_set_epilogue_begin: break;
        default:
            // DW_LNS_set_column, set_isa and any opcode newer than this
            // reader: skipped by their operand counts.
            for (unsigned i = 0; i < operandCounts[opcode]; ++i)
                code.uleb();
            break;
        }
    }
    if (code.bad()) {
        mRows.clear();
        return false;
    }
    // A sequence left open at the end has no end: dropped.
    mRows.resize(sequences.back());
    sequences.pop_back();

    // Sequences in the order of their first addresses; within one the
    // addresses only grow.
    std::vector<std::size_t> order(sequences.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    auto start = [&](std::size_t s) { return mRows[sequences[s]].address; };
    if (!std::is_sorted(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return start(a) < start(b); })) {
        std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return start(a) < start(b); });
        std::vector<Row> sorted;
        sorted.reserve(mRows.size());
        for (std::size_t s : order) {
            const std::size_t end = s + 1 < sequences.size() ? sequences[s + 1] : mRows.size();
            sorted.insert(sorted.end(), mRows.begin() + std::ptrdiff_t(sequences[s]), mRows.begin() + std::ptrdiff_t(end));
        }
        mRows.swap(sorted);
    }
    // Overlapping sequences would defeat the search: by address then,
    // the end of one before the start of the next at the same address.
    auto before = [](const Row& a, const Row& b) {
        return a.address != b.address ? a.address < b.address : a.endSequence > b.endSequence;
    };
    if (!std::is_sorted(mRows.begin(), mRows.end(), [](const Row& a, const Row& b) { return a.address < b.address; }))
        std::stable_sort(mRows.begin(), mRows.end(), before);
    return true;
}

const LineTable::Row* LineTable::find(std::uint64_t address) const
{
    // The last row at or below the address.
    auto after = std::upper_bound(mRows.begin(), mRows.end(), address,
                                  [](std::uint64_t a, const Row& row) { return a < row.address; });
    if (after == mRows.begin())
        return nullptr;
    const Row& row = *(after - 1);
    return row.endSequence ? nullptr : &row;
}

std::string LineTable::fileName(std::uint32_t index) const
{
    if (index >= mFiles.size())
        return std::string();
    const File& file = mFiles[index];
    if (file.name.empty() || file.name[0] == '/' || file.directory >= mDirectories.size()
        || mDirectories[file.directory].empty())
        return file.name;
    return mDirectories[file.directory] + '/' + file.name;
}
