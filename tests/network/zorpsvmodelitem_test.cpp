#include "zorpsvmodelitem.h"

#include <gtest/gtest.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <memory>

namespace {

Position at(const char* function, int line = 10)
{
    return Position(QString::fromLatin1(function), QStringLiteral("/src/app.c"), line, -1);
}

LineMetrics metrics(double memory, double branches)
{
    LineMetrics m;
    m.set(QStringLiteral("instr_mem"), memory);
    m.set(QStringLiteral("instr_branch"), branches);
    return m;
}

// The trees of ranks 0 to count-1 merged; each is main -> solve, with solve
// on line 20 for even ranks and 21 for odd ones.
void mergeRankTrees(ZORPSVModelItem& merged, int count)
{
    for (int rank = 0; rank < count; ++rank) {
        ZORPSVModelItem root;
        root.addThread(rank, false, false);
        ZORPSVModelItem* main = new ZORPSVModelItem(&root, at("main"));
        main->setSpecial(ZORPSVModelItem::specialMainFrame);
        main->addThread(rank, false, false);
        main->addSampleCounts(1, 0, 0, 0);
        ZORPSVModelItem* solve = new ZORPSVModelItem(main, at("solve", 20 + rank % 2));
        solve->addThreads(rank, 1 + rank, false, false);
        solve->addSampleCounts(1, 1, rank % 2, 0);
        solve->mergeActiveCoreLineMetrics(metrics(rank, 1));
        if (rank == 0)
            solve->mergeMainThreadLineMetrics(metrics(0.5, 0));
        merged.mergePSVModelItem(root, nullptr);
    }
}

void expectSameTree(const ZORPSVModelItem& a, const ZORPSVModelItem& b)
{
    SCOPED_TRACE(a.position().displayName().toStdString());
    EXPECT_EQ(a.position(), b.position());
    EXPECT_EQ(a.processToThreadCountMap(), b.processToThreadCountMap());
    EXPECT_EQ(a.isUnexpectedStop(), b.isUnexpectedStop());
    EXPECT_EQ(a.isUnexpectedStopAncestor(), b.isUnexpectedStopAncestor());
    EXPECT_EQ(a.specialType(), b.specialType());
    EXPECT_EQ(QList<int>({a.sampleCount(), a.selfSampleCount(), a.mpiSampleCount(), a.sleepingSampleCount()}),
              QList<int>({b.sampleCount(), b.selfSampleCount(), b.mpiSampleCount(), b.sleepingSampleCount()}));
    EXPECT_EQ(a.activeCoreLineMetrics(), b.activeCoreLineMetrics());
    EXPECT_EQ(a.mainThreadLineMetrics(), b.mainThreadLineMetrics());
    ASSERT_EQ(a.childCount(), b.childCount());
    for (int i = 0; i < a.childCount(); ++i)
        expectSameTree(dynamic_cast<const ZORPSVModelItem&>(*a.children().at(i)), dynamic_cast<const ZORPSVModelItem&>(*b.children().at(i)));
}

// The tree inside a larger element, with siblings on both sides, as a
// sample carries it.
QString embed(const ZORPSVModelItem& root)
{
    QString xml;
    QXmlStreamWriter writer(&xml);
    writer.writeStartElement(QStringLiteral("sample"));
    writer.writeEmptyElement(QStringLiteral("before"));
    writer.writeStartElement(QStringLiteral("tree"));
    root.writeXml(writer);
    writer.writeEndElement();
    writer.writeEmptyElement(QStringLiteral("after"));
    writer.writeEndElement();
    return xml;
}

} // namespace

TEST(ZORPSVModelItem, MergingRanksAddsCountersAndLineMetrics)
{
    ZORPSVModelItem merged;
    mergeRankTrees(merged, 4);
    ZORPSVModelItem* main = merged.findChild(at("main"));
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(main->specialType(), ZORPSVModelItem::specialMainFrame);
    EXPECT_EQ(main->sampleCount(), 4);
    EXPECT_EQ(main->processToThreadCountMap().toString(), QStringLiteral("0-3=1"));

    ASSERT_EQ(main->childCount(), 2);
    ZORPSVModelItem* even = main->findChild(at("solve", 20));
    ZORPSVModelItem* odd = main->findChild(at("solve", 21));
    ASSERT_TRUE(even && odd);
    EXPECT_EQ(even->parentZORModelItem(), main);
    EXPECT_EQ(even->processToThreadCountMap().toString(), QStringLiteral("0=1,2=3"));
    EXPECT_EQ(odd->mpiSampleCount(), 2);
    EXPECT_EQ(even->activeCoreLineMetrics(), metrics(0 + 2, 2));
    EXPECT_EQ(odd->activeCoreLineMetrics(), metrics(1 + 3, 2));
    EXPECT_EQ(even->mainThreadLineMetrics(), metrics(0.5, 0));
    EXPECT_TRUE(odd->mainThreadLineMetrics().isEmpty());
}

