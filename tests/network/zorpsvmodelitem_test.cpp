#include "zorpsvmodelitem.h"
#include "xmlwriting.h"

#include <gtest/gtest.h>

#include <QXmlStreamReader>

#include <functional>
#include <memory>

namespace {

Position at(const char* function, int line = 10)
{
    return Position(QString::fromLatin1(function), QStringLiteral("/src/app.c"), line, -1);
}

// The trees of ranks 0 to count-1 merged; each is main -> solve, with solve
// on line 20 for even ranks and 21 for odd ones. Only rank 1 marks main as
// the main frame, and only even ranks have main-thread metrics.
void mergeRankTrees(ZORPSVModelItem& merged, int count)
{
    for (int rank = 0; rank < count; ++rank) {
        ZORPSVModelItem root;
        root.addThread(rank, false, false);
        ZORPSVModelItem* main = new ZORPSVModelItem(&root, at("main"));
        if (rank == 1) // the merge takes it up, and no later rank's lack of it undoes that
            main->setSpecial(ZORPSVModelItem::specialMainFrame);
        main->addThread(rank, false, false);
        main->addSampleCounts(1, 0, 0, 0);
        ZORPSVModelItem* solve = new ZORPSVModelItem(main, at("solve", 20 + rank % 2));
        solve->addThreads(rank, 1 + rank, false, false);
        solve->addSampleCounts(1, 1, rank % 2, 0);
        LineMetrics metrics;
        metrics.set(QStringLiteral("instr_mem"), rank);
        metrics.set(QStringLiteral("instr_branch"), 1);
        solve->mergeActiveCoreLineMetrics(metrics);
        if (rank % 2 == 0)
            solve->mergeMainThreadLineMetrics(metrics);
        merged.mergePSVModelItem(root, nullptr);
    }
}

// One line per node, indented by depth: position, thread counts, special
// type, the four counters, line metrics (active cores, then main thread)
// and flags. Every node must be of the tree's own type.
QString describe(const PSVModelItem& item, int depth = 0)
{
    const ZORPSVModelItem& node = dynamic_cast<const ZORPSVModelItem&>(item);
    QString text = QStringLiteral("%1%2:%3 [%4] special %5 samples %6/%7/%8/%9")
                       .arg(QString(depth * 2, QLatin1Char(' ')), node.position().function).arg(node.position().line)
                       .arg(node.processToThreadCountMap().toString()).arg(int(node.specialType())).arg(node.sampleCount())
                       .arg(node.selfSampleCount()).arg(node.mpiSampleCount()).arg(node.sleepingSampleCount());
    for (const LineMetrics* metrics : {&node.activeCoreLineMetrics(), &node.mainThreadLineMetrics()}) {
        text += QLatin1String(" |");
        for (auto it = metrics->values().constBegin(); it != metrics->values().constEnd(); ++it)
            text += QStringLiteral(" %1=%2").arg(it.key()).arg(it.value(), 0, 'g', 17);
    }
    text += QLatin1String(node.isUnexpectedStop() ? " stop" : "") + QLatin1String(node.isUnexpectedStopAncestor() ? " above-stop" : "");
    for (const PSVModelItem* child : node.children())
        text += QLatin1Char('\n') + describe(*child, depth + 1);
    return text;
}

QString embed(const ZORPSVModelItem& root)
{
    QByteArray xml;
    XmlWriter writer(&xml);
    writer.startElement(QLatin1String("sample"));
    writer.startElement(QLatin1String("before"));
    writer.endElement();
    writer.startElement(QLatin1String("tree"));
    root.writeXml(writer);
    writer.endElement();
    writer.startElement(QLatin1String("after"));
    writer.endElement();
    writer.endElement();
    return QString::fromUtf8(xml);
}

} // namespace

TEST(ZORPSVModelItem, MergingRanksAddsCountersAndLineMetrics)
{
    ZORPSVModelItem merged;
    mergeRankTrees(merged, 4);
    EXPECT_EQ(describe(merged), QStringLiteral(":-1 [0-3=1] special 0 samples 0/0/0/0 | |\n"
                                               "  main:10 [0-3=1] special 2 samples 4/0/0/0 | |\n"
                                               "    solve:20 [0=1,2=3] special 0 samples 2/2/0/0 | instr_branch=2 instr_mem=2 | instr_branch=2 instr_mem=2\n"
                                               "    solve:21 [1=2,3=4] special 0 samples 2/2/2/0 | instr_branch=2 instr_mem=4 |"));
    ZORPSVModelItem* main = merged.findChild(at("main"));
    EXPECT_EQ(main->findChild(at("solve", 21))->parentZORModelItem(), main);
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
    std::unique_ptr<ZORPSVModelItem> copy(merged.clone());
    EXPECT_EQ(describe(*copy), describe(merged));

    // The tree inside a larger element, with siblings on both sides, as a
    // sample carries it: read back the same, the reading stops at its end.
    const QString xml = embed(merged);
    QXmlStreamReader reader(xml);
    while (reader.readNextStartElement() && reader.name() != QLatin1String("tree")) {
        if (reader.name() != QLatin1String("sample"))
            reader.skipCurrentElement();
    }
    QString error;
    std::unique_ptr<ZORPSVModelItem> back(ZORPSVModelItem::readTree(reader, &error));
    ASSERT_TRUE(back) << error.toStdString();
    EXPECT_EQ(describe(*back), describe(merged));
    EXPECT_EQ(embed(*back), xml);
    EXPECT_TRUE(reader.readNextStartElement());
    EXPECT_EQ(reader.name(), QLatin1String("after"));
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
}

