// Sorting instruction mnemonics (x86, AT&T spelling with size suffixes) into
// six categories, and counting them over the instructions under samples.
#ifndef ZOR_INSTRUCTIONCATEGORIES_H
#define ZOR_INSTRUCTIONCATEGORIES_H

#include <QList>
#include <QSet>
#include <QString>

#include "instructionquery.h"

enum InstructionCategory : unsigned int {
    MemCategory = 1,
    BranchCategory = 2,
    FloatCategory = 4,
    IntCategory = 8,
    FloatVectorCategory = 16,
    IntVectorCategory = 32
};

// The categories of a mnemonic, or-ed together; 0 for none.
unsigned int instructionCategories(const QString& mnemonic);
// Every mnemonic of the given categories spelled out: about a hundred
// thousand names, for checking the tables rather than for lookups.
QSet<QString> instructionsOfCategory(unsigned int categories);

// Counts of the queries in each category; memory counts include queries
// that touch memory implicitly. A float vector instruction counts as float
// too, so percentages may add up to more than 100.
quint32 memInstructionCount(const QList<InstructionQuery>& list);
quint32 branchInstructionCount(const QList<InstructionQuery>& list);
quint32 floatInstructionCount(const QList<InstructionQuery>& list);
quint32 intInstructionCount(const QList<InstructionQuery>& list);
quint32 floatVectorInstructionCount(const QList<InstructionQuery>& list);
quint32 intVectorInstructionCount(const QList<InstructionQuery>& list);
quint32 implicitMemInstructionCount(const QList<InstructionQuery>& list);
quint32 otherInstructionCount(const QList<InstructionQuery>& list);

// Whole percentages of the list; 0 for an empty list.
quint32 memInstructionPercentage(const QList<InstructionQuery>& list);
quint32 branchInstructionPercentage(const QList<InstructionQuery>& list);
quint32 floatInstructionPercentage(const QList<InstructionQuery>& list);
quint32 intInstructionPercentage(const QList<InstructionQuery>& list);
quint32 floatVectorInstructionPercentage(const QList<InstructionQuery>& list);
quint32 intVectorInstructionPercentage(const QList<InstructionQuery>& list);

// The six percentages above in one pass, each mnemonic looked up once.
struct InstructionMix
{
    quint32 mem = 0, branch = 0, fp = 0, integer = 0, vectorFp = 0, vectorInt = 0;
};
InstructionMix instructionMix(const QList<InstructionQuery>& list);

// In one of the six sets.
bool isCategorisedInstruction(const QString& mnemonic);

#endif
