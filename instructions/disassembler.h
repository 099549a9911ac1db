// What the instruction cache asks of whoever can read the target's code.
#ifndef ZOR_DISASSEMBLER_H
#define ZOR_DISASSEMBLER_H

#include <QMap>
#include <QString>

#include "position.h"

// One disassembled instruction.
struct Instruction
{
    Instruction() : symbolStart(false), implicitMemory(false) {}
    Instruction(const QString& mnemonic, const QString& operands, bool symbolStart = false,
                bool implicitMemory = false)
        : mnemonic(mnemonic), operands(operands), symbolStart(symbolStart), implicitMemory(implicitMemory)
    {
    }

    // "*0x401000 push %rbx": the star marks the start of a symbol.
    QString toString(unsigned long long address) const;

    QString mnemonic;
    // May name a target as "0x" and lower-case hexadecimal digits.
    QString operands;
    // A symbol starts at this address.
    bool symbolStart;
    // Touches memory without saying so in its mnemonic.
    bool implicitMemory;
};

class Disassembler
{
public:
    virtual ~Disassembler() = default;

    // The instructions from `start` on, by address. A `length` of 0 asks
    // for the whole function around `start`. `*end` receives the address
    // where disassembly stopped, or 0 when there was no data.
    virtual QMap<unsigned long long, Instruction> disassemble(unsigned long long start, long long length,
                                                              unsigned long long* end) = 0;
    // Tells this process's log from those of others.
    virtual int id() = 0;
    // Where an address lies in the source, for log messages.
    virtual Position position(unsigned long long address) = 0;
};

#endif
