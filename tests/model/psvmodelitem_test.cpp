#include "psvmodelitem.h"

#include <gtest/gtest.h>

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <map>
#include <memory>
#include <random>
#include <vector>

namespace {

QString writeTree(const PSVModelItem& root)
{
    QString xml;
    QXmlStreamWriter writer(&xml);
    writer.writeStartDocument();
    writer.writeStartElement(QStringLiteral("tree"));
    root.writeXml(writer);
    writer.writeEndElement();
    writer.writeEndDocument();
    return xml;
}

// Reads the tree written by writeTree; null with *error set on failure.
std::unique_ptr<PSVModelItem> readTree(const QString& xml, QString* error)
{
    QXmlStreamReader reader(xml);
    if (!reader.readNextStartElement()) {
        *error = QStringLiteral("no element");
        return nullptr;
    }
    std::unique_ptr<PSVModelItem> root(new PSVModelItem);
    if (!root->readXml(reader, error))
        return nullptr;
    return root;
}

void expectSameTree(const PSVModelItem& a, const PSVModelItem& b, const QString& where)
{
    SCOPED_TRACE(where.toStdString());
    EXPECT_EQ(a.position(), b.position());
    EXPECT_EQ(a.processToThreadCountMap(), b.processToThreadCountMap());
    // An empty CUDA map isn't written, so only its emptiness comes back.
    if (a.processToCudaThreadCountMap().isEmpty())
        EXPECT_TRUE(b.processToCudaThreadCountMap().isEmpty());
    else
        EXPECT_EQ(a.processToCudaThreadCountMap(), b.processToCudaThreadCountMap());
    EXPECT_EQ(a.isCurrentGroup(), b.isCurrentGroup());
    EXPECT_EQ(a.isUnexpectedStop(), b.isUnexpectedStop());
    EXPECT_EQ(a.isUnexpectedStopAncestor(), b.isUnexpectedStopAncestor());
    ASSERT_EQ(a.childCount(), b.childCount());
    for (int i = 0; i < a.childCount(); ++i)
        expectSameTree(*a.children().at(i), *b.children().at(i), where + QLatin1Char('/') + a.children().at(i)->position().function);
}

Position framePosition(int function, int line)
{
    return Position(QStringLiteral("f%1").arg(function), QStringLiteral("/src/m%1.c").arg(function % 3), line, -1);
}

// A rank's tree: a random call tree over a small set of frames, each node
// with its own thread count for this rank.
void growTree(PSVModelItem* node, int rank, int depth, std::mt19937& rng)
{
    if (depth == 5)
        return;
    const int children = int(rng() % 4);
    std::vector<int> used;
    for (int i = 0; i < children; ++i) {
        const int frame = int(rng() % 6);
        if (std::find(used.begin(), used.end(), frame) != used.end())
            continue; // one node per position, as trees are built
        used.push_back(frame);
        PSVModelItem* child = new PSVModelItem(node, framePosition(frame, 10 + frame));
        child->addThreads(rank, 1 + int(rng() % 3), false, false);
        growTree(child, rank, depth + 1, rng);
    }
}

typedef std::map<QString, std::map<int, int>> CountsByPath;

void collectCounts(const PSVModelItem& node, const QString& path, CountsByPath& counts)
{
    for (const auto& entry : node.processToThreadCountMap()) {
        for (int rank = entry.first.begin; rank < entry.first.end; ++rank)
            counts[path][rank] += entry.second;
    }
    for (const PSVModelItem* child : node.children())
        collectCounts(*child, path + QLatin1Char('/') + child->position().function, counts);
}

struct Frame
{
    QString function;
    QString file;
    int line;
};

} // namespace

