#include "treemerger.h"

#include "flattree.h"
#include "psvmodelitem.h"

#include <algorithm>

namespace {

const quint32 NONE = 0xffffffffu;

// Ranks [begin, end) had value threads.
struct Counts
{
    int begin;
    int end;
    int value;
};

quint64 mixSlot(quint32 parent, quint32 key)
{
    quint64 h = (quint64(parent) << 32 | key) * 0x9e3779b97f4a7c15ULL;
    return h ^ (h >> 29);
}

} // namespace

class MergeTable
{
public:
    // A table of one tree, which it deletes.
    explicit MergeTable(FlatTree* tree);
    ~MergeTable();
    MergeTable(const MergeTable&) = delete;
    MergeTable& operator=(const MergeTable&) = delete;

    // Merges tree, the input right after these, and deletes it.
    void absorb(FlatTree* tree);
    // Merges other, the table of the inputs right after these, and empties it.
    void absorb(MergeTable& other);
    // The merged tree; the table is empty afterwards.
    PSVModelItem* build(TreeMerger::NodeFactory make);

private:
    struct Node
    {
        quint32 parent;
        quint32 nextSame; // the next child of parent with the same key
        quint32 key;
        qint32 line;
        qint32 column;
        quint32 function; // into mNames
        quint32 file;
        qint32 tag;
        qint32 sums[FlatTree::SUMS];
        Counts last; // the counts merged last; begin == end when none
        std::vector<Counts>* earlier;
        bool current;
        bool stop;
        // The first child of parent with key, so that a match is the first.
        bool firstOfKey;
    };
    struct Slot
    {
        quint32 parent;
        quint32 key;
        quint32 head;
        quint32 tail;
    };

    // Merges the nodes of a tree or table, parents first, children of a
    // node in their order, with names from names.
    template <typename Source, typename Merge, typename Adopt>
    void absorbNodes(const std::vector<Source>& nodes, const QVector<QString>& names, Merge merge, Adopt adopt);
    quint32 nameOf(const QVector<QString>& names, quint32 name);
    // The first child of parent at the position of like, or NONE. guess,
    // the node after the last one matched, is tried first: trees of one
    // program mostly have the same shape, so going through one of them in
    // order mostly meets the table's nodes in their order.
    quint32 find(quint32 parent, const Node& like, const QVector<QString>& names, quint32 likeFunction,
                 quint32 likeFile, quint32 guess) const;
    Slot& slotFor(quint32 parent, quint32 key);
    void link(quint32 id);
    void grow();
    static void appendCounts(Node& node, const Counts& counts);
    static void appendCounts(Node& node, Node& other);
    static void mergeFlags(Node& node, const Node& other);

    std::vector<Node> mNodes;
    std::vector<Slot> mSlots;
    size_t mUsed = 0;
    QVector<QString> mNames;
    QHash<const void*, quint32> mNameIds; // by the storage of the name
    // Per absorb: the source's names and nodes to this table's.
    std::vector<quint32> mNameMap;
    std::vector<quint32> mTo;
    std::vector<char> mIsNew;
};

MergeTable::MergeTable(FlatTree* tree)
{
    mSlots.assign(1024, Slot{0, 0, NONE, NONE});
    mNodes.reserve(tree->mNodes.size());
    absorb(tree);
}

MergeTable::~MergeTable()
{
    for (Node& node : mNodes)
        delete node.earlier;
}

MergeTable::Slot& MergeTable::slotFor(quint32 parent, quint32 key)
{
    const size_t mask = mSlots.size() - 1;
    size_t i = mixSlot(parent, key) & mask;
    while (mSlots[i].head != NONE && (mSlots[i].parent != parent || mSlots[i].key != key))
        i = (i + 1) & mask;
    return mSlots[i];
}

