// Addresses of a process to functions, source lines and inlined callers,
// read from its ELF files and their DWARF, and the code bytes of those files.
// Works from a list of mapped files, so it answers for a live process and,
// given the list kept from it, for one that is gone.
#ifndef ZOR_SYMBOLTABLE_H
#define ZOR_SYMBOLTABLE_H

#include <QByteArray>
#include <QList>
#include <QString>

#include "debuggertypes.h"
#include "linetable.h"
#include "unitwalk.h"

#include <atomic>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>
#include <vector>

struct Dwfl;
struct Dwfl_Module;
struct Dwarf;

struct SymbolPosition
{
    QString function;
    QString file;
    int line = 0;
    // The address lies in a named function.
    bool hasSymbol = false;
};

// A function's extent: [start, end).
struct FunctionBounds
{
    unsigned long long start = 0;
    unsigned long long end = 0;
    QString name;
};

class SymbolTable
{
public:
    SymbolTable();
    ~SymbolTable();
    SymbolTable(const SymbolTable&) = delete;
    SymbolTable& operator=(const SymbolTable&) = delete;

    // The files mapped into process `pid`, each with the range of all its
    // mappings, from /proc. Empty when the process can't be read.
    static QList<SharedLibrary> mappedFiles(int pid);
    // The same from the text of a maps file.
    static QList<SharedLibrary> parseMaps(const QByteArray& maps);

    // The GNU build id of the ELF file at `path`, in hex; empty without one.
    static QByteArray buildId(const QString& path);
    // Whether the ELF file at `path` takes the function `name` from a
    // library (an undefined symbol of its dynamic table).
    static bool importsFunction(const QString& path, const char* name);

    // Replaces the modules by the files of `libraries`; a file that can't
    // be read is left out and named in `problems`.
    void setLibraries(const QList<SharedLibrary>& libraries, QStringList* problems = nullptr);
    QList<SharedLibrary> libraries() const { return mLibraries; }
    // Where the code at `address` lies in its file's own mapping, for an
    // address in a second mapping of a file's code; `address` elsewhere.
    unsigned long long canonicalAddress(unsigned long long address) const;

    // The position of exactly `address`. With inlined code, the position
    // is that of the inlined function, and `inlinedCallers` gets the
    // functions it was inlined into, innermost first, each at the line of
    // the call.
    SymbolPosition position(unsigned long long address, QList<SymbolPosition>* inlinedCallers = nullptr);
    // The function around `address` by the ELF symbol table; false outside any.
    bool functionBounds(unsigned long long address, FunctionBounds* bounds);
    // Where functions start in [from, to), ascending, by the ELF symbol
    // table and the PLT entries of the module at `from`.
    std::vector<unsigned long long> functionStarts(unsigned long long from, unsigned long long to);
    // Where the function `name` starts; false when no module defines it.
    // With `onlyInFile`, only that file's own symbols are read: the others'
    // tables are far larger than a program's.
    bool functionAddress(const QString& name, unsigned long long* address, const QString& onlyInFile = QString());
    // Up to `length` bytes of code from the files at `address`, fewer where
    // the code section ends; empty outside any.
    QByteArray code(unsigned long long address, unsigned long long length);

