// The instruction cache's Disassembler over the code bytes of the target's
// files, decoded by Capstone in AT&T syntax (mnemonics with size suffixes,
// as the instruction tables hold them).
#ifndef ZOR_SYMBOLDISASSEMBLER_H
#define ZOR_SYMBOLDISASSEMBLER_H

#include <cstddef>
#include <thread>

#include "disassembler.h"

class SymbolTable;

class SymbolDisassembler : public Disassembler
{
public:
    // `symbols` stays the caller's and must outlive this.
    SymbolDisassembler(SymbolTable& symbols, int id);
    ~SymbolDisassembler() override;

    // Length 0: the whole function around `start`, by its symbol's bounds.
    // Otherwise the bytes from `start` on, up to `length` or the first
    // byte that isn't an instruction. `*end` is where decoding stopped, 0
    // when there was no code there.
    QMap<unsigned long long, Instruction> disassemble(unsigned long long start, long long length,
                                                      unsigned long long* end) override;
    int id() override { return mId; }
    Position position(unsigned long long address) override;

    // Loads the disassembling library on a thread of its own, so that the
    // first decoding doesn't wait for it.
    void loadInBackground();

    // Decodes `size` bytes placed at `address`; `*end` as above.
    QMap<unsigned long long, Instruction> decode(const unsigned char* bytes, size_t size,
                                                 unsigned long long address, unsigned long long* end);

private:
    SymbolTable& mSymbols;
    int mId;
    bool open();

    size_t mHandle;
    bool mOpen;
    bool mOpenTried;
    std::thread mLoading;
};

#endif
