#include "symboltable.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <cstdlib>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <gelf.h>
#include <algorithm>
#include <vector>

namespace {

char* debuginfoPath = nullptr;

const Dwfl_Callbacks callbacks = {
    dwfl_build_id_find_elf,
    dwfl_standard_find_debuginfo,
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
    return attributeString(die, DW_AT_name);
}

QString absolutePath(const QString& file, Dwarf_Die* cu)
{
    if (file.startsWith(QLatin1Char('/')))
        return QDir::cleanPath(file);
    const QString directory = attributeString(cu, DW_AT_comp_dir);
    return QDir::cleanPath(directory.isEmpty() ? file : directory + QLatin1Char('/') + file);
}

// Where an inlined subroutine was called from, by its call attributes.
void callSite(Dwarf_Die* inlined, Dwarf_Die* cu, SymbolPosition* position)
{
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    if (dwarf_attr(inlined, DW_AT_call_line, &attribute) && dwarf_formudata(&attribute, &value) == 0)
        position->line = int(value);
    Dwarf_Files* files = nullptr;
    size_t count = 0;
    if (dwarf_attr(inlined, DW_AT_call_file, &attribute) && dwarf_formudata(&attribute, &value) == 0
        && dwarf_getsrcfiles(cu, &files, &count) == 0 && value < count) {
        const char* name = dwarf_filesrc(files, value, nullptr, nullptr);
        if (name)
            position->file = absolutePath(QString::fromUtf8(name), cu);
    }
}

int collectModule(Dwfl_Module* module, void**, const char*, Dwarf_Addr, void* arg)
{
    static_cast<std::vector<Dwfl_Module*>*>(arg)->push_back(module);
    return DWARF_CB_OK;
}

} // namespace

QString demangledName(const QString& name)
{
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

struct SymbolTable::UnitIndex
{
    struct Function
    {
        QString name;
        // The function-like scope around this one; -1 at the top.
        int parent = -1;
        bool inlined = false;
        // Where an inlined instance was called from.
        QString callFile;
        int callLine = 0;
    };
    struct Segment
    {
        Dwarf_Addr low, high;
        int function;
        bool operator<(Dwarf_Addr address) const { return high <= address; }
    };
    std::vector<Function> functions;
    // Disjoint, in address order, each with its innermost function.
    std::vector<Segment> segments;
};

namespace {

struct Range
{
    Dwarf_Addr low, high;
    int depth;
    int function;
};

// Scopes that may hold functions with code.
bool mayHoldFunctions(int tag)
{
    return tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine || tag == DW_TAG_lexical_block
        || tag == DW_TAG_namespace || tag == DW_TAG_try_block || tag == DW_TAG_catch_block
        || tag == DW_TAG_entry_point;
}

template <class Index>
void indexScope(Dwarf_Die* scope, Dwarf_Die* cu, int enclosing, int depth, Index* index, std::vector<Range>* ranges)
{
    Dwarf_Die child;
    if (dwarf_child(scope, &child) != 0)
        return;
    do {
        const int tag = dwarf_tag(&child);
        if (!mayHoldFunctions(tag))
            continue;
        int here = enclosing;
        if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine) {
            typename Index::Function function;
            function.name = functionName(&child);
            function.parent = enclosing;
            function.inlined = tag == DW_TAG_inlined_subroutine;
            if (function.inlined) {
                SymbolPosition site;
                callSite(&child, cu, &site);
                function.callFile = site.file;
                function.callLine = site.line;
            }
            here = int(index->functions.size());
            index->functions.push_back(function);
            Dwarf_Addr base = 0, low = 0, high = 0;
            ptrdiff_t offset = 0;
            while ((offset = dwarf_ranges(&child, offset, &base, &low, &high)) > 0) {
                if (low < high)
                    ranges->push_back({low, high, depth, here});
            }
        }
        indexScope(&child, cu, here, depth + 1, index, ranges);
    } while (dwarf_siblingof(&child, &child) == 0);
}

} // namespace

const SymbolTable::UnitIndex& SymbolTable::unitIndex(void* unit)
{
    Dwarf_Die* cu = static_cast<Dwarf_Die*>(unit);
    std::unique_ptr<UnitIndex>& slot = mUnits[cu->addr];
    if (slot)
        return *slot;
    slot.reset(new UnitIndex);
    std::vector<Range> ranges;
    indexScope(cu, cu, -1, 0, slot.get(), &ranges);
    // Nested ranges flattened: outer ones first where they start together,
    // each open range on a stack until it ends.
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) {
        return a.low != b.low ? a.low < b.low : a.depth < b.depth;
    });
    std::vector<Range> open;
    Dwarf_Addr at = 0;
    auto addSegment = [&](Dwarf_Addr low, Dwarf_Addr high, int function) {
        if (low < high)
            slot->segments.push_back({low, high, function});
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
    return *slot;
}

SymbolTable::SymbolTable()
    : mDwfl(dwfl_begin(&callbacks))
{
}

SymbolTable::~SymbolTable()
{
    dwfl_end(mDwfl);
}

QList<SharedLibrary> SymbolTable::mappedFiles(int pid)
{
    QFile maps(QStringLiteral("/proc/%1/maps").arg(pid));
    if (!maps.open(QIODevice::ReadOnly))
        return QList<SharedLibrary>();
    return parseMaps(maps.readAll());
}

