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
    MergeTable() = default;
    // Starts over with one tree, which it deletes; the memory of what the
    // table held before is kept for it.
    void start(FlatTree* tree);
    MergeTable(const MergeTable&) = delete;
    MergeTable& operator=(const MergeTable&) = delete;

    // Merges tree, the input right after these, and deletes it.
    void absorb(FlatTree* tree);
    // Merges other, the table of the inputs right after these, and empties it.
    void absorb(MergeTable& other);
    // The merged tree; the table is empty afterwards.
    PSVModelItem* build(TreeMerger::NodeFactory make, int threads);

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
        // Those before, in mBlocks; NONE when none.
        quint32 head;
        quint32 tail;
        // The node that came after this one in the last tree merged.
        quint32 hint;
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
    // Counts of a node, a list of blocks in one array for all nodes, so
    // that a node's many ranges cost no allocation of their own.
    struct Block
    {
        enum { SIZE = 5 };
        Counts counts[SIZE];
        quint32 used;
        quint32 next;
    };

    // Merges the nodes of a tree or table, parents first, children of a
    // node in their order, with names numbered in names.
    template <typename Source, typename Merge, typename Adopt>
    void absorbNodes(const std::vector<Source>& nodes, const FlatNames& names, Merge merge, Adopt adopt);
    // The number in mNames of name, numbered in names.
    quint32 nameOf(const FlatNames& names, quint32 name);
    // The first child of parent at the position of like, or NONE. The
    // guesses are tried first, the node that followed the last one seen in
    // the tree merged before and the node after the last one matched:
    // trees of one program mostly have the same shape.
    quint32 find(quint32 parent, const Node& like, quint32 guess) const;
    bool isAt(quint32 id, quint32 parent, const Node& like) const
    {
        if (id >= mNodes.size())
            return false;
        const Node& node = mNodes[id];
        return node.parent == parent && node.key == like.key && node.firstOfKey && node.function == like.function
            && node.file == like.file && node.line == like.line && node.column == like.column;
    }
    Slot& slotFor(quint32 parent, quint32 key);
    void link(quint32 id);
    void grow();
    void appendCounts(Node& node, const Counts& counts);
    void appendCounts(Node& node, const Node& other, const std::vector<Block>& blocks);
    static void mergeFlags(Node& node, const Node& other);

    std::vector<Node> mNodes;
    std::vector<Slot> mSlots;
    size_t mUsed = 0;
    std::vector<Block> mBlocks;
    // Those of the first tree; trees with names of their own are mapped.
    std::shared_ptr<FlatNames> mNames;
    // Per absorb: the source's names and nodes to this table's.
    std::vector<quint32> mNameMap;
    std::vector<quint32> mTo;
};

