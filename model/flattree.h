// One rank's call tree in one array, the form in which the front-end adds up
// a rank's samples and hands the rank to TreeMerger: nodes in the order made,
// each with the index of its parent, so that a merge reads the tree front to
// back instead of chasing one allocation per node. Nodes name their function
// and file by number in a FlatNames that the trees of one program share, so
// that merging them compares numbers and copies no names.
//
//   auto names = std::make_shared<FlatNames>();
//   FlatTree tree(rank, names);
//   quint32 node = tree.child(FlatTree::ROOT, position);
//   tree.addThreads(node, 1);
#ifndef ZOR_FLATTREE_H
#define ZOR_FLATTREE_H

#include "position.h"

#include <QVector>

#include <memory>
#include <mutex>
#include <vector>

// Names by number, each kept once; one name is one string storage, so that
// equal names of different storage get two numbers. Safe from any thread.
class FlatNames
{
public:
    quint32 id(const QString& name);
    QString name(quint32 id) const;
    // A hash of the characters, the same for equal names of any storage.
    quint64 hash(quint32 id) const;
    quint32 size() const;

private:
    struct Slot
    {
        const void* storage;
        quint32 id;
    };

    mutable std::mutex mLock;
    QVector<QString> mNames;
    std::vector<quint64> mHashes;
    std::vector<Slot> mSlots; // by storage, open addressing
};

class FlatTree
{
public:
    enum : quint32 { ROOT = 0 };
    // Counters per node that add up when nodes merge (sample counts).
    enum { SUMS = 4 };

    // names: shared with the other trees to merge; null for names of its own.
    explicit FlatTree(int rank, std::shared_ptr<FlatNames> names = nullptr);

    int rank() const { return mRank; }
    int size() const { return int(mNodes.size()); }
    int threads(quint32 node) const { return mNodes[node].threads; }

    // A new child of parent at position, after its other children.
    quint32 addChild(quint32 parent, const Position& position);
    // The first child of parent at position, matched as
    // PSVModelItem::findChild matches, or a new one as addChild makes it;
    // *made says which.
    quint32 child(quint32 parent, const Position& position, bool* made = nullptr);

    // Threads of the rank at node; current and unexpectedStop as
    // PSVModelItem::addThreads takes them.
    void addThreads(quint32 node, int count, bool current = false, bool unexpectedStop = false);
    void addSums(quint32 node, const int (&sums)[SUMS]);
    // A mark of the node that merging keeps from the first tree with one
    // other than 0 (the special frame type).
    void setTag(quint32 node, int tag) { mNodes[node].tag = tag; }

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
        quint32 function; // in mNames
        quint32 file;
        qint32 threads;
        qint32 tag;
        qint32 sums[SUMS];
        bool current;
        bool stop;
    };

    struct Cached
    {
        const void* storage;
        quint32 id;
        quint64 hash;
    };

    // The number of name and its hash, mostly without taking the lock of
    // mNames.
    const Cached& nameOf(const QString& name);
    quint32 append(quint32 parent, const Position& position);
    void index(quint32 node);
    void place(quint32 node);

    int mRank;
    std::vector<Node> mNodes;
    std::shared_ptr<FlatNames> mNames;
    std::vector<Cached> mCache; // by storage, direct mapped
    // Children by (parent, key), open addressing; built on the first child().
    std::vector<quint32> mSlots;
    size_t mIndexed = 0;
};

#endif
