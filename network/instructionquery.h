// The instruction that a thread was executing when sampled: its mnemonic,
// or a marker word when no instruction is known.
#ifndef ZOR_INSTRUCTIONQUERY_H
#define ZOR_INSTRUCTIONQUERY_H

#include <QString>

class InstructionQuery
{
public:
    InstructionQuery() : implicitMemory(false) {}
    InstructionQuery(const QString& mnemonic, bool implicitMem) : instruction(mnemonic), implicitMemory(implicitMem) {}

    bool isEmpty() const { return instruction.isEmpty(); }
    bool operator==(const InstructionQuery& other) const
    {
        return instruction == other.instruction && implicitMemory == other.implicitMemory;
    }

    QString instruction;
    // Touches memory without saying so in its mnemonic.
    bool implicitMemory;
};

#endif
