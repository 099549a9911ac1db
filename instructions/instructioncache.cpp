#include "instructioncache.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <set>

#include "envswitch.h"

namespace {

typedef range<unsigned long long> AddressRange;

// A predecessor further than this below a program counter isn't taken.
const unsigned long long MaxInstructionDistance = 16;
// Addresses in the first page are never code.
const unsigned long long LowestCodeAddress = 4096;

QString hex(unsigned long long value)
{
    return QString::number(value, 16);
}

// The first stretch of [from, to) that neither set covers, up to the next
// byte that one of them does; empty when they cover it all. What
// (from, to) minus both sets would hold first, without copying them.
AddressRange firstUncovered(unsigned long long from, unsigned long long to, const CompactSet<unsigned long long>& a,
                            const CompactSet<unsigned long long>& b)
{
    const std::set<AddressRange>* sets[] = {&a.ranges(), &b.ranges()};
    unsigned long long cursor = from;
    // Ranges of one set never touch, but those of the two may follow each
    // other: step over whichever covers the cursor until neither does.
    for (bool moved = true; moved && cursor < to;) {
        moved = false;
        for (const std::set<AddressRange>* set : sets) {
            const auto above = set->upper_bound(AddressRange(cursor, cursor));
            if (above != set->begin() && std::prev(above)->end > cursor) {
                cursor = std::prev(above)->end;
                moved = true;
            }
        }
    }
    if (cursor >= to)
        return AddressRange(to, to);
    unsigned long long stop = to;
    for (const std::set<AddressRange>* set : sets) {
        const auto above = set->upper_bound(AddressRange(cursor, cursor));
        if (above != set->end() && above->begin < stop)
            stop = above->begin;
    }
    return AddressRange(cursor, stop);
}

bool isJump(const QString& mnemonic)
{
    return mnemonic.startsWith(QLatin1Char('j'))
        || (mnemonic.startsWith(QLatin1Char('b')) && !mnemonic.startsWith(QLatin1String("bl")));
}

} // namespace

QString InstructionCache::CachedInstruction::toString(unsigned long long address) const
{
    if (previousAddress == 0)
        return Instruction::toString(address);
    return QString::asprintf("%c%p %s %s <= %p", symbolStart ? '*' : ' ', reinterpret_cast<void*>(address),
                             mnemonic.toUtf8().constData(), operands.toUtf8().constData(),
                             reinterpret_cast<void*>(previousAddress));
}

InstructionCache::InstructionCache(Disassembler* disassembler)
    : mHexNumber(QStringLiteral("0x([0-9a-f]+)"), Qt::CaseSensitive)
    , mDisassembler(disassembler)
    , mBytesDisassembled(0)
    , mCalls(0)
    , mTimeMs(0)
    , mLog(nullptr)
{
    static EnvSwitch logDirectory("DISASSEMBLY_LOGS");
    const QString directory = logDirectory.text();
    if (directory.isEmpty() || !QFileInfo(directory).isDir())
        return;
    QFile* log = new QFile(directory + QDir::separator() + QString::number(mDisassembler->id())
                           + QLatin1String(".log"));
    if (log->open(QIODevice::WriteOnly | QIODevice::Truncate))
        mLog = log;
    else
        delete log;
}

InstructionCache::~InstructionCache()
{
    delete mLog;
}

long long InstructionCache::lookaheadFromText(const QString& text)
{
    const QByteArray bytes = text.toLocal8Bit();
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(bytes.constData(), &end, 10);
    if (bytes.isEmpty() || end == bytes.constData() || *end != '\0' || errno == ERANGE)
        return DefaultDisassembleLookahead;
    return std::max(value, 0LL);
}

long long InstructionCache::disassembleLookahead()
{
    static const long long lookahead = [] {
        EnvSwitch setting("DISASSEMBLE_LOOKAHEAD");
        return setting.isSet() ? lookaheadFromText(setting.text())
                               : static_cast<long long>(DefaultDisassembleLookahead);
    }();
    return lookahead;
}

QOrderedSet<unsigned long long>::const_iterator InstructionCache::symbolAbove(unsigned long long address) const
{
    return mSymbols.upperBound(address);
}