QList<SharedLibrary> SymbolTable::parseMaps(const QByteArray& maps)
{
    QList<SharedLibrary> result;
    struct Range
    {
        unsigned long long start, end;
        bool code;
    };
    QStringList order;
    QHash<QString, Range> ranges;
    // "start-end perms offset dev inode path"; the path may hold spaces.
    for (const QByteArray& line : maps.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 6 || !fields[5].startsWith('/'))
            continue;
        const int dash = fields[0].indexOf('-');
        bool ok1 = false, ok2 = false;
        const unsigned long long start = fields[0].left(dash).toULongLong(&ok1, 16);
        const unsigned long long end = fields[0].mid(dash + 1).toULongLong(&ok2, 16);
        if (dash < 0 || !ok1 || !ok2)
            continue;
        const int pathStart = line.indexOf('/');
        const QString path = QFile::decodeName(line.mid(pathStart));
        const bool code = fields[1].contains('x');
        auto it = ranges.find(path);
        if (it == ranges.end()) {
            order << path;
            ranges.insert(path, {start, end, code});
        } else {
            it->start = std::min(it->start, start);
            it->end = std::max(it->end, end);
            it->code = it->code || code;
        }
    }
    // Only files with code can hold a sampled address.
    for (const QString& path : order) {
        const Range& range = ranges[path];
        if (range.code)
            result.append(SharedLibrary(path, range.start, range.end));
    }
    return result;
}

void SymbolTable::setLibraries(const QList<SharedLibrary>& libraries, QStringList* problems)
{
    mLibraries = libraries;
    mUnits.clear();
    mFileNames.clear();
    dwfl_report_begin(mDwfl);
    for (const SharedLibrary& library : libraries) {
        if (!library.isRangeKnown())
            continue;
        const QByteArray path = QFile::encodeName(library.path());
        const QByteArray name = QFile::encodeName(QFileInfo(library.path()).fileName());
        // Placed at the start of its lowest mapping, which holds the first
        // loadable segment.
        if (!dwfl_report_elf(mDwfl, name.constData(), path.constData(), -1, library.start(), false) && problems)
            *problems << QStringLiteral("%1: %2").arg(library.path(), QString::fromLocal8Bit(dwfl_errmsg(-1)));
    }
    dwfl_report_end(mDwfl, nullptr, nullptr);
}

SymbolPosition SymbolTable::position(unsigned long long address, QList<SymbolPosition>* inlinedCallers)
{
    SymbolPosition result;
    Dwfl_Module* module = dwfl_addrmodule(mDwfl, address);
    if (!module)
        return result;

    const char* fileName = nullptr;
    if (Dwfl_Line* line = dwfl_module_getsrc(module, address)) {
        int lineNumber = 0;
        const char* file = dwfl_lineinfo(line, nullptr, &lineNumber, nullptr, nullptr, nullptr);
        if (file) {
            fileName = file;
            result.line = lineNumber;
        }
    }

    Dwarf_Addr bias = 0;
    if (Dwarf_Die* cu = dwfl_module_addrdie(module, address, &bias)) {
        // The file names of a unit stay where they are: each is made
        // absolute once.
        if (fileName) {
            QString& path = mFileNames[fileName];
            if (path.isNull())
                path = absolutePath(QString::fromUtf8(fileName), cu);
            result.file = path;
        }
        const UnitIndex& index = unitIndex(cu);
        const Dwarf_Addr pc = address - bias;
        const auto segment = std::lower_bound(index.segments.begin(), index.segments.end(), pc);
        if (segment != index.segments.end() && segment->low <= pc) {
            int function = segment->function;
            result.function = index.functions[function].name;
            result.hasSymbol = !result.function.isEmpty();
            // Each inlined instance was called from the function around it.
            while (inlinedCallers && index.functions[function].inlined && index.functions[function].parent >= 0) {
                const UnitIndex::Function& inlined = index.functions[function];
                SymbolPosition caller;
                caller.function = index.functions[inlined.parent].name;
                caller.hasSymbol = !caller.function.isEmpty();
                caller.file = inlined.callFile;
                caller.line = inlined.callLine;
                inlinedCallers->append(caller);
                function = inlined.parent;
            }
        }
    }

    if (!result.hasSymbol) {
        GElf_Off offset = 0;
        GElf_Sym symbol;
        const char* name = dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
        if (name && *name) {
            result.function = demangledName(QString::fromLatin1(name));
            result.hasSymbol = true;
        }
    }
    return result;
}

bool SymbolTable::functionBounds(unsigned long long address, FunctionBounds* bounds)
{
    Dwfl_Module* module = dwfl_addrmodule(mDwfl, address);
    if (!module)
        return false;
    GElf_Off offset = 0;
    GElf_Sym symbol;
    const char* name = dwfl_module_addrinfo(module, address, &offset, &symbol, nullptr, nullptr, nullptr);
    if (!name || symbol.st_size == 0 || GELF_ST_TYPE(symbol.st_info) != STT_FUNC)
        return false;
    bounds->start = address - offset;
    bounds->end = bounds->start + symbol.st_size;
    bounds->name = demangledName(QString::fromLatin1(name));
    return true;
}

bool SymbolTable::functionAddress(const QString& name, unsigned long long* address)
{
    std::vector<Dwfl_Module*> modules;
    dwfl_getmodules(mDwfl, collectModule, &modules, 0);
    const QByteArray wanted = name.toLatin1();
    for (Dwfl_Module* module : modules) {
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
