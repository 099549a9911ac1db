// Finds the instruction that ran just before a program counter. Code can't
// be read backwards, so the cache disassembles forwards, remembers every
// instruction, symbol start and backward jump it sees, and searches among
// them. Every answer is kept, failures included, and no byte is asked of the
// disassembler twice.
#ifndef ZOR_INSTRUCTIONCACHE_H
#define ZOR_INSTRUCTIONCACHE_H

#include <QMap>
#include <QRegExp>
#include <QString>

#include "compactset.h"
#include "disassembler.h"
#include "qorderedset.h"

class QFile;

class InstructionCache
{
public:
    enum { DefaultDisassembleLookahead = 1000, MaxJumpDistance = 4096 };

    enum AllowDisassemblyLookup { DisassemblyLookupAllowed = 0, DisassemblyLookupForbidden = 1 };

    struct CachedInstruction : Instruction
    {
        CachedInstruction() : previousAddress(0), jumpSource(0) {}

        QString toString(unsigned long long address) const;

        // The instruction found to run before this one: 0 when not known,
        // this one's own address when nothing before it can be told.
        unsigned long long previousAddress;
        // The lowest address in the same symbol that jumps back here; 0 for
        // none.
        unsigned long long jumpSource;
    };

    struct PreviousInstruction
    {
        PreviousInstruction() : address(0), viaJump(false), implicitMemory(false) {}
        PreviousInstruction(unsigned long long address, const QString& mnemonic, bool viaJump, bool implicitMemory)
            : address(address), mnemonic(mnemonic), viaJump(viaJump), implicitMemory(implicitMemory)
        {
        }

        unsigned long long address;
        QString mnemonic;
        bool viaJump;
        bool implicitMemory;
    };

    // The disassembler isn't owned. With the disassembly-logs switch naming
    // a directory, the cache logs to "<id>.log" there.
    explicit InstructionCache(Disassembler* disassembler);
    ~InstructionCache();

    InstructionCache(const InstructionCache&) = delete;
    InstructionCache& operator=(const InstructionCache&) = delete;

    // The instruction that ran before `address`, a program counter; the
    // empty result when it can't be told. With DisassemblyLookupForbidden
    // only what is cached answers.
    PreviousInstruction previousAddressAndInstruction(unsigned long long address, AllowDisassemblyLookup lookup);

    // Makes sure that [address, address + length) has been asked for.
    // `followRange` goes on past the first function; `stopIfEmpty` gives up
    // when the first request finds nothing.
    void ensureDisassembled(unsigned long long address, long long length, bool followRange, bool stopIfEmpty);
    // Backward jumps to an address lie after it, in the same function.
    void ensureJumpSources(unsigned long long address);
    // The instructions of [start, start + length), disassembled as needed.
    QMap<unsigned long long, Instruction> disassemble(unsigned long long start, long long length);

    // How far past a program counter disassembly reaches: the
    // disassemble-lookahead switch, read once per process.
    static long long disassembleLookahead();
    // The switch's rule: a decimal number that is the whole text, negative
    // counting as 0; DefaultDisassembleLookahead for anything else.
    static long long lookaheadFromText(const QString& text);

    // What is known, for diagnostics and tests.
    const QMap<unsigned long long, CachedInstruction>& instructions() const { return mInstructions; }
    const CompactSet<unsigned long long>& disassembledRanges() const { return mDisassembled; }
    const CompactSet<unsigned long long>& blacklist() const { return mBlacklist; }
    const CompactSet<unsigned long long>& unobtainable() const { return mUnobtainable; }
    const QOrderedSet<unsigned long long>& symbols() const { return mSymbols; }
    bool isLogging() const { return mLog != nullptr; }

private:
    typedef QMap<unsigned long long, CachedInstruction> InstructionMap;

    void addInstruction(unsigned long long address, const Instruction& instruction);
    void insertSymbol(unsigned long long address);
    // Steps 1 to 3 of an answer from a cached entry; `ok` is false when the
    // entry alone can't tell.
    PreviousInstruction previousInstructionInfoFromCachedInstruction(InstructionMap::const_iterator entry,
                                                                     bool* ok);
    PreviousInstruction instructionAt(unsigned long long address, bool viaJump) const;
    bool answerFromCache(unsigned long long address, PreviousInstruction* answer);
    PreviousInstruction searchPrevious(unsigned long long address);
    // The first symbol strictly above `address`, as an iterator so that
    // "none" compares equal too.
    QOrderedSet<unsigned long long>::const_iterator symbolAbove(unsigned long long address) const;
    void logBytesDisassembled(unsigned long long start, unsigned long long end, unsigned long long stop,
                              qint64 elapsed, const QString& text);
    void customLogMessage(const QString& text);

    QRegExp mHexNumber;
    InstructionMap mInstructions;
    CompactSet<unsigned long long> mUnobtainable;
    QOrderedSet<unsigned long long> mSymbols;
    CompactSet<unsigned long long> mDisassembled;
    CompactSet<unsigned long long> mBlacklist;
    Disassembler* mDisassembler;
    QMap<unsigned long long, unsigned long long> mSuspects;
    quint64 mBytesDisassembled;
    quint64 mCalls;
    quint64 mTimeMs;
    QFile* mLog;
};

#endif
