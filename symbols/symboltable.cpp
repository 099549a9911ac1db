#include "symboltable.h"
#include "debugcache.h"
#include "linetable.h"
#include "dwarfreader.h"
#include "rustdemangle.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QTemporaryFile>
#include <cstdlib>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/auxv.h>
#include <unistd.h>
#include <gelf.h>
#include <algorithm>
#include <cstring>
#include <unordered_set>
#include <vector>

namespace {

char* debuginfoPath = nullptr;

const Dwfl_Callbacks callbacks = {
    dwfl_build_id_find_elf,
    DebugCache::findDebuginfo,
    dwfl_offline_section_address,
    &debuginfoPath,
};

QString attributeString(Dwarf_Die* die, int name)
{
    Dwarf_Attribute attribute;
    if (!dwarf_attr_integrate(die, name, &attribute))
        return QString();
    const char* text = dwarf_formstring(&attribute);
    return text ? QString::fromUtf8(text) : QString();
}

// The name of a function's DIE: its demangled linkage name where it has one,
// so that C++ functions carry their scope, else its plain name.
QString functionName(Dwarf_Die* die)
{
    QString linkage = attributeString(die, DW_AT_linkage_name);
    if (linkage.isEmpty())
        linkage = attributeString(die, DW_AT_MIPS_linkage_name);
    if (!linkage.isEmpty())
        return demangledName(linkage);
    // A compiler's own functions (a Fortran module procedure's OpenMP
    // region) carry their mangled names as plain ones.
    return demangledName(attributeString(die, DW_AT_name));
}

QString absolutePath(const QString& file, const QString& directory)
{
    if (file.startsWith(QLatin1Char('/')))
        return QDir::cleanPath(file);
    return QDir::cleanPath(directory.isEmpty() ? file : directory + QLatin1Char('/') + file);
}

// Where an inlined subroutine was called from: the line, and the index of
// the file in its unit's line table; false without a file.
bool callSite(Dwarf_Die* inlined, int* line, Dwarf_Word* file)
{
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    if (dwarf_attr(inlined, DW_AT_call_line, &attribute) && dwarf_formudata(&attribute, &value) == 0)
        *line = int(value);
    return dwarf_attr(inlined, DW_AT_call_file, &attribute) && dwarf_formudata(&attribute, file) == 0;
}

// The named section's bytes, or null.
const unsigned char* sectionData(Elf* elf, size_t names, const char* wanted, size_t* size)
{
    for (Elf_Scn* section = elf_nextscn(elf, nullptr); section; section = elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (!gelf_getshdr(section, &header) || (header.sh_flags & SHF_COMPRESSED))
            continue;
        const char* name = elf_strptr(elf, names, header.sh_name);
        if (!name || std::strcmp(name, wanted) != 0)
            continue;
        Elf_Data* data = elf_getdata(section, nullptr);
        if (!data || !data->d_buf)
            return nullptr;
        *size = data->d_size;
        return static_cast<const unsigned char*>(data->d_buf);
    }
    return nullptr;
}

// The address ranges of .debug_aranges by start; false for a section that
// can't be read.
template <class UnitRange>
bool readUnitRanges(const unsigned char* data, size_t size, std::vector<UnitRange>* ranges)
{
    DwarfReader in(data, data + size);
    while (!in.atEnd()) {
        const unsigned char* set = in.at();
        std::uint64_t length = in.fixed(4);
        int offsetSize = 4;
        if (length == 0xffffffff) {
            length = in.fixed(8);
            offsetSize = 8;
        }
        if (in.bad() || length > in.left())
            return false;
        const unsigned char* end = in.at() + length;
        DwarfReader entries(in.at(), end);
        const unsigned version = unsigned(entries.fixed(2));
        const std::uint64_t unit = entries.fixed(offsetSize);
        const int addressSize = int(entries.fixed(1));
        const int segmentSize = int(entries.fixed(1));
        if (entries.bad() || version != 2 || (addressSize != 4 && addressSize != 8) || segmentSize != 0)
            return false;
        // The tuples start at a multiple of their size from the set's start.
        const std::size_t tuple = 2 * std::size_t(addressSize);
        entries.skip((tuple - std::size_t(entries.at() - set) % tuple) % tuple);
        for (;;) {
            const std::uint64_t start = entries.fixed(addressSize);
            const std::uint64_t count = entries.fixed(addressSize);
            if (entries.bad())
                return false;
            if (start == 0 && count == 0)
                break;
            ranges->push_back({start, start + count, unit});
        }
        in = DwarfReader(end, data + size);
    }
    std::sort(ranges->begin(), ranges->end(), [](const UnitRange& a, const UnitRange& b) { return a.start < b.start; });
    return true;
}

// The ranges of the units that .debug_aranges leaves out, from their own
// DIEs: Go's compiler lists none of its units there, which lie between the
// C units of the same program, so that their code was read as the C unit's
// before it.
template <class UnitRange>
void addUnlistedUnits(Dwarf* dwarf, std::vector<UnitRange>* ranges)
{
    std::vector<unsigned long long> listed;
    listed.reserve(ranges->size());
    for (const UnitRange& range : *ranges)
        listed.push_back(range.unit);
    std::sort(listed.begin(), listed.end());
    const size_t before = ranges->size();
    Dwarf_Off offset = 0, next = 0;
    size_t header = 0;
    while (dwarf_nextcu(dwarf, offset, &next, &header, nullptr, nullptr, nullptr) == 0) {
        Dwarf_Die unit;
        if (!std::binary_search(listed.begin(), listed.end(), offset) && dwarf_offdie(dwarf, offset + header, &unit)) {
            Dwarf_Addr base = 0, low = 0, high = 0;
            ptrdiff_t at = 0;
            while ((at = dwarf_ranges(&unit, at, &base, &low, &high)) > 0) {
                if (low < high)
                    ranges->push_back({low, high, offset});
            }
        }
        offset = next;
    }
    if (ranges->size() != before)
        std::sort(ranges->begin(), ranges->end(), [](const UnitRange& a, const UnitRange& b) { return a.start < b.start; });
}

int collectModule(Dwfl_Module* module, void**, const char*, Dwarf_Addr, void* arg)
{
    static_cast<std::vector<Dwfl_Module*>*>(arg)->push_back(module);
    return DWARF_CB_OK;
}

} // namespace

QString demangledName(const QString& name)
{
    QString rust;
    if ((name.startsWith(QLatin1String("_R")) || name.startsWith(QLatin1String("_ZN"))) && demangleRust(name, &rust))
        return rust;
    // gfortran's procedures of a module: "__heat_MOD_stencil" is heat's stencil.
    const int module = name.startsWith(QLatin1String("__")) ? name.indexOf(QLatin1String("_MOD_"), 3) : -1;
    if (module > 2 && module + 5 < name.size())
        return name.mid(2, module - 2) + QStringLiteral("::") + name.mid(module + 5);
    if (!name.startsWith(QLatin1String("_Z")))
        return name;
    int status = 0;
    char* demangled = abi::__cxa_demangle(name.toLatin1().constData(), nullptr, nullptr, &status);
    if (status != 0 || !demangled)
        return name;
    const QString result = QString::fromLatin1(demangled);
    std::free(demangled);
    return result;
}

