// The instruction cache against a scripted disassembler that holds a few
// real x86 functions: every program counter in them must get the
// instruction that ran before it, whatever order the leafs come in, and
// the disassembler must never be asked for the same bytes twice.
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>

#include "../support/testenv.h"
#include "instructioncache.h"
#include "scripteddisassembler.h"

namespace {

typedef ScriptedInstruction I;
typedef InstructionCache::PreviousInstruction Previous;

const InstructionCache::AllowDisassemblyLookup Allowed = InstructionCache::DisassemblyLookupAllowed;
const InstructionCache::AllowDisassemblyLookup Forbidden = InstructionCache::DisassemblyLookupForbidden;

I plain(int length, const char* mnemonic, const char* operands, const char* label = "", bool implicitMemory = false)
{
    return I{QString::fromLatin1(label), length, QString::fromLatin1(mnemonic), QString::fromLatin1(operands), I::Plain, QString(), implicitMemory};
}

I branch(I::Kind kind, int length, const char* mnemonic, const char* target, const char* label = "")
{
    return I{QString::fromLatin1(label), length, QString::fromLatin1(mnemonic), QStringLiteral("{%1}").arg(QLatin1String(target)),
             kind, QString::fromLatin1(target)};
}

// long sum(const long* a, long n), fill(long* a, long n, long v) with a
// string store and a loop entered from two places, main calling both, and
// the cold part of main jumping back into it, as compilers lay them out.
void layOutProgram(ScriptedDisassembler& code)
{
    code.place(0x401000, {plain(2, "xor", "%eax,%eax"), plain(3, "test", "%rsi,%rsi"), branch(I::Jump, 2, "jle", "sum_ret"),
                          plain(2, "xor", "%edx,%edx"), plain(7, "nopl", "0x0(%rax)"), plain(4, "add", "(%rdi,%rdx,8),%rax", "sum_loop"),
                          plain(4, "add", "$0x1,%rdx"), plain(3, "cmp", "%rdx,%rsi"), branch(I::Jump, 2, "jne", "sum_loop"),
                          plain(1, "ret", "", "sum_ret")},
               QStringLiteral("sum"));
    code.place(0x40101e, {plain(2, "xchg", "%ax,%ax")});
    code.place(0x401020, {plain(1, "push", "%rbx"), plain(3, "mov", "%rdi,%rbx"), plain(3, "mov", "%rsi,%rcx"), plain(3, "mov", "%rdx,%rax"),
                          plain(3, "rep stos", "%rax,%es:(%rdi)", "", true), plain(2, "xor", "%edx,%edx"),
                          plain(5, "cmpq", "$0x0,(%rbx,%rdx,8)", "fill_loop"), branch(I::Jump, 2, "je", "fill_skip"),
                          plain(4, "add", "$0x1,%rdx"), plain(3, "cmp", "%rdx,%rcx"), branch(I::Jump, 2, "jne", "fill_loop"),
                          plain(4, "add", "$0x2,%rdx", "fill_skip"), plain(3, "cmp", "%rdx,%rcx"), branch(I::Jump, 2, "jg", "fill_loop"),
                          plain(1, "pop", "%rbx"), plain(1, "ret", "")},
               QStringLiteral("fill"));
    code.place(0x40104a, {plain(6, "nopw", "0x0(%rax,%rax,1)")});
    code.place(0x401050, {plain(1, "push", "%rbp"), plain(3, "mov", "%rsp,%rbp"), plain(4, "sub", "$0x40,%rsp"),
                          plain(5, "mov", "$0x8,%esi"), plain(3, "mov", "%rsp,%rdi"), branch(I::Call, 5, "call", "fill"),
                          plain(5, "mov", "$0x8,%esi"), plain(3, "mov", "%rsp,%rdi"), branch(I::Call, 5, "call", "sum"),
                          plain(2, "test", "%eax,%eax"), branch(I::Jump, 6, "jne", "main.cold"), plain(1, "leave", "", "main_out"),
                          plain(1, "ret", "")},
               QStringLiteral("main"));
    code.place(0x40107c, {plain(4, "nopl", "0x0(%rax)")});
    code.place(0x401080, {plain(5, "mov", "$0xffffffff,%eax"), branch(I::Jump, 2, "jmp", "main_out")}, QStringLiteral("main.cold"));
    code.place(0x401087, QVector<I>(0x402000 - 0x401087, plain(1, "int3", "")));
    code.resolve();
}

// What ran before `pc`, told from the layout alone: the instruction itself
// at a function's start or when `pc` lies inside it; else the lowest
// backward jump to it from within the same function and less than 4096
// bytes away; else the instruction in front of it. Nothing outside the code.
Previous expectedPrevious(const ScriptedDisassembler& code, unsigned long long pc)
{
    if (pc < 0x401000 || pc >= 0x402000)
        return Previous();
    const auto& placed = code.placed();
    const auto at = std::prev(placed.upperBound(pc));
    const auto function = code.functionAt(pc)->bytes;
    auto answer = [](const I& p, bool viaJump) { return Previous(p.address, p.mnemonic, viaJump, p.implicitMemory); };
    if (at.key() != pc || pc == function.begin)
        return answer(*at, false);
    for (auto it = placed.lowerBound(pc); it != placed.constEnd() && it.key() < function.end; ++it) {
        if (it->kind == I::Jump && it->targetAddress == pc && it.key() > pc && it.key() - pc < 4096)
            return answer(*it, true);
    }
    return answer(*std::prev(at), false);
}

std::string describe(const Previous& p)
{
    return QStringLiteral("0x%1 '%2'%3%4")
        .arg(p.address, 0, 16)
        .arg(p.mnemonic, QLatin1String(p.viaJump ? " jump" : ""), QLatin1String(p.implicitMemory ? " memory" : ""))
        .toStdString();
}

const std::string nothing = "0x0 ''";

// The program laid out, and a cache over it.
class InstructionCacheTest : public ::testing::Test
{
protected:
    void SetUp() override { layOutProgram(code); }
    std::string previous(unsigned long long pc, InstructionCache::AllowDisassemblyLookup lookup = Allowed)
    {
        return describe(cache.previousAddressAndInstruction(pc, lookup));
    }

