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

bool isFunction(Dwarf_Die* die)
{
    const int tag = dwarf_tag(die);
    return tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine;
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

// The functions that an inlined instance sits in, each at the line of its
// call, innermost first. The chain is that of the instance's own place in
// the tree of DIEs: the scopes around an address end, for inlined code, in
// those of the abstract definition instead.
void collectInlinedCallers(Dwarf_Die* inlined, Dwarf_Die* cu, QList<SymbolPosition>* callers)
{
    Dwarf_Die* chain = nullptr;
    const int count = dwarf_getscopes_die(inlined, &chain);
    Dwarf_Die* call = nullptr;
    for (int i = 0; i < count; ++i) {
        if (!isFunction(&chain[i]))
            continue;
        if (call) {
            SymbolPosition caller;
            caller.function = functionName(&chain[i]);
            caller.hasSymbol = !caller.function.isEmpty();
            callSite(call, cu, &caller);
            callers->append(caller);
        }
        call = dwarf_tag(&chain[i]) == DW_TAG_inlined_subroutine ? &chain[i] : nullptr;
        if (!call)
            break;
    }
    free(chain);
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

    if (Dwfl_Line* line = dwfl_module_getsrc(module, address)) {
        int lineNumber = 0;
        const char* file = dwfl_lineinfo(line, nullptr, &lineNumber, nullptr, nullptr, nullptr);
        if (file) {
            result.file = QString::fromUtf8(file);
            result.line = lineNumber;
        }
    }

    Dwarf_Addr bias = 0;
    if (Dwarf_Die* cu = dwfl_module_addrdie(module, address, &bias)) {
        if (!result.file.isEmpty())
            result.file = absolutePath(result.file, cu);
        Dwarf_Die* scopes = nullptr;
        const int count = dwarf_getscopes(cu, address - bias, &scopes);
        int innermost = 0;
        while (innermost < count && !isFunction(&scopes[innermost]))
            ++innermost;
        if (innermost < count) {
            result.function = functionName(&scopes[innermost]);
            result.hasSymbol = !result.function.isEmpty();
            if (inlinedCallers && dwarf_tag(&scopes[innermost]) == DW_TAG_inlined_subroutine)
                collectInlinedCallers(&scopes[innermost], cu, inlinedCallers);
        }
        free(scopes);
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