// A unit's functions with code, found by one pass over its top level that
// looks at nothing else; the scopes inside a function are indexed when an
// address first falls into it, and names and call sites are read when an
// answer first needs them. Most of a unit (its types, declarations and the
// functions no sample hit) is never looked at.
struct SymbolTable::UnitIndex
{
    struct Function
    {
        // Of its DIE, made when an answer first needs its name: most
        // functions are never looked at again.
        Dwarf_Off offset = 0;
        // The function-like scope around this one; -1 at the top.
        int parent = -1;
        bool inlined = false;
        bool resolved = false;
        // Where an inlined instance was called from, where the unit's own
        // reader found it: the line and the file's index in the line table.
        bool callRead = false;
        bool hasCallFile = false;
        std::uint32_t callFileIndex = 0;
        int callLine = 0;
        // Read on first use.
        QString name;
        QString callFile;
    };
    struct Segment
    {
        Dwarf_Addr low, high;
        int function;
        bool operator<(Dwarf_Addr address) const { return high <= address; }
    };
    struct TopLevel
    {
        Dwarf_Addr low, high;
        int function;
        bool indexed;
        bool operator<(Dwarf_Addr address) const { return high <= address; }
    };
    // Made when first needed: most units are read without libdw.
    Dwarf_Die cu;
    bool hasCu = false;
    Dwarf* dwarf = nullptr;
    std::uint64_t offset = 0;
    // The unit's own reader of its DIEs; libdw's where it can't.
    UnitReader reader;
    bool ownDies = false;
    // Where relative file names of the unit start from.
    QString compDir;
    // Decoded when the unit is first asked for; libdw's own reading where
    // this one can't.
    LineTable lines;
    bool ownLines = false;
    // Each file of the line table made absolute once.
    std::vector<QString> files;
    std::vector<Function> functions;
    // The ranges of the top-level functions, in address order.
    std::vector<TopLevel> top;
    // Whether functions defined inside others have been looked for.
    bool complete = false;
    // Disjoint, in address order, each with its innermost function, for the
    // functions indexed so far.
    std::vector<Segment> segments;
};

namespace {

struct Range
{
    Dwarf_Addr low, high;
    int depth;
    int function;
};

// Scopes inside a function that may hold inlined code. A function defined
// inside another (a lambda's body, a nested function) is code of its own,
// found as the unit's functions are.
bool mayHoldInlined(int tag)
{
    return tag == DW_TAG_inlined_subroutine || tag == DW_TAG_lexical_block || tag == DW_TAG_try_block
        || tag == DW_TAG_catch_block;
}

// Scopes at the top of a unit that may hold function definitions.
bool mayHoldDefinitions(int tag)
{
    return tag == DW_TAG_namespace || tag == DW_TAG_module;
}

// Appends the code ranges of `die`; false when it has none.
bool addRanges(Dwarf_Die* die, int depth, int function, std::vector<Range>* ranges)
{
    Dwarf_Addr base = 0, low = 0, high = 0;
    ptrdiff_t offset = 0;
    bool any = false;
    while ((offset = dwarf_ranges(die, offset, &base, &low, &high)) > 0) {
        if (low < high) {
            ranges->push_back({low, high, depth, function});
            any = true;
        }
    }
    return any;
}

// The top level of a unit (and of its namespaces): each function with code
// and its ranges. Nothing below a function is read.
template <class Index>
void indexTopLevel(Dwarf_Die* scope, Index* index, std::vector<Range>* ranges)
{
    Dwarf_Die child;
    if (dwarf_child(scope, &child) != 0)
        return;
    do {
        const int tag = dwarf_tag(&child);
        if (tag == DW_TAG_subprogram) {
            const int here = int(index->functions.size());
            if (addRanges(&child, 0, here, ranges)) {
                typename Index::Function function;
                function.offset = dwarf_dieoffset(&child);
                index->functions.push_back(function);
            }
        } else if (mayHoldDefinitions(tag)) {
            indexTopLevel(&child, index, ranges);
        }
    } while (dwarf_siblingof(&child, &child) == 0);
}

// The inlined instances below `scope`, as nested ranges.
template <class Index>
void indexInlined(Dwarf_Die* scope, int enclosing, int depth, Index* index, std::vector<Range>* ranges)
{
    Dwarf_Die child;
    if (dwarf_child(scope, &child) != 0)
        return;
    do {
        const int tag = dwarf_tag(&child);
        if (!mayHoldInlined(tag))
            continue;
        int here = enclosing;
        if (tag == DW_TAG_inlined_subroutine) {
            here = int(index->functions.size());
            // A scope without code holds none.
            if (!addRanges(&child, depth, here, ranges))
                continue;
            typename Index::Function function;
            function.offset = dwarf_dieoffset(&child);
            function.parent = enclosing;
            function.inlined = true;
            index->functions.push_back(function);
        }
        indexInlined(&child, here, depth + 1, index, ranges);
    } while (dwarf_siblingof(&child, &child) == 0);
}

// Functions with code anywhere in the unit that the top level doesn't hold,
// as a lambda's body or a method of a local class inside a function.
template <class Index>
void indexNested(Dwarf_Die* scope, const std::unordered_set<Dwarf_Off>& known, Index* index,
                 std::vector<Range>* ranges)
{
    Dwarf_Die child;
    if (dwarf_child(scope, &child) != 0)
        return;
    do {
        if (dwarf_tag(&child) == DW_TAG_subprogram && !known.count(dwarf_dieoffset(&child))) {
            const int here = int(index->functions.size());
            if (addRanges(&child, 0, here, ranges)) {
                typename Index::Function function;
                function.offset = dwarf_dieoffset(&child);
                index->functions.push_back(function);
            }
        }
        indexNested(&child, known, index, ranges);
    } while (dwarf_siblingof(&child, &child) == 0);
}

// The DIE of a function of the unit, made from its offset.
template <class Index>
Dwarf_Die functionDie(Index& index, int function)
{
    Dwarf_Die die;
    if (!dwarf_offdie(index.dwarf, index.functions[std::size_t(function)].offset, &die))
        die = Dwarf_Die();
    return die;
}

// Nested ranges flattened into disjoint segments, each with its innermost
// function: outer ones first where they start together, each open range on a
// stack until it ends.
template <class Segment>
void flatten(std::vector<Range>& ranges, std::vector<Segment>* segments)
{
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
        return a.low != b.low ? a.low < b.low : a.depth < b.depth;
    });
    std::vector<Range> open;
    Dwarf_Addr at = 0;
    auto addSegment = [&](Dwarf_Addr low, Dwarf_Addr high, int function) {
        if (low < high)
            segments->push_back({low, high, function});
    };
    auto closeUntil = [&](Dwarf_Addr limit) {
        while (!open.empty() && open.back().high <= limit) {
            addSegment(std::max(at, open.back().low), open.back().high, open.back().function);
            at = std::max(at, open.back().high);
            open.pop_back();
        }
    };
    for (const Range& range : ranges) {
        closeUntil(range.low);
        if (!open.empty())
            addSegment(std::max(at, open.back().low), range.low, open.back().function);
        at = std::max(at, range.low);
        open.push_back(range);
    }
    closeUntil(~Dwarf_Addr(0));
}

