#include "psvmodelitem.h"

#include "internstringcache.h"
#include "xmlreading.h"
#include "xmlwriting.h"

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>
#include <QXmlStreamAttributes>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <QVarLengthArray>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <typeinfo>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <vector>

const QLatin1String PSVModelItem::XML_NODE("node");

namespace {

const QLatin1String ATTR_FUNCTION("function");
const QLatin1String ATTR_FILE("file");
const QLatin1String ATTR_LINE("line");
const QLatin1String ATTR_PROCESSES("processes");
const QLatin1String ATTR_CUDA_THREADS("cuda-thread-counts");
const QLatin1String ATTR_CURRENT_GROUP("currentGroup");
const QLatin1String ATTR_UNEXPECTED_STOP("unexpectedStop");
const QLatin1String YES("yes");

// Below this many children a plain scan beats the index.
const int CHILD_INDEX_THRESHOLD = 8;

quint64 mix(quint64 h)
{
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return h;
}

quint64 word(const QChar* at)
{
    quint64 w;
    std::memcpy(&w, at, sizeof w);
    return w;
}

// A hash of a name from its length and at most its first and last eight
// characters: cheap on long C++ names, and siblings rarely share all that
// and their line as well.
quint64 nameKey(const QString& name)
{
    const int size = name.size();
    const QChar* chars = name.constData();
    quint64 h = quint64(size) * 0x9e3779b97f4a7c15ULL;
    if (size >= 8) {
        h = mix(h ^ word(chars)) ^ word(chars + 4);
        h = mix(h ^ word(chars + size - 8)) ^ word(chars + size - 4);
    } else {
        for (int i = 0; i < size; ++i)
            h = h * 31 + chars[i].unicode();
    }
    return h;
}

// The file is left out on purpose: two spellings of one file are the same
// frame, and candidates are checked with samePosition anyway.
quint32 positionKey(const Position& position)
{
    const quint64 lineAndColumn = (quint64(quint32(position.line)) << 32) | quint32(position.column);
    return quint32(mix(nameKey(position.function) ^ (lineAndColumn * 0xc2b2ae3d27d4eb4fULL)) >> 40);
}

} // namespace

// Children by the hash of their position, for wide nodes. Open addressing
// with linear probing; each entry keeps the child's place in the order of
// the children, so that the first of several matching children is found.
class PSVChildIndex
{
public:
    explicit PSVChildIndex(const PSVChildRange& children)
    {
        int capacity = 16;
        while (capacity < 2 * children.size())
            capacity *= 2;
        mSlots.assign(capacity, Slot());
        for (PSVModelItem* child : children)
            insert(child, child->mPositionKey, mNextOrder++);
    }

    void append(PSVModelItem* child)
    {
        if (2 * (mSize + 1) > int(mSlots.size()))
            grow();
        insert(child, child->mPositionKey, mNextOrder++);
    }

    void remove(PSVModelItem* child, quint32 key)
    {
        const size_t mask = mSlots.size() - 1;
        size_t i = key & mask;
        while (mSlots[i].child != child) {
            if (!mSlots[i].child)
                return;
            i = (i + 1) & mask;
        }
        // Shift later entries of the probe run back, so that no lookup
        // stops early at the hole.
        for (size_t j = (i + 1) & mask; mSlots[j].child; j = (j + 1) & mask) {
            const size_t home = mSlots[j].key & mask;
            const bool between = i <= j ? (i < home && home <= j) : (i < home || home <= j);
            if (!between) {
                mSlots[i] = mSlots[j];
                i = j;
            }
        }
        mSlots[i] = Slot();
        --mSize;
    }

    // A child keeps its place among the children when its position changes.
    void rekey(PSVModelItem* child, quint32 oldKey)
    {
        const size_t mask = mSlots.size() - 1;
        size_t i = oldKey & mask;
        while (mSlots[i].child && mSlots[i].child != child)
            i = (i + 1) & mask;
        if (!mSlots[i].child)
            return;
        const quint32 order = mSlots[i].order;
        remove(child, oldKey);
        insert(child, child->mPositionKey, order);
    }

