#include "treemerger.h"

#include "psvmodelitem.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

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

// The storage of a string, which names shared from one table or read
// through the intern cache have in common.
const void* storageOf(const QString& text)
{
    return const_cast<QString&>(text).data_ptr();
}

bool isPlain(const IntProcessMap& processes, const IntProcessMap& cuda)
{
    return !processes.isBrief() && !processes.isElided() && cuda.isEmpty() && !cuda.isBrief();
}

} // namespace

class MergeTable
{
public:
    // A table of one tree, whose nodes it takes over.
    MergeTable(PSVModelItem* root, void* context);
    ~MergeTable();
    MergeTable(const MergeTable&) = delete;
    MergeTable& operator=(const MergeTable&) = delete;

    void absorb(PSVModelItem* root);
    // Merges other, the table of the inputs right after these, and empties it.
    void absorb(MergeTable& other);
    // The merged tree; the table is empty afterwards.
    PSVModelItem* build();

private:
    struct Node
    {
        PSVModelItem* rep;
        quint32 parent;
        quint32 nextSame; // the next child of parent with the same key
        quint32 key;
        int line;
        int column;
        const void* function;
        const void* file;
        Counts last; // the counts merged last; begin == end when none
        std::vector<Counts>* earlier;
        bool current;
        bool stop;
        bool stopAncestor;
        // Counts kept in rep's own maps, merged by IntProcessMap::set.
        bool ownMaps;
        // The first child of parent with key, so that a match is the first.
        bool firstOfKey;
        // rep has no fields beyond PSVModelItem's to merge.
        bool plainType;
    };
    struct Slot
    {
        quint32 parent;
        quint32 key;
        quint32 head;
        quint32 tail;
    };
    struct Pending
    {
        PSVModelItem* item;
        quint32 parent;
        bool parentIsNew;
    };

    // The first child of parent that item's position matches, or NONE.
    // guess, the node after the last one matched, is tried first: trees of
    // one program mostly have the same shape, so breadth first through one
    // of them mostly meets the table's nodes in their order.
    quint32 find(quint32 parent, const PSVModelItem* item, quint32 key, const void* function, const void* file,
                 quint32 guess) const;
    Slot& slotFor(quint32 parent, quint32 key);
    void link(quint32 id);
    void grow();
    quint32 adopt(PSVModelItem* item, quint32 parent);
    void mergeItem(Node& node, PSVModelItem* item);
    void appendCounts(Node& node, const Counts& counts);
    void appendCounts(Node& node, Node& other);
    void toOwnMaps(Node& node);
    // Takes item's children away onto mPending.
    void takeChildren(PSVModelItem* item, quint32 id, bool isNew);
    void release(Node& node);
    static void prefetch(const PSVModelItem* item);

    void* mContext;
    std::vector<Node> mNodes;
    std::vector<Slot> mSlots;
    size_t mUsed = 0;
    std::vector<Pending> mPending;
};

MergeTable::MergeTable(PSVModelItem* root, void* context) : mContext(context)
{
    mSlots.assign(1024, Slot{0, 0, NONE, NONE});
    mNodes.reserve(1024);
    adopt(root, NONE);
    takeChildren(root, 0, true);
    absorb(nullptr);
}

MergeTable::~MergeTable()
{
    for (Node& node : mNodes)
        release(node);
}