// The functions of `ranges` added to the unit's top level.
template <class Index>
void addTopLevel(Index& index, std::vector<Range>& ranges)
{
    for (const auto& top : index.top)
        ranges.push_back({top.low, top.high, top.indexed ? 1 : 0, top.function});
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.low < b.low; });
    index.top.clear();
    index.top.reserve(ranges.size());
    for (const Range& range : ranges) {
        // Overlapping ranges (nested functions of GNU C) are nested: the
        // later one lies inside the earlier, whose index holds it.
        if (!index.top.empty() && range.low < index.top.back().high)
            continue;
        index.top.push_back({range.low, range.high, range.function, range.depth != 0});
    }
}

} // namespace

SymbolTable::DwarfSections& SymbolTable::sections(Dwarf* dwarf)
{
    auto it = mSections.find(dwarf);
    if (it != mSections.end())
        return it->second;
    DwarfSections& sections = mSections[dwarf];
    Elf* elf = dwarf_getelf(dwarf);
    size_t names = 0;
    if (elf && elf_getshdrstrndx(elf, &names) == 0) {
        LineTable::Sections& line = sections.line;
        line.line = sectionData(elf, names, ".debug_line", &line.lineSize);
        line.lineStrings = sectionData(elf, names, ".debug_line_str", &line.lineStringsSize);
        line.strings = sectionData(elf, names, ".debug_str", &line.stringsSize);
        sections.unit.info = sectionData(elf, names, ".debug_info", &sections.unit.infoSize);
        sections.unit.abbrev = sectionData(elf, names, ".debug_abbrev", &sections.unit.abbrevSize);
        sections.unit.rnglists = sectionData(elf, names, ".debug_rnglists", &sections.unit.rnglistsSize);
        sections.unit.ranges = sectionData(elf, names, ".debug_ranges", &sections.unit.rangesSize);
        sections.unit.strings = line.strings;
        sections.unit.stringsSize = line.stringsSize;
        sections.unit.lineStrings = line.lineStrings;
        sections.unit.lineStringsSize = line.lineStringsSize;
    }
    return sections;
}

SymbolTable::UnitLookup SymbolTable::unitAt(DwarfSections& sections, Dwarf* dwarf, unsigned long long address,
                                            unsigned long long* unitOffset)
{
    readUnitRangesOnce(sections, dwarf);
    const std::vector<UnitRange>& ranges = sections.unitRanges;
    if (ranges.empty())
        return UnitLookup::Unknown;
    // As libdwfl reads them: the unit of the last range that starts at or
    // below the address, the gaps between ranges counted to the range
    // before; past the last range, none.
    const auto after = std::upper_bound(ranges.begin(), ranges.end(), address,
                                        [](unsigned long long a, const UnitRange& r) { return a < r.start; });
    if (after == ranges.begin())
        return UnitLookup::None;
    const UnitRange& range = *(after - 1);
    // Ranges of several units that start together come in no known order.
    for (auto before = after - 1; before != ranges.begin() && (before - 1)->start == range.start; --before) {
        if ((before - 1)->unit != range.unit)
            return UnitLookup::Unknown;
    }
    if (after == ranges.end() && address > range.end)
        return UnitLookup::None;
    *unitOffset = range.unit;
    return UnitLookup::Found;
}

void SymbolTable::readUnitRangesOnce(DwarfSections& sections, Dwarf* dwarf)
{
    if (sections.unitRangesRead)
        return;
    sections.unitRangesRead = true;
    std::vector<UnitRange>& ranges = sections.unitRanges;
    size_t names = 0, size = 0;
    Elf* elf = dwarf_getelf(dwarf);
    const unsigned char* data =
        elf && elf_getshdrstrndx(elf, &names) == 0 ? sectionData(elf, names, ".debug_aranges", &size) : nullptr;
    if (!data || !readUnitRanges(data, size, &ranges))
        ranges.clear();
    else
        addUnlistedUnits(dwarf, &ranges);
}

QString SymbolTable::unitFile(UnitIndex& index, unsigned long long file)
{
    if (index.ownLines) {
        if (file >= index.files.size())
            return QString();
        QString& path = index.files[file];
        if (path.isNull())
            path = absolutePath(QString::fromStdString(index.lines.fileName(std::uint32_t(file))), index.compDir);
        return path;
    }
    Dwarf_Files* files = nullptr;
    size_t count = 0;
    const char* name = nullptr;
    if (dwarf_getsrcfiles(static_cast<Dwarf_Die*>(unitDie(index)), &files, &count) != 0 || file >= count
        || !(name = dwarf_filesrc(files, file, nullptr, nullptr)))
        return QString();
    QString& path = mFileNames[name];
    if (path.isNull())
        path = absolutePath(QString::fromUtf8(name), index.compDir);
    return path;
}

void* SymbolTable::unitDie(UnitIndex& index)
{
    if (!index.hasCu) {
        index.hasCu = true;
        // The unit's DIE follows its header.
        Dwarf_Off next = 0;
        size_t header = 0;
        if (dwarf_nextcu(index.dwarf, index.offset, &next, &header, nullptr, nullptr, nullptr) != 0
            || !dwarf_offdie(index.dwarf, index.offset + header, &index.cu))
            index.cu = Dwarf_Die();
    }
    return &index.cu;
}