TEST(PSVModelItem, TreeLinksAndLookups)
{
    PSVModelItem root;
    PSVModelItem* main = new PSVModelItem(&root, Position(QStringLiteral("main"), QStringLiteral("/src/app/main.c"), 3, -1));
    PSVModelItem* solve = new PSVModelItem(main, Position(QStringLiteral("solve"), QStringLiteral("/src/app/solve.c"), 40, -1));
    PSVModelItem* io = new PSVModelItem(main, Position(QStringLiteral("io"), QStringLiteral("/src/app/io.c"), 7, -1));
    EXPECT_EQ(main->parent(), &root);
    EXPECT_EQ(main->indexOfChild(io), 1);
    EXPECT_EQ(root.firstChild(), main);

    // The same file under another spelling is the same frame; another line isn't.
    EXPECT_EQ(main->findChild(Position(QStringLiteral("solve"), QStringLiteral("app/./solve.c"), 40, -1)), solve);
    EXPECT_EQ(main->findChild(Position(QStringLiteral("solve"), QStringLiteral("/src/app/solve.c"), 41, -1)), nullptr);
    EXPECT_EQ(main->findChild(Position(QStringLiteral("solve"), QStringLiteral("/other/solve.c"), 40, -1)), nullptr);
    EXPECT_EQ(main->findChild(io->position()), io);

    const QList<Frame*> none;
    Frame mainFrame{QStringLiteral("main"), QStringLiteral("/src/app/main.c"), 3};
    Frame ioFrame{QStringLiteral("io"), QStringLiteral("/src/app/io.c"), 7};
    Frame missing{QStringLiteral("gone"), QString(), 1};
    EXPECT_EQ(root.findDescendant(QList<Frame*>{&ioFrame, &mainFrame}), io); // innermost first
    EXPECT_EQ(root.findDescendant(QList<Frame*>{&missing, &mainFrame}), nullptr);
    EXPECT_EQ(root.findDescendant(none), &root);

    EXPECT_TRUE(root.stack().isEmpty());
    const QList<Position> stack = io->stack();
    ASSERT_EQ(stack.size(), 3);
    EXPECT_EQ(stack.at(1).function, QStringLiteral("main"));
    EXPECT_EQ(stack.at(2).function, QStringLiteral("io"));

    io->addThread(4, false, false);
    solve->addThread(2, false, false);
    EXPECT_EQ(main->childWithRank(4), io);
    EXPECT_EQ(main->childWithRank(3), nullptr);

    io->detach();
    EXPECT_EQ(io->parent(), nullptr);
    delete io;
    delete solve; // unlinks itself
    EXPECT_EQ(main->childCount(), 0);
}

TEST(PSVModelItem, ThreadCountsAndFlags)
{
    PSVModelItem root;
    PSVModelItem* a = new PSVModelItem(&root, Position(QStringLiteral("a")));
    PSVModelItem* b = new PSVModelItem(a, Position(QStringLiteral("b")));

    b->addThreads(0, 3, false, false);
    b->addThread(5, true, false);
    EXPECT_EQ(b->totalThreads(), 4);
    EXPECT_EQ(b->totalProcesses(), 2);
    EXPECT_TRUE(b->isCurrentGroup());
    EXPECT_TRUE(b->hasThreadsForProcessSet(CompactSet<int>(QStringLiteral("0,5"))));
    EXPECT_FALSE(b->hasThreadsForProcessSet(CompactSet<int>(QStringLiteral("0-5"))));
    EXPECT_TRUE(b->hasThreadsForProcessSet(CompactSet<int>()));
    EXPECT_EQ(b->processes().toString(), QStringLiteral("0,5"));

    b->removeThread(5);
    EXPECT_EQ(b->totalThreads(), 3);

    // One thread per CUDA group, every CUDA count.
    PSVModelItem* kernel = new PSVModelItem(b, Position(QStringLiteral("kernel")));
    PSVModelItem* device = new PSVModelItem(kernel, Position(QStringLiteral("device_fn")));
    kernel->addCudaThreads(1, 7, 32, false, false);
    kernel->addCudaThreads(1, 7, 32, false, false);
    EXPECT_EQ(kernel->totalThreads(), 1);
    EXPECT_EQ(kernel->totalCudaThreads(), 64);
    kernel->addCudaThreads(1, 8, 16, false, false);
    EXPECT_EQ(kernel->totalThreads(), 2);
    device->addCudaThreads(1, 7, 8, false, false);
    EXPECT_EQ(device->getKernelName(), QStringLiteral("kernel"));
    EXPECT_EQ(b->getKernelName(), QStringLiteral("b"));
    EXPECT_EQ(root.getKernelName(), QString());

    // The flag marks every ancestor, and false never clears it.
    device->addThread(1, false, true);
    EXPECT_TRUE(device->isUnexpectedStop());
    EXPECT_TRUE(a->isUnexpectedStopAncestor());
    EXPECT_TRUE(root.isUnexpectedStopAncestor());
    EXPECT_FALSE(b->isUnexpectedStop());
    device->setUnexpectedStop(false);
    EXPECT_TRUE(device->isUnexpectedStop());
}