    ScriptedDisassembler code;
    InstructionCache cache{&code};
};

enum Order { Ascending, Descending, Shuffled };

class ProgramCounters : public InstructionCacheTest, public ::testing::WithParamInterface<Order>
{
};

TEST_P(ProgramCounters, EachGetsTheInstructionThatRanBeforeIt)
{
    // Every instruction start in a function, then an address inside an
    // instruction and unreadable bytes below and above the code.
    QList<unsigned long long> pcs;
    for (const I& p : code.placed()) {
        if (code.functionAt(p.address))
            pcs.append(p.address);
    }
    pcs << code.address(QStringLiteral("sum_loop")) - 4 << 0x400800 << 0x402800 << 0x402840;
    if (GetParam() == Descending)
        std::reverse(pcs.begin(), pcs.end());
    if (GetParam() == Shuffled)
        std::shuffle(pcs.begin(), pcs.end(), std::mt19937(7));

    for (unsigned long long pc : pcs)
        EXPECT_EQ(previous(pc), describe(expectedPrevious(code, pc))) << std::hex << pc;
    EXPECT_TRUE(code.violations.isEmpty()) << code.violations.join(QLatin1Char('\n')).toStdString();

    // Everything is cached now, failures included: the same leafs again,
    // even with lookups forbidden, ask nothing and answer the same.
    const int asked = code.requests.size();
    for (unsigned long long pc : pcs) {
        EXPECT_EQ(previous(pc, Allowed), describe(expectedPrevious(code, pc))) << std::hex << pc;
        EXPECT_EQ(previous(pc, Forbidden), describe(expectedPrevious(code, pc))) << std::hex << pc;
    }
    EXPECT_EQ(code.requests.size(), asked);
}

INSTANTIATE_TEST_SUITE_P(InAnyOrder, ProgramCounters, ::testing::Values(Ascending, Descending, Shuffled));

TEST_F(InstructionCacheTest, JumpTargetsAreAnsweredWithTheJump)
{
    // What the layout's rule above gives, spelled out: sum's loop head has a
    // plain instruction in front of it in memory; fill's loop has two jumps
    // back, the lower kept; forward jumps, calls and a jump back from
    // another symbol (main.cold) don't count.
    EXPECT_EQ(previous(code.address(QStringLiteral("sum_loop"))), "0x40101b 'jne' jump");
    EXPECT_EQ(previous(code.address(QStringLiteral("fill_loop"))), "0x40103d 'jne' jump");
    EXPECT_EQ(previous(code.address(QStringLiteral("fill_skip"))), "0x40103d 'jne'");
    EXPECT_EQ(previous(code.address(QStringLiteral("main_out"))), "0x401074 'jne'");
    EXPECT_EQ(previous(code.address(QStringLiteral("fill"))), "0x401020 'push'");
    EXPECT_EQ(previous(0x40102d), "0x40102a 'rep stos' memory");
}

TEST_F(InstructionCacheTest, AJumpFromBeyondAFunctionsEndIsForgottenWhenTheEndIsFound)
{
    code.linearMarksSymbols = false;
    // Straight through the padding and main.cold, whose jump back into main
    // looks like a loop while nothing tells where main ends...
    cache.disassemble(0x40107c, 16);
    // ...until main is asked for as a whole.
    cache.disassemble(0x401060, 1);
    EXPECT_EQ(previous(code.address(QStringLiteral("main_out"))), "0x401074 'jne'");
}

TEST_F(InstructionCacheTest, UnreadableBytesAreBlacklistedAndNeverAskedAgain)
{
    EXPECT_EQ(previous(0x402800), nothing);
    EXPECT_TRUE(cache.blacklist().contains(0x402800));
    const int asked = code.requests.size();
    // A jump-source search never starts inside the blacklist, and a later
    // leaf nearby asks only for the bytes that no earlier request covered.
    cache.ensureJumpSources(0x402900);
    EXPECT_EQ(code.requests.size(), asked);
    EXPECT_EQ(previous(0x402810), nothing);
    ASSERT_GT(code.requests.size(), asked);
    for (int i = asked; i < code.requests.size(); ++i)
        EXPECT_GE(code.requests.at(i), 0x402be8ULL) << i;
    EXPECT_TRUE(code.violations.isEmpty()) << code.violations.join(QLatin1Char('\n')).toStdString();
}

TEST_F(InstructionCacheTest, WithLookupsForbiddenOnlyTheCacheAnswers)
{
    // The first page is never looked up.
    EXPECT_EQ(previous(4095), nothing);
    EXPECT_EQ(previous(0x401014, Forbidden), nothing);
    EXPECT_TRUE(code.requests.isEmpty());

    // Once sum has been disassembled for one leaf, what that pass found
    // answers: the leaf itself, the loop head through its jump and the
    // function's start. A leaf that wasn't looked up still gets nothing.
    EXPECT_EQ(previous(0x401014), "0x401010 'add'");
    code.requests.clear();
    EXPECT_EQ(previous(0x401014, Forbidden), "0x401010 'add'");
    EXPECT_EQ(previous(0x401010, Forbidden), "0x40101b 'jne' jump");
    EXPECT_EQ(previous(0x401000, Forbidden), "0x401000 'xor'");
    EXPECT_EQ(previous(0x401018, Forbidden), nothing);
    EXPECT_TRUE(code.requests.isEmpty());
}

// Jump distances and call mnemonics at their edges, on made-up code: a
// function with 4090 bytes of long nops between two loop heads and the two
// jumps back to them, one in the style of another architecture, and an
// instruction longer than any real one, to reach past 16 bytes; all of
// them beside the program.
TEST_F(InstructionCacheTest, OnlyNearBackwardJumpsAndShortInstructionsCount)
{
    QVector<I> body{plain(1, "push", "%rbp"), plain(3, "mov", "%rsp,%rbp", "far"), plain(3, "mov", "%rdi,%rbx", "near")};
    body.append(QVector<I>(409, plain(10, "nopw", "%cs:0x0(%rax,%rax,1)")));
    body << branch(I::Jump, 2, "jmp", "far") << branch(I::Jump, 2, "jne", "near") << plain(1, "ret", "");
    code.place(0x600000, body, QStringLiteral("spin"));
    code.place(0x700000, {plain(4, "stp", "x29, x30, [sp, #-16]!"), plain(4, "mov", "x29, sp", "callee"), plain(4, "add", "x0, x0, #0x1", "head"),
                          plain(4, "cmp", "x0, x1"), branch(I::Jump, 4, "b.ne", "head"), branch(I::Call, 4, "bl", "callee"), plain(4, "ret", "")},
               QStringLiteral("arm"));
    code.place(0x500000, {plain(1, "push", "%rbp"), plain(24, "vpxord", "(bogus)"), plain(1, "ret", "")}, QStringLiteral("f"));
    code.resolve();
    ASSERT_EQ(0x601001 - code.address(QStringLiteral("far")), 4096u);
    EXPECT_EQ(previous(0x600001), "0x600000 'push'");
    EXPECT_EQ(previous(0x600004), "0x601003 'jne' jump");
    EXPECT_EQ(previous(0x700008), "0x700010 'b.ne' jump");
    EXPECT_EQ(previous(0x700004), "0x700000 'stp'");

    EXPECT_EQ(previous(0x500011), "0x500001 'vpxord'");
    EXPECT_EQ(previous(0x500012), nothing);
    EXPECT_TRUE(cache.unobtainable().contains(0x500012));
    EXPECT_EQ(previous(0x500011, Forbidden), "0x500001 'vpxord'");
}

TEST(InstructionCache, DisassembleAndItsLog)
{
    QTemporaryDir directory;
    setSwitch("ZOR_DISASSEMBLY_LOGS", directory.path());
    {
        ScriptedDisassembler code(5);
        layOutProgram(code);
        InstructionCache cache(&code);
        const QMap<unsigned long long, Instruction> fill = cache.disassemble(0x401020, 0x2a);
        EXPECT_EQ(fill.size(), 16);
        EXPECT_EQ(fill.first().toString(0x401020), QStringLiteral("*0x401020 push %rbx"));
        EXPECT_EQ(cache.disassemble(0x401020, 0x2a).keys(), fill.keys());
        cache.previousAddressAndInstruction(0x401010, Allowed);
        cache.previousAddressAndInstruction(0x402800, Allowed);
        EXPECT_TRUE(code.violations.isEmpty()) << code.violations.join(QLatin1Char('\n')).toStdString();
    }
    // A log directory that doesn't exist logs nothing.
    setSwitch("ZOR_DISASSEMBLY_LOGS", QStringLiteral("/nonexistent/zor-logs"));
    ScriptedDisassembler code;
    EXPECT_FALSE(InstructionCache(&code).isLogging());
    setSwitch("ZOR_DISASSEMBLY_LOGS", QString());

    QFile log(directory.filePath(QStringLiteral("5.log")));
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromLocal8Bit(log.readAll());
    for (const char* line : {"... Found jump to 0x401010 from 0x40101b\n", "... Updated jump to 0x40102f to be from 0x40103d (was 0x40103d)\n",
                             "... Adding symbol at 0x4198400\n" /* decimal, as the log has it */,
                             "Blacklisting bad address range: 0x402800 - 0x402be8 (no data)"})
        EXPECT_TRUE(text.contains(QString::fromLatin1(line))) << line;
}

TEST(InstructionCache, LookaheadTextRule)
{
    EXPECT_EQ(InstructionCache::lookaheadFromText(QStringLiteral("250")), 250);
    EXPECT_EQ(InstructionCache::lookaheadFromText(QStringLiteral("-5")), 0);
    for (const char* bad : {"", "12ab", "1e3", "0x10"})
        EXPECT_EQ(InstructionCache::lookaheadFromText(QString::fromLatin1(bad)), 1000) << bad;
}

} // namespace
