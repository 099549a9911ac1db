// The instruction cache against a scripted disassembler that holds a few
// real x86 functions: every program counter in them must get the
// instruction that ran before it, whatever order the leafs come in, and
// the disassembler must never be asked for the same bytes twice.
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

#include "envswitch.h"
#include "instructioncache.h"
#include "scripteddisassembler.h"

namespace {

typedef ScriptedInstruction I;
typedef InstructionCache::PreviousInstruction Previous;

const InstructionCache::AllowDisassemblyLookup Allowed = InstructionCache::DisassemblyLookupAllowed;
const InstructionCache::AllowDisassemblyLookup Forbidden = InstructionCache::DisassemblyLookupForbidden;

I plain(int length, const char* mnemonic, const char* operands, const char* label = "")
{
    return I{ QString::fromLatin1(label), length, QString::fromLatin1(mnemonic), QString::fromLatin1(operands),
              I::Plain, QString(), false };
}

I branch(I::Kind kind, int length, const char* mnemonic, const char* target, const char* label = "")
{
    return I{ QString::fromLatin1(label), length, QString::fromLatin1(mnemonic),
              QStringLiteral("{%1}").arg(QLatin1String(target)), kind, QString::fromLatin1(target), false };
}

// long sum(const long* a, long n), fill(long* a, long n, long v) with a
// string store and a loop entered from two places, main calling both, and
// the cold part of main jumping back into it, as compilers lay them out.
void layOutProgram(ScriptedDisassembler& code)
{
    code.addFunction(QStringLiteral("sum"), 0x401000,
                     { plain(2, "xor", "%eax,%eax"),
                       plain(3, "test", "%rsi,%rsi"),
                       branch(I::Jump, 2, "jle", "sum_ret"),
                       plain(2, "xor", "%edx,%edx"),
                       plain(7, "nopl", "0x0(%rax)"),
                       plain(4, "add", "(%rdi,%rdx,8),%rax", "sum_loop"),
                       plain(4, "add", "$0x1,%rdx"),
                       plain(3, "cmp", "%rdx,%rsi"),
                       branch(I::Jump, 2, "jne", "sum_loop"),
                       plain(1, "ret", "", "sum_ret") });
    code.addPadding(0x40101e, { plain(2, "xchg", "%ax,%ax") });
    I stos = plain(3, "rep stos", "%rax,%es:(%rdi)");
    stos.implicitMemory = true;
    code.addFunction(QStringLiteral("fill"), 0x401020,
                     { plain(1, "push", "%rbx"),
                       plain(3, "mov", "%rdi,%rbx"),
                       plain(3, "mov", "%rsi,%rcx"),
                       plain(3, "mov", "%rdx,%rax"),
                       stos,
                       plain(2, "xor", "%edx,%edx"),
                       plain(5, "cmpq", "$0x0,(%rbx,%rdx,8)", "fill_loop"),
                       branch(I::Jump, 2, "je", "fill_skip"),
                       plain(4, "add", "$0x1,%rdx"),
                       plain(3, "cmp", "%rdx,%rcx"),
                       branch(I::Jump, 2, "jne", "fill_loop"),
                       plain(4, "add", "$0x2,%rdx", "fill_skip"),
                       plain(3, "cmp", "%rdx,%rcx"),
                       branch(I::Jump, 2, "jg", "fill_loop"),
                       plain(1, "pop", "%rbx"),
                       plain(1, "ret", "") });
    code.addPadding(0x40104a, { plain(6, "nopw", "0x0(%rax,%rax,1)") });
    code.addFunction(QStringLiteral("main"), 0x401050,
                     { plain(1, "push", "%rbp"),
                       plain(3, "mov", "%rsp,%rbp"),
                       plain(4, "sub", "$0x40,%rsp"),
                       plain(5, "mov", "$0x8,%esi"),
                       plain(3, "mov", "%rsp,%rdi"),
                       branch(I::Call, 5, "call", "fill"),
                       plain(5, "mov", "$0x8,%esi"),
                       plain(3, "mov", "%rsp,%rdi"),
                       branch(I::Call, 5, "call", "sum"),
                       plain(2, "test", "%eax,%eax"),
                       branch(I::Jump, 6, "jne", "main.cold"),
                       plain(1, "leave", "", "main_out"),
                       plain(1, "ret", "") });
    code.addPadding(0x40107c, { plain(4, "nopl", "0x0(%rax)") });
    code.addFunction(QStringLiteral("main.cold"), 0x401080,
                     { plain(5, "mov", "$0xffffffff,%eax"), branch(I::Jump, 2, "jmp", "main_out") });
    code.addFiller(0x401087, 0x402000);
    code.resolve();
}

// What ran before `pc`, told from the layout alone: the instruction itself
// at a function's start; else the lowest backward jump to it from within
// the same function and less than 4096 bytes away; else the instruction
// in front of it.
Previous expectedPrevious(const ScriptedDisassembler& code, unsigned long long pc)
{
    const auto& placed = code.placed();
    auto at = placed.upperBound(pc);
    --at;
    const ScriptedDisassembler::Function& function = code.functions().at(at->function);
    auto answer = [&](unsigned long long address, bool viaJump) {
        const ScriptedDisassembler::Placed& p = placed[address];
        return Previous(address, p.mnemonic, viaJump, p.implicitMemory);
    };
    if (at.key() != pc)
        return answer(at.key(), false);
    if (pc == function.start)
        return answer(pc, false);
    for (auto it = placed.lowerBound(pc); it != placed.constEnd() && it.key() < function.end; ++it) {
        if (it->kind == I::Jump && it->target == pc && it.key() > pc && it.key() - pc < 4096)
            return answer(it.key(), true);
    }
    return answer(std::prev(at).key(), false);
}

// Every instruction start in a function, and one address inside an
// instruction.
QList<unsigned long long> programCounters(const ScriptedDisassembler& code)
{
    QList<unsigned long long> pcs;
    for (const ScriptedDisassembler::Placed& p : code.placed()) {
        if (p.function >= 0)
            pcs.append(p.address);
    }
    pcs.append(code.address(QStringLiteral("sum_loop")) - 4);
    return pcs;
}

::testing::AssertionResult sameAnswer(const Previous& actual, const Previous& expected, unsigned long long pc)
{
    if (actual.address == expected.address && actual.mnemonic == expected.mnemonic
        && actual.viaJump == expected.viaJump && actual.implicitMemory == expected.implicitMemory)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
        << QStringLiteral("pc 0x%1: got 0x%2 '%3' jump %4 memory %5, expected 0x%6 '%7' jump %8 memory %9")
               .arg(pc, 0, 16)
               .arg(actual.address, 0, 16)
               .arg(actual.mnemonic)
               .arg(actual.viaJump)
               .arg(actual.implicitMemory)
               .arg(expected.address, 0, 16)
               .arg(expected.mnemonic)
               .arg(expected.viaJump)
               .arg(expected.implicitMemory)
               .toStdString();
}

bool isEmptyAnswer(const Previous& answer)
{
    return answer.address == 0 && answer.mnemonic.isNull() && !answer.viaJump && !answer.implicitMemory;
}

enum Order { Ascending, Descending, Shuffled };

class ProgramCounters : public ::testing::TestWithParam<Order>
{
};

TEST_P(ProgramCounters, EachGetsTheInstructionThatRanBeforeIt)
{
    ScriptedDisassembler code;
    layOutProgram(code);
    QList<unsigned long long> pcs = programCounters(code);
    // The unreadable bytes below and above the code.
    pcs << 0x400800 << 0x402800 << 0x402840;
    if (GetParam() == Descending)
        std::reverse(pcs.begin(), pcs.end());
    if (GetParam() == Shuffled)
        std::shuffle(pcs.begin(), pcs.end(), std::mt19937(7));

    InstructionCache cache(&code);
    for (unsigned long long pc : pcs) {
        const Previous answer = cache.previousAddressAndInstruction(pc, Allowed);
        if (pc < 0x401000 || pc >= 0x402000)
            EXPECT_TRUE(isEmptyAnswer(answer)) << std::hex << pc;
        else
            EXPECT_TRUE(sameAnswer(answer, expectedPrevious(code, pc), pc));
    }
    EXPECT_TRUE(code.violations.isEmpty()) << code.violations.join(QLatin1Char('\n')).toStdString();

    // Everything is cached now, failures included: the same leafs again,
    // even with lookups forbidden, ask nothing and answer the same.
    const int asked = code.requests.size();
    for (unsigned long long pc : pcs) {
        for (auto lookup : { Allowed, Forbidden }) {
            const Previous answer = cache.previousAddressAndInstruction(pc, lookup);
            if (pc < 0x401000 || pc >= 0x402000)
                EXPECT_TRUE(isEmptyAnswer(answer));
            else
                EXPECT_TRUE(sameAnswer(answer, expectedPrevious(code, pc), pc));
        }
    }
    EXPECT_EQ(code.requests.size(), asked);
}

INSTANTIATE_TEST_SUITE_P(InAnyOrder, ProgramCounters, ::testing::Values(Ascending, Descending, Shuffled));

TEST(InstructionCache, JumpTargetsAreAnsweredWithTheJump)
{
    ScriptedDisassembler code;
    layOutProgram(code);
    InstructionCache cache(&code);

    // The loop head of sum has a plain instruction in front of it in memory.
    const Previous loop = cache.previousAddressAndInstruction(code.address(QStringLiteral("sum_loop")), Allowed);
    EXPECT_TRUE(loop.viaJump);
    EXPECT_EQ(loop.mnemonic, QStringLiteral("jne"));
    EXPECT_EQ(loop.address, 0x40101bULL);

    // Two jumps back to fill's loop: the lower one is kept.
    const Previous fill = cache.previousAddressAndInstruction(code.address(QStringLiteral("fill_loop")), Allowed);
    EXPECT_TRUE(fill.viaJump);
    EXPECT_EQ(fill.mnemonic, QStringLiteral("jne"));
    EXPECT_EQ(fill.address, 0x40103dULL);

    // Forward jumps, calls and a jump back from another symbol don't count.
    for (const char* label : { "sum_ret", "fill_skip", "fill", "sum", "main_out" }) {
        const unsigned long long pc = code.address(QString::fromLatin1(label));
        const Previous answer = cache.previousAddressAndInstruction(pc, Allowed);
        EXPECT_FALSE(answer.viaJump) << label;
        EXPECT_TRUE(sameAnswer(answer, expectedPrevious(code, pc), pc)) << label;
    }
    // The instruction after the string store carries its implicit memory.
    EXPECT_TRUE(cache.previousAddressAndInstruction(0x40102d, Allowed).implicitMemory);
}

TEST(InstructionCache, AJumpFromBeyondAFunctionsEndIsForgottenWhenTheEndIsFound)
{
    ScriptedDisassembler code;
    code.linearMarksSymbols = false;
    layOutProgram(code);
    InstructionCache cache(&code);
    // Straight through the padding and main.cold, whose jump back into main
    // looks like a loop while nothing tells where main ends...
    cache.disassemble(0x40107c, 16);
    // ...until main is asked for as a whole.
    cache.disassemble(0x401060, 1);
    const unsigned long long out = code.address(QStringLiteral("main_out"));
    const Previous answer = cache.previousAddressAndInstruction(out, Allowed);
    EXPECT_FALSE(answer.viaJump);
    EXPECT_TRUE(sameAnswer(answer, expectedPrevious(code, out), out));
}

TEST(InstructionCache, UnreadableBytesAreBlacklistedAndNeverAskedAgain)
{
    ScriptedDisassembler code;
    layOutProgram(code);
    InstructionCache cache(&code);

    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(0x402800, Allowed)));
    EXPECT_TRUE(cache.blacklist().contains(0x402800));
    const int asked = code.requests.size();
    // A jump-source search never starts inside the blacklist, and a later
    // leaf nearby asks only for the bytes that no earlier request covered.
    cache.ensureJumpSources(0x402900);
    EXPECT_EQ(code.requests.size(), asked);
    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(0x402810, Allowed)));
    ASSERT_GT(code.requests.size(), asked);
    for (int i = asked; i < code.requests.size(); ++i)
        EXPECT_GE(code.requests.at(i).start, 0x402be8ULL) << i;
    EXPECT_TRUE(code.violations.isEmpty()) << code.violations.join(QLatin1Char('\n')).toStdString();
}