TEST(ZORPSVModelItem, DetectsTheOpenMpRuntimeOfATree)
{
    typedef Category::OmpCompiler C;
    const std::pair<const char*, C::Enum> cases[] = {
        {"compute._omp_fn.0", C::Gnu}, {"GOMP_parallel", C::Gnu}, {".omp_outlined._debug__", C::Llvm}, {"__kmp_invoke_microtask", C::Llvm},
        {"L_compute_12__par_region0_2_0", C::Intel}, {"__nv_compute_F1L12_1", C::Nvidia}, {"_cray$mt_execute_parallel", C::Cray},
        {"compute", C::Unknown},
    };
    for (const auto& c : cases) {
        ZORPSVModelItem root;
        new ZORPSVModelItem(new ZORPSVModelItem(&root, at("main")), Position(QString::fromLatin1(c.first)));
        EXPECT_EQ(root.detectOmpRuntime(), c.second) << c.first;
    }
}

// Trees that writesAlike calls the same write the same text, and hash
// alike; trees that write differently are never called the same. Each
// case changes one thing that the text tells, or doesn't.
TEST(ZORPSVModelItem, TreesThatWriteAlikeAreToldWithoutWriting)
{
    using Change = std::function<void(ZORPSVModelItem&, ZORPSVModelItem&, ZORPSVModelItem&)>;
    const Change none = [](ZORPSVModelItem&, ZORPSVModelItem&, ZORPSVModelItem&) {};
    // root -> main -> solve and report; solve has counts and a metric.
    const auto build = [](const Position& solvePosition, const Change& change) {
        auto* root = new ZORPSVModelItem;
        root->addThread(0, false, false);
        auto* main = new ZORPSVModelItem(root, at("main"));
        main->addThread(0, false, false);
        main->setSpecial(ZORPSVModelItem::specialMainFrame);
        auto* solve = new ZORPSVModelItem(main, solvePosition);
        solve->addThreads(0, 2, false, false);
        solve->addSampleCounts(1, 1, 0, 0);
        LineMetrics metrics;
        metrics.set(QStringLiteral("instr_fp"), 0.0);
        solve->mergeActiveCoreLineMetrics(metrics);
        auto* report = new ZORPSVModelItem(main, at("report", 30));
        report->addThread(0, false, false);
        change(*main, *solve, *report);
        return std::unique_ptr<ZORPSVModelItem>(root);
    };
    const Position solve = at("solve", 20);
    const struct
    {
        const char* what;
        Position solvePosition;
        Change change;
        bool alike; // what writesAlike must say
        bool sameText;
    } cases[] = {
        {"nothing", solve, none, true, true},
        // Another kept position, which writes as the first does.
        {"a column, which isn't written", Position(QStringLiteral("solve"), QStringLiteral("/src/app.c"), 20, 7), none,
         true, true},
        {"a line", at("solve", 21), none, false, false},
        {"a function", at("solver", 20), none, false, false},
        {"a file", Position(QStringLiteral("solve"), QStringLiteral("/src/b.c"), 20, -1), none, false, false},
        {"threads", solve, [](ZORPSVModelItem&, ZORPSVModelItem& s, ZORPSVModelItem&) { s.addThread(0, false, false); },
         false, false},
        {"another process", solve, [](ZORPSVModelItem&, ZORPSVModelItem& s, ZORPSVModelItem&) { s.addThread(3, false, false); },
         false, false},
        {"the current group", solve, [](ZORPSVModelItem&, ZORPSVModelItem&, ZORPSVModelItem& r) { r.addThreads(0, 0, true, false); },
         false, false},
        {"an unexpected stop", solve,
         [](ZORPSVModelItem&, ZORPSVModelItem&, ZORPSVModelItem& r) { r.addThreads(0, 0, false, true); }, false, false},
        {"CUDA threads", solve, [](ZORPSVModelItem&, ZORPSVModelItem&, ZORPSVModelItem& r) { r.addCudaThreads(0, 1, 1, false, false); },
         false, false},
        {"a special node", solve,
         [](ZORPSVModelItem& m, ZORPSVModelItem&, ZORPSVModelItem&) { m.setSpecial(ZORPSVModelItem::specialNone); }, false, false},
        {"counts", solve, [](ZORPSVModelItem&, ZORPSVModelItem& s, ZORPSVModelItem&) { s.addSampleCounts(0, 0, 0, 1); }, false,
         false},
        {"a metric of -0", solve,
         [](ZORPSVModelItem&, ZORPSVModelItem& s, ZORPSVModelItem&) {
             LineMetrics negative;
             negative.set(QStringLiteral("instr_fp"), -0.0);
             s.mergeMainThreadLineMetrics(negative);
         },
         false, false},
        {"a child more", solve,
         [](ZORPSVModelItem&, ZORPSVModelItem&, ZORPSVModelItem& r) { (new ZORPSVModelItem(&r, at("write", 40)))->addThread(0, false, false); },
         false, false},
        {"children in another order", solve,
         [](ZORPSVModelItem& m, ZORPSVModelItem& s, ZORPSVModelItem&) {
             s.detach();
             m.addChild(&s);
         },
         false, false},
    };
    const std::unique_ptr<ZORPSVModelItem> base = build(solve, none);
    for (const auto& c : cases) {
        const std::unique_ptr<ZORPSVModelItem> changed = build(c.solvePosition, c.change);
        EXPECT_EQ(changed->writesAlike(*base), c.alike) << c.what;
        EXPECT_EQ(base->writesAlike(*changed), c.alike) << c.what;
        // The texts themselves, so that a case that writes alike by mistake
        // can't pass for one that doesn't.
        EXPECT_EQ(embed(*changed) == embed(*base), c.sameText) << c.what;
    }
    // Trees made alike, of the same kept positions, hash alike.
    EXPECT_EQ(build(solve, none)->shapeHash(), base->shapeHash());
}
