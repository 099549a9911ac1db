#include "scripteddisassembler.h"

#include <stdexcept>

typedef range<unsigned long long> AddressRange;

void ScriptedDisassembler::place(unsigned long long start, const QList<ScriptedInstruction>& body, int function)
{
    unsigned long long address = start;
    for (const ScriptedInstruction& instruction : body) {
        if (!instruction.label.isEmpty())
            mLabels.insert(instruction.label, address);
        Placed placed{ address, instruction.length, instruction.mnemonic, instruction.operands, instruction.kind,
                       0, instruction.implicitMemory, function };
        if (mPlaced.contains(address))
            throw std::logic_error("two instructions at one address");
        mPlaced.insert(address, placed);
        if (!instruction.target.isEmpty())
            mUnresolvedTargets.insert(address, instruction.target);
        address += instruction.length;
    }
    mReadable.insert(AddressRange(start, address), true);
}

void ScriptedDisassembler::addFunction(const QString& name, unsigned long long start, QList<ScriptedInstruction> body)
{
    if (body.first().label.isEmpty())
        body.first().label = name;
    unsigned long long end = start;
    for (const ScriptedInstruction& instruction : body)
        end += instruction.length;
    mFunctions.append(Function{ name, start, end });
    place(start, body, mFunctions.size() - 1);
}

void ScriptedDisassembler::addPadding(unsigned long long start, const QList<ScriptedInstruction>& body)
{
    place(start, body, -1);
}

void ScriptedDisassembler::addFiller(unsigned long long start, unsigned long long end)
{
    QList<ScriptedInstruction> body;
    for (unsigned long long a = start; a < end; ++a)
        body.append(ScriptedInstruction{ QString(), 1, QStringLiteral("int3"), QString(), ScriptedInstruction::Plain,
                                                 QString(), false });
    place(start, body, -1);
}

void ScriptedDisassembler::resolve()
{
    for (auto it = mUnresolvedTargets.constBegin(); it != mUnresolvedTargets.constEnd(); ++it) {
        if (!mLabels.contains(it.value()))
            throw std::logic_error("unknown label");
        const unsigned long long target = mLabels.value(it.value());
        Placed& placed = mPlaced[it.key()];
        placed.target = target;
        QString decorated = QStringLiteral("0x%1").arg(target, 0, 16);
        const int function = functionAt(target);
        if (function >= 0) {
            const Function& f = mFunctions.at(function);
            decorated += target == f.start ? QStringLiteral(" <%1>").arg(f.name)
                                           : QStringLiteral(" <%1+0x%2>").arg(f.name).arg(target - f.start, 0, 16);
        }
        placed.operands.replace(QStringLiteral("{%1}").arg(it.value()), decorated);
    }
    // The layout must leave no holes inside what was placed.
    for (auto it = mPlaced.constBegin(); it != mPlaced.constEnd(); ++it) {
        auto next = std::next(it);
        if (next != mPlaced.constEnd() && it.key() + it->length > next.key())
            throw std::logic_error("overlapping instructions");
    }
}

int ScriptedDisassembler::functionAt(unsigned long long address) const
{
    for (int i = 0; i < mFunctions.size(); ++i) {
        if (mFunctions.at(i).start <= address && address < mFunctions.at(i).end)
            return i;
    }
    return -1;
}

bool ScriptedDisassembler::readable(unsigned long long address) const
{
    return mReadable.contains(address);
}

Instruction ScriptedDisassembler::instructionAt(const Placed& placed, bool wholeFunction) const
{
    const bool symbolStart = (wholeFunction || linearMarksSymbols) && placed.function >= 0
        && mFunctions.at(placed.function).start == placed.address;
    return Instruction(placed.mnemonic, placed.operands, symbolStart, placed.implicitMemory);
}

void ScriptedDisassembler::cover(unsigned long long start, unsigned long long end)
{
    CompactSet<unsigned long long> asked;
    asked.insert(AddressRange(start, end), true);
    if (asked.minus(mCovered) != asked)
        violations.append(QStringLiteral("bytes 0x%1-0x%2 asked again").arg(start, 0, 16).arg(end, 0, 16));
    mCovered.insert(AddressRange(start, end), true);
}

QMap<unsigned long long, Instruction> ScriptedDisassembler::disassemble(unsigned long long start, long long length,
                                                                        unsigned long long* end)
{
    QMap<unsigned long long, Instruction> result;
    requests.append(Request{ start, length, false });

    if (length == 0) {
        // A probe for the function around `start`: the probe itself must
        // not repeat, nor start in bytes already handed out.
        if (mProbed.contains(start) || mCovered.contains(start))
            violations.append(QStringLiteral("function at 0x%1 asked again").arg(start, 0, 16));
        mProbed.insert(AddressRange(start, start + 1), true);
        const int function = functionAt(start);
        if (function < 0)
            return result;
        const Function& f = mFunctions.at(function);
        for (auto it = mPlaced.lowerBound(f.start); it != mPlaced.constEnd() && it.key() < f.end; ++it)
            result.insert(it.key(), instructionAt(*it, true));
        mCovered.insert(AddressRange(f.start, f.end), true);
        *end = f.end;
        requests.last().answered = true;
        return result;
    }

    if (length < 0)
        violations.append(QStringLiteral("negative length at 0x%1").arg(start, 0, 16));
    const unsigned long long limit = start + static_cast<unsigned long long>(length);
    cover(start, limit);
    if (!readable(start)) {
        *end = 0;
        return result;
    }
    // Straight through, as a disassembler reads bytes: a start inside an
    // instruction decodes nonsense up to the next real boundary.
    unsigned long long address = start;
    while (address < limit && readable(address)) {
        auto it = mPlaced.upperBound(address);
        --it;
        if (it.key() == address) {
            result.insert(address, instructionAt(*it, false));
            address += it->length;
        } else {
            const unsigned long long boundary = it.key() + it->length;
            result.insert(address, Instruction(QStringLiteral("(bad)"), QString()));
            address = boundary;
        }
    }
    *end = address;
    requests.last().answered = true;
    return result;
}

Position ScriptedDisassembler::position(unsigned long long address)
{
    const int function = functionAt(address);
    return function < 0 ? Position() : Position(mFunctions.at(function).name);
}