TEST(PSVModelItem, MergingRankTreesKeepsEveryCountExact)
{
    const int ranks = 64;
    PSVModelItem merged;
    CountsByPath expected;
    std::mt19937 rng(3);
    for (int rank = 0; rank < ranks; ++rank) {
        PSVModelItem* tree = new PSVModelItem;
        tree->addThreads(rank, 1 + rank % 2, false, false);
        growTree(tree, rank, 0, rng);
        collectCounts(*tree, QString(), expected);
        merged.mergePSVModelItem(*tree, nullptr);
        delete tree;
    }

    CountsByPath actual;
    collectCounts(merged, QString(), actual);
    ASSERT_EQ(actual.size(), expected.size());
    for (const auto& node : expected) {
        SCOPED_TRACE(node.first.toStdString());
        ASSERT_EQ(actual.count(node.first), 1u);
        EXPECT_EQ(actual[node.first], node.second);
    }

    // No position stands twice among siblings, which the sums above hide.
    std::vector<const PSVModelItem*> pending{&merged};
    while (!pending.empty()) {
        const PSVModelItem* node = pending.back();
        pending.pop_back();
        for (const PSVModelItem* child : node->children()) {
            EXPECT_EQ(node->findChild(child->position()), child);
            pending.push_back(child);
        }
    }
    EXPECT_EQ(merged.totalThreads(), 96);
}

TEST(PSVModelItem, MergeMovesUnmatchedChildrenAndGutsTheOther)
{
    PSVModelItem mine;
    new PSVModelItem(&mine, Position(QStringLiteral("a")));
    PSVModelItem* other = new PSVModelItem;
    PSVModelItem* b = new PSVModelItem(other, Position(QStringLiteral("b")));
    PSVModelItem* c = new PSVModelItem(b, Position(QStringLiteral("c")));
    c->addThread(1, true, true);

    mine.mergePSVModelItem(*other, nullptr);
    EXPECT_EQ(other->childCount(), 0);
    ASSERT_EQ(mine.childCount(), 2);
    EXPECT_EQ(mine.children().at(1), b);
    EXPECT_EQ(b->parent(), &mine);
    delete other;
    EXPECT_EQ(c->totalThreads(), 1);

    // Flags travel with the merge.
    PSVModelItem flagged;
    flagged.setUnexpectedStop(true);
    flagged.addThread(2, true, false);
    PSVModelItem plain;
    plain.mergePSVModelItem(flagged, nullptr);
    EXPECT_TRUE(plain.isUnexpectedStop());
    EXPECT_TRUE(plain.isCurrentGroup());
}