void InstructionCache::addInstruction(unsigned long long address, const Instruction& instruction)
{
    {
        CachedInstruction& entry = mInstructions[address];
        entry.mnemonic = instruction.mnemonic;
        entry.operands = instruction.operands;
        entry.implicitMemory = instruction.implicitMemory;
    }
    if (instruction.symbolStart)
        insertSymbol(address);

    if (isJump(instruction.mnemonic) && mHexNumber.indexIn(instruction.operands) >= 0) {
        bool ok = false;
        const unsigned long long target = mHexNumber.cap(0).toULongLong(&ok, 0);
        // Only a backward jump within the same symbol tells what ran before
        // its target.
        if (ok && target < address && address - target < MaxJumpDistance
            && symbolAbove(target) == symbolAbove(address)) {
            CachedInstruction& landing = mInstructions[target];
            if (landing.jumpSource == 0) {
                landing.jumpSource = address;
                if (mLog)
                    customLogMessage(QStringLiteral("... Found jump to 0x%1 from 0x%2").arg(hex(target), hex(address)));
            } else {
                const unsigned long long was = landing.jumpSource;
                landing.jumpSource = std::min(was, address);
                if (mLog)
                    customLogMessage(QStringLiteral("... Updated jump to 0x%1 to be from 0x%2 (was 0x%3)")
                                         .arg(hex(target), hex(landing.jumpSource), hex(was)));
            }
        }
    }

    if (mLog) {
        const CachedInstruction& entry = mInstructions[address];
        if (entry.mnemonic.isEmpty())
            customLogMessage(QStringLiteral("... ERROR instruction is not valid: '%1' '%2'")
                                 .arg(instruction.mnemonic, instruction.operands));
    }
}

void InstructionCache::insertSymbol(unsigned long long address)
{
    if (mLog)
        customLogMessage(QStringLiteral("... Adding symbol at 0x%1").arg(address));
    mInstructions[address].symbolStart = true;
    mSymbols.insert(address);

    // A jump recorded before this symbol was known may have come from
    // beyond it, that is from another function.
    QOrderedSet<unsigned long long>::const_iterator symbol = mSymbols.lowerBound(address);
    InstructionMap::iterator it = symbol == mSymbols.begin() ? mInstructions.begin()
                                                             : mInstructions.lowerBound(*std::prev(symbol));
    const InstructionMap::iterator last = mInstructions.lowerBound(address);
    for (; it != last; ++it) {
        if (it->jumpSource >= address) {
            if (mLog)
                customLogMessage(QStringLiteral("... Blanking jumpSource at 0x%1 for crossing symbol boundary (0x%2)")
                                     .arg(hex(it.key()), hex(address)));
            it->jumpSource = 0;
        }
    }
}

InstructionCache::PreviousInstruction InstructionCache::instructionAt(unsigned long long address, bool viaJump) const
{
    const InstructionMap::const_iterator it = mInstructions.constFind(address);
    if (it == mInstructions.constEnd())
        return PreviousInstruction(address, QString(), viaJump, false);
    return PreviousInstruction(address, it->mnemonic, viaJump, it->implicitMemory);
}

InstructionCache::PreviousInstruction
InstructionCache::previousInstructionInfoFromCachedInstruction(InstructionMap::const_iterator entry, bool* ok)
{
    const CachedInstruction& instruction = entry.value();
    *ok = true;
    // The first instruction of a symbol has no predecessor to speak of.
    if (!instruction.mnemonic.isEmpty() && instruction.symbolStart)
        return PreviousInstruction(entry.key(), instruction.mnemonic, false, instruction.implicitMemory);
    // A jump back to here wins over the instruction just before in memory.
    if (instruction.jumpSource != 0) {
        const PreviousInstruction source = instructionAt(instruction.jumpSource, true);
        if (mLog && source.mnemonic.isEmpty())
            customLogMessage(QStringLiteral("... ERROR: Jump source 0x%1 (leading to 0x%2) is invalid!")
                                 .arg(hex(instruction.jumpSource), hex(entry.key())));
        return source;
    }
    if (instruction.previousAddress != 0)
        return instructionAt(instruction.previousAddress, false);
    *ok = false;
    return PreviousInstruction();
}

bool InstructionCache::answerFromCache(unsigned long long address, PreviousInstruction* answer)
{
    const InstructionMap::const_iterator entry = mInstructions.constFind(address);
    if (entry == mInstructions.constEnd())
        return false;
    bool ok = false;
    *answer = previousInstructionInfoFromCachedInstruction(entry, &ok);
    return ok;
}