void MergeTable::grow()
{
    std::vector<Slot> old(2 * mSlots.size(), Slot{0, 0, NONE, NONE});
    old.swap(mSlots);
    for (const Slot& slot : old) {
        if (slot.head != NONE)
            slotFor(slot.parent, slot.key) = slot;
    }
}

void MergeTable::link(quint32 id)
{
    Node& node = mNodes[id];
    node.nextSame = NONE;
    node.firstOfKey = false;
    if (node.parent == NONE)
        return;
    if (2 * (mUsed + 1) > mSlots.size())
        grow();
    Slot& slot = slotFor(node.parent, node.key);
    if (slot.head == NONE) {
        slot = Slot{node.parent, node.key, id, id};
        node.firstOfKey = true;
        ++mUsed;
    } else {
        mNodes[slot.tail].nextSame = id;
        slot.tail = id;
    }
}

quint32 MergeTable::nameOf(const QVector<QString>& names, quint32 name)
{
    quint32& mapped = mNameMap[name];
    if (mapped == NONE) {
        const QString& text = names[int(name)];
        const void* storage = const_cast<QString&>(text).data_ptr();
        auto it = mNameIds.constFind(storage);
        if (it == mNameIds.constEnd()) {
            it = mNameIds.insert(storage, quint32(mNames.size()));
            mNames.append(text);
        }
        mapped = *it;
    }
    return mapped;
}

quint32 MergeTable::find(quint32 parent, const Node& like, const QVector<QString>& names, quint32 likeFunction,
                         quint32 likeFile, quint32 guess) const
{
    if (guess < mNodes.size()) {
        const Node& node = mNodes[guess];
        if (node.parent == parent && node.key == like.key && node.firstOfKey && node.function == like.function
            && node.file == like.file && node.line == like.line && node.column == like.column)
            return guess;
    }
    const Slot& slot = const_cast<MergeTable*>(this)->slotFor(parent, like.key);
    for (quint32 id = slot.head; id != NONE; id = mNodes[id].nextSame) {
        const Node& node = mNodes[id];
        if (node.line != like.line || node.column != like.column)
            continue;
        if (node.function == like.function && node.file == like.file)
            return id;
        // Names of other storage, or another spelling of the file.
        const Position mine(mNames[int(node.function)], mNames[int(node.file)], node.line, node.column);
        const Position theirs(names[int(likeFunction)], names[int(likeFile)], like.line, like.column);
        if (FlatTree::samePosition(mine, theirs))
            return id;
    }
    return NONE;
}

void MergeTable::appendCounts(Node& node, const Counts& counts)
{
    Counts& last = node.last;
    if (last.begin == last.end) {
        last = counts;
    } else if (last.end == counts.begin && last.value == counts.value) {
        last.end = counts.end;
    } else {
        if (!node.earlier)
            node.earlier = new std::vector<Counts>;
        node.earlier->push_back(last);
        last = counts;
    }
}

void MergeTable::appendCounts(Node& node, Node& other)
{
    if (other.earlier) {
        for (const Counts& counts : *other.earlier)
            appendCounts(node, counts);
    }
    if (other.last.begin != other.last.end)
        appendCounts(node, other.last);
}

void MergeTable::mergeFlags(Node& node, const Node& other)
{
    node.current = node.current || other.current;
    node.stop = node.stop || other.stop;
    if (node.tag == 0)
        node.tag = other.tag;
    for (int i = 0; i < FlatTree::SUMS; ++i)
        node.sums[i] += other.sums[i];
}

