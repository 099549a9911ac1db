// One disassembled instruction, as the debugger gives it and the
// instruction cache keeps it.
#ifndef ZOR_INSTRUCTION_H
#define ZOR_INSTRUCTION_H

#include <QString>

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

#endif