    PSVModelItem* find(const Position& position, quint32 key, bool (*accept)(const PSVModelItem*)) const
    {
        const size_t mask = mSlots.size() - 1;
        const Slot* best = nullptr;
        for (size_t i = key & mask; mSlots[i].child; i = (i + 1) & mask) {
            const Slot& slot = mSlots[i];
            if (slot.key == key && (!best || slot.order < best->order)
                && PSVModelItem::samePosition(*slot.child->mPosition, position) && (!accept || accept(slot.child)))
                best = &slot;
        }
        return best ? best->child : nullptr;
    }

private:
    struct Slot
    {
        PSVModelItem* child = nullptr;
        quint32 key = 0;
        quint32 order = 0;
    };

    void insert(PSVModelItem* child, quint32 key, quint32 order)
    {
        const size_t mask = mSlots.size() - 1;
        size_t i = key & mask;
        while (mSlots[i].child)
            i = (i + 1) & mask;
        mSlots[i].child = child;
        mSlots[i].key = key;
        mSlots[i].order = order;
        ++mSize;
    }

    void grow()
    {
        std::vector<Slot> old(2 * mSlots.size());
        old.swap(mSlots);
        mSize = 0;
        for (const Slot& slot : old) {
            if (slot.child)
                insert(slot.child, slot.key, slot.order);
        }
    }

    std::vector<Slot> mSlots;
    int mSize = 0;
    quint32 mNextOrder = 0;
};

