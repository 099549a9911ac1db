#include "flattree.h"
#include "psvmodelitem.h"
#include "treemerger.h"

#include <gtest/gtest.h>

#include <QXmlStreamAttributes>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace {

// A node with sample counts and a type, merged as the front-end's nodes
// merge theirs.
class CountedItem : public PSVModelItem
{
public:
    CountedItem(PSVModelItem* parent, const Position& position) : PSVModelItem(parent, position) {}
    void extraMergePSVModelItem(const PSVModelItem& other, void*) override
    {
        const CountedItem* item = dynamic_cast<const CountedItem*>(&other);
        for (int i = 0; item && i < FlatTree::SUMS; ++i)
            sums[i] += item->sums[i];
        if (item && tag == 0)
            tag = item->tag;
    }
    static PSVModelItem* make(const Position& position, const int* sums, int tag)
    {
        CountedItem* item = new CountedItem(nullptr, position);
        std::copy(sums, sums + FlatTree::SUMS, item->sums);
        item->tag = tag;
        return item;
    }
    int sums[FlatTree::SUMS] = {};
    int tag = 0;
};

// One line per node, indented by depth, in the order of the children.
QString describe(const PSVModelItem& node, int depth = 0)
{
    const CountedItem* counted = dynamic_cast<const CountedItem*>(&node);
    QString text = QStringLiteral("%1%2 %3:%4 [%5]%6%7 %8")
                       .arg(QString(depth * 2, QLatin1Char(' ')), node.position().function, node.position().file)
                       .arg(node.position().line)
                       .arg(node.processToThreadCountMap().toString(), QLatin1String(node.isCurrentGroup() ? " current" : ""),
                            QLatin1String(node.isUnexpectedStop() ? " stop" : ""),
                            counted ? QStringLiteral("%1,%2/%3").arg(counted->sums[0]).arg(counted->sums[3]).arg(counted->tag)
                                    : QString());
    for (const PSVModelItem* child : node.children())
        text += QLatin1Char('\n') + describe(*child, depth + 1);
    return text;
}

// Whether exactly the nodes above an unexpected stop are marked so.
bool marksAncestorsOfStops(const PSVModelItem& node, bool* hasStop = nullptr)
{
    bool below = false;
    bool consistent = true;
    for (const PSVModelItem* child : node.children()) {
        bool childHas = false;
        consistent = marksAncestorsOfStops(*child, &childHas) && consistent;
        below = below || childHas;
    }
    if (hasStop)
        *hasStop = below || node.isUnexpectedStop();
    return consistent && node.isUnexpectedStopAncestor() == below;
}

PSVModelItem* child(PSVModelItem* parent, const QString& function, const QString& file, int line)
{
    return new PSVModelItem(parent, Position(function, file, line, -1));
}

// A rank's tree, as PSVModelItems and as a FlatTree: wide near the top, so
// that lookups go through the index, with frames from a small pool so that
// ranks share most of them, and the same file under several spellings. Its
// frames and counts follow seed.
PSVModelItem* rankTree(int seed, int rank, FlatTree** flat = nullptr, std::shared_ptr<FlatNames> names = nullptr)
{
    std::mt19937 rng(unsigned(seed) * 31u + 7u);
    static const char* const files[] = {"/src/a.c", "src/a.c", "/src/b.c", "b.c", ""};
    PSVModelItem* root = new CountedItem(nullptr, Position());
    FlatTree* tree = new FlatTree(rank, names);
    root->addThreads(rank, 1 + seed % 3, false, false);
    tree->addThreads(FlatTree::ROOT, 1 + seed % 3);
    std::function<void(PSVModelItem*, quint32, int)> grow = [&](PSVModelItem* parent, quint32 flatParent, int depth) {
        const int width = depth == 0 ? 24 : depth == 1 ? int(rng() % 10) : int(rng() % 3);
        for (int i = 0; i < width && depth < 4; ++i) {
            const int frame = int(rng() % 40);
            const Position position(QStringLiteral("f%1").arg(frame), QString::fromLatin1(files[rng() % 5]), frame % 7, -1);
            bool made = false;
            const quint32 flatNode = tree->child(flatParent, position, &made);
            EXPECT_EQ(made, parent->findChild(position) == nullptr);
            if (!made)
                continue;
            CountedItem* node = new CountedItem(parent, position);
            const int threads = 1 + int(rng() % 2);
            const bool current = rng() % 50 == 0;
            const bool stop = rng() % 200 == 0;
            node->addThreads(rank, threads, current, stop);
            tree->addThreads(flatNode, threads, current, stop);
            // Types on some ranks only, so that the first one set wins.
            node->sums[0] = threads;
            node->sums[3] = seed;
            node->tag = (seed + frame) % 3 == 0 ? 0 : seed;
            tree->addSums(flatNode, {threads, 0, 0, seed});
            tree->setTag(flatNode, node->tag);
            grow(node, flatNode, depth + 1);
        }
    };
    grow(root, FlatTree::ROOT, 0);
    if (flat)
        *flat = tree;
    else
        delete tree;
    return root;
}