TEST(ZORPSVModelItem, EmbeddedTreeReadsBackEqual)
{
    ZORPSVModelItem merged;
    mergeRankTrees(merged, 3);
    ZORPSVModelItem* leaf = new ZORPSVModelItem(merged.findChild(at("main")), Position(QStringLiteral("[partial]")));
    leaf->setSpecial(ZORPSVModelItem::specialPartialTrace);
    leaf->addThread(1, false, true);
    LineMetrics fractions;
    fractions.set(QStringLiteral("instr_fp"), 1.0 / 3.0);
    leaf->mergeActiveCoreLineMetrics(fractions);
    const QString xml = embed(merged);
    std::unique_ptr<ZORPSVModelItem> copy(merged.clone());
    expectSameTree(merged, *copy);

    // Both reading paths build the same tree and stop at the tree's end.
    for (bool viaHandler : {false, true}) {
        QXmlStreamReader reader(xml);
        while (reader.readNextStartElement() && reader.name() != QLatin1String("tree")) {
            if (reader.name() != QLatin1String("sample"))
                reader.skipCurrentElement();
        }
        QString error;
        std::unique_ptr<ZORPSVModelItem> back(viaHandler ? new ZORPSVModelItem : ZORPSVModelItem::readTree(reader, &error));
        if (viaHandler && !back->parseElement(reader, &error))
            back.reset();
        ASSERT_TRUE(back) << error.toStdString();
        expectSameTree(merged, *back);
        EXPECT_EQ(embed(*back), xml);
        EXPECT_TRUE(reader.readNextStartElement());
        EXPECT_EQ(reader.name(), QLatin1String("after"));
    }
}

TEST(ZORPSVModelItem, MalformedTreesAreRejected)
{
    for (const char* tree : {
             "<tree><node function=\"f\" special=\"99\"/></tree>",  // special out of range
             "<tree><node function=\"f\" samples=\"1,2\"/></tree>",  // too few counters
             "<tree samples=\"1,x,0,0\"/>",                          // counter not a number
             "<tree><activeCoreLineMetrics><metric>instr_mem</metric></activeCoreLineMetrics></tree>",
             "<tree><node function=\"f\"><node function=\"g\"",     // truncated
         }) {
        QXmlStreamReader reader(QString::fromLatin1(tree));
        ASSERT_TRUE(reader.readNextStartElement());
        QString error;
        std::unique_ptr<ZORPSVModelItem> root(ZORPSVModelItem::readTree(reader, &error));
        EXPECT_FALSE(root) << tree;
        EXPECT_FALSE(error.isEmpty()) << tree;
    }
    // The element-by-element path fails on a truncated tree too.
    QXmlStreamReader truncated(QStringLiteral("<tree><node function=\"f\"><node function=\"g\""));
    truncated.readNextStartElement();
    QString error;
    EXPECT_FALSE(ZORPSVModelItem().parseElement(truncated, &error));
}

TEST(ZORPSVModelItem, DetectsTheOpenMpRuntimeOfATree)
{
    const struct
    {
        const char* frame;
        Category::OmpCompiler::Enum runtime;
    } cases[] = {
        {"compute._omp_fn.0", Category::OmpCompiler::Gnu},
        {"GOMP_parallel", Category::OmpCompiler::Gnu},
        {".omp_outlined._debug__", Category::OmpCompiler::Llvm},
        {"__kmp_invoke_microtask", Category::OmpCompiler::Llvm},
        {"L_compute_12__par_region0_2_0", Category::OmpCompiler::Intel},
        {"__nv_compute_F1L12_1", Category::OmpCompiler::Nvidia},
        {"_cray$mt_execute_parallel", Category::OmpCompiler::Cray},
        {"compute", Category::OmpCompiler::Unknown},
    };
    for (const auto& c : cases) {
        ZORPSVModelItem root;
        new ZORPSVModelItem(new ZORPSVModelItem(&root, at("main")), Position(QString::fromLatin1(c.frame)));
        EXPECT_EQ(root.detectOmpRuntime(), c.runtime) << c.frame;
    }
}