void MergeTable::release(Node& node)
{
    delete node.earlier;
    node.earlier = nullptr;
    delete node.rep;
    node.rep = nullptr;
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

quint32 MergeTable::find(quint32 parent, const PSVModelItem* item, quint32 key, const void* function, const void* file,
                         quint32 guess) const
{
    const Position& position = item->mPosition;
    if (guess < mNodes.size()) {
        const Node& node = mNodes[guess];
        if (node.parent == parent && node.key == key && node.firstOfKey && node.function == function
            && node.file == file && node.line == position.line && node.column == position.column)
            return guess;
    }
    const Slot& slot = const_cast<MergeTable*>(this)->slotFor(parent, key);
    for (quint32 id = slot.head; id != NONE; id = mNodes[id].nextSame) {
        const Node& node = mNodes[id];
        if (node.line != position.line || node.column != position.column)
            continue;
        if ((node.function == function && node.file == file)
            || PSVModelItem::samePosition(node.rep->mPosition, position))
            return id;
    }
    return NONE;
}

quint32 MergeTable::adopt(PSVModelItem* item, quint32 parent)
{
    const quint32 id = quint32(mNodes.size());
    Node node;
    node.rep = item;
    node.parent = parent;
    node.nextSame = NONE;
    node.key = item->mPositionKey;
    node.line = item->mPosition.line;
    node.column = item->mPosition.column;
    node.function = storageOf(item->mPosition.function);
    node.file = storageOf(item->mPosition.file);
    node.last = Counts{0, 0, 0};
    node.earlier = nullptr;
    node.current = item->mCurrentGroup;
    node.stop = item->mUnexpectedStop;
    node.stopAncestor = item->mUnexpectedStopAncestor;
    node.ownMaps = !isPlain(item->mProcessThreads, item->mCudaThreads);
    node.firstOfKey = false;
    node.plainType = typeid(*item) == typeid(PSVModelItem);
    if (!node.ownMaps) {
        for (const auto& entry : item->mProcessThreads.ranges())
            appendCounts(node, Counts{entry.first.begin, entry.first.end, entry.second});
    }
    mNodes.push_back(node);
    link(id);
    return id;
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

void MergeTable::toOwnMaps(Node& node)
{
    if (node.ownMaps)
        return;
    // Ranks set in the order merged, as merging each map in turn sets them.
    IntProcessMap processes;
    if (node.earlier) {
        for (const Counts& counts : *node.earlier)
            processes.set(counts.begin, counts.end, counts.value, true);
    }
    if (node.last.begin != node.last.end)
        processes.set(node.last.begin, node.last.end, node.last.value, true);
    node.rep->mProcessThreads = processes;
    delete node.earlier;
    node.earlier = nullptr;
    node.last = Counts{0, 0, 0};
    node.ownMaps = true;
}

void MergeTable::mergeItem(Node& node, PSVModelItem* item)
{
    if (!node.plainType)
        node.rep->extraMergePSVModelItem(*item, mContext);
    node.current = node.current || item->mCurrentGroup;
    node.stop = node.stop || item->mUnexpectedStop;
    node.stopAncestor = node.stopAncestor || item->mUnexpectedStopAncestor;
    if (!node.ownMaps && isPlain(item->mProcessThreads, item->mCudaThreads)) {
        for (const auto& entry : item->mProcessThreads.ranges())
            appendCounts(node, Counts{entry.first.begin, entry.first.end, entry.second});
        return;
    }
    toOwnMaps(node);
    node.rep->mProcessThreads.set(item->mProcessThreads, true);
    node.rep->mCudaThreads.set(item->mCudaThreads, true);
}

void MergeTable::takeChildren(PSVModelItem* item, quint32 id, bool isNew)
{
    const QList<PSVModelItem*> children = item->takeChildren();
    for (PSVModelItem* child : children)
        mPending.push_back(Pending{child, id, isNew});
}

namespace {

// The storage behind a QList or a map, whose first member points to it.
template <typename T>
const void* firstPointer(const T& object)
{
    const void* pointer;
    std::memcpy(&pointer, &object, sizeof pointer);
    return pointer;
}

} // namespace

void MergeTable::prefetch(const PSVModelItem* item)
{
    __builtin_prefetch(item->childPointers());
    __builtin_prefetch(firstPointer(item->mProcessThreads));
}

void MergeTable::absorb(PSVModelItem* root)
{
    if (root) {
        mergeItem(mNodes[0], root);
        takeChildren(root, 0, false);
        delete root;
    }
    // Breadth first, children in their order, so that the children new to
    // a node come in the order that merging in turn appends them; the nodes
    // to visit are known well ahead, so their memory is fetched ahead.
    quint32 previous = 0;
    const size_t ahead = 8;
    for (size_t next = 0; next < mPending.size();) {
        if (next + ahead < mPending.size())
            prefetch(mPending[next + ahead].item);
        const Pending pending = mPending[next++];
        PSVModelItem* item = pending.item;
        quint32 id = NONE;
        // Below a node new to the table, everything is new: the subtree
        // moves over as it is.
        if (!pending.parentIsNew)
            id = find(pending.parent, item, item->mPositionKey, storageOf(item->mPosition.function),
                      storageOf(item->mPosition.file), previous + 1);
        if (id == NONE) {
            id = adopt(item, pending.parent);
            takeChildren(item, id, true);
        } else {
            mergeItem(mNodes[id], item);
            takeChildren(item, id, false);
            delete item;
            previous = id;
        }
    }
    mPending.clear();
}

void MergeTable::absorb(MergeTable& other)
{
    // Nodes in the order other first saw them, so parents before children
    // and the children new to a node in the order they came.
    std::vector<quint32> to(other.mNodes.size());
    std::vector<char> isNew(other.mNodes.size());
    quint32 previous = 0;
    for (size_t i = 0; i < other.mNodes.size(); ++i) {
        Node& node = other.mNodes[i];
        quint32 id = 0;
        if (i > 0) {
            const quint32 parent = to[node.parent];
            id = isNew[node.parent] ? NONE : find(parent, node.rep, node.key, node.function, node.file, previous + 1);
            if (id == NONE) {
                id = quint32(mNodes.size());
                Node moved = node;
                moved.parent = parent;
                moved.nextSame = NONE;
                moved.firstOfKey = false;
                mNodes.push_back(moved);
                link(id);
                node.rep = nullptr;
                node.earlier = nullptr;
                to[i] = id;
                isNew[i] = 1;
                continue;
            }
        }
        to[i] = id;
        previous = id;
        Node& target = mNodes[id];
        if (!target.plainType)
            target.rep->extraMergePSVModelItem(*node.rep, mContext);
        target.current = target.current || node.current;
        target.stop = target.stop || node.stop;
        target.stopAncestor = target.stopAncestor || node.stopAncestor;
        if (!target.ownMaps && !node.ownMaps) {
            appendCounts(target, node);
        } else {
            toOwnMaps(target);
            toOwnMaps(node);
            target.rep->mProcessThreads.set(node.rep->mProcessThreads, true);
            target.rep->mCudaThreads.set(node.rep->mCudaThreads, true);
        }
        release(node);
    }
    other.mNodes.clear();
}

PSVModelItem* MergeTable::build()
{
    // Whether a node lies above a stop, from the leaves up.
    std::vector<char> aboveStop(mNodes.size());
    for (size_t i = mNodes.size(); i-- > 1;) {
        const Node& node = mNodes[i];
        if (node.stop || aboveStop[i])
            aboveStop[node.parent] = 1;
    }
    for (size_t i = 0; i < mNodes.size(); ++i) {
        Node& node = mNodes[i];
        PSVModelItem* rep = node.rep;
        toOwnMaps(node);
        rep->mCurrentGroup = node.current;
        rep->mUnexpectedStop = node.stop;
        rep->mUnexpectedStopAncestor = node.stopAncestor || aboveStop[i];
        if (i > 0)
            mNodes[node.parent].rep->addChild(rep);
    }
    PSVModelItem* root = mNodes.empty() ? nullptr : mNodes[0].rep;
    mNodes.clear();
    return root;
}

TreeMerger::TreeMerger(int threads, void* context) : mContext(context)
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

void TreeMerger::add(PSVModelItem* tree)
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
    if (run.tree)
        return run.tree;
    PSVModelItem* root = run.table->build();
    delete run.table;
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
        table = new MergeTable(job.target.tree, mContext);
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
