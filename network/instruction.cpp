#include "instruction.h"

QString Instruction::toString(unsigned long long address) const
{
    return QString::asprintf("%c%p %s %s", symbolStart ? '*' : ' ', reinterpret_cast<void*>(address),
                             mnemonic.toUtf8().constData(), operands.toUtf8().constData());
}
