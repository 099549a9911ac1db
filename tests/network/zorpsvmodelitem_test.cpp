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

// One rank's tree: main -> solve (-> kernel) with the rank's counts.
ZORPSVModelItem* rankTree(int rank)
{
    ZORPSVModelItem* root = new ZORPSVModelItem;
    root->addThread(rank, false, false);
    ZORPSVModelItem* main = new ZORPSVModelItem(root, at("main"));
    main->setSpecial(ZORPSVModelItem::specialMainFrame);
    main->addThread(rank, false, false);
    main->addSampleCounts(1, 0, 0, 0);
    ZORPSVModelItem* solve = new ZORPSVModelItem(main, at("solve", 20 + rank % 2));
    solve->addThreads(rank, 1 + rank, false, false);
    solve->addSampleCounts(1, 1, rank % 2, 0);
    solve->mergeActiveCoreLineMetrics(metrics(rank, 1));
    if (rank == 0)
        solve->mergeMainThreadLineMetrics(metrics(0.5, 0));
    return root;
}

void expectSameTree(const ZORPSVModelItem& a, const ZORPSVModelItem& b)
{
    SCOPED_TRACE(a.position().displayName().toStdString());
    EXPECT_EQ(a.position(), b.position());
    EXPECT_EQ(a.processToThreadCountMap(), b.processToThreadCountMap());
    EXPECT_EQ(a.isUnexpectedStop(), b.isUnexpectedStop());
    EXPECT_EQ(a.isUnexpectedStopAncestor(), b.isUnexpectedStopAncestor());
    EXPECT_EQ(a.specialType(), b.specialType());
    EXPECT_EQ(a.sampleCount(), b.sampleCount());
    EXPECT_EQ(a.selfSampleCount(), b.selfSampleCount());
    EXPECT_EQ(a.mpiSampleCount(), b.mpiSampleCount());
    EXPECT_EQ(a.sleepingSampleCount(), b.sleepingSampleCount());
    EXPECT_EQ(a.activeCoreLineMetrics(), b.activeCoreLineMetrics());
    EXPECT_EQ(a.mainThreadLineMetrics(), b.mainThreadLineMetrics());
    ASSERT_EQ(a.childCount(), b.childCount());
    for (int i = 0; i < a.childCount(); ++i) {
        const ZORPSVModelItem* childA = dynamic_cast<const ZORPSVModelItem*>(a.children().at(i));
        const ZORPSVModelItem* childB = dynamic_cast<const ZORPSVModelItem*>(b.children().at(i));
        ASSERT_TRUE(childA && childB);
        expectSameTree(*childA, *childB);
    }
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

// Reads the tree out of embed's text and checks that the reader carries on
// at the element after it.
std::unique_ptr<ZORPSVModelItem> extract(const QString& xml, QString* error)
{
    QXmlStreamReader reader(xml);
    reader.readNextStartElement(); // sample
    reader.readNextStartElement(); // before
    reader.skipCurrentElement();
    reader.readNextStartElement(); // tree
    std::unique_ptr<ZORPSVModelItem> root(ZORPSVModelItem::readTree(reader, error));
    if (root) {
        EXPECT_TRUE(reader.readNextStartElement());
        EXPECT_EQ(reader.name(), QLatin1String("after"));
    }
    return root;
}

} // namespace

TEST(ZORPSVModelItem, LookupsAndCopiesStayInTheTreeType)
{
    ZORPSVModelItem root;
    ZORPSVModelItem* main = new ZORPSVModelItem(&root, at("main"));
    main->setSpecial(ZORPSVModelItem::specialOmpMonitor);
    new ZORPSVModelItem(main, at("solve"));
    EXPECT_EQ(main->parentZORModelItem(), &root);
    EXPECT_EQ(root.findChild(at("main")), main);
    EXPECT_EQ(root.findChild(at("main", 11)), nullptr);
    EXPECT_NE(dynamic_cast<ZORPSVModelItem*>(main->createChild(at("x"))), nullptr);

    std::unique_ptr<ZORPSVModelItem> copy(root.clone());
    ASSERT_NE(copy->findChild(at("main")), nullptr);
    EXPECT_EQ(copy->findChild(at("main"))->specialType(), ZORPSVModelItem::specialOmpMonitor);
    EXPECT_NE(dynamic_cast<ZORPSVModelItem*>(copy->firstChild()->firstChild()), nullptr);
    EXPECT_TRUE(ZORPSVModelItem(Position(QStringLiteral("[w]")), 3, 1, 0, 2).isMultiSamplePSVModel());
}