SymbolTable::UnitIndex* SymbolTable::unitIndex(Dwarf* dwarf, unsigned long long unitOffset, void* unit)
{
    const DwarfSections& own = sections(dwarf);
    Dwarf_Die* cu = static_cast<Dwarf_Die*>(unit);
    // By where the unit lies in memory, whoever reads it.
    const void* key = own.unit.info ? static_cast<const void*>(own.unit.info + unitOffset) : cu ? cu->addr : nullptr;
    if (!key)
        return nullptr;
    auto known = mUnits.find(key);
    if (known != mUnits.end())
        return known->second.get();
    std::unique_ptr<UnitIndex> slot(new UnitIndex);
    slot->dwarf = dwarf;
    slot->offset = unitOffset;
    if (cu) {
        slot->cu = *cu;
        slot->hasCu = true;
    }
    slot->ownDies = slot->reader.open(own.unit, unitOffset);
    // Without libdw's DIE, a unit this reader can't read is left to libdw.
    if (!slot->ownDies && !cu)
        return nullptr;
    const auto libdwUnit = [&] { return static_cast<Dwarf_Die*>(unitDie(*slot)); };
    // The unit's line program and directory by its own reader, libdw's
    // reading of its DIE where that can't.
    bool hasStatements = false;
    std::uint64_t statements = 0;
    if (!slot->ownDies || !slot->reader.statements(&hasStatements, &statements)) {
        Dwarf_Attribute attribute;
        Dwarf_Word offset = 0;
        hasStatements =
            dwarf_attr(libdwUnit(), DW_AT_stmt_list, &attribute) && dwarf_formudata(&attribute, &offset) == 0;
        statements = offset;
    }
    const char* directory = nullptr;
    if (slot->ownDies && slot->reader.compDir(&directory))
        slot->compDir = directory ? QString::fromUtf8(directory) : QString();
    else
        slot->compDir = attributeString(libdwUnit(), DW_AT_comp_dir);
    slot->ownLines = own.line.line && hasStatements && slot->lines.decode(own.line, statements);
    slot->files.resize(slot->ownLines ? slot->lines.fileCount() : 0);
    std::vector<Range> ranges;
    std::vector<UnitFunction> found;
    if (slot->ownDies && slot->reader.functions(&found)) {
        slot->functions.reserve(found.size());
        for (const UnitFunction& function : found) {
            UnitIndex::Function entry;
            entry.offset = function.offset;
            const int here = int(slot->functions.size());
            if (function.elsewhere) {
                Dwarf_Die die;
                if (!dwarf_offdie(dwarf, function.offset, &die) || !addRanges(&die, 0, here, &ranges))
                    continue;
            } else {
                ranges.push_back({function.low, function.high, 0, here});
            }
            slot->functions.push_back(entry);
        }
    } else {
        slot->ownDies = false;
        indexTopLevel(libdwUnit(), slot.get(), &ranges);
    }
    addTopLevel(*slot, ranges);
    return (mUnits[key] = std::move(slot)).get();
}

// The innermost function at `pc` of a unit, its scopes indexed first if
// this is the first address in it; -1 outside every function.
int SymbolTable::functionAt(UnitIndex& index, unsigned long long pc)
{
    auto top = std::lower_bound(index.top.begin(), index.top.end(), Dwarf_Addr(pc));
    if ((top == index.top.end() || top->low > pc) && !index.complete) {
        // Not at the top: a function defined inside another, found by a
        // walk of the whole unit, once.
        index.complete = true;
        std::unordered_set<Dwarf_Off> known;
        for (UnitIndex::Function& function : index.functions) {
            if (!function.inlined)
                known.insert(function.offset);
        }
        std::vector<Range> ranges;
        indexNested(static_cast<Dwarf_Die*>(unitDie(index)), known, &index, &ranges);
        if (ranges.empty())
            return -1;
        addTopLevel(index, ranges);
        top = std::lower_bound(index.top.begin(), index.top.end(), Dwarf_Addr(pc));
    }
    if (top == index.top.end() || top->low > pc)
        return -1;
    if (!top->indexed) {
        // Every range of the function, whose inlined instances may lie in
        // any of them.
        const int function = top->function;
        std::vector<Range> ranges;
        for (const UnitIndex::TopLevel& other : index.top) {
            if (other.function == function)
                ranges.push_back({other.low, other.high, 0, function});
        }
        std::vector<InlinedScope> scopes;
        std::vector<CodeRange> codeRanges;
        if (index.ownDies && index.reader.inlined(index.functions[function].offset, &scopes, &codeRanges)) {
            const int first = int(index.functions.size());
            for (const InlinedScope& scope : scopes) {
                UnitIndex::Function entry;
                entry.offset = scope.offset;
                entry.parent = scope.parent < 0 ? function : first + scope.parent;
                entry.inlined = true;
                entry.callRead = true;
                entry.hasCallFile = scope.hasCallFile;
                entry.callFileIndex = scope.callFile;
                entry.callLine = int(scope.callLine);
                const int here = int(index.functions.size());
                for (std::uint32_t r = 0; r < scope.rangeCount; ++r) {
                    const CodeRange& range = codeRanges[scope.firstRange + r];
                    ranges.push_back({range.low, range.high, scope.depth, here});
                }
                index.functions.push_back(entry);
            }
        } else {
            Dwarf_Die die = functionDie(index, function);
            indexInlined(&die, function, 1, &index, &ranges);
        }
        // Apart from the segments of other functions, but its ranges may lie
        // on both sides of theirs.
        const size_t before = index.segments.size();
        flatten(ranges, &index.segments);
        std::inplace_merge(index.segments.begin(), index.segments.begin() + std::ptrdiff_t(before), index.segments.end(),
                           [](const UnitIndex::Segment& a, const UnitIndex::Segment& b) { return a.low < b.low; });
        for (UnitIndex::TopLevel& other : index.top) {
            if (other.function == function)
                other.indexed = true;
        }
    }
    const auto segment = std::lower_bound(index.segments.begin(), index.segments.end(), Dwarf_Addr(pc));
    if (segment == index.segments.end() || segment->low > pc)
        return -1;
    resolve(index, segment->function);
    return segment->function;
}

void SymbolTable::resolve(UnitIndex& index, int function)
{
    for (int f = function; f >= 0 && !index.functions[f].resolved; f = index.functions[f].parent) {
        UnitIndex::Function& entry = index.functions[f];
        entry.resolved = true;
        const char* linkage = nullptr;
        const char* plain = nullptr;
        Dwarf_Die die = Dwarf_Die();
        if (index.ownDies && index.reader.name(entry.offset, &linkage, &plain)) {
            entry.name = demangledName(QString::fromUtf8(linkage ? linkage : plain));
        } else {
            die = functionDie(index, f);
            entry.name = functionName(&die);
        }
        if (entry.inlined && !entry.callRead) {
            if (!die.addr)
                die = functionDie(index, f);
            Dwarf_Word file = 0;
            entry.hasCallFile = callSite(&die, &entry.callLine, &file);
            entry.callFileIndex = std::uint32_t(file);
        }
        if (entry.inlined && entry.hasCallFile)
            entry.callFile = unitFile(index, entry.callFileIndex);
    }
}

namespace {

const char VDSO_COPY_PREFIX[] = "zor-vdso-";

// The copy of the kernel's vDSO: a search for its debug information costs
// 6 ms and finds none (it is the kernel package's); wanted only where
// samples land in it.
bool isVdsoCopy(const char* path)
{
    const char* name = path ? std::strrchr(path, '/') : nullptr;
    return name && std::strncmp(name + 1, VDSO_COPY_PREFIX, std::strlen(VDSO_COPY_PREFIX)) == 0;
}

}

