#include <gtest/gtest.h>

#include "instructioncategories.h"

namespace {

QList<InstructionQuery> queries(std::initializer_list<const char*> mnemonics, bool implicitMemory = false)
{
    QList<InstructionQuery> list;
    for (const char* mnemonic : mnemonics)
        list.append(InstructionQuery(QString::fromLatin1(mnemonic), implicitMemory));
    return list;
}

TEST(InstructionCategories, BaseVexAndSuffixedFormsAnsweredAsSpelledOut)
{
    const struct {
        const char* mnemonic;
        unsigned int categories;
    } cases[] = {
        { "imul", IntCategory },
        { "imull", IntCategory },                             // size suffix
        { "vaddsd", FloatCategory },                          // VEX form
        { "movapszbl", MemCategory },                         // extension pair
        { "movapsqt", MemCategory },                          // then "t"
        { "movdqu", MemCategory },
        { "vpmovzx", 0 },                                     // added after the VEX forms
        { "callq", BranchCategory },
        { "vfixupimmps", FloatCategory | FloatVectorCategory },
        { "addsd", FloatCategory },
        { "pmaxsdt", IntCategory | IntVectorCategory },
        { "imulqq", 0 },                                      // one suffix only
        { "imultt", 0 },
    };
    for (const auto& c : cases)
        EXPECT_EQ(instructionCategories(QString::fromLatin1(c.mnemonic)), c.categories) << c.mnemonic;
    for (const char* marker : { "mpi", "accel", "leaf-placeholder", "" })
        EXPECT_FALSE(isCategorisedInstruction(QString::fromLatin1(marker))) << marker;

    // The lookup strips suffixes where the tables spell every form out: both
    // agree on every spelled-out name and on names one letter off them.
    const unsigned int categories[] = { MemCategory,   BranchCategory,      FloatCategory,
                                        IntCategory,   FloatVectorCategory, IntVectorCategory };
    QSet<QString> spelled[6];
    for (int i = 0; i < 6; ++i)
        spelled[i] = instructionsOfCategory(categories[i]);
    int mismatches = 0;
    for (const QString& name : instructionsOfCategory(~0u)) {
        for (const QString& candidate : { name, name + QLatin1Char('x'), name.mid(1), name.left(name.size() - 1) }) {
            unsigned int expected = 0;
            for (int i = 0; i < 6; ++i)
                expected |= spelled[i].contains(candidate) ? categories[i] : 0;
            if (instructionCategories(candidate) != expected && ++mismatches < 10)
                ADD_FAILURE() << qPrintable(candidate);
        }
    }

    // The relations the categories promise.
    EXPECT_TRUE(spelled[2].contains(spelled[4]));
    EXPECT_TRUE(spelled[3].contains(spelled[5]));
    EXPECT_FALSE(spelled[0].intersects(spelled[1]));
    EXPECT_FALSE(spelled[2].intersects(spelled[3]));
    EXPECT_FALSE(spelled[2].intersects(spelled[0]));
}

TEST(InstructionCategories, CountsAndWholePercentages)
{
    const QList<InstructionQuery> empty;
    EXPECT_EQ(memInstructionPercentage(empty), 0u);
    EXPECT_EQ(floatInstructionPercentage(empty), 0u);
    EXPECT_EQ(otherInstructionCount(empty), 0u);

    QList<InstructionQuery> list = queries({ "vfmadd231pd", "addsd", "movq", "callq", "paddd", "frob" });
    list.append(InstructionQuery(QStringLiteral("weird"), true));
    EXPECT_EQ(floatInstructionCount(list), 2u);
    EXPECT_EQ(floatVectorInstructionCount(list), 1u);
    EXPECT_EQ(intInstructionCount(list), 1u);
    EXPECT_EQ(intVectorInstructionCount(list), 1u);
    EXPECT_EQ(branchInstructionCount(list), 1u);
    // An unknown instruction that touches memory counts as memory and as other.
    EXPECT_EQ(memInstructionCount(list), 2u);
    EXPECT_EQ(implicitMemInstructionCount(list), 1u);
    EXPECT_EQ(otherInstructionCount(list), 2u);
    EXPECT_EQ(floatInstructionPercentage(list), 28u); // 2 of 7
    EXPECT_EQ(memInstructionPercentage(list), 28u);
    EXPECT_EQ(branchInstructionPercentage(list), 14u);
    EXPECT_EQ(intVectorInstructionPercentage(list), 14u);

    // The mix in one pass gives the six percentages, on this list, on each
    // of its tails and on none.
    for (int from = 0; from <= list.size(); ++from) {
        const QList<InstructionQuery> part = list.mid(from);
        const InstructionMix mix = instructionMix(part);
        EXPECT_EQ(mix.mem, memInstructionPercentage(part)) << from;
        EXPECT_EQ(mix.branch, branchInstructionPercentage(part)) << from;
        EXPECT_EQ(mix.fp, floatInstructionPercentage(part)) << from;
        EXPECT_EQ(mix.integer, intInstructionPercentage(part)) << from;
        EXPECT_EQ(mix.vectorFp, floatVectorInstructionPercentage(part)) << from;
        EXPECT_EQ(mix.vectorInt, intVectorInstructionPercentage(part)) << from;
    }
}

} // namespace