TEST(InstructionCache, TheFirstPageIsNeverLookedUp)
{
    ScriptedDisassembler code;
    layOutProgram(code);
    InstructionCache cache(&code);
    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(4095, Allowed)));
    EXPECT_TRUE(code.requests.isEmpty());
    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(4096, Allowed)));
    EXPECT_FALSE(code.requests.isEmpty());
}

TEST(InstructionCache, WithLookupsForbiddenOnlyTheCacheAnswers)
{
    ScriptedDisassembler code;
    layOutProgram(code);
    InstructionCache cache(&code);
    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(0x401014, Forbidden)));
    EXPECT_TRUE(code.requests.isEmpty());

    // Once sum has been disassembled for one leaf, what that pass found
    // answers: the leaf itself, the loop head through its jump and the
    // function's start. A leaf that wasn't looked up still gets nothing.
    EXPECT_EQ(cache.previousAddressAndInstruction(0x401014, Allowed).address, 0x401010ULL);
    code.requests.clear();
    EXPECT_EQ(cache.previousAddressAndInstruction(0x401014, Forbidden).address, 0x401010ULL);
    EXPECT_EQ(cache.previousAddressAndInstruction(0x401010, Forbidden).address, 0x40101bULL);
    EXPECT_EQ(cache.previousAddressAndInstruction(0x401000, Forbidden).address, 0x401000ULL);
    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(0x401018, Forbidden)));
    EXPECT_TRUE(code.requests.isEmpty());
}