SymbolTable::SymbolTable()
    : mDwfl(dwfl_begin(&callbacks))
{
}

SymbolTable::~SymbolTable()
{
    stopPreparing();
    dwfl_end(mDwfl);
}

void SymbolTable::prepareInBackground(bool idle)
{
    std::vector<Dwfl_Module*> modules;
    dwfl_getmodules(mDwfl, collectModule, &modules, 0);
    // Idle priority: a program that keeps every core busy ran 4% slower with
    // this work beside it.
    mPrepareIdle = idle;
    if (mPreparing.joinable() && modules == mPreparingModules) {
        if (idle) {
            sched_param lowest{};
            pthread_setschedparam(mPreparing.native_handle(), SCHED_IDLE, &lowest);
        }
        return;
    }
    stopPreparing();
    mPreparingModules = modules;
    mStopPreparing = false;
    // Only libdwfl's state and the files' sections change meanwhile; every
    // call here that reads them joins the thread first.
    mPreparing = std::thread([this, modules]() {
        bool idleNow = false;
        for (Dwfl_Module* module : modules) {
            if (mStopPreparing)
                return;
            if (mPrepareIdle && !idleNow) {
                sched_param lowest{};
                pthread_setschedparam(pthread_self(), SCHED_IDLE, &lowest);
                idleNow = true;
            }
            Dwarf_Addr bias = 0;
            const char* file = nullptr;
            dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr, nullptr, &file, nullptr);
            // The system's libraries are read too: every trace passes through
            // the C library (a thread's start, main's caller).
            if (isVdsoCopy(file))
                continue;
            // Every lookup first finds its unit, which in the C library
            // meant walking a thousand units at the run's end.
            if (Dwarf* dwarf = dwfl_module_getdwarf(module, &bias))
                readUnitRangesOnce(sections(dwarf), dwarf);
            dwfl_module_getsymtab(module);
        }
    });
}

void SymbolTable::stopPreparing()
{
    if (!mPreparing.joinable())
        return;
    mStopPreparing = true;
    // Waited for now: at idle priority on a busy machine the file at hand
    // could take the program's whole run to finish.
    if (mPrepareIdle) {
        sched_param normal{};
        pthread_setschedparam(mPreparing.native_handle(), SCHED_OTHER, &normal);
    }
    mPreparing.join();
}

QList<SharedLibrary> SymbolTable::mappedFiles(int pid)
{
    QFile maps(QStringLiteral("/proc/%1/maps").arg(pid));
    if (!maps.open(QIODevice::ReadOnly))
        return QList<SharedLibrary>();
    return parseMaps(maps.readAll());
}

namespace {

// The kernel's vDSO (clock_gettime, gettimeofday) is in every process but in
// no file. This process's is the very image the target has, one kernel
// serving both, so a copy of it on disk stands in for the target's; the
// copy goes when this process ends. Empty where there is none or the size
// differs (a target of another word size).
QString vdsoImage(unsigned long long targetSize)
{
    static QTemporaryFile* copy = nullptr;
    static unsigned long long size = 0;
    static bool tried = false;
    if (!tried) {
        tried = true;
        const unsigned long base = getauxval(AT_SYSINFO_EHDR);
        QFile maps(QStringLiteral("/proc/self/maps"));
        if (base && maps.open(QIODevice::ReadOnly)) {
            for (const QByteArray& line : maps.readAll().split('\n')) {
                if (!line.endsWith("[vdso]"))
                    continue;
                const int dash = line.indexOf('-');
                const unsigned long long start = line.left(dash).toULongLong(nullptr, 16);
                const unsigned long long end = line.mid(dash + 1, line.indexOf(' ') - dash - 1).toULongLong(nullptr, 16);
                if (start == base && end > start)
                    size = end - start;
            }
        }
        static QTemporaryFile file(QDir::temp().filePath(QLatin1String(VDSO_COPY_PREFIX) + QStringLiteral("XXXXXX.so")));
        if (size && file.open()
            && file.write(reinterpret_cast<const char*>(base), qint64(size)) == qint64(size) && file.flush())
            copy = &file;
    }
    return copy && size == targetSize ? copy->fileName() : QString();
}

} // namespace

QList<SharedLibrary> SymbolTable::parseMaps(const QByteArray& maps)
{
    QList<SharedLibrary> result;
    for (const QByteArray& line : maps.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() == 6 && fields[5] == "[vdso]") {
            const int dash = fields[0].indexOf('-');
            const unsigned long long start = fields[0].left(dash).toULongLong(nullptr, 16);
            const unsigned long long end = fields[0].mid(dash + 1).toULongLong(nullptr, 16);
            const QString image = end > start ? vdsoImage(end - start) : QString();
            if (!image.isEmpty())
                result << SharedLibrary(image, start, end);
        }
    }
    return result + filesOfMaps(maps);
}

QByteArray SymbolTable::buildId(const QString& path)
{
    QByteArray result;
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return result;
    elf_version(EV_CURRENT);
    if (Elf* elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr)) {
        const void* id = nullptr;
        const ssize_t size = dwelf_elf_gnu_build_id(elf, &id);
        if (size > 0)
            result = QByteArray(static_cast<const char*>(id), int(size)).toHex();
        elf_end(elf);
    }
    ::close(fd);
    return result;
}

bool SymbolTable::importsFunction(const QString& path, const char* name)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    elf_version(EV_CURRENT);
    bool found = false;
    if (Elf* elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr)) {
        for (Elf_Scn* section = elf_nextscn(elf, nullptr); section && !found; section = elf_nextscn(elf, section)) {
            GElf_Shdr header;
            if (!gelf_getshdr(section, &header) || header.sh_type != SHT_DYNSYM || header.sh_entsize == 0)
                continue;
            Elf_Data* data = elf_getdata(section, nullptr);
            const size_t count = header.sh_size / header.sh_entsize;
            for (size_t i = 1; data && i < count && !found; ++i) {
                GElf_Sym symbol;
                if (!gelf_getsym(data, int(i), &symbol) || symbol.st_shndx != SHN_UNDEF)
                    continue;
                const char* text = elf_strptr(elf, header.sh_link, symbol.st_name);
                found = text && std::strcmp(text, name) == 0;
            }
        }
        elf_end(elf);
    }
    ::close(fd);
    return found;
}

