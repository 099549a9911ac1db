// A disassembler over a scripted address space: functions of real x86
// instructions laid out at fixed addresses, padding between them, filler
// code that belongs to no function, and everything else unreadable. It
// answers as the host's debugger does, and checks as it goes that no byte
// is asked for twice.
#ifndef ZOR_TESTS_SCRIPTEDDISASSEMBLER_H
#define ZOR_TESTS_SCRIPTEDDISASSEMBLER_H

#include <QList>
#include <QMap>
#include <QStringList>

#include "compactset.h"
#include "disassembler.h"

struct ScriptedInstruction
{
    enum Kind { Plain, Jump, Call };

    // Names this instruction for the operands of others.
    QString label;
    int length;
    QString mnemonic;
    // "{label}" stands for the labelled address, written as the debugger
    // does: "0x401010 <sum+0x10>".
    QString operands;
    Kind kind = Plain;
    QString target;
    bool implicitMemory = false;
};

class ScriptedDisassembler : public Disassembler
{
public:
    struct Placed
    {
        unsigned long long address;
        int length;
        QString mnemonic;
        QString operands;
        ScriptedInstruction::Kind kind;
        unsigned long long target;
        bool implicitMemory;
        int function; // index into functions(), -1 for padding and filler
    };
    struct Function
    {
        QString name;
        unsigned long long start;
        unsigned long long end;
    };
    struct Request
    {
        unsigned long long start;
        long long length;
        bool answered;
    };

    explicit ScriptedDisassembler(int id = 0) : mId(id) {}

    // A function from `start`, its instructions back to back. The first
    // instruction's label defaults to the function's name.
    void addFunction(const QString& name, unsigned long long start, QList<ScriptedInstruction> body);
    // Code between functions that belongs to none.
    void addPadding(unsigned long long start, const QList<ScriptedInstruction>& body);
    // One-byte "int3" from `start` to `end`, outside any function.
    void addFiller(unsigned long long start, unsigned long long end);
    // Puts the labelled addresses into the operands; call once all is laid out.
    void resolve();

    const QMap<unsigned long long, Placed>& placed() const { return mPlaced; }
    const QList<Function>& functions() const { return mFunctions; }
    unsigned long long address(const QString& label) const { return mLabels.value(label); }

    // Whether a straight run of bytes tells where functions start, as a
    // request for a whole function always does.
    bool linearMarksSymbols = true;

    // What was asked, and what broke the rule that no byte is asked twice.
    QList<Request> requests;
    QStringList violations;

    QMap<unsigned long long, Instruction> disassemble(unsigned long long start, long long length,
                                                      unsigned long long* end) override;
    int id() override { return mId; }
    Position position(unsigned long long address) override;

private:
    void place(unsigned long long start, const QList<ScriptedInstruction>& body, int function);
    Instruction instructionAt(const Placed& placed, bool wholeFunction) const;
    int functionAt(unsigned long long address) const;
    bool readable(unsigned long long address) const;
    void cover(unsigned long long start, unsigned long long end);

    int mId;
    QMap<unsigned long long, Placed> mPlaced;
    QList<Function> mFunctions;
    QMap<QString, unsigned long long> mLabels;
    QMap<unsigned long long, QString> mUnresolvedTargets;
    CompactSet<unsigned long long> mReadable;
    // Bytes already handed out, or asked for as a range.
    CompactSet<unsigned long long> mCovered;
    CompactSet<unsigned long long> mProbed;
};

#endif