// Jump distances and call mnemonics at their edges, on made-up code: a
// function with 4090 bytes of long nops between two loop heads and the two
// jumps back to them, and one in the style of another architecture.
TEST(InstructionCache, OnlyNearBackwardJumpsAreRecorded)
{
    ScriptedDisassembler code;
    QList<I> body{ plain(1, "push", "%rbp"), plain(3, "mov", "%rsp,%rbp", "far"), plain(3, "mov", "%rdi,%rbx", "near") };
    for (int i = 0; i < 409; ++i)
        body.append(plain(10, "nopw", "%cs:0x0(%rax,%rax,1)"));
    body << branch(I::Jump, 2, "jmp", "far") << branch(I::Jump, 2, "jne", "near") << plain(1, "ret", "");
    code.addFunction(QStringLiteral("spin"), 0x600000, body);
    code.addFunction(QStringLiteral("arm"), 0x700000,
                     { plain(4, "stp", "x29, x30, [sp, #-16]!"), plain(4, "mov", "x29, sp", "callee"),
                       plain(4, "add", "x0, x0, #0x1", "head"), plain(4, "cmp", "x0, x1"),
                       branch(I::Jump, 4, "b.ne", "head"), branch(I::Call, 4, "bl", "callee"),
                       plain(4, "ret", "") });
    code.resolve();
    ASSERT_EQ(0x601001 - code.address(QStringLiteral("far")), 4096u);
    ASSERT_EQ(0x601003 - code.address(QStringLiteral("near")), 4095u);

    InstructionCache cache(&code);
    const Previous far = cache.previousAddressAndInstruction(0x600001, Allowed);
    EXPECT_FALSE(far.viaJump);
    EXPECT_EQ(far.address, 0x600000ULL);
    const Previous near = cache.previousAddressAndInstruction(0x600004, Allowed);
    EXPECT_TRUE(near.viaJump);
    EXPECT_EQ(near.address, 0x601003ULL);

    const Previous head = cache.previousAddressAndInstruction(0x700008, Allowed);
    EXPECT_TRUE(head.viaJump);
    EXPECT_EQ(head.mnemonic, QStringLiteral("b.ne"));
    const Previous callee = cache.previousAddressAndInstruction(0x700004, Allowed);
    EXPECT_FALSE(callee.viaJump);
    EXPECT_EQ(callee.address, 0x700000ULL);
}

