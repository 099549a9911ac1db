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

TEST(InstructionCategories, SetsHoldBaseVexAndSuffixedForms)
{
    EXPECT_TRUE(intInstructions().contains(QStringLiteral("imul")));
    EXPECT_TRUE(intInstructions().contains(QStringLiteral("imull")));    // size suffix
    EXPECT_TRUE(floatInstructions().contains(QStringLiteral("vaddsd")));  // VEX form
    EXPECT_TRUE(memInstructions().contains(QStringLiteral("movapszbl"))); // extension pair
    EXPECT_TRUE(memInstructions().contains(QStringLiteral("movapsqt")));  // then "t"
    EXPECT_TRUE(memInstructions().contains(QStringLiteral("movdqu")));
    EXPECT_FALSE(memInstructions().contains(QStringLiteral("vpmovzx"))); // added after the VEX forms
    EXPECT_TRUE(branchInstructions().contains(QStringLiteral("callq")));
    EXPECT_TRUE(floatVectorInstructions().contains(QStringLiteral("vfixupimmps")));
    EXPECT_FALSE(floatVectorInstructions().contains(QStringLiteral("addsd")));

    // The relations the categories promise.
    EXPECT_TRUE(floatInstructions().contains(floatVectorInstructions()));
    EXPECT_TRUE(intInstructions().contains(intVectorInstructions()));
    EXPECT_FALSE(memInstructions().intersects(branchInstructions()));
    EXPECT_FALSE(floatInstructions().intersects(intInstructions()));
    EXPECT_FALSE(floatInstructions().intersects(memInstructions()));

    for (const char* marker : { "mpi", "accel", "leaf-placeholder", "" })
        EXPECT_FALSE(isCategorisedInstruction(QString::fromLatin1(marker))) << marker;
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
}

} // namespace