template <typename Source, typename Merge, typename Adopt>
void MergeTable::absorbNodes(const std::vector<Source>& nodes, const QVector<QString>& names, Merge merge, Adopt adopt)
{
    mNameMap.assign(size_t(names.size()), NONE);
    mTo.resize(nodes.size());
    mIsNew.resize(nodes.size());
    quint32 previous = 0;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const Source& in = nodes[i];
        Node like;
        like.parent = i == 0 ? NONE : mTo[in.parent];
        like.key = in.key;
        like.line = in.line;
        like.column = in.column;
        like.function = nameOf(names, in.function);
        like.file = nameOf(names, in.file);
        quint32 id = NONE;
        if (i == 0 && !mNodes.empty())
            id = 0;
        // Below a node new to the table, everything is new: the subtree
        // moves over as it is.
        else if (i > 0 && !mIsNew[in.parent])
            id = find(like.parent, like, names, in.function, in.file, previous + 1);
        if (id == NONE) {
            id = quint32(mNodes.size());
            adopt(like, i);
            mNodes.push_back(like);
            link(id);
            mIsNew[i] = 1;
        } else {
            merge(mNodes[id], i);
            mIsNew[i] = 0;
            previous = id;
        }
        mTo[i] = id;
    }
}

void MergeTable::absorb(FlatTree* tree)
{
    const int rank = tree->mRank;
    const std::vector<FlatTree::Node>& nodes = tree->mNodes;
    auto countsOf = [rank](const FlatTree::Node& in) { return Counts{rank, rank + 1, in.threads}; };
    auto flagsOf = [&](size_t i) {
        const FlatTree::Node& in = nodes[i];
        Node other;
        other.current = in.current;
        other.stop = in.stop;
        other.tag = in.tag;
        std::copy(in.sums, in.sums + FlatTree::SUMS, other.sums);
        return other;
    };
    absorbNodes(
        nodes, tree->mNames,
        [&](Node& target, size_t i) {
            mergeFlags(target, flagsOf(i));
            if (nodes[i].threads != 0)
                appendCounts(target, countsOf(nodes[i]));
        },
        [&](Node& like, size_t i) {
            const Node other = flagsOf(i);
            like.current = other.current;
            like.stop = other.stop;
            like.tag = other.tag;
            std::copy(other.sums, other.sums + FlatTree::SUMS, like.sums);
            like.earlier = nullptr;
            like.last = nodes[i].threads != 0 ? countsOf(nodes[i]) : Counts{0, 0, 0};
        });
    delete tree;
}

void MergeTable::absorb(MergeTable& other)
{
    std::vector<Node>& nodes = other.mNodes;
    absorbNodes(
        nodes, other.mNames,
        [&](Node& target, size_t i) {
            mergeFlags(target, nodes[i]);
            appendCounts(target, nodes[i]);
        },
        [&](Node& like, size_t i) {
            Node& in = nodes[i];
            like.current = in.current;
            like.stop = in.stop;
            like.tag = in.tag;
            std::copy(in.sums, in.sums + FlatTree::SUMS, like.sums);
            like.last = in.last;
            like.earlier = in.earlier;
            in.earlier = nullptr;
        });
    for (Node& node : nodes)
        delete node.earlier;
    nodes.clear();
}

PSVModelItem* MergeTable::build(TreeMerger::NodeFactory make)
{
    // Whether a node lies above a stop, from the leaves up.
    std::vector<char> aboveStop(mNodes.size());
    for (size_t i = mNodes.size(); i-- > 1;) {
        const Node& node = mNodes[i];
        if (node.stop || aboveStop[i])
            aboveStop[node.parent] = 1;
    }
    std::vector<PSVModelItem*> items(mNodes.size());
    for (size_t i = 0; i < mNodes.size(); ++i) {
        Node& node = mNodes[i];
        const Position position(mNames[int(node.function)], mNames[int(node.file)], node.line, node.column);
        PSVModelItem* item = make ? make(position, node.sums, node.tag) : new PSVModelItem(position);
        items[i] = item;
        // Ranks set in the order merged, as merging each map in turn sets them.
        if (node.earlier) {
            for (const Counts& counts : *node.earlier)
                item->mProcessThreads.set(counts.begin, counts.end, counts.value, true);
        }
        if (node.last.begin != node.last.end)
            item->mProcessThreads.set(node.last.begin, node.last.end, node.last.value, true);
        delete node.earlier;
        node.earlier = nullptr;
        item->mCurrentGroup = node.current;
        item->mUnexpectedStop = node.stop;
        item->mUnexpectedStopAncestor = aboveStop[i];
        if (i > 0)
            items[node.parent]->addChild(item);
    }
    mNodes.clear();
    return items.empty() ? nullptr : items[0];
}