InstructionCache::PreviousInstruction InstructionCache::previousAddressAndInstruction(unsigned long long address,
                                                                                     AllowDisassemblyLookup lookup)
{
    if (address < LowestCodeAddress)
        return PreviousInstruction();
    PreviousInstruction answer;
    if (answerFromCache(address, &answer))
        return answer;
    if (mUnobtainable.contains(address))
        return PreviousInstruction();
    const QMap<unsigned long long, unsigned long long>::const_iterator suspect = mSuspects.constFind(address);
    if (suspect != mSuspects.constEnd())
        return instructionAt(suspect.value(), false);
    if (lookup == DisassemblyLookupForbidden)
        return PreviousInstruction();

    // The bytes just before the address and the address itself, then what
    // follows, so that one request covers the leafs nearby.
    ensureDisassembled(address - MaxInstructionDistance, MaxInstructionDistance + 1, true, true);
    ensureDisassembled(address, disassembleLookahead(), true, false);
    if (answerFromCache(address, &answer))
        return answer;
    ensureJumpSources(address);
    if (answerFromCache(address, &answer))
        return answer;
    return searchPrevious(address);
}

InstructionCache::PreviousInstruction InstructionCache::searchPrevious(unsigned long long address)
{
    const InstructionMap::iterator next = mInstructions.lowerBound(address);
    const bool atAddress = next != mInstructions.end() && next.key() == address;
    const bool hasInstruction = atAddress && !next->mnemonic.isEmpty();
    bool ok = false;

    // No instruction can be found before the address: the address is
    // unobtainable, or, if it holds an instruction, its own previous one.
    const auto noPrevious = [&](const char* why) {
        if (!hasInstruction) {
            mUnobtainable.insert(AddressRange(address, address + 1), true);
            return PreviousInstruction();
        }
        next->previousAddress = address;
        if (mLog)
            customLogMessage(QStringLiteral("... Previous instruction for 0x%1 %2. Caching this result")
                                 .arg(hex(address), QLatin1String(why)));
        return previousInstructionInfoFromCachedInstruction(next, &ok);
    };
    if (next == mInstructions.begin())
        return noPrevious("unobtainable");

    const InstructionMap::iterator before = std::prev(next);
    if (address - before.key() > MaxInstructionDistance)
        return noPrevious("too distant");

    if (!before->mnemonic.isEmpty()) {
        if (atAddress) {
            next->previousAddress = before.key();
            if (mLog)
                customLogMessage(QStringLiteral("... Previous instruction for 0x%1 is 0x%2. Caching this result")
                                     .arg(hex(address), hex(before.key())));
            return previousInstructionInfoFromCachedInstruction(next, &ok);
        }
        // The address lies inside no instruction boundary that is known:
        // most likely within the instruction before it.
        if (mLog)
            customLogMessage(QStringLiteral("... [Suspect!] Previous instruction for 0x%1 is 0x%2. Caching this result")
                                 .arg(address)
                                 .arg(hex(before.key())));
        mSuspects.insert(address, before.key());
        return instructionAt(before.key(), false);
    }

    mUnobtainable.insert(AddressRange(address, address + 1), true);
    return PreviousInstruction();
}

void InstructionCache::ensureJumpSources(unsigned long long address)
{
    ensureDisassembled(address, MaxJumpDistance, false, false);
}