void SymbolTable::setLibraries(const QList<SharedLibrary>& libraries, QStringList* problems)
{
    stopPreparing();
    mLibraries = libraries;
    mUnits.clear();
    mFileNames.clear();
    mSections.clear();
    mCodeSymbols.clear();
    mPlts.clear();
    // A session of its own each time: modules reported again in another
    // order clash with their earlier selves ("address range overlaps an
    // existing module"), which lost a program its own symbols once MPI had
    // loaded its components.
    dwfl_end(mDwfl);
    mDwfl = dwfl_begin(&callbacks);
    dwfl_report_begin(mDwfl);
    for (const SharedLibrary& library : libraries) {
        if (!library.isRangeKnown() || library.isRemapping())
            continue;
        const QByteArray path = QFile::encodeName(library.path());
        const QByteArray name = QFile::encodeName(QFileInfo(library.path()).fileName());
        // Placed at the start of its lowest mapping, which holds the first
        // loadable segment.
        if (!dwfl_report_elf(mDwfl, name.constData(), path.constData(), -1, library.start(), false) && problems)
            *problems << QStringLiteral("%1: %2").arg(library.path(), QString::fromLocal8Bit(dwfl_errmsg(-1)));
    }
    dwfl_report_end(mDwfl, nullptr, nullptr);

    // A second mapping of a file's code reads as the file's own mapping of
    // the same offset.
    mRemappings.clear();
    for (const SharedLibrary& remapped : libraries) {
        if (!remapped.isRemapping())
            continue;
        for (const SharedLibrary& library : libraries) {
            if (library.isRemapping() || !library.isRangeKnown() || library.path() != remapped.path())
                continue;
            Dwfl_Module* module = dwfl_addrmodule(mDwfl, library.start());
            GElf_Addr bias = 0;
            Elf* elf = module ? dwfl_module_getelf(module, &bias) : nullptr;
            size_t headers = 0;
            if (!elf || elf_getphdrnum(elf, &headers) != 0)
                break;
            for (size_t i = 0; i < headers; ++i) {
                GElf_Phdr header;
                if (!gelf_getphdr(elf, int(i), &header) || header.p_type != PT_LOAD
                    || remapped.fileOffset() < header.p_offset
                    || remapped.fileOffset() >= header.p_offset + header.p_filesz)
                    continue;
                const unsigned long long own = bias + header.p_vaddr + (remapped.fileOffset() - header.p_offset);
                mRemappings.push_back({remapped.start(), remapped.end(), remapped.start() - own});
                break;
            }
            break;
        }
    }
}

unsigned long long SymbolTable::canonicalAddress(unsigned long long address) const
{
    for (const Remapping& remapping : mRemappings) {
        if (remapping.start <= address && address < remapping.end)
            return address - remapping.shift;
    }
    return address;
}

SymbolPosition SymbolTable::position(unsigned long long address, QList<SymbolPosition>* inlinedCallers)
{
    stopPreparing();
    SymbolPosition result;
    Dwfl_Module* module = dwfl_addrmodule(mDwfl, address);
    if (!module)
        return result;
    // No unit and no symbol covers a PLT entry: the symbol before it
    // (_init) would name every call into another library.
    if (pltName(module, address, &result.function)) {
        result.hasSymbol = true;
        return result;
    }

    Dwarf_Addr bias = 0;
    UnitIndex* found = nullptr;
    unsigned long long unitOffset = 0;
    // The unit by .debug_aranges here, by libdw where that can't tell (no
    // such section, overlapping ranges, a unit this reader can't read).
    UnitLookup lookup = UnitLookup::Unknown;
    if (Dwarf* dwarf = dwfl_module_getdwarf(module, &bias)) {
        lookup = unitAt(sections(dwarf), dwarf, address - bias, &unitOffset);
        if (lookup == UnitLookup::Found && !(found = unitIndex(dwarf, unitOffset, nullptr)))
            lookup = UnitLookup::Unknown;
    }
    if (lookup == UnitLookup::Unknown) {
        if (Dwarf_Die* cu = dwfl_module_addrdie(module, address, &bias))
            found = unitIndex(dwfl_module_getdwarf(module, &bias), dwarf_dieoffset(cu) - dwarf_cuoffset(cu), cu);
    }
    if (found) {
        UnitIndex& index = *found;
        if (index.ownLines) {
            LineTable::Row row;
            if (index.lines.find(address - bias, &row)) {
                result.line = int(row.line);
                result.file = unitFile(index, row.file);
            }
        } else if (Dwfl_Line* line = dwfl_module_getsrc(module, address)) {
            int lineNumber = 0;
            if (const char* file = dwfl_lineinfo(line, nullptr, &lineNumber, nullptr, nullptr, nullptr)) {
                // The file names of a unit stay where they are: each is
                // made absolute once.
                QString& path = mFileNames[file];
                if (path.isNull())
                    path = absolutePath(QString::fromUtf8(file), index.compDir);
                result.file = path;
                result.line = lineNumber;
            }
        }
        int function = functionAt(index, address - bias);
        if (function >= 0) {
            result.function = index.functions[function].name;
            result.hasSymbol = !result.function.isEmpty();
            // Each inlined instance was called from the function around it.
            // A caller that is itself inlined is named as the innermost
            // one is, so that it reads alike wherever it stands in a stack.
            while (inlinedCallers && index.functions[function].inlined && index.functions[function].parent >= 0) {
                const UnitIndex::Function& inlined = index.functions[function];
                const UnitIndex::Function& around = index.functions[inlined.parent];
                SymbolPosition caller;
                caller.function = around.name;
                caller.hasSymbol = !caller.function.isEmpty();
                if (caller.hasSymbol && around.inlined && around.parent >= 0)
                    caller.function += QLatin1String(" [inlined]");
                caller.file = inlined.callFile;
                caller.line = inlined.callLine;
                inlinedCallers->append(caller);
                function = inlined.parent;
            }
        }
    }

    if (!result.hasSymbol) {
        CodeSymbol symbol;
        if (symbolAt(module, address, &symbol)) {
            result.function = demangledName(QString::fromLatin1(symbol.name));
            result.hasSymbol = true;
        }
    }
    return result;
}

struct SymbolTable::Plt
{
    struct Section
    {
        // File addresses.
        unsigned long long start, end, entrySize;
        const unsigned char* bytes;
        const char* name;
    };
    std::vector<Section> sections;
    Dwarf_Addr bias = 0;
    bool x86_64 = false;
    bool gotRead = false;
    // The symbol whose address each GOT slot holds, by the slot's address.
    std::unordered_map<unsigned long long, const char*> got;
};

SymbolTable::Plt& SymbolTable::plt(Dwfl_Module* module)
{
    std::unique_ptr<Plt>& slot = mPlts[module];
    if (slot)
        return *slot;
    slot.reset(new Plt);
    Elf* elf = dwfl_module_getelf(module, &slot->bias);
    size_t names = 0;
    GElf_Ehdr header;
    if (!elf || elf_getshdrstrndx(elf, &names) != 0 || !gelf_getehdr(elf, &header))
        return *slot;
    slot->x86_64 = header.e_machine == EM_X86_64;
    for (Elf_Scn* section = elf_nextscn(elf, nullptr); section; section = elf_nextscn(elf, section)) {
        GElf_Shdr sh;
        if (!gelf_getshdr(section, &sh) || sh.sh_type != SHT_PROGBITS || !(sh.sh_flags & SHF_EXECINSTR))
            continue;
        const char* name = elf_strptr(elf, names, sh.sh_name);
        // .plt, .plt.sec (with indirect branch tracking), .plt.got.
        if (!name || std::strncmp(name, ".plt", 4) != 0 || (name[4] != 0 && name[4] != '.'))
            continue;
        Elf_Data* data = elf_getdata(section, nullptr);
        if (!data || !data->d_buf || data->d_size < sh.sh_size)
            continue;
        slot->sections.push_back({sh.sh_addr, sh.sh_addr + sh.sh_size, sh.sh_entsize ? sh.sh_entsize : 16,
                                  static_cast<const unsigned char*>(data->d_buf), name});
    }
    return *slot;
}