TEST(PSVModelItem, CopiesAreDeepAndSettingsReachEveryNode)
{
    PSVModelItem root;
    PSVModelItem* a = new PSVModelItem(&root, Position(QStringLiteral("a")));
    new PSVModelItem(a, Position(QStringLiteral("b")));
    a->addThread(3, false, false);

    PSVModelItem copy(root);
    PSVModelItem* copiedA = copy.firstChild();
    ASSERT_NE(copiedA, nullptr);
    EXPECT_NE(copiedA, a);
    EXPECT_EQ(copiedA->parent(), &copy);
    copiedA->addThread(3, false, false);
    EXPECT_EQ(a->totalThreads(), 1);

    copy.setBrief(true);
    EXPECT_TRUE(copiedA->firstChild()->processToThreadCountMap().isBrief());
    EXPECT_FALSE(a->processToThreadCountMap().isBrief());
    copy.mapRanks(QMap<int, int>{{3, 30}});
    EXPECT_EQ(copiedA->processToThreadCountMap().value(30), 2);
}

TEST(PSVModelItem, WrittenTreeReadsBackEqual)
{
    PSVModelItem root;
    root.addThreads(0, 4, false, false);
    root.addThreads(1, 4, false, false);
    PSVModelItem* main = new PSVModelItem(&root, Position(QStringLiteral("main"), QStringLiteral("/src/a&b.c"), 12, -1));
    main->addThreads(0, 4, true, false);
    main->addThreads(1, 3, false, false);
    PSVModelItem* kernel = new PSVModelItem(main, Position(QStringLiteral("kernel<\"T\">")));
    kernel->addCudaThreads(1, 0, 128, false, false);
    PSVModelItem* deep = new PSVModelItem(kernel, Position(QStringLiteral("deep"), QStringLiteral("d.c"), 5, -1));
    deep->addThread(1, false, true);
    PSVModelItem* wide = new PSVModelItem(main, Position(QStringLiteral("wide"), QString(), -1, -1));
    wide->setBrief(true);
    for (int rank = 0; rank < 30; rank += 2)
        wide->addThreads(rank, rank % 3 + 1, false, false);
    ASSERT_TRUE(wide->processToThreadCountMap().isElided());

    const QString xml = writeTree(root);
    QString error;
    std::unique_ptr<PSVModelItem> back = readTree(xml, &error);
    ASSERT_TRUE(back) << error.toStdString();
    expectSameTree(root, *back, QStringLiteral("root"));
    EXPECT_TRUE(back->firstChild()->isUnexpectedStopAncestor());
    EXPECT_EQ(writeTree(*back), xml);
    EXPECT_FALSE(xml.contains(QStringLiteral("unexpectedStopAncestor")));
}

TEST(PSVModelItem, ReadingPassesOverUnknownElementsAndRejectsBrokenInput)
{
    const QString xml = QStringLiteral(
        "<tree processes=\"0=1\">"
        "<extra a=\"1\"><node function=\"not-a-child\"/></extra>"
        "<node function=\"f\" line=\"3\" processes=\"0=1\" currentGroup=\"no\"/>"
        "</tree>");
    QString error;
    std::unique_ptr<PSVModelItem> root = readTree(xml, &error);
    ASSERT_TRUE(root) << error.toStdString();
    ASSERT_EQ(root->childCount(), 1);
    EXPECT_EQ(root->firstChild()->position().function, QStringLiteral("f"));
    EXPECT_EQ(root->firstChild()->position().line, 3);
    EXPECT_FALSE(root->firstChild()->isCurrentGroup());

    // Truncated anywhere, the reading fails with a message.
    PSVModelItem tree;
    PSVModelItem* a = new PSVModelItem(&tree, Position(QStringLiteral("a")));
    new PSVModelItem(a, Position(QStringLiteral("b")));
    const QString full = writeTree(tree);
    for (int cut : {full.indexOf(QStringLiteral("<node")) + 3, full.indexOf(QStringLiteral("b\"")), full.size() - 8}) {
        QString message;
        EXPECT_FALSE(readTree(full.left(cut), &message)) << cut;
        EXPECT_FALSE(message.isEmpty());
    }
}