    // Finds and opens the debug information and symbol table of every file
    // (decompressing sections where they are compressed), the part of a
    // lookup that costs per file, on a thread of its own, as long as
    // nothing else is asked: any other call stops it first, waiting at most
    // for the file at hand. `idle`: at the lowest priority, on a core the
    // program leaves idle. Asked again over the same files, a preparation
    // under way goes on, at the new priority.
    void prepareInBackground(bool idle);

private:
    struct UnitIndex;
    // The unit at `unitOffset` of .debug_info; `cu`, its Dwarf_Die where
    // libdw found it, else null. Null where the unit can't be read here and
    // libdw didn't find it.
    UnitIndex* unitIndex(Dwarf* dwarf, unsigned long long unitOffset, void* cu);
    // The unit's DIE by libdw, made on first use.
    void* unitDie(UnitIndex& index);
    // The sections of `dwarf` read here rather than through libdw; null
    // where one is missing or compressed.
    struct UnitRange
    {
        unsigned long long start, end, unit;
    };
    struct DwarfSections
    {
        LineTable::Sections line;
        UnitSections unit;
        // The units' address ranges from .debug_aranges, by start; read
        // on first use, empty where it's missing or can't be read.
        std::vector<UnitRange> unitRanges;
        bool unitRangesRead = false;
    };
    DwarfSections& sections(Dwarf* dwarf);
    // The offset of the unit whose code holds `address` (a file address)
    // by .debug_aranges, or none; unknown without the section or where
    // ranges of several units start together.
    enum class UnitLookup { Found, None, Unknown };
    UnitLookup unitAt(DwarfSections& sections, Dwarf* dwarf, unsigned long long address,
                      unsigned long long* unitOffset);
    // Reads the ranges of the file's units once: by .debug_aranges, and by
    // the units' own entries for those that it leaves out, which walks
    // every unit of the file.
    void readUnitRangesOnce(DwarfSections& sections, Dwarf* dwarf);
    struct CodeSymbol
    {
        unsigned long long start;
        unsigned long long size;
        const char* name;
        int rank;
        // Its index in the module's table: of equal rank, the first wins.
        int order;
        bool function;
        // Of several names for one address, the one kept.
        bool before(const CodeSymbol& other) const
        {
            return rank != other.rank ? rank > other.rank : order < other.order;
        }
    };
    // The code symbols of a module, sorted by address once it has been
    // asked more than once: a single address (a program's entry) costs one
    // walk of the symbols rather than a sort of all of them.
    struct CodeSymbols
    {
        std::vector<CodeSymbol> sorted;
        bool built = false;
        int asked = 0;
    };
    template <class Add>
    static void forEachCodeSymbol(Dwfl_Module* module, Add add);
    static void buildCodeSymbols(Dwfl_Module* module, CodeSymbols* symbols);
    bool symbolAt(Dwfl_Module* module, unsigned long long address, CodeSymbol* symbol);
    // The PLT sections of a module and the GOT slots their entries jump
    // through, read on first use.
    struct Plt;
    Plt& plt(Dwfl_Module* module);
    // "name@plt" for an address in a PLT entry, the section's name where
    // the entry's target isn't known, and the entry's bounds; false outside
    // the PLT.
    bool pltName(Dwfl_Module* module, unsigned long long address, QString* name, FunctionBounds* entry = nullptr);
    // File `file` of the unit's line table, as an absolute path.
    QString unitFile(UnitIndex& index, unsigned long long file);
    int functionAt(UnitIndex& index, unsigned long long pc);
    // Reads the names and call sites of `function` and those around it.
    void resolve(UnitIndex& index, int function);

    void stopPreparing();

    Dwfl* mDwfl;
    std::thread mPreparing;
    std::atomic<bool> mStopPreparing{false};
    std::atomic<bool> mPrepareIdle{false};
    std::vector<Dwfl_Module*> mPreparingModules;
    QList<SharedLibrary> mLibraries;
    struct Remapping
    {
        unsigned long long start, end;
        unsigned long long shift; // to subtract
    };
    std::vector<Remapping> mRemappings;
    // The functions of each compilation unit by address, built as addresses
    // fall into them: a lookup is then a binary search, not a walk.
    std::unordered_map<const void*, std::unique_ptr<UnitIndex>> mUnits;
    std::unordered_map<const Dwarf*, DwarfSections> mSections;
    std::unordered_map<const Dwfl_Module*, CodeSymbols> mCodeSymbols;
    std::unordered_map<const Dwfl_Module*, std::unique_ptr<Plt>> mPlts;
    // Each file name of a unit made absolute once, where libdw reads its lines.
    std::unordered_map<const char*, QString> mFileNames;
};

// The demangled form of a C++, Rust or Fortran module symbol; the name itself
// when it isn't one.
QString demangledName(const QString& name);

#endif
