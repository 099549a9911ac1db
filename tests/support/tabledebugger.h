// A debugger that answers source positions from a table, counts every
// question about an address, and can be told to refuse all further ones:
// what a test of the analysis, or a benchmark of it, needs of a debugger.
#ifndef ZOR_TESTS_TABLEDEBUGGER_H
#define ZOR_TESTS_TABLEDEBUGGER_H

#include <QHash>
#include <stdexcept>

#include "scripteddebugger.h"

class TableDebugger : public ScriptedDebugger
{
public:
    struct Entry
    {
        PositionResponse position;
        // Innermost first, as a debugger lists them.
        QList<PositionResponse> inlined;
    };

    // A frame at return address `ra`: the call one byte back and the
    // address itself answer alike.
    void frame(unsigned long long ra, const QString& function, const QString& file = QString(), int line = 0)
    {
        place(ra - 1, function, file, line);
        place(ra, function, file, line);
    }
    // Exactly `address`; an empty function leaves it without a symbol.
    void place(unsigned long long address, const QString& function, const QString& file = QString(), int line = 0)
    {
        table[address].position = PositionResponse(function, file, line, !function.isEmpty());
    }
    void inlineAt(unsigned long long address, const QList<PositionResponse>& innermostFirst)
    {
        table[address].inlined = innermostFirst;
    }

    PositionResponse* positionOfAddress(unsigned long long address, int, QList<PositionResponse*>* inlined) override
    {
        if (refuse)
            throw std::logic_error("the debugger was asked for a position after the decoding passes");
        ++questions;
        ++asked[address];
        const auto found = table.constFind(address);
        if (found == table.constEnd())
            return new PositionResponse();
        for (const PositionResponse& caller : found->inlined)
            inlined->append(new PositionResponse(caller));
        return new PositionResponse(found->position);
    }

    // Addresses asked about more than once.
    QList<unsigned long long> askedTwice() const
    {
        QList<unsigned long long> twice;
        for (auto it = asked.constBegin(); it != asked.constEnd(); ++it) {
            if (it.value() > 1)
                twice.append(it.key());
        }
        return twice;
    }

    QHash<unsigned long long, Entry> table;
    QHash<unsigned long long, int> asked;
    long long questions = 0;
    bool refuse = false;
};

#endif
