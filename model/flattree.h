// One rank's call tree in one array, the form in which the front-end adds up
// a rank's samples and hands the rank to TreeMerger: nodes in the order made,
// each with the index of its parent, so that a merge reads the tree front to
// back instead of chasing one allocation per node. Names are kept once per
// tree and nodes refer to them by index.
//
//   FlatTree tree(rank);
//   quint32 node = tree.child(FlatTree::ROOT, position);
//   tree.addThreads(node, 1);
#ifndef ZOR_FLATTREE_H
#define ZOR_FLATTREE_H

#include "position.h"

#include <QHash>
#include <QVector>

#include <vector>

class FlatTree
{
public:
    enum : quint32 { ROOT = 0 };
    // Counters per node that add up when nodes merge (sample counts).
    enum { SUMS = 4 };

    explicit FlatTree(int rank);

    int rank() const { return mRank; }
    int size() const { return int(mNodes.size()); }
    Position position(quint32 node) const;
    int threads(quint32 node) const { return mNodes[node].threads; }

    // A new child of parent at position, after its other children.
    quint32 addChild(quint32 parent, const Position& position);
    // The first child of parent at position, matched as
    // PSVModelItem::findChild matches; made as by addChild when there is
    // none, and then *made is set.
    quint32 child(quint32 parent, const Position& position, bool* made = nullptr);

    // Threads of the rank at node; current and unexpectedStop as
    // PSVModelItem::addThreads takes them.
    void addThreads(quint32 node, int count, bool current = false, bool unexpectedStop = false);
    void addSums(quint32 node, const int (&sums)[SUMS]);
    // A mark of the node that merging keeps from the first tree with one
    // other than 0 (the special frame type).
    void setTag(quint32 node, int tag) { mNodes[node].tag = tag; }

    // The hash of a position, file left out so that spellings of one file
    // match; the same for every tree.
    static quint32 keyOf(const QString& function, int line, int column);
    // Whether two positions name the same frame, as PSVModelItem matches.
    static bool samePosition(const Position& a, const Position& b);

private:
    friend class MergeTable;

    struct Node
    {
        quint32 parent;
        quint32 key;
        qint32 line;
        qint32 column;
        quint32 function; // into mNames
        quint32 file;
        qint32 threads;
        qint32 tag;
        qint32 sums[SUMS];
        bool current;
        bool stop;
    };

    quint32 nameOf(const QString& name);
    quint32 append(quint32 parent, const Position& position);
    void index(quint32 node);
    void place(quint32 node);

    int mRank;
    std::vector<Node> mNodes;
    QVector<QString> mNames;
    // Content hashes of mNames, so that keys don't read the names again.
    std::vector<quint64> mNameHashes;
    QHash<const void*, quint32> mNameIds; // by the storage of the name
    // Children by (parent, key), open addressing; built on the first child().
    std::vector<quint32> mSlots;
    size_t mIndexed = 0;
};

#endif
