#include "flattree.h"

#include <algorithm>
#include <cstring>

namespace {

const quint32 NONE = 0xffffffffu;

quint64 mix(quint64 h)
{
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdULL;
    h ^= h >> 33;
    return h;
}

quint64 nameHash(const QString& name)
{
    quint64 h = quint64(name.size()) * 0x9e3779b97f4a7c15ULL;
    const QChar* chars = name.constData();
    for (int i = 0; i < name.size(); ++i)
        h = (h ^ chars[i].unicode()) * 0x100000001b3ULL;
    return mix(h);
}

// The hash of a position, the same in every tree; the file is left out, so
// that spellings of one file meet and are told apart by samePosition.
quint32 keyFromHash(quint64 function, int line, int column)
{
    const quint64 lineAndColumn = (quint64(quint32(line)) << 32) | quint32(column);
    return quint32(mix(function ^ (lineAndColumn * 0xc2b2ae3d27d4eb4fULL)) >> 16);
}

size_t slotOf(quint32 parent, quint32 key)
{
    const quint64 h = (quint64(parent) << 32 | key) * 0x9e3779b97f4a7c15ULL;
    return size_t(h ^ (h >> 29));
}

bool sameStorage(const QString& a, const QString& b)
{
    return a.constData() == b.constData() && a.size() == b.size();
}

const void* storageOf(const QString& name)
{
    return const_cast<QString&>(name).data_ptr();
}

size_t pointerSlot(const void* pointer)
{
    const quint64 h = quint64(quintptr(pointer)) * 0x9e3779b97f4a7c15ULL;
    return size_t(h >> 40);
}

const size_t CACHE_SIZE = 1024;

} // namespace

quint32 FlatNames::id(const QString& name)
{
    const void* storage = storageOf(name);
    std::lock_guard<std::mutex> lock(mLock);
    if (2 * (size_t(mNames.size()) + 1) > mSlots.size()) {
        std::vector<Slot> old(std::max<size_t>(1024, 2 * mSlots.size()), Slot{nullptr, 0});
        old.swap(mSlots);
        const size_t mask = mSlots.size() - 1;
        for (const Slot& slot : old) {
            if (!slot.storage)
                continue;
            size_t i = pointerSlot(slot.storage) & mask;
            while (mSlots[i].storage)
                i = (i + 1) & mask;
            mSlots[i] = slot;
        }
    }
    const size_t mask = mSlots.size() - 1;
    size_t i = pointerSlot(storage) & mask;
    for (; mSlots[i].storage; i = (i + 1) & mask) {
        if (mSlots[i].storage == storage)
            return mSlots[i].id;
    }
    const quint32 id = quint32(mNames.size());
    mNames.append(name); // keeps the storage, so that its address stays this name's
    mHashes.push_back(nameHash(name));
    mSlots[i] = Slot{storage, id};
    return id;
}

QString FlatNames::name(quint32 id) const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mNames[int(id)];
}

quint64 FlatNames::hash(quint32 id) const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mHashes[id];
}

quint32 FlatNames::size() const
{
    std::lock_guard<std::mutex> lock(mLock);
    return quint32(mNames.size());
}

FlatTree::FlatTree(int rank, std::shared_ptr<FlatNames> names)
    : mRank(rank), mNames(names ? std::move(names) : std::make_shared<FlatNames>())
{
    mNodes.reserve(256);
    append(NONE, Position());
}

bool FlatTree::samePosition(const Position& a, const Position& b)
{
    return a.line == b.line && a.column == b.column && (sameStorage(a.function, b.function) || a.function == b.function)
        && (sameStorage(a.file, b.file) || PathString::fileNamesEqual(a.file, b.file));
}

const FlatTree::Cached& FlatTree::nameOf(const QString& name)
{
    if (mCache.empty())
        mCache.assign(CACHE_SIZE, Cached{nullptr, 0, 0});
    const void* storage = storageOf(name);
    Cached& cached = mCache[pointerSlot(storage) & (CACHE_SIZE - 1)];
    if (cached.storage != storage) {
        // The names hold the storage, so an address seen stays that name.
        const quint32 id = mNames->id(name);
        cached = Cached{storage, id, mNames->hash(id)};
    }
    return cached;
}

quint32 FlatTree::append(quint32 parent, const Position& position)
{
    Node node;
    node.parent = parent;
    const Cached& function = nameOf(position.function);
    node.function = function.id;
    node.key = keyFromHash(function.hash, position.line, position.column);
    node.file = nameOf(position.file).id;
    node.line = position.line;
    node.column = position.column;
    node.threads = 0;
    node.tag = 0;
    std::memset(node.sums, 0, sizeof node.sums);
    node.current = false;
    node.stop = false;
    mNodes.push_back(node);
    return quint32(mNodes.size() - 1);
}

quint32 FlatTree::addChild(quint32 parent, const Position& position)
{
    return append(parent, position);
}

void FlatTree::place(quint32 node)
{
    const Node& n = mNodes[node];
    const size_t mask = mSlots.size() - 1;
    size_t i = slotOf(n.parent, n.key) & mask;
    while (mSlots[i] != NONE)
        i = (i + 1) & mask;
    mSlots[i] = node;
}

void FlatTree::index(quint32 node)
{
    if (2 * (mIndexed + 1) > mSlots.size()) {
        // Refilled in the order of the nodes, so that children that match
        // alike come along a probe in the order of the children.
        mSlots.assign(std::max<size_t>(64, 4 * mSlots.size()), NONE);
        for (quint32 i = 1; i < mIndexed; ++i)
            place(i);
    }
    if (node != ROOT)
        place(node);
    ++mIndexed;
}

quint32 FlatTree::child(quint32 parent, const Position& position, bool* made)
{
    while (mIndexed < mNodes.size())
        index(quint32(mIndexed));
    const Cached& name = nameOf(position.function);
    const quint32 function = name.id;
    const quint32 key = keyFromHash(name.hash, position.line, position.column);
    const quint32 file = nameOf(position.file).id;
    const size_t mask = mSlots.size() - 1;
    for (size_t i = slotOf(parent, key) & mask; mSlots[i] != NONE; i = (i + 1) & mask) {
        const Node& n = mNodes[mSlots[i]];
        if (n.parent != parent || n.key != key || n.line != position.line || n.column != position.column)
            continue;
        if ((n.function == function || mNames->name(n.function) == position.function)
            && (n.file == file || PathString::fileNamesEqual(mNames->name(n.file), position.file))) {
            if (made)
                *made = false;
            return mSlots[i];
        }
    }
    const quint32 node = append(parent, position);
    index(node);
    if (made)
        *made = true;
    return node;
}

void FlatTree::addThreads(quint32 node, int count, bool current, bool unexpectedStop)
{
    Node& n = mNodes[node];
    n.threads += count;
    n.current = n.current || current;
    n.stop = n.stop || unexpectedStop;
}

void FlatTree::addSums(quint32 node, const int (&sums)[SUMS])
{
    for (int i = 0; i < SUMS; ++i)
        mNodes[node].sums[i] += sums[i];
}
