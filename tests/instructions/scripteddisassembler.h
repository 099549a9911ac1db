// A disassembler over a scripted address space: functions of real x86
// instructions laid out at fixed addresses, padding between them, filler
// code that belongs to no function, and everything else unreadable. It
// answers as the host's debugger does, and checks as it goes that no byte
// is asked for twice.
#ifndef ZOR_TESTS_SCRIPTEDDISASSEMBLER_H
#define ZOR_TESTS_SCRIPTEDDISASSEMBLER_H

#include <QMap>
#include <QStringList>
#include <QVector>

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
    // Filled in when laid out.
    unsigned long long address = 0;
    unsigned long long targetAddress = 0;
};

class ScriptedDisassembler : public Disassembler
{
public:
    typedef range<unsigned long long> Range;
    struct Function
    {
        QString name;
        Range bytes;
    };

    explicit ScriptedDisassembler(int id = 0) : mId(id) {}

    // Instructions back to back from `start`: a function's when `function`
    // names one (its first instruction labelled with the name), else code
    // that belongs to none.
    void place(unsigned long long start, QVector<ScriptedInstruction> body, const QString& function = QString())
    {
        if (!function.isEmpty() && body.first().label.isEmpty())
            body.first().label = function;
        unsigned long long address = start;
        for (ScriptedInstruction& instruction : body) {
            if (!instruction.label.isEmpty())
                mLabels.insert(instruction.label, address);
            instruction.address = address;
            mPlaced.insert(address, instruction);
            address += instruction.length;
        }
        if (!function.isEmpty())
            mFunctions.insert(start, Function{function, Range(start, address)});
        mReadable.insert(Range(start, address), true);
    }
    // Puts the labelled addresses into the operands; call once all is laid out.
    void resolve()
    {
        for (ScriptedInstruction& placed : mPlaced) {
            if (placed.target.isEmpty())
                continue;
            const unsigned long long target = placed.targetAddress = mLabels.value(placed.target);
            const Function* f = functionAt(target);
            QString decorated = QStringLiteral("0x%1").arg(target, 0, 16);
            if (f && target == f->bytes.begin)
                decorated += QStringLiteral(" <%1>").arg(f->name);
            else if (f)
                decorated += QStringLiteral(" <%1+0x%2>").arg(f->name).arg(target - f->bytes.begin, 0, 16);
            placed.operands.replace(QStringLiteral("{%1}").arg(placed.target), decorated);
        }
    }

    const QMap<unsigned long long, ScriptedInstruction>& placed() const { return mPlaced; }
    unsigned long long address(const QString& label) const { return mLabels.value(label); }
    const Function* functionAt(unsigned long long address) const
    {
        auto it = mFunctions.upperBound(address);
        return it != mFunctions.constBegin() && address < std::prev(it)->bytes.end ? &*std::prev(it) : nullptr;
    }

    // Whether a straight run of bytes tells where functions start, as a
    // request for a whole function always does.
    bool linearMarksSymbols = true;
    // Where each request started, and what broke the rule that no byte is
    // asked twice.
    QList<unsigned long long> requests;
    QStringList violations;

    QMap<unsigned long long, Instruction> disassemble(unsigned long long start, long long length, unsigned long long* end) override
    {
        QMap<unsigned long long, Instruction> result;
        requests.append(start);
        if (length == 0) {
            // A probe for the function around `start`: the probe itself must
            // not repeat, nor start in bytes already handed out.
            if (mProbed.contains(start) || mCovered.contains(start))
                violations.append(QStringLiteral("function at 0x%1 asked again").arg(start, 0, 16));
            mProbed.insert(Range(start, start + 1), true);
            const Function* f = functionAt(start);
            if (!f)
                return result;
            for (auto it = mPlaced.lowerBound(f->bytes.begin); it != mPlaced.constEnd() && it.key() < f->bytes.end; ++it)
                result.insert(it.key(), instructionAt(*it, true));
            mCovered.insert(f->bytes, true);
            *end = f->bytes.end;
            return result;
        }

        CompactSet<unsigned long long> asked;
        asked.insert(Range(start, start + static_cast<unsigned long long>(length)), true);
        if (length < 0 || asked.minus(mCovered) != asked)
            violations.append(QStringLiteral("bytes 0x%1+%2 asked again").arg(start, 0, 16).arg(length));
        mCovered.insert(asked, true);
        // Straight through, as a disassembler reads bytes: a start inside an
        // instruction decodes nonsense up to the next real boundary.
        unsigned long long address = start;
        while (address < start + static_cast<unsigned long long>(length) && mReadable.contains(address)) {
            auto it = std::prev(mPlaced.upperBound(address));
            result.insert(address, it.key() == address ? instructionAt(*it, false) : Instruction(QStringLiteral("(bad)"), QString()));
            address = it.key() + it->length;
        }
        // Nothing read leaves *end as it was: the caller's 0 stands.
        if (address != start)
            *end = address;
        return result;
    }
    int id() override { return mId; }
    Position position(unsigned long long address) override
    {
        const Function* f = functionAt(address);
        return f ? Position(f->name) : Position();
    }

private:
    Instruction instructionAt(const ScriptedInstruction& placed, bool wholeFunction) const
    {
        const bool symbolStart = (wholeFunction || linearMarksSymbols) && mFunctions.contains(placed.address);
        return Instruction(placed.mnemonic, placed.operands, symbolStart, placed.implicitMemory);
    }

    int mId;
    QMap<unsigned long long, ScriptedInstruction> mPlaced;
    QMap<unsigned long long, Function> mFunctions;
    QMap<QString, unsigned long long> mLabels;
    CompactSet<unsigned long long> mReadable;
    // Bytes already handed out, or asked for as a range; function probes.
    CompactSet<unsigned long long> mCovered;
    CompactSet<unsigned long long> mProbed;
};

#endif