void InstructionCache::ensureDisassembled(unsigned long long address, long long length, bool followRange,
                                          bool stopIfEmpty)
{
    if (!followRange && mBlacklist.contains(address))
        return;
    const unsigned long long span = static_cast<unsigned long long>(std::max(length, 0LL));
    const unsigned long long end = address + span < address ? ULLONG_MAX : address + span;

    unsigned long long cursor = address;
    bool firstRange = true;
    while (cursor < end) {
        // What is still to do is taken anew for each range, since a request
        // for a whole function may have covered more than was asked.
        const AddressRange todo = firstUncovered(cursor, end, mDisassembled, mBlacklist);
        if (todo.empty())
            return;
        const unsigned long long rangeStart = todo.begin;
        const unsigned long long rangeEnd = todo.end;
        cursor = rangeEnd;
        const bool giveUpIfEmpty = stopIfEmpty && firstRange;
        firstRange = false;

        if (!followRange && rangeStart != address && symbolAbove(address) != symbolAbove(rangeStart))
            return;

        unsigned long long stop = 0;
        // Timed only for the log: a run asks this once or more per leaf.
        QElapsedTimer timer;
        if (mLog)
            timer.start();
        QMap<unsigned long long, Instruction> instructions = mDisassembler->disassemble(rangeStart, 0, &stop);
        if (mLog)
            logBytesDisassembled(rangeStart, rangeEnd, stop, timer.elapsed(),
                                 QStringLiteral("first disassemble, entire function (range end not used)"));
        if (stop == 0)
            stop = rangeStart;

        if (!instructions.isEmpty()) {
            for (auto it = instructions.constBegin(); it != instructions.constEnd(); ++it)
                addInstruction(it.key(), it.value());
            mDisassembled.insert(AddressRange(instructions.firstKey(), stop), true);
            // The function ends there.
            insertSymbol(stop);
            if (!followRange)
                return;
            if (stop >= rangeEnd)
                continue;
        } else if (giveUpIfEmpty) {
            return;
        }

        // Past the function, or outside any: ask for the rest as a plain
        // range of bytes.
        const unsigned long long start = std::max(stop, rangeStart);
        if (start >= rangeEnd) {
            mDisassembled.insert(AddressRange(rangeStart, start), true);
            continue;
        }
        if (mLog)
            timer.restart();
        // A disassembler that finds nothing may leave `stop` as it is.
        stop = 0;
        instructions = mDisassembler->disassemble(start, static_cast<long long>(rangeEnd - start), &stop);
        if (mLog)
            logBytesDisassembled(start, rangeEnd, stop, timer.elapsed(), QStringLiteral("second disassemble"));
        if (stop == 0) {
            mBlacklist.insert(AddressRange(start, rangeEnd), true);
            if (mLog)
                customLogMessage(
                    QStringLiteral("        : Blacklisting bad address range: 0x%1 - 0x%2 (no data) -- 0x%3 %4")
                        .arg(hex(start), hex(rangeEnd), hex(address), mDisassembler->position(address).displayName()));
            continue;
        }
        mDisassembled.insert(AddressRange(rangeStart, stop), true);
        for (auto it = instructions.constBegin(); it != instructions.constEnd(); ++it)
            addInstruction(it.key(), it.value());
    }
}

QMap<unsigned long long, Instruction> InstructionCache::disassemble(unsigned long long start, long long length)
{
    ensureDisassembled(start, length, true, false);
    const unsigned long long span = static_cast<unsigned long long>(std::max(length, 0LL));
    const unsigned long long end = start + span < start ? ULLONG_MAX : start + span;
    QMap<unsigned long long, Instruction> result;
    for (InstructionMap::const_iterator it = mInstructions.lowerBound(start);
         it != mInstructions.constEnd() && it.key() < end; ++it) {
        // Entries without a mnemonic only mark where a symbol starts or a
        // jump lands.
        if (!it->mnemonic.isEmpty())
            result.insert(it.key(), it.value());
    }
    return result;
}

void InstructionCache::logBytesDisassembled(unsigned long long start, unsigned long long end,
                                            unsigned long long stop, qint64 elapsed, const QString& text)
{
    if (!mLog)
        return;
    ++mCalls;
    mTimeMs += quint64(elapsed);
    if (start < stop || stop == 0) {
        QString added;
        if (stop != 0) {
            mBytesDisassembled += stop - start;
            added = QString::number(stop - start);
        }
        mLog->write(QStringLiteral("call:%1 [range 0x%6 0x%7][function end 0x%8] bytes:%2B (+%3B) time:%4ms (+%5ms) %9\n")
                        .arg(mCalls)
                        .arg(mBytesDisassembled)
                        .arg(added)
                        .arg(mTimeMs)
                        .arg(elapsed)
                        .arg(hex(start), hex(end), hex(stop), QLatin1Char(' ') + text)
                        .toLocal8Bit());
    } else {
        mLog->write(QStringLiteral("call:%1 [invalid address range 0x%2 0x%3][function end 0x%6] time:%4ms (+%5ms) %7\n")
                        .arg(mCalls)
                        .arg(hex(start), hex(end))
                        .arg(mTimeMs)
                        .arg(elapsed)
                        .arg(hex(stop), QLatin1Char(' ') + text)
                        .toLocal8Bit());
    }
    mLog->flush();
}

void InstructionCache::customLogMessage(const QString& text)
{
    if (!mLog)
        return;
    mLog->write(QStringLiteral("%1\n").arg(text).toLocal8Bit());
    mLog->flush();
}