TEST(InstructionCache, AnAddressInsideAnInstructionTakesOneUpTo16BytesBack)
{
    ScriptedDisassembler code;
    // Longer than any real instruction, to reach past 16 bytes.
    code.addFunction(QStringLiteral("f"), 0x500000, { plain(1, "push", "%rbp"), plain(24, "vpxord", "(bogus)"),
                                                      plain(1, "ret", "") });
    code.resolve();
    InstructionCache cache(&code);
    const Previous inside = cache.previousAddressAndInstruction(0x500011, Allowed);
    EXPECT_EQ(inside.address, 0x500001ULL);
    EXPECT_EQ(inside.mnemonic, QStringLiteral("vpxord"));
    EXPECT_TRUE(isEmptyAnswer(cache.previousAddressAndInstruction(0x500012, Allowed)));
    EXPECT_TRUE(cache.unobtainable().contains(0x500012));
    EXPECT_EQ(cache.previousAddressAndInstruction(0x500011, Forbidden).address, 0x500001ULL);
}

TEST(InstructionCache, DisassembleGivesTheInstructionsOfARange)
{
    ScriptedDisassembler code;
    layOutProgram(code);
    InstructionCache cache(&code);
    const QMap<unsigned long long, Instruction> fill = cache.disassemble(0x401020, 0x2a);
    ASSERT_EQ(fill.size(), 16);
    EXPECT_TRUE(fill.first().symbolStart);
    EXPECT_EQ(fill.first().mnemonic, QStringLiteral("push"));
    EXPECT_EQ(fill.lastKey(), 0x401049ULL);
    EXPECT_EQ(fill.value(0x40103d).operands, QStringLiteral("0x40102f <fill+0xf>"));
    EXPECT_TRUE(fill.value(0x40102a).implicitMemory);
    const int asked = code.requests.size();
    EXPECT_EQ(cache.disassemble(0x401020, 0x2a).keys(), fill.keys());
    EXPECT_EQ(code.requests.size(), asked);
}