bool SymbolTable::pltName(Dwfl_Module* module, unsigned long long address, QString* name, FunctionBounds* entryBounds)
{
    Plt& table = plt(module);
    const unsigned long long at = address - table.bias;
    const Plt::Section* section = nullptr;
    for (const Plt::Section& candidate : table.sections) {
        if (at >= candidate.start && at < candidate.end)
            section = &candidate;
    }
    if (!section)
        return false;
    *name = QString::fromLatin1(section->name);
    if (entryBounds) {
        const unsigned long long entry = section->start + (at - section->start) / section->entrySize * section->entrySize;
        entryBounds->start = entry + table.bias;
        entryBounds->end = std::min(entry + section->entrySize, section->end) + table.bias;
    }
    if (!table.x86_64)
        return true;
    if (!table.gotRead) {
        // The dynamic relocations that fill GOT slots with a symbol's
        // address: jump slots of lazy binding, and GLOB_DAT for .plt.got.
        table.gotRead = true;
        GElf_Addr bias = 0;
        Elf* elf = dwfl_module_getelf(module, &bias);
        for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn; scn = elf_nextscn(elf, scn)) {
            GElf_Shdr sh;
            if (!gelf_getshdr(scn, &sh) || sh.sh_type != SHT_RELA || sh.sh_entsize == 0)
                continue;
            Elf_Scn* symbols = elf_getscn(elf, sh.sh_link);
            GElf_Shdr symbolsHeader;
            Elf_Data* relocations = elf_getdata(scn, nullptr);
            Elf_Data* symbolData = symbols ? elf_getdata(symbols, nullptr) : nullptr;
            if (!relocations || !symbolData || !gelf_getshdr(symbols, &symbolsHeader))
                continue;
            const size_t count = sh.sh_size / sh.sh_entsize;
            for (size_t i = 0; i < count; ++i) {
                GElf_Rela rela;
                GElf_Sym symbol;
                if (!gelf_getrela(relocations, int(i), &rela))
                    break;
                const auto type = GELF_R_TYPE(rela.r_info);
                const auto index = GELF_R_SYM(rela.r_info);
                if ((type != R_X86_64_JUMP_SLOT && type != R_X86_64_GLOB_DAT) || index == 0
                    || !gelf_getsym(symbolData, int(index), &symbol))
                    continue;
                const char* symbolName = elf_strptr(elf, symbolsHeader.sh_link, symbol.st_name);
                if (symbolName && *symbolName)
                    table.got.emplace(rela.r_offset, symbolName);
            }
        }
    }
    // The entry's indirect jump through its GOT slot: jmp *disp32(%rip),
    // after an endbr64 and a bnd prefix in .plt.sec.
    const unsigned long long entry = section->start + (at - section->start) / section->entrySize * section->entrySize;
    const unsigned long long size = std::min(section->entrySize, section->end - entry);
    const unsigned char* bytes = section->bytes + (entry - section->start);
    for (unsigned long long i = 0; i + 6 <= size; ++i) {
        if (bytes[i] != 0xff || bytes[i + 1] != 0x25)
            continue;
        const std::int32_t displacement = std::int32_t(std::uint32_t(bytes[i + 2]) | std::uint32_t(bytes[i + 3]) << 8
                                                       | std::uint32_t(bytes[i + 4]) << 16
                                                       | std::uint32_t(bytes[i + 5]) << 24);
        const auto found = table.got.find(entry + i + 6 + displacement);
        if (found != table.got.end())
            *name = demangledName(QString::fromLatin1(found->second)) + QLatin1String("@plt");
        break;
    }
    return true;
}

// Each code symbol of a module, by libdwfl, whose own lookup walks every
// symbol of the module for each address (a third of a millisecond in a
// library of some thousand functions).
template <class Add>
void SymbolTable::forEachCodeSymbol(Dwfl_Module* module, Add add)
{
    const int count = dwfl_module_getsymtab(module);
    // Whether each section of the file holds code, looked up once.
    Elf* sectionsOf = nullptr;
    std::vector<signed char> code;
    for (int i = 1; i < count; ++i) {
        GElf_Sym symbol;
        GElf_Addr value = 0;
        GElf_Word section = 0;
        Elf* elf = nullptr;
        const char* name = dwfl_module_getsym_info(module, i, &symbol, &value, &section, &elf, nullptr);
        const int type = GELF_ST_TYPE(symbol.st_info);
        if (!name || !*name || !elf || section == SHN_UNDEF || section >= SHN_LORESERVE || value == 0
            || (type != STT_FUNC && type != STT_GNU_IFUNC && type != STT_NOTYPE))
            continue;
        if (elf != sectionsOf) {
            sectionsOf = elf;
            code.clear();
        }
        if (section >= code.size())
            code.resize(section + 1, -1);
        if (code[section] < 0) {
            GElf_Shdr header;
            Elf_Scn* scn = elf_getscn(elf, section);
            code[section] = scn && gelf_getshdr(scn, &header) && (header.sh_flags & SHF_EXECINSTR) ? 1 : 0;
        }
        if (!code[section])
            continue;
        const int binding = GELF_ST_BIND(symbol.st_info);
        // Of several names for one address, a global one with a size.
        const int rank = (binding == STB_GLOBAL ? 4 : binding == STB_WEAK ? 2 : 0) + (symbol.st_size > 0)
            + (type == STT_FUNC ? 8 : 0);
        add(CodeSymbol{value, symbol.st_size, name, rank, i, type == STT_FUNC});
    }
}

void SymbolTable::buildCodeSymbols(Dwfl_Module* module, CodeSymbols* symbols)
{
    symbols->built = true;
    std::vector<CodeSymbol>& sorted = symbols->sorted;
    sorted.reserve(size_t(std::max(dwfl_module_getsymtab(module), 0)));
    forEachCodeSymbol(module, [&](const CodeSymbol& symbol) { sorted.push_back(symbol); });
    std::sort(sorted.begin(), sorted.end(), [](const CodeSymbol& a, const CodeSymbol& b) {
        return a.start != b.start ? a.start < b.start : a.before(b);
    });
    sorted.erase(std::unique(sorted.begin(), sorted.end(),
                             [](const CodeSymbol& a, const CodeSymbol& b) { return a.start == b.start; }),
                 sorted.end());
}