TreeMerger::TreeMerger(int threads, NodeFactory make) : mMake(make)
{
    if (threads <= 0)
        threads = int(std::max(1u, std::thread::hardware_concurrency()));
    for (int i = 0; i < threads; ++i)
        mThreads.emplace_back(&TreeMerger::work, this);
}

TreeMerger::~TreeMerger()
{
    {
        std::unique_lock<std::mutex> lock(mLock);
        mJobs.clear(); // their trees are still held by the runs
        mQuit = true;
        mJobReady.notify_all();
    }
    for (std::thread& thread : mThreads)
        thread.join();
    for (const Run& run : mRuns) {
        delete run.tree;
        delete run.table;
    }
}

void TreeMerger::add(FlatTree* tree)
{
    std::unique_lock<std::mutex> lock(mLock);
    mRuns.push_back(Run{mAdded++, 1, tree, nullptr, false});
    schedule();
}

void TreeMerger::wait()
{
    std::unique_lock<std::mutex> lock(mLock);
    mJobDone.wait(lock, [this] { return mJobs.empty() && mRunning == 0; });
}

PSVModelItem* TreeMerger::take()
{
    std::unique_lock<std::mutex> lock(mLock);
    mFinishing = true;
    schedule();
    mJobDone.wait(lock, [this] { return mRuns.size() <= 1 && mJobs.empty() && mRunning == 0; });
    mFinishing = false;
    if (mRuns.empty())
        return nullptr;
    const Run run = mRuns.front();
    mRuns.clear();
    lock.unlock();
    MergeTable* table = run.table ? run.table : new MergeTable(run.tree);
    PSVModelItem* root = table->build(mMake);
    delete table;
    return root;
}

void TreeMerger::schedule()
{
    for (size_t i = 0; i + 1 < mRuns.size(); ++i) {
        Run& left = mRuns[i];
        Run& right = mRuns[i + 1];
        if (left.busy || right.busy)
            continue;
        // Within a segment the inputs go one by one into its first one; a
        // finished segment goes into the result of those before it.
        const bool inSegment = left.first / SEGMENT == right.first / SEGMENT && left.first % SEGMENT == 0;
        const bool segmentDone = right.count >= SEGMENT && left.first == mRuns.front().first;
        if (!(inSegment || segmentDone || mFinishing))
            continue;
        left.busy = true;
        right.busy = true;
        mJobs.push_back(Job{left, right});
        mJobReady.notify_one();
        ++i;
    }
}

MergeTable* TreeMerger::merge(const Job& job)
{
    MergeTable* table = job.target.table;
    if (!table)
        table = new MergeTable(job.target.tree);
    if (job.source.tree) {
        table->absorb(job.source.tree);
    } else {
        table->absorb(*job.source.table);
        delete job.source.table;
    }
    return table;
}

void TreeMerger::work()
{
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mJobReady.wait(lock, [this] { return mQuit || !mJobs.empty(); });
        if (mQuit)
            return;
        const Job job = mJobs.front();
        mJobs.pop_front();
        ++mRunning;
        lock.unlock();
        MergeTable* table = merge(job);
        lock.lock();
        --mRunning;
        // The source's run joins the one before it, which holds the target.
        for (size_t i = 1; i < mRuns.size(); ++i) {
            if (mRuns[i].first == job.source.first) {
                Run& target = mRuns[i - 1];
                target.count += mRuns[i].count;
                target.tree = nullptr;
                target.table = table;
                target.busy = false;
                mRuns.erase(mRuns.begin() + long(i));
                break;
            }
        }
        schedule();
        mJobDone.notify_all();
    }
}