TEST(InstructionCache, LogsToADirectoryNamedByTheSwitch)
{
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    setenv("ZOR_DISASSEMBLY_LOGS", QFile::encodeName(directory.path()).constData(), 1);
    ++g_cacheSerial;
    {
        ScriptedDisassembler code(5);
        layOutProgram(code);
        InstructionCache cache(&code);
        ASSERT_TRUE(cache.isLogging());
        cache.previousAddressAndInstruction(0x401010, Allowed);
        cache.previousAddressAndInstruction(0x402800, Allowed);
    }
    unsetenv("ZOR_DISASSEMBLY_LOGS");
    ++g_cacheSerial;

    QFile log(directory.filePath(QStringLiteral("5.log")));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromLocal8Bit(log.readAll());
    EXPECT_TRUE(text.contains(QStringLiteral("... Found jump to 0x401010 from 0x40101b\n")));
    EXPECT_TRUE(text.contains(QStringLiteral("... Updated jump to 0x40102f to be from 0x40103d (was 0x40103d)\n")));
    EXPECT_TRUE(text.contains(QStringLiteral("... Adding symbol at 0x%1\n").arg(0x401000)));
    EXPECT_TRUE(text.contains(
        QStringLiteral("call:1 [range 0x401000 0x401011][function end 0x40101e] bytes:30B (+30B) time:")));
    EXPECT_TRUE(text.contains(QStringLiteral("first disassemble, entire function (range end not used)")));
    EXPECT_TRUE(text.contains(QStringLiteral("Blacklisting bad address range: 0x402800 - 0x402be8 (no data)")));

    // A log directory that doesn't exist logs nothing.
    setenv("KLB_DISASSEMBLY_LOGS", "/nonexistent/zor-logs", 1);
    ++g_cacheSerial;
    ScriptedDisassembler code;
    EXPECT_FALSE(InstructionCache(&code).isLogging());
    unsetenv("KLB_DISASSEMBLY_LOGS");
    ++g_cacheSerial;
}

TEST(InstructionCache, LookaheadTextRule)
{
    EXPECT_EQ(InstructionCache::lookaheadFromText(QStringLiteral("250")), 250);
    EXPECT_EQ(InstructionCache::lookaheadFromText(QStringLiteral("0")), 0);
    EXPECT_EQ(InstructionCache::lookaheadFromText(QStringLiteral("-5")), 0);
    for (const char* bad : { "", "12ab", "ab", "1e3", "0x10" })
        EXPECT_EQ(InstructionCache::lookaheadFromText(QString::fromLatin1(bad)), 1000) << bad;
}

TEST(InstructionCacheDeathTest, TheLookaheadIsReadOncePerProcess)
{
    // A fresh process, so that nothing has read the switch before.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("QUORVEX_DISASSEMBLE_LOOKAHEAD", "64", 1);
            ++g_cacheSerial;
            const long long first = InstructionCache::disassembleLookahead();
            setenv("KLB_DISASSEMBLE_LOOKAHEAD", "8", 1);
            ++g_cacheSerial;
            std::exit(first == 64 && InstructionCache::disassembleLookahead() == 64 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