void MergeTable::start(FlatTree* tree)
{
    mNames = tree->mNames;
    mNodes.clear();
    mBlocks.clear();
    mUsed = 0;
    // Room for the first tree's nodes without growing.
    size_t slotCount = 1024;
    while (slotCount < 2 * tree->mNodes.size())
        slotCount *= 2;
    mSlots.assign(std::max(slotCount, mSlots.size()), Slot{0, 0, NONE, NONE});
    mNodes.reserve(tree->mNodes.size() + tree->mNodes.size() / 4);
    absorb(tree);
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

quint32 MergeTable::nameOf(const FlatNames& names, quint32 name)
{
    if (&names == mNames.get())
        return name;
    quint32& mapped = mNameMap[name];
    if (mapped == NONE)
        mapped = mNames->id(names.name(name));
    return mapped;
}

quint32 MergeTable::find(quint32 parent, const Node& like, quint32 guess) const
{
    if (isAt(guess, parent, like))
        return guess;
    const Slot& slot = const_cast<MergeTable*>(this)->slotFor(parent, like.key);
    for (quint32 id = slot.head; id != NONE; id = mNodes[id].nextSame) {
        const Node& node = mNodes[id];
        if (node.line != like.line || node.column != like.column)
            continue;
        if (node.function == like.function && node.file == like.file)
            return id;
        // Names of other storage, or another spelling of the file.
        const Position mine(mNames->name(node.function), mNames->name(node.file), node.line, node.column);
        const Position theirs(mNames->name(like.function), mNames->name(like.file), like.line, like.column);
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
        return;
    }
    if (last.end == counts.begin && last.value == counts.value) {
        last.end = counts.end;
        return;
    }
    if (node.tail == NONE || mBlocks[node.tail].used == Block::SIZE) {
        const quint32 block = quint32(mBlocks.size());
        mBlocks.push_back(Block{{}, 0, NONE});
        if (node.tail == NONE)
            node.head = block;
        else
            mBlocks[node.tail].next = block;
        node.tail = block;
    }
    Block& block = mBlocks[node.tail];
    block.counts[block.used++] = last;
    last = counts;
}

void MergeTable::appendCounts(Node& node, const Node& other, const std::vector<Block>& blocks)
{
    for (quint32 b = other.head; b != NONE; b = blocks[b].next) {
        for (quint32 k = 0; k < blocks[b].used; ++k)
            appendCounts(node, blocks[b].counts[k]);
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
void MergeTable::absorbNodes(const std::vector<Source>& nodes, const FlatNames& names, Merge merge, Adopt adopt)
{
    if (nodes.empty())
        return;
    const bool sameNames = &names == mNames.get();
    if (!sameNames)
        mNameMap.assign(names.size(), NONE);
    // Per node of the source, its node here, with NEW set where that was
    // made by this merge.
    const quint32 NEW = 0x80000000u;
    mTo.resize(nodes.size());
    if (mNodes.empty()) {
        Node like;
        like.parent = NONE;
        like.key = nodes[0].key;
        like.line = nodes[0].line;
        like.column = nodes[0].column;
        like.function = sameNames ? nodes[0].function : nameOf(names, nodes[0].function);
        like.file = sameNames ? nodes[0].file : nameOf(names, nodes[0].file);
        like.head = NONE;
        like.tail = NONE;
        like.hint = NONE;
        adopt(like, 0);
        mNodes.push_back(like);
        mTo[0] = NEW;
    } else {
        merge(mNodes[0], 0);
        mTo[0] = 0;
    }
    quint32 previous = 0;
    quint32 hint = mNodes[0].hint;
    for (size_t i = 1; i < nodes.size(); ++i) {
        const Source& in = nodes[i];
        const quint32 parentTo = mTo[in.parent];
        Node like;
        like.parent = parentTo & ~NEW;
        like.key = in.key;
        like.line = in.line;
        like.column = in.column;
        like.function = sameNames ? in.function : nameOf(names, in.function);
        like.file = sameNames ? in.file : nameOf(names, in.file);
        // Below a node new to the table, everything is new: the subtree
        // moves over as it is.
        quint32 id = NONE;
        if (!(parentTo & NEW))
            id = isAt(hint, like.parent, like) ? hint : find(like.parent, like, previous + 1);
        quint32 to = id;
        if (id == NONE) {
            id = quint32(mNodes.size());
            like.head = NONE;
            like.tail = NONE;
            like.hint = NONE;
            adopt(like, i);
            mNodes.push_back(like);
            link(id);
            to = id | NEW;
        } else {
            merge(mNodes[id], i);
            previous = id;
        }
        mNodes[mTo[i - 1] & ~NEW].hint = id;
        hint = mNodes[id].hint;
        mTo[i] = to;
    }
}

void MergeTable::absorb(FlatTree* tree)
{
    const int rank = tree->mRank;
    const std::vector<FlatTree::Node>& nodes = tree->mNodes;
    absorbNodes(
        nodes, *tree->mNames,
        [&](Node& target, size_t i) {
            const FlatTree::Node& in = nodes[i];
            target.current = target.current || in.current;
            target.stop = target.stop || in.stop;
            if (target.tag == 0)
                target.tag = in.tag;
            for (int k = 0; k < FlatTree::SUMS; ++k)
                target.sums[k] += in.sums[k];
            // Ranks mostly come in order with the counts of the rank before.
            if (target.last.end == rank && target.last.value == in.threads && target.last.begin != rank)
                target.last.end = rank + 1;
            else if (in.threads != 0)
                appendCounts(target, Counts{rank, rank + 1, in.threads});
        },
        [&](Node& like, size_t i) {
            const FlatTree::Node& in = nodes[i];
            like.current = in.current;
            like.stop = in.stop;
            like.tag = in.tag;
            std::copy(in.sums, in.sums + FlatTree::SUMS, like.sums);
            like.last = in.threads != 0 ? Counts{rank, rank + 1, in.threads} : Counts{0, 0, 0};
        });
    delete tree;
}

void MergeTable::absorb(MergeTable& other)
{
    std::vector<Node>& nodes = other.mNodes;
    absorbNodes(
        nodes, *other.mNames,
        [&](Node& target, size_t i) {
            mergeFlags(target, nodes[i]);
            appendCounts(target, nodes[i], other.mBlocks);
        },
        [&](Node& like, size_t i) {
            Node& in = nodes[i];
            like.current = in.current;
            like.stop = in.stop;
            like.tag = in.tag;
            std::copy(in.sums, in.sums + FlatTree::SUMS, like.sums);
            like.last = Counts{0, 0, 0};
            appendCounts(like, in, other.mBlocks);
        });
    nodes.clear();
    other.mBlocks.clear();
}

PSVModelItem* MergeTable::build(TreeMerger::NodeFactory make, int threads)
{
    // Whether a node lies above a stop, from the leaves up.
    std::vector<char> aboveStop(mNodes.size());
    for (size_t i = mNodes.size(); i-- > 1;) {
        const Node& node = mNodes[i];
        if (node.stop || aboveStop[i])
            aboveStop[node.parent] = 1;
    }
    std::vector<PSVModelItem*> items(mNodes.size());
    std::vector<QString> names(mNames->size());
    for (quint32 i = 0; i < names.size(); ++i)
        names[i] = mNames->name(i);
    // The nodes and their maps of counts, which are most of the work, are
    // made on every thread; the tree is linked up after.
    auto makeNodes = [&](size_t begin, size_t end) {
        for (size_t i = begin; i < end; ++i) {
            const Node& node = mNodes[i];
            const Position position(names[node.function], names[node.file], node.line, node.column);
            PSVModelItem* item = make ? make(position, node.sums, node.tag) : new PSVModelItem(position);
            items[i] = item;
            // Ranks set in the order merged, as merging each map in turn sets them.
            for (quint32 b = node.head; b != NONE; b = mBlocks[b].next) {
                for (quint32 k = 0; k < mBlocks[b].used; ++k) {
                    const Counts& counts = mBlocks[b].counts[k];
                    item->mProcessThreads.set(counts.begin, counts.end, counts.value, true);
                }
            }
            if (node.last.begin != node.last.end)
                item->mProcessThreads.set(node.last.begin, node.last.end, node.last.value, true);
            item->mCurrentGroup = node.current;
            item->mUnexpectedStop = node.stop;
            item->mUnexpectedStopAncestor = aboveStop[i];
        }
    };
    std::vector<std::thread> helpers;
    const size_t parts = size_t(std::max(1, threads));
    for (size_t part = 1; part < parts; ++part)
        helpers.emplace_back(makeNodes, mNodes.size() * part / parts, mNodes.size() * (part + 1) / parts);
    makeNodes(0, mNodes.size() / parts);
    for (std::thread& helper : helpers)
        helper.join();
    for (size_t i = 1; i < mNodes.size(); ++i)
        items[mNodes[i].parent]->addChild(items[i]);
    mNodes.clear();
    mBlocks.clear();
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
    for (MergeTable* table : mSpare)
        delete table;
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
    std::vector<MergeTable*> spare;
    spare.swap(mSpare);
    lock.unlock();
    for (MergeTable* table : spare)
        delete table;
    MergeTable* table = run.table;
    if (!table) {
        table = new MergeTable;
        table->start(run.tree);
    }
    PSVModelItem* root = table->build(mMake, threadCount());
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
    if (!table) {
        // The memory of a table merged before, whose pages are in place.
        {
            std::unique_lock<std::mutex> lock(mLock);
            if (!mSpare.empty()) {
                table = mSpare.back();
                mSpare.pop_back();
            }
        }
        if (!table)
            table = new MergeTable;
        table->start(job.target.tree);
    }
    if (job.source.tree) {
        table->absorb(job.source.tree);
    } else {
        table->absorb(*job.source.table);
        std::unique_lock<std::mutex> lock(mLock);
        mSpare.push_back(job.source.table);
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
