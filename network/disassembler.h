// What the instruction cache asks of whoever can read the target's code.
#ifndef ZOR_DISASSEMBLER_H
#define ZOR_DISASSEMBLER_H

#include <QMap>
#include <QString>

#include "instruction.h"
#include "position.h"

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