bool SymbolTable::symbolAt(Dwfl_Module* module, unsigned long long address, CodeSymbol* found)
{
    // The symbol of an address is found among the last few symbols that
    // start at or below it: one without a size reaches to the next; a small
    // one that starts inside a larger one (a local label) may not hold the
    // address where the larger does.
    constexpr int searched = 16;
    CodeSymbols& symbols = mCodeSymbols[module];
    if (!symbols.built && ++symbols.asked > 1)
        buildCodeSymbols(module, &symbols);
    const CodeSymbol* first = nullptr;
    const CodeSymbol* last = nullptr;
    CodeSymbol nearest[searched];
    if (symbols.built) {
        const auto after = std::upper_bound(symbols.sorted.begin(), symbols.sorted.end(), address,
                                            [](unsigned long long a, const CodeSymbol& s) { return a < s.start; });
        if (after == symbols.sorted.begin())
            return false;
        last = &*(after - 1);
        first = &*(after - std::min<std::ptrdiff_t>(searched, after - symbols.sorted.begin()));
    } else {
        // The same from one walk: the best symbol of each of the last few
        // starts at or below the address, in address order.
        int count = 0;
        forEachCodeSymbol(module, [&](const CodeSymbol& symbol) {
            if (symbol.start > address || (count == searched && symbol.start < nearest[0].start))
                return;
            int at = count;
            while (at > 0 && nearest[at - 1].start > symbol.start)
                --at;
            if (at > 0 && nearest[at - 1].start == symbol.start) {
                if (symbol.before(nearest[at - 1]))
                    nearest[at - 1] = symbol;
                return;
            }
            if (count == searched) {
                // The lowest start drops out.
                std::move(nearest + 1, nearest + at, nearest);
                --at;
            } else {
                std::move_backward(nearest + at, nearest + count, nearest + count + 1);
                ++count;
            }
            nearest[at] = symbol;
        });
        if (count == 0)
            return false;
        first = nearest;
        last = nearest + count - 1;
    }
    if (last->size == 0) {
        *found = *last;
        return true;
    }
    for (const CodeSymbol* it = last; it >= first; --it) {
        if (address < it->start + it->size) {
            *found = *it;
            return true;
        }
    }
    return false;
}

bool SymbolTable::functionBounds(unsigned long long address, FunctionBounds* bounds)
{
    stopPreparing();
    Dwfl_Module* module = dwfl_addrmodule(mDwfl, address);
    if (!module)
        return false;
    // Each PLT entry is a function of its own, without a symbol: the bytes
    // before a program counter at its start belong to the entry before.
    QString name;
    if (pltName(module, address, &name, bounds)) {
        bounds->name = name;
        return true;
    }
    CodeSymbol symbol;
    if (!symbolAt(module, address, &symbol) || symbol.size == 0 || !symbol.function)
        return false;
    bounds->start = symbol.start;
    bounds->end = symbol.start + symbol.size;
    bounds->name = demangledName(QString::fromLatin1(symbol.name));
    return true;
}

std::vector<unsigned long long> SymbolTable::functionStarts(unsigned long long from, unsigned long long to)
{
    stopPreparing();
    std::vector<unsigned long long> starts;
    Dwfl_Module* module = dwfl_addrmodule(mDwfl, from);
    if (!module || to <= from)
        return starts;
    const Plt& table = plt(module);
    for (const Plt::Section& section : table.sections) {
        const unsigned long long start = section.start + table.bias, end = section.end + table.bias;
        if (end <= from || start >= to)
            continue;
        unsigned long long entry = from <= start ? start : start + (from - start + section.entrySize - 1) / section.entrySize * section.entrySize;
        for (; entry < std::min(end, to); entry += section.entrySize)
            starts.push_back(entry);
    }
    CodeSymbols& symbols = mCodeSymbols[module];
    if (!symbols.built)
        buildCodeSymbols(module, &symbols);
    auto it = std::lower_bound(symbols.sorted.begin(), symbols.sorted.end(), from,
                               [](const CodeSymbol& s, unsigned long long a) { return s.start < a; });
    for (; it != symbols.sorted.end() && it->start < to; ++it) {
        if (it->function && it->size > 0)
            starts.push_back(it->start);
    }
    std::sort(starts.begin(), starts.end());
    return starts;
}

bool SymbolTable::functionAddress(const QString& name, unsigned long long* address, const QString& onlyInFile)
{
    stopPreparing();
    std::vector<Dwfl_Module*> modules;
    dwfl_getmodules(mDwfl, collectModule, &modules, 0);
    const QByteArray wanted = name.toLatin1();
    const QString only = onlyInFile.isEmpty() ? QString() : QFileInfo(onlyInFile).canonicalFilePath();
    for (Dwfl_Module* module : modules) {
        if (!onlyInFile.isEmpty()) {
            const char* file = nullptr;
            dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr, nullptr, &file, nullptr);
            if (!file || QFileInfo(QFile::decodeName(file)).canonicalFilePath() != only)
                continue;
        }
        const int count = dwfl_module_getsymtab(module);
        for (int i = 1; i < count; ++i) {
            GElf_Sym symbol;
            GElf_Addr value = 0;
            const char* symbolName = dwfl_module_getsym_info(module, i, &symbol, &value, nullptr, nullptr, nullptr);
            if (symbolName && GELF_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_shndx != SHN_UNDEF
                && wanted == symbolName) {
                *address = value;
                return true;
            }
        }
    }
    return false;
}

QByteArray SymbolTable::code(unsigned long long address, unsigned long long length)
{
    stopPreparing();
    Dwfl_Module* module = dwfl_addrmodule(mDwfl, address);
    if (!module)
        return QByteArray();
    GElf_Addr bias = 0;
    Elf* elf = dwfl_module_getelf(module, &bias);
    if (!elf)
        return QByteArray();
    const unsigned long long relative = address - bias;
    for (Elf_Scn* section = elf_nextscn(elf, nullptr); section; section = elf_nextscn(elf, section)) {
        GElf_Shdr header;
        if (!gelf_getshdr(section, &header) || header.sh_type != SHT_PROGBITS || !(header.sh_flags & SHF_EXECINSTR))
            continue;
        if (relative < header.sh_addr || relative >= header.sh_addr + header.sh_size)
            continue;
        Elf_Data* data = elf_getdata(section, nullptr);
        if (!data || !data->d_buf)
            return QByteArray();
        const unsigned long long offset = relative - header.sh_addr;
        if (offset >= data->d_size)
            return QByteArray();
        const unsigned long long available = std::min<unsigned long long>(header.sh_size, data->d_size) - offset;
        return QByteArray(static_cast<const char*>(data->d_buf) + offset, int(std::min(length, available)));
    }
    return QByteArray();
}
