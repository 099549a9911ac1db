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

} // namespace

FlatTree::FlatTree(int rank) : mRank(rank)
{
    mNodes.reserve(256);
    append(NONE, Position());
}

quint32 FlatTree::keyOf(const QString& function, int line, int column)
{
    return keyFromHash(nameHash(function), line, column);
}

bool FlatTree::samePosition(const Position& a, const Position& b)
{
    return a.line == b.line && a.column == b.column && (sameStorage(a.function, b.function) || a.function == b.function)
        && (sameStorage(a.file, b.file) || PathString::fileNamesEqual(a.file, b.file));
}

Position FlatTree::position(quint32 node) const
{
    const Node& n = mNodes[node];
    return Position(mNames[int(n.function)], mNames[int(n.file)], n.line, n.column);
}

quint32 FlatTree::nameOf(const QString& name)
{
    const void* storage = const_cast<QString&>(name).data_ptr();
    auto it = mNameIds.constFind(storage);
    if (it != mNameIds.constEnd())
        return *it;
    const quint32 id = quint32(mNames.size());
    mNames.append(name);
    mNameHashes.push_back(nameHash(name));
    mNameIds.insert(storage, id);
    return id;
}

quint32 FlatTree::append(quint32 parent, const Position& position)
{
    Node node;
    node.parent = parent;
    node.function = nameOf(position.function);
    node.file = nameOf(position.file);
    node.line = position.line;
    node.column = position.column;
    node.key = keyFromHash(mNameHashes[node.function], position.line, position.column);
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
    const quint32 function = nameOf(position.function);
    const quint32 file = nameOf(position.file);
    const quint32 key = keyFromHash(mNameHashes[function], position.line, position.column);
    const size_t mask = mSlots.size() - 1;
    for (size_t i = slotOf(parent, key) & mask; mSlots[i] != NONE; i = (i + 1) & mask) {
        const Node& n = mNodes[mSlots[i]];
        if (n.parent != parent || n.key != key || n.line != position.line || n.column != position.column)
            continue;
        if ((n.function == function || mNames[int(n.function)] == position.function)
            && (n.file == file || PathString::fileNamesEqual(mNames[int(n.file)], position.file))) {
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