FlatTree* flatRankTree(int seed, int rank, std::shared_ptr<FlatNames> names = nullptr)
{
    FlatTree* flat = nullptr;
    delete rankTree(seed, rank, &flat, names);
    return flat;
}

} // namespace

TEST(ChildIndex, WideNodesFindTheFirstMatchingChildAsTheyChange)
{
    PSVModelItem root;
    for (int i = 0; i < 40; ++i)
        child(&root, QStringLiteral("f%1").arg(i % 20), QStringLiteral("/src/f%1.c").arg(i), i % 20);
    // Two files that a relative name matches both; the first child wins.
    PSVModelItem* first = child(&root, QStringLiteral("g"), QStringLiteral("/one/x.c"), 5);
    PSVModelItem* second = child(&root, QStringLiteral("g"), QStringLiteral("/two/x.c"), 5);
    const Position relative(QStringLiteral("g"), QStringLiteral("x.c"), 5, -1);
    EXPECT_EQ(root.findChild(relative), first);
    EXPECT_EQ(root.findChild(Position(QStringLiteral("g"), QStringLiteral("/two/./x.c"), 5, -1)), second);
    EXPECT_EQ(root.findChild(Position(QStringLiteral("g"), QStringLiteral("x.c"), 6, -1)), nullptr);
    for (const PSVModelItem* node : root.children())
        EXPECT_EQ(root.findChild(node->position())->position(), node->position());

    first->detach();
    EXPECT_EQ(root.findChild(relative), second);
    root.addChild(first); // now the last child
    EXPECT_EQ(root.findChild(relative), second);
    delete second;
    EXPECT_EQ(root.findChild(relative), first);

    // A child that takes its position after joining, as read from XML.
    PSVModelItem* late = new PSVModelItem(&root);
    EXPECT_EQ(root.findChild(Position()), late);
    QXmlStreamAttributes attributes;
    attributes.append(QStringLiteral("function"), QStringLiteral("late"));
    attributes.append(QStringLiteral("line"), QStringLiteral("9"));
    late->readXmlStreamAttributes(attributes);
    EXPECT_EQ(root.findChild(Position(QStringLiteral("late"), QString(), 9, -1)), late);
    EXPECT_EQ(root.findChild(Position()), nullptr);

    const QList<PSVModelItem*> taken = root.takeChildren();
    EXPECT_EQ(root.findChild(relative), nullptr);
    EXPECT_EQ(taken.size(), 42);
    EXPECT_EQ(taken.last()->parent(), nullptr);
    qDeleteAll(taken);
}

TEST(TreeMerger, MergesLikeMergingEachTreeIntoTheFirstInTurn)
{
    // The ranks of the trees: in order, so that counts join into ranges;
    // backwards; and repeating, so that later trees overwrite and split
    // the ranges of earlier ones.
    const std::vector<std::function<int(int)>> rankOrders{
        [](int i) { return i; }, [](int i) { return 100 - i; }, [](int i) { return (i * 7) % 5; }};
    for (const std::function<int(int)>& rankOf : rankOrders) {
        for (int threads : {1, 3}) {
            for (int ranks : {1, 2, 7, 70}) {
                std::unique_ptr<PSVModelItem> expected(rankTree(0, rankOf(0)));
                for (int i = 1; i < ranks; ++i) {
                    std::unique_ptr<PSVModelItem> tree(rankTree(i, rankOf(i)));
                    expected->mergePSVModelItem(*tree, nullptr);
                }
                TreeMerger merger(threads, CountedItem::make);
                // Names shared by all trees, or each tree's own.
                const std::shared_ptr<FlatNames> names = threads == 1 ? nullptr : std::make_shared<FlatNames>();
                for (int i = 0; i < ranks; ++i) {
                    merger.add(flatRankTree(i, rankOf(i), names));
                    if (i == ranks / 2)
                        merger.wait();
                }
                std::unique_ptr<PSVModelItem> merged(merger.take());
                ASSERT_TRUE(merged);
                // Strings this long are compared without gtest's diff of them.
                EXPECT_TRUE(describe(*merged) == describe(*expected)) << threads << " threads, " << ranks << " ranks";
                EXPECT_TRUE(marksAncestorsOfStops(*merged));
                EXPECT_EQ(merged->firstChild()->processToThreadCountMap().rangeCount(),
                          expected->firstChild()->processToThreadCountMap().rangeCount());
            }
        }
    }
    TreeMerger merger;
    EXPECT_EQ(merger.take(), nullptr);
    merger.add(flatRankTree(1, 1)); // what isn't taken goes with the merger
}