TEST(ZORPSVModelItem, MergingRanksAddsCountersAndLineMetrics)
{
    ZORPSVModelItem merged;
    for (int rank = 0; rank < 4; ++rank) {
        ZORPSVModelItem* tree = rankTree(rank);
        merged.mergePSVModelItem(*tree, nullptr);
        delete tree;
    }
    ZORPSVModelItem* main = merged.findChild(at("main"));
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(main->specialType(), ZORPSVModelItem::specialMainFrame);
    EXPECT_EQ(main->sampleCount(), 4);
    EXPECT_EQ(main->processToThreadCountMap().toString(), QStringLiteral("0-3=1"));

    // Even ranks stop on line 20, odd ones on line 21.
    ASSERT_EQ(main->childCount(), 2);
    ZORPSVModelItem* even = main->findChild(at("solve", 20));
    ZORPSVModelItem* odd = main->findChild(at("solve", 21));
    ASSERT_TRUE(even && odd);
    EXPECT_EQ(even->processToThreadCountMap().toString(), QStringLiteral("0=1,2=3"));
    EXPECT_EQ(odd->totalThreads(), 2 + 4);
    EXPECT_EQ(odd->mpiSampleCount(), 2);
    EXPECT_EQ(even->activeCoreLineMetrics(), metrics(0 + 2, 2));
    EXPECT_EQ(odd->activeCoreLineMetrics(), metrics(1 + 3, 2));
    EXPECT_EQ(even->mainThreadLineMetrics(), metrics(0.5, 0));
    EXPECT_TRUE(odd->mainThreadLineMetrics().isEmpty());
}

TEST(ZORPSVModelItem, EmbeddedTreeReadsBackEqual)
{
    ZORPSVModelItem merged;
    for (int rank = 0; rank < 3; ++rank) {
        ZORPSVModelItem* tree = rankTree(rank);
        merged.mergePSVModelItem(*tree, nullptr);
        delete tree;
    }
    ZORPSVModelItem* leaf = new ZORPSVModelItem(merged.findChild(at("main")), Position(QStringLiteral("[partial]")));
    leaf->setSpecial(ZORPSVModelItem::specialPartialTrace);
    leaf->addThread(1, false, true);
    LineMetrics fractions;
    fractions.set(QStringLiteral("instr_fp"), 1.0 / 3.0);
    leaf->mergeActiveCoreLineMetrics(fractions);

    const QString xml = embed(merged);
    QString error;
    std::unique_ptr<ZORPSVModelItem> back = extract(xml, &error);
    ASSERT_TRUE(back) << error.toStdString();
    expectSameTree(merged, *back);
    EXPECT_TRUE(back->findChild(at("main"))->isUnexpectedStopAncestor());
    EXPECT_EQ(embed(*back), xml);

    // The element-by-element path builds the same tree.
    QXmlStreamReader reader(xml);
    while (reader.readNextStartElement() && reader.name() != QLatin1String("tree")) {
        if (reader.name() != QLatin1String("sample"))
            reader.skipCurrentElement();
    }
    ZORPSVModelItem viaHandler;
    ASSERT_TRUE(viaHandler.parseElement(reader, &error)) << error.toStdString();
    expectSameTree(merged, viaHandler);
    QXmlStreamReader truncated(xml.left(xml.indexOf(QStringLiteral("</tree>")) - 5));
    truncated.readNextStartElement();
    ZORPSVModelItem partial;
    EXPECT_FALSE(partial.parseElement(truncated, &error));
}

TEST(ZORPSVModelItem, MalformedTreesAreRejected)
{
    const struct
    {
        const char* tree;
        const char* why;
    } cases[] = {
        {"<tree><node function=\"f\" special=\"99\"/></tree>", "special out of range"},
        {"<tree><node function=\"f\" samples=\"1,2\"/></tree>", "too few counters"},
        {"<tree samples=\"1,x,0,0\"/>", "counter not a number"},
        {"<tree><activeCoreLineMetrics><metric>instr_mem</metric></activeCoreLineMetrics></tree>", "entry without value"},
        {"<tree><node function=\"f\"><node function=\"g\"", "truncated"},
    };
    for (const auto& c : cases) {
        QXmlStreamReader reader(QString::fromLatin1(c.tree));
        ASSERT_TRUE(reader.readNextStartElement());
        QString error;
        std::unique_ptr<ZORPSVModelItem> root(ZORPSVModelItem::readTree(reader, &error));
        EXPECT_FALSE(root) << c.why;
        EXPECT_FALSE(error.isEmpty()) << c.why;
    }
    QXmlStreamReader notAtElement(QStringLiteral("<tree/>"));
    QString error;
    EXPECT_EQ(ZORPSVModelItem::readTree(notAtElement, &error), nullptr);
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
        ZORPSVModelItem* main = new ZORPSVModelItem(&root, at("main"));
        new ZORPSVModelItem(main, Position(QString::fromLatin1(c.frame)));
        EXPECT_EQ(root.detectOmpRuntime(), c.runtime) << c.frame;
    }
}