namespace {

// The node pools. Memory comes in chunks cut into blocks by a pointer that
// only moves forward; a freed block goes on its thread's list of its size
// and is handed out again from there. Blocks are never returned to the
// system: trees come and go by the million, and what one run's trees held
// the next run's trees take again. A thread that ends leaves its lists to
// the depot, from which any thread refills, and the unused rest of its
// chunk too.
#if defined(__SANITIZE_ADDRESS__)
const bool PoolsEnabled = false; // so that the sanitizer sees every node
#else
const bool PoolsEnabled = true;
#endif
const std::size_t PoolGranule = 8;
const int PoolClasses = 32;
const std::size_t PoolChunk = std::size_t(1) << 20;

struct FreeBlock
{
    FreeBlock* next;
};

struct PoolDepot
{
    std::mutex mutex;
    // Whole lists as threads left them, so that no list is walked.
    std::vector<FreeBlock*> lists[PoolClasses];
    // The untouched ends of the chunks of threads that ended: a thread
    // that builds trees for one analysis leaves most of a chunk.
    std::vector<std::pair<char*, char*>> rests;
};

PoolDepot& depot()
{
    // Never destroyed: nodes are freed by other statics' destructors too.
    static PoolDepot* depot = new PoolDepot;
    return *depot;
}

// Trivial, so that reaching it costs no check of whether it was made.
struct PoolCache
{
    FreeBlock* lists[PoolClasses];
    char* next;
    char* end;
};
// Initial-exec: reached without a call into the dynamic linker on every
// node made or freed. The library is linked, never loaded later.
thread_local PoolCache tPoolCache __attribute__((tls_model("initial-exec")));

// Made on a thread's first chunk; gives the thread's blocks to the depot
// when the thread ends.
struct PoolCacheReturn
{
    PoolCacheReturn() = default;
    ~PoolCacheReturn()
    {
        PoolDepot& shared = depot();
        std::lock_guard<std::mutex> lock(shared.mutex);
        for (int c = 0; c < PoolClasses; ++c) {
            if (tPoolCache.lists[c])
                shared.lists[c].push_back(tPoolCache.lists[c]);
            tPoolCache.lists[c] = nullptr;
        }
        if (tPoolCache.next && std::size_t(tPoolCache.end - tPoolCache.next) >= PoolClasses * PoolGranule)
            shared.rests.emplace_back(tPoolCache.next, tPoolCache.end);
        tPoolCache.next = tPoolCache.end = nullptr;
    }
    void touch() {}
};
thread_local PoolCacheReturn tPoolCacheReturn;

void* refill(int sizeClass, std::size_t blockSize)
{
    PoolCache& cache = tPoolCache;
    {
        PoolDepot& shared = depot();
        std::lock_guard<std::mutex> lock(shared.mutex);
        if (!shared.lists[sizeClass].empty()) {
            FreeBlock* list = shared.lists[sizeClass].back();
            shared.lists[sizeClass].pop_back();
            cache.lists[sizeClass] = list->next;
            return list;
        }
        tPoolCacheReturn.touch();
        if (!shared.rests.empty()) {
            const std::pair<char*, char*> rest = shared.rests.back();
            shared.rests.pop_back();
            cache.next = rest.first + blockSize;
            cache.end = rest.second;
            return rest.first;
        }
    }
    // The pages come in with the mapping, in one call: faulting them in one
    // by one as nodes land on them costs a large share of building trees.
    void* mapped = mmap(nullptr, PoolChunk, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (mapped == MAP_FAILED)
        throw std::bad_alloc();
    char* chunk = static_cast<char*>(mapped);
    cache.next = chunk + blockSize;
    cache.end = chunk + PoolChunk;
    return chunk;
}

} // namespace

void* PSVModelItem::operator new(std::size_t size)
{
    const std::size_t sizeClass = (size - 1) / PoolGranule;
    if (!PoolsEnabled || sizeClass >= std::size_t(PoolClasses))
        return ::operator new(size);
    PoolCache& cache = tPoolCache;
    if (FreeBlock* block = cache.lists[sizeClass]) {
        cache.lists[sizeClass] = block->next;
        return block;
    }
    const std::size_t blockSize = (sizeClass + 1) * PoolGranule;
    char* next = cache.next;
    if (next && std::size_t(cache.end - next) >= blockSize) {
        cache.next = next + blockSize;
        return next;
    }
    return refill(int(sizeClass), blockSize);
}

void PSVModelItem::operator delete(void* memory, std::size_t size)
{
    if (!memory)
        return;
    const std::size_t sizeClass = (size - 1) / PoolGranule;
    if (!PoolsEnabled || sizeClass >= std::size_t(PoolClasses)) {
        ::operator delete(memory);
        return;
    }
    PoolCache& cache = tPoolCache;
    FreeBlock* block = static_cast<FreeBlock*>(memory);
    block->next = cache.lists[sizeClass];
    cache.lists[sizeClass] = block;
}

namespace {

// Names of a run's frames are mostly shared copies: the characters, and
// even the headers, are read only when the storage differs.
bool sameName(const QString& a, const QString& b)
{
    return const_cast<QString&>(a).data_ptr() == const_cast<QString&>(b).data_ptr() || a == b;
}

bool sameExactly(const Position& a, const Position& b)
{
    return a.line == b.line && a.column == b.column && sameName(a.function, b.function) && sameName(a.file, b.file);
}

// The kept positions, in shards by key so that threads that make nodes at
// once seldom wait for each other. Each shard is an open-addressing table:
// a run asks once for each of its tens of thousands of distinct frames.
struct KeptPositions
{
    static const int Shards = 64;
    // Positions lie side by side in blocks, so that those of a run's
    // frames, read for every node, take few cache lines.
    static const int BlockSize = 256;
    struct Slot
    {
        const Position* position = nullptr;
        quint32 key = 0;
    };
    struct Shard
    {
        std::mutex mutex;
        std::vector<Slot> table = std::vector<Slot>(64);
        int size = 0;
        Position* block = nullptr;
        int used = BlockSize;

        const Position* find(const Position& position, quint32 key)
        {
            const size_t mask = table.size() - 1;
            for (size_t i = (key / Shards) & mask;; i = (i + 1) & mask) {
                const Slot& slot = table[i];
                if (!slot.position)
                    return nullptr;
                if (slot.key == key && sameExactly(*slot.position, position))
                    return slot.position;
            }
        }
        void insert(const Position* position, quint32 key)
        {
            const size_t mask = table.size() - 1;
            size_t i = (key / Shards) & mask;
            while (table[i].position)
                i = (i + 1) & mask;
            table[i].position = position;
            table[i].key = key;
        }
        const Position* keep(const Position& position, quint32 key)
        {
            if (2 * (size + 1) > int(table.size())) {
                std::vector<Slot> old(2 * table.size());
                old.swap(table);
                for (const Slot& slot : old) {
                    if (slot.position)
                        insert(slot.position, slot.key);
                }
            }
            if (used == BlockSize) {
                block = static_cast<Position*>(::operator new(BlockSize * sizeof(Position)));
                used = 0;
            }
            const Position* kept = new (block + used++) Position(position);
            insert(kept, key);
            ++size;
            return kept;
        }
    };
    Shard shards[Shards];
};

KeptPositions& keptPositions()
{
    // Never destroyed: nodes point into it until the very end.
    static KeptPositions* kept = new KeptPositions;
    return *kept;
}

} // namespace

const Position* PSVModelItem::keptPosition(const Position& position, quint32 key)
{
    // The key leaves the file out, and a run may have many positions that
    // differ only there (unknown frames named after their library): the
    // store tells them apart by the file too.
    key = quint32(mix(key ^ nameKey(position.file)));
    KeptPositions::Shard& shard = keptPositions().shards[key % KeptPositions::Shards];
    std::lock_guard<std::mutex> lock(shard.mutex);
    if (const Position* kept = shard.find(position, key))
        return kept;
    return shard.keep(position, key);
}

PSVModelItem::PSVModelItem() : PSVModelItem(Position())
{
}

PSVModelItem::PSVModelItem(const Position& position)
    : mOnlyChild(nullptr), mParent(nullptr), mChildCount(0), mHasExtra(0), mPositionKey(positionKey(position)),
      mCurrentGroup(false), mUnexpectedStop(false), mUnexpectedStopAncestor(false), mCudaBrief(false), mDerivedBits(0)
{
    mPosition = keptPosition(position, mPositionKey);
}

PSVModelItem::PSVModelItem(PSVModelItem* parent) : PSVModelItem()
{
    if (parent)
        parent->addChild(this);
}

PSVModelItem::PSVModelItem(PSVModelItem* parent, const Position& position) : PSVModelItem(position)
{
    if (parent)
        parent->addChild(this);
}

quint32 PSVModelItem::positionKeyOf(const Position& position)
{
    return positionKey(position);
}

PSVModelItem::PSVModelItem(const PSVModelItem& other)
    : SaxHandler(other), mProcessThreads(other.mProcessThreads), mOnlyChild(nullptr), mParent(nullptr), mPosition(other.mPosition),
      mChildCount(0), mHasExtra(0), mPositionKey(other.mPositionKey), mCurrentGroup(other.mCurrentGroup),
      mUnexpectedStop(other.mUnexpectedStop), mUnexpectedStopAncestor(other.mUnexpectedStopAncestor),
      mCudaBrief(other.mCudaBrief), mDerivedBits(other.mDerivedBits)
{
    if (other.mHasExtra) {
        extra().cudaThreads = other.mExtra->cudaThreads;
        mExtra->lastCudaGroup = other.mExtra->lastCudaGroup;
    }
    for (const PSVModelItem* child : other.childNodes())
        addChild(child->clone());
}

PSVModelItem::~PSVModelItem()
{
    if (mParent)
        mParent->unlinkChild(this);
    for (PSVModelItem* child : childNodes()) {
        child->mParent = nullptr;
        delete child;
    }
    releaseChildPointers();
    if (mHasExtra) {
        delete mExtra->childIndex;
        delete mExtra;
    }
}

namespace {

PSVModelItem** allocateChildArray(PSVModelItem** array, int capacity)
{
    auto** grown = static_cast<PSVModelItem**>(std::realloc(array, size_t(capacity) * sizeof(PSVModelItem*)));
    if (!grown)
        throw std::bad_alloc();
    return grown;
}

} // namespace

PSVModelItemExtra& PSVModelItem::extra()
{
    if (!mHasExtra) {
        std::unique_ptr<PSVModelItemExtra> made(new PSVModelItemExtra);
        // The counts on the device follow the brief mode they had while
        // they lived nowhere.
        if (mCudaBrief)
            made->cudaThreads.setBrief(true);
        if (mChildCount == 1) {
            made->children = allocateChildArray(nullptr, 4);
            made->capacity = 4;
            made->children[0] = mOnlyChild;
        }
        mExtra = made.release();
        mHasExtra = 1;
    }
    return *mExtra;
}

IntProcessMap& PSVModelItem::cudaThreadsForChange()
{
    return extra().cudaThreads;
}

const IntProcessMap& PSVModelItem::processToCudaThreadCountMap() const
{
    static const IntProcessMap none;
    return mHasExtra ? mExtra->cudaThreads : none;
}

int PSVModelItem::totalCudaThreads() const
{
    return mHasExtra ? mExtra->cudaThreads.total() : 0;
}

int PSVModelItem::rank() const
{
    return -6;
}

int PSVModelItem::threadId() const
{
    return -1;
}

bool PSVModelItem::useXmlStreamReader() const
{
    return true;
}

PSVModelItem* PSVModelItem::createChild(const Position& position)
{
    return new PSVModelItem(this, position);
}

PSVModelItem* PSVModelItem::clone() const
{
    return new PSVModelItem(*this);
}

bool PSVModelItem::isSimplePSVModel() const
{
    return true;
}

const QVariantMap* PSVModelItem::variables() const
{
    return nullptr;
}

PSVModelItem* PSVModelItem::constructChild()
{
    return new PSVModelItem(this);
}

void PSVModelItem::writeExtraXml(XmlWriter&) const {}

bool PSVModelItem::readExtraXml(QXmlStreamReader& reader, QString*)
{
    // An element this node doesn't know, from a newer writer: pass over it.
    reader.skipCurrentElement();
    return true;
}

void PSVModelItem::extraMergePSVModelItem(const PSVModelItem&, void*) {}

QList<PSVModelItem*> PSVModelItem::children() const
{
    QList<PSVModelItem*> list;
    list.reserve(mChildCount);
    for (PSVModelItem* child : childNodes())
        list.append(child);
    return list;
}

int PSVModelItem::indexOfChild(PSVModelItem* child) const
{
    PSVModelItem* const* pointers = childPointers();
    for (int i = 0; i < mChildCount; ++i) {
        if (pointers[i] == child)
            return i;
    }
    return -1;
}

void PSVModelItem::appendChildPointer(PSVModelItem* child)
{
    const int count = mChildCount;
    if (!mHasExtra && count == 0) {
        mOnlyChild = child;
        mChildCount = 1;
        return;
    }
    PSVModelItemExtra& rare = extra();
    if (count == rare.capacity) {
        const int capacity = count < 4 ? 4 : 2 * count;
        rare.children = allocateChildArray(rare.children, capacity);
        rare.capacity = capacity;
    }
    rare.children[count] = child;
    mChildCount = count + 1;
}

void PSVModelItem::releaseChildPointers()
{
    if (mHasExtra) {
        std::free(mExtra->children);
        mExtra->children = nullptr;
        mExtra->capacity = 0;
    } else {
        mOnlyChild = nullptr;
    }
    mChildCount = 0;
}

void PSVModelItem::addChild(PSVModelItem* child)
{
    appendChildPointer(child);
    child->mParent = this;
    if (mHasExtra && mExtra->childIndex)
        mExtra->childIndex->append(child);
}

void PSVModelItem::unlinkChild(PSVModelItem* child)
{
    const int index = indexOfChild(child);
    if (index < 0)
        return;
    if (!mHasExtra) {
        mOnlyChild = nullptr;
        mChildCount = 0;
        return;
    }
    if (mExtra->childIndex)
        mExtra->childIndex->remove(child, child->mPositionKey);
    PSVModelItem** children = mExtra->children;
    std::memmove(children + index, children + index + 1, size_t(mChildCount - index - 1) * sizeof(PSVModelItem*));
    mChildCount = mChildCount - 1;
}

void PSVModelItem::detach()
{
    if (!mParent)
        return;
    mParent->unlinkChild(this);
    mParent = nullptr;
}

void PSVModelItem::setPosition(const Position& position)
{
    const quint32 oldKey = mPositionKey;
    mPositionKey = positionKey(position);
    mPosition = keptPosition(position, mPositionKey);
    if (mParent && mParent->mHasExtra && mParent->mExtra->childIndex)
        mParent->mExtra->childIndex->rekey(this, oldKey);
}

void PSVModelItem::clear()
{
    const QList<PSVModelItem*> children = takeChildren();
    for (PSVModelItem* child : children) {
        child->clear();
        child->mParent = nullptr;
        delete child;
    }
}

QList<PSVModelItem*> PSVModelItem::takeChildren()
{
    if (mHasExtra) {
        delete mExtra->childIndex;
        mExtra->childIndex = nullptr;
    }
    const QList<PSVModelItem*> taken = children();
    releaseChildPointers();
    for (PSVModelItem* child : taken)
        child->mParent = nullptr;
    return taken;
}

void PSVModelItem::addThreads(int process, int count, bool current, bool unexpected)
{
    mProcessThreads.add(process, count);
    mCurrentGroup = mCurrentGroup || current;
    if (!mUnexpectedStop)
        setUnexpectedStop(unexpected);
}

void PSVModelItem::addCudaThreads(int process, int group, int count, bool current, bool unexpected)
{
    IntProcessMap& cudaThreads = cudaThreadsForChange();
    if (group != mExtra->lastCudaGroup) {
        mExtra->lastCudaGroup = group;
        addThread(process, false, false);
    }
    cudaThreads.add(process, count);
    mCurrentGroup = mCurrentGroup || current;
    if (!mUnexpectedStop)
        setUnexpectedStop(unexpected);
}

void PSVModelItem::setUnexpectedStop(bool value)
{
    if (mUnexpectedStop == value)
        return;
    mUnexpectedStop = true;
    for (PSVModelItem* ancestor = mParent; ancestor; ancestor = ancestor->mParent)
        ancestor->mUnexpectedStopAncestor = true;
}

bool PSVModelItem::hasThreadsForProcessSet(const CompactSet<int>& set) const
{
    for (const range<int>& r : set) {
        if (!mProcessThreads.contains(r))
            return false;
    }
    return true;
}

QList<Position> PSVModelItem::stack() const
{
    QList<Position> positions;
    if (!mParent)
        return positions;
    for (const PSVModelItem* node = this; node; node = node->mParent)
        positions.prepend(*node->mPosition);
    return positions;
}

QString PSVModelItem::getKernelName() const
{
    if (!mParent)
        return QString();
    // Up through the frames that ran on the device, stopping below the root.
    const PSVModelItem* node = this;
    while (node->mParent->mParent && node->mParent->totalCudaThreads() >= 1)
        node = node->mParent;
    return node->mPosition->function;
}

CompactSet<int> PSVModelItem::processes() const
{
    CompactSet<int> set;
    for (const auto& entry : mProcessThreads)
        set.insert(entry.first, true);
    return set;
}

PSVModelItem* PSVModelItem::childWithRank(int rank) const
{
    for (PSVModelItem* child : childNodes()) {
        if (child->mProcessThreads.contains(range<int>(rank, rank + 1)))
            return child;
    }
    return nullptr;
}

namespace {

// Names read from XML or built from one table share their storage, so the
// comparison of the characters is seldom needed.
inline bool sameStorage(const QString& a, const QString& b)
{
    return a.constData() == b.constData() && a.size() == b.size();
}

} // namespace

bool PSVModelItem::samePosition(const Position& a, const Position& b)
{
    // The cheap integer tests go first; all four must hold in any case.
    return &a == &b
        || (a.line == b.line && a.column == b.column && (sameStorage(a.function, b.function) || a.function == b.function)
            && (sameStorage(a.file, b.file) || PathString::fileNamesEqual(a.file, b.file)));
}

PSVModelItem* PSVModelItem::findChildIf(const Position& position, bool (*accept)(const PSVModelItem*)) const
{
    if (mChildCount >= CHILD_INDEX_THRESHOLD) {
        PSVModelItemExtra& extra = const_cast<PSVModelItem*>(this)->extra();
        if (!extra.childIndex)
            extra.childIndex = new PSVChildIndex(childNodes());
        return extra.childIndex->find(position, positionKey(position), accept);
    }
    for (PSVModelItem* child : childNodes()) {
        if (samePosition(*child->mPosition, position) && (!accept || accept(child)))
            return child;
    }
    return nullptr;
}

PSVModelItem* PSVModelItem::findChildLike(const PSVModelItem* node) const
{
    if (mChildCount >= CHILD_INDEX_THRESHOLD) {
        PSVModelItemExtra& extra = const_cast<PSVModelItem*>(this)->extra();
        if (!extra.childIndex)
            extra.childIndex = new PSVChildIndex(childNodes());
        return extra.childIndex->find(*node->mPosition, node->mPositionKey, nullptr);
    }
    for (PSVModelItem* child : childNodes()) {
        // Different keys settle most comparisons without the names.
        if (child->mPositionKey == node->mPositionKey && samePosition(*child->mPosition, *node->mPosition))
            return child;
    }
    return nullptr;
}

PSVModelItem* PSVModelItem::findChild(const Position& position)
{
    return findChildIf(position, nullptr);
}

const PSVModelItem* PSVModelItem::findChild(const Position& position) const
{
    return const_cast<PSVModelItem*>(this)->findChild(position);
}

void PSVModelItem::setBrief(bool brief)
{
    mProcessThreads.setBrief(brief);
    if (mHasExtra)
        mExtra->cudaThreads.setBrief(brief);
    mCudaBrief = brief;
    for (PSVModelItem* child : childNodes())
        child->setBrief(brief);
}

void PSVModelItem::mapRanks(const QMap<int, int>& ranks)
{
    mProcessThreads.remap(ranks);
    if (mHasExtra)
        mExtra->cudaThreads.remap(ranks);
    // Remapping rebuilds a map in its plain mode.
    mCudaBrief = false;
    for (PSVModelItem* child : childNodes())
        child->mapRanks(ranks);
}

void PSVModelItem::addPSVModelItem(PSVModelItem* item, void* context)
{
    if (PSVModelItem* match = findChildLike(item)) {
        match->mergePSVModelItem(*item, context);
        return;
    }
    item->detach();
    addChild(item);
}

void PSVModelItem::mergePSVModelItem(const PSVModelItem& other, void* context)
{
    extraMergePSVModelItem(other, context);
    // Ranks of different trees are disjoint, so taking other's count for
    // each of its ranks adds the two trees' counts.
    mProcessThreads.set(other.mProcessThreads, true);
    if (other.mHasExtra)
        cudaThreadsForChange().set(other.mExtra->cudaThreads, true);
    else if (other.mCudaBrief && !mHasExtra)
        mCudaBrief = true;
    else if (other.mCudaBrief && !mExtra->cudaThreads.isBrief())
        mExtra->cudaThreads.setBrief(true);
    // A copy: the children that move over leave other's list meanwhile.
    const PSVChildRange range = other.childNodes();
    const QVarLengthArray<PSVModelItem*, 16> otherChildren(range.begin(), range.end());
    for (PSVModelItem* child : otherChildren)
        addPSVModelItem(child, context);
    mCurrentGroup = mCurrentGroup || other.mCurrentGroup;
    if (!mUnexpectedStop)
        setUnexpectedStop(other.mUnexpectedStop);
}

void PSVModelItem::writeXml(XmlWriter& writer) const
{
    // A root stands for no frame and writes no position.
    if (mParent) {
        const Position& position = *mPosition;
        if (!position.function.isEmpty())
            writer.attribute(ATTR_FUNCTION, position.function);
        if (!position.file.isEmpty())
            writer.attribute(ATTR_FILE, position.file);
        if (position.line > 0)
            writer.attribute(ATTR_LINE, position.line);
    }
    // Kept between nodes (reserved, so that emptying it keeps the room);
    // each node is done with it before its children use it.
    thread_local QByteArray processes = [] { QByteArray room; room.reserve(256); return room; }();
    processes.resize(0);
    mProcessThreads.appendText(&processes);
    if (!processes.isEmpty())
        writer.plainAttribute(ATTR_PROCESSES, processes);
    if (mHasExtra && !mExtra->cudaThreads.isEmpty())
        writer.attribute(ATTR_CUDA_THREADS, mExtra->cudaThreads.toString());
    if (mCurrentGroup)
        writer.attribute(ATTR_CURRENT_GROUP, YES);
    if (mUnexpectedStop)
        writer.attribute(ATTR_UNEXPECTED_STOP, YES);
    writeExtraXml(writer);
    for (const PSVModelItem* child : childNodes()) {
        writer.startElement(XML_NODE);
        child->writeXml(writer);
        writer.endElement();
    }
}

bool PSVModelItem::extraWritesAlike(const PSVModelItem&) const
{
    return true;
}

bool PSVModelItem::writesAlike(const PSVModelItem& other) const
{
    if (this == &other)
        return true;
    if (typeid(*this) != typeid(other) || mChildCount != other.mChildCount || (mParent == nullptr) != (other.mParent == nullptr))
        return false;
    // As writeXml writes them: no position at the root, no line below 1.
    if (mParent && mPosition != other.mPosition) {
        const Position& a = *mPosition;
        const Position& b = *other.mPosition;
        if (a.function != b.function || a.file != b.file || std::max(a.line, 0) != std::max(b.line, 0))
            return false;
    }
    const bool cuda = mHasExtra && !mExtra->cudaThreads.isEmpty();
    if (cuda != (other.mHasExtra && !other.mExtra->cudaThreads.isEmpty())
        || (cuda && mExtra->cudaThreads.toString() != other.mExtra->cudaThreads.toString()))
        return false;
    if (mCurrentGroup != other.mCurrentGroup || mUnexpectedStop != other.mUnexpectedStop
        || !(mProcessThreads == other.mProcessThreads) || !extraWritesAlike(other))
        return false;
    PSVModelItem* const* mine = childPointers();
    PSVModelItem* const* theirs = other.childPointers();
    for (int i = 0; i < mChildCount; ++i) {
        if (!mine[i]->writesAlike(*theirs[i]))
            return false;
    }
    return true;
}

uint PSVModelItem::shapeHash() const
{
    // Kept positions are one copy each: trees alike share them, and those
    // that name a position through another copy only hash apart.
    quint64 hash = quint64(mChildCount) * 0x9E3779B97F4A7C15ULL;
    if (mParent)
        hash ^= quint64(reinterpret_cast<quintptr>(mPosition)) * 0xC2B2AE3D27D4EB4FULL;
    PSVModelItem* const* children = childPointers();
    for (int i = 0; i < mChildCount; ++i)
        hash = (hash ^ children[i]->shapeHash()) * 0x100000001B3ULL + quint64(i);
    return uint(hash ^ (hash >> 32));
}

bool PSVModelItem::readXml(QXmlStreamReader& reader, QString* error)
{
    readXmlStreamAttributes(reader.attributes());
    while (readNextStartElement(reader)) {
        if (reader.name() == XML_NODE) {
            PSVModelItem* child = constructChild();
            if (!child->readXml(reader, error)) {
                delete child;
                if (error)
                    *error = QCoreApplication::translate("PSVModelItem", "failed to read child node element");
                return false;
            }
        } else if (!readExtraXml(reader, error)) {
            return false;
        }
    }
    // A truncated or malformed document ends the loop as well.
    if (reader.hasError()) {
        if (error)
            *error = reader.errorString();
        return false;
    }
    return true;
}

QString PSVModelItem::internString(const QString& text)
{
    static QMutex mutex;
    static InternStringCache cache;
    QMutexLocker lock(&mutex);
    return cache.intern(text);
}

void PSVModelItem::readXmlStreamAttributes(const QXmlStreamAttributes& attributes)
{
    Position position;
    if (attributes.hasAttribute(ATTR_FUNCTION))
        position.function = internString(attributes.value(ATTR_FUNCTION).toString());
    if (attributes.hasAttribute(ATTR_FILE))
        position.file = internString(attributes.value(ATTR_FILE).toString());
    if (attributes.hasAttribute(ATTR_LINE))
        position.line = attributes.value(ATTR_LINE).toInt();
    setPosition(position);
    if (attributes.hasAttribute(ATTR_PROCESSES))
        mProcessThreads = IntProcessMap(attributes.value(ATTR_PROCESSES).toString());
    if (attributes.hasAttribute(ATTR_CUDA_THREADS))
        extra().cudaThreads = IntProcessMap(attributes.value(ATTR_CUDA_THREADS).toString());
    mCurrentGroup = attributes.value(ATTR_CURRENT_GROUP) == YES;
    setUnexpectedStop(attributes.value(ATTR_UNEXPECTED_STOP) == YES);
}
