// A map from half-open ranges of keys to values, shared copy-on-write: in
// this system, process ranks to counts. Neighbouring keys with the same value
// share one range. It goes brief and elided like CompactSet.
#ifndef ZOR_COMPACTMAP_H
#define ZOR_COMPACTMAP_H

#include "compactset.h"

#include <QMap>

#include <map>
#include <utility>

namespace zor_compact {

// A copy-on-write pointer whose null stands for an empty, default object,
// so that the many empty maps of a tree share nothing and take no part in
// reference counting across threads. An object kept forever is shared
// without counting at all: a map copied into nodes by the million would
// otherwise cost two atomic operations per node.
template <typename T>
class CowPointer
{
public:
    CowPointer() : d(nullptr) {}
    CowPointer(const CowPointer& other) : d(other.d) { ref(d); }
    CowPointer(CowPointer&& other) noexcept : d(other.d) { other.d = nullptr; }
    CowPointer& operator=(const CowPointer& other)
    {
        if (d != other.d) {
            T* old = d;
            d = other.d;
            ref(d);
            release(old);
        }
        return *this;
    }
    CowPointer& operator=(CowPointer&& other) noexcept
    {
        std::swap(d, other.d);
        return *this;
    }
    ~CowPointer() { release(d); }

    T* operator->() const { return d ? d : empty(); }
    T* data() const { return operator->(); }
    // Call before any change.
    void detach()
    {
        if (!d) {
            d = new T;
            d->ref.storeRelaxed(1);
        } else if (d->ref.loadRelaxed() != 1) {
            T* copy = new T(*d);
            copy->ref.storeRelaxed(1);
            release(d);
            d = copy;
        }
    }
    // The object is never freed from now on, and copies share it without
    // counting; a change through any of them copies it first.
    void keepForever()
    {
        detach();
        d->ref.storeRelaxed(Forever);
    }
    bool operator==(const CowPointer& other) const { return d == other.d; }
    bool operator!=(const CowPointer& other) const { return d != other.d; }

private:
    static const int Forever = -1;

    static void ref(T* object)
    {
        if (object && object->ref.loadRelaxed() != Forever)
            object->ref.ref();
    }
    static void release(T* object)
    {
        if (object && object->ref.loadRelaxed() != Forever && !object->ref.deref())
            delete object;
    }
    static T* empty()
    {
        static T object;
        return &object;
    }

    T* d;
};

} // namespace zor_compact

template <typename K, typename V>
class CompactMapData : public QSharedData
{
public:
    CompactMapData() : mCount(0), mTotal(0), mBrief(0), mElided(0), mCountIsLowerBound(0) {}

    std::map<range<K>, V> mRanges;
    int mCount;
    // IntProcessMap's running total, kept here so that such a map, of which
    // every node of a call tree holds one, is a single pointer.
    int mTotal;
    unsigned mBrief : 1;
    unsigned mElided : 1;
    unsigned mCountIsLowerBound : 1;
};

template <typename K, typename V>
class CompactMap
{
public:
    typedef range<K> Range;
    typedef std::map<Range, V> Ranges;
    typedef typename Ranges::const_iterator const_iterator;

    CompactMap() {}

    // Afterwards every key of r has value. Touching ranges join only when
    // their values are equal.
    void set(const Range& r, V value, bool counted);
    void set(const CompactMap& other, bool counted);

    // True when every key of r lies in some stored range.
    bool contains(const Range& r) const;
    const_iterator end_upper_bound(const Range& r) const;
    int sizeLowerBound() const;
    // Rebuilds the map with keys moved as keys says; the flags and counts go.
    // Where two keys land on one, the later wins.
    void remap(const QMap<K, K>& keys);

    // The value stored for key, or fallback.
    V value(K key, V fallback = V()) const;

    void setBrief(bool brief);
    bool isBrief() const { return d->mBrief; }
    bool isElided() const { return d->mElided; }
    bool countIsLowerBound() const { return d->mCountIsLowerBound; }
    int count() const { return d->mCount; }

    bool isEmpty() const { return d->mRanges.empty(); }
    int rangeCount() const { return int(d->mRanges.size()); }
    const_iterator begin() const { return d->mRanges.begin(); }
    const_iterator end() const { return d->mRanges.end(); }
    const Ranges& ranges() const { return d->mRanges; }

    bool isSharedWith(const CompactMap& other) const { return d == other.d; }
    // For a map copied into many places and changed in none: its storage is
    // never freed, and copies share it without counting references.
    void keepForever() { d.keepForever(); }
    bool operator==(const CompactMap& other) const;
    bool operator!=(const CompactMap& other) const { return !(*this == other); }

protected:
    typedef CompactMapData<K, V> Data;
    typedef typename Ranges::iterator iterator;

    bool takesModeFrom(const CompactMap& other) const
    {
        return (other.d->mBrief && !d->mBrief) || (other.d->mElided && !d->mElided);
    }
    // Whether merging other in may make this map elided on the way.
    bool mayElideMerging(const CompactMap& other, bool counted) const
    {
        return counted && d->mBrief && !other.d->mElided && !d->mElided
            && d->mRanges.size() + other.d->mRanges.size() > BRIEF_RANGE_LIMIT - 1;
    }
    void setSimple(const CompactMap& other, bool counted);
    iterator lookup(K key);
    // The first range that begins at or after key. Merging ranks in order
    // sets past the last range most of the time, so that case skips the
    // search of the tree.
    iterator lowerBound(K key)
    {
        Ranges& m = d->mRanges;
        if (!m.empty() && std::prev(m.end())->first.begin < key)
            return m.end();
        return m.lower_bound(Range(key, key));
    }
    iterator endUpperBound(const Range& r);
    void noteSet(const Range& r, bool counted);

    zor_compact::CowPointer<Data> d;
};

template <typename K, typename V>
void CompactMap<K, V>::noteSet(const Range& r, bool counted)
{
    Data* data = d.data();
    if (data->mBrief && !data->mElided && data->mRanges.size() >= BRIEF_RANGE_LIMIT) {
        data->mCount = sizeLowerBound();
        data->mElided = 1;
    }
    if (data->mElided) {
        if (counted)
            data->mCount = zor_compact::add32(data->mCount, r.end - r.begin);
        else
            data->mCountIsLowerBound = 1;
    }
}

template <typename K, typename V>
typename CompactMap<K, V>::iterator CompactMap<K, V>::endUpperBound(const Range& r)
{
    Ranges& m = d->mRanges;
    iterator it = lowerBound(r.end);
    if (it != m.begin()) {
        iterator before = std::prev(it);
        if (before->first.end > r.end)
            return before;
    }
    return it;
}

template <typename K, typename V>
typename CompactMap<K, V>::const_iterator CompactMap<K, V>::end_upper_bound(const Range& r) const
{
    return const_cast<CompactMap*>(this)->endUpperBound(r);
}

template <typename K, typename V>
typename CompactMap<K, V>::iterator CompactMap<K, V>::lookup(K key)
{
    Ranges& m = d->mRanges;
    iterator it = m.upper_bound(Range(key, key));
    if (it == m.begin())
        return m.end();
    --it;
    return it->first.end > key ? it : m.end();
}

template <typename K, typename V>
V CompactMap<K, V>::value(K key, V fallback) const
{
    const_iterator it = const_cast<CompactMap*>(this)->lookup(key);
    return it == d->mRanges.end() ? fallback : it->second;
}

template <typename K, typename V>
void CompactMap<K, V>::set(const Range& r, V value, bool counted)
{
    if (!(r.begin < r.end))
        return;
    d.detach();
    noteSet(r, counted);

    Ranges& m = d->mRanges;
    if (!d->mElided && (m.empty() || !(r.begin < std::prev(m.end())->first.end))) {
        // Past the last range, as merging ranks in order sets nearly always:
        // stretch the last range or append, without a search.
        if (!m.empty()) {
            iterator back = std::prev(m.end());
            if (back->first.end == r.begin && back->second == value) {
                back->first.end = r.end;
                return;
            }
        }
        m.emplace_hint(m.end(), r, value);
        return;
    }
    iterator first = lowerBound(r.begin);
    iterator prev = first == m.begin() ? m.end() : std::prev(first);
    if (prev != m.end() && prev->first.end >= r.end && prev->second == value)
        return;

    iterator last = endUpperBound(r);
    // prev begins below r.begin; it matters when it reaches r.
    const bool hasPrev = prev != m.end() && prev->first.end >= r.begin;
    const bool hasLast = last != m.end() && r.end < last->first.end && last->first.begin <= r.end;
    const bool lastIsPrev = hasLast && last == prev;
    const bool joinLeft = hasPrev && prev->second == value;
    const bool joinRight = hasLast && last->second == value;

    if (!joinLeft && !joinRight && first != m.end() && first->first.begin == r.begin
        && first->first.end >= r.end && first->second == value)
        return;

    if (joinLeft) {
        prev->first.end = joinRight ? last->first.end : std::max(prev->first.end, r.end);
        m.erase(first, last);
        if (joinRight) {
            m.erase(last);
        } else if (hasLast && last->first.begin < r.end) {
            // The right neighbour keeps the part past r with its own value.
            const std::pair<Range, V> rest(Range(r.end, last->first.end), last->second);
            iterator hint = m.erase(last);
            m.insert(hint, rest);
        }
        return;
    }

    if (hasPrev && prev->first.end > r.begin) {
        if (lastIsPrev) {
            // r lies strictly inside prev, whose value differs: split it.
            m.insert(std::make_pair(Range(r.end, prev->first.end), prev->second));
            prev->first.end = r.begin;
            last = m.end();
        } else {
            prev->first.end = r.begin;
        }
    }

    if (joinRight) {
        const std::pair<Range, V> joined(Range(std::min(last->first.begin, r.begin), last->first.end), value);
        m.erase(first, last);
        iterator hint = m.erase(last);
        m.insert(hint, joined);
        return;
    }

    iterator hint;
    if (lastIsPrev) {
        hint = first;
    } else {
        m.erase(first, last);
        hint = last;
        if (hasLast && last->first.begin < r.end) {
            const std::pair<Range, V> rest(Range(r.end, last->first.end), last->second);
            hint = m.erase(last);
            hint = m.insert(hint, rest);
        }
    }
    if (d->mElided && !m.empty()) {
        // An elided map keeps its lowest ranges and never grows.
        iterator back = std::prev(m.end());
        if (back->first.begin < r.begin)
            return;
        hint = m.erase(back);
    }
    m.insert(hint, std::make_pair(r, value));
}

template <typename K, typename V>
void CompactMap<K, V>::setSimple(const CompactMap& other, bool counted)
{
    // Holds other's ranges steady should this map share them and detach.
    const zor_compact::CowPointer<Data> keep = other.d == d ? other.d : zor_compact::CowPointer<Data>();
    const Data* source = other.d.data();
    if (mayElideMerging(other, counted)) {
        d.detach();
        d->mCount = sizeLowerBound();
    }
    const int countBefore = d->mCount;
    for (const auto& entry : source->mRanges)
        set(entry.first, entry.second, counted);
    if (counted && d->mElided)
        d->mCount = zor_compact::add32(countBefore, static_cast<unsigned int>(other.sizeLowerBound()));
}

template <typename K, typename V>
void CompactMap<K, V>::set(const CompactMap& other, bool counted)
{
    if (&other == this)
        return;
    if (!takesModeFrom(other)) {
        setSimple(other, counted);
        return;
    }
    if (d->mRanges.empty()) {
        d = other.d;
        return;
    }
    CompactMap merged(other);
    merged.setSimple(*this, counted);
    d = merged.d;
}

template <typename K, typename V>
bool CompactMap<K, V>::contains(const Range& r) const
{
    if (r.empty())
        return true;
    const Ranges& m = d->mRanges;
    const_iterator it = m.upper_bound(Range(r.begin, r.begin));
    if (it == m.begin())
        return false;
    --it;
    K reached = r.begin;
    // Walk ranges that follow each other without a gap until r is covered.
    while (it != m.end() && it->first.begin <= reached) {
        if (it->first.end > reached)
            reached = it->first.end;
        if (!(reached < r.end))
            return true;
        ++it;
    }
    return false;
}

template <typename K, typename V>
int CompactMap<K, V>::sizeLowerBound() const
{
    if (d->mElided && !d->mCountIsLowerBound)
        return d->mCount;
    int sum = 0;
    for (const auto& entry : d->mRanges)
        sum = zor_compact::add32(sum, entry.first.end - entry.first.begin);
    return sum;
}

template <typename K, typename V>
void CompactMap<K, V>::remap(const QMap<K, K>& keys)
{
    CompactMap rebuilt;
    for (const auto& entry : d->mRanges) {
        const Range& r = entry.first;
        // Keys without a mapping keep their place; set them as whole runs.
        K runStart = r.begin;
        for (auto it = keys.lowerBound(r.begin); it != keys.end() && it.key() < r.end; ++it) {
            rebuilt.set(Range(runStart, it.key()), entry.second, false);
            rebuilt.set(Range(it.value(), zor_compact::successor(it.value())), entry.second, false);
            runStart = zor_compact::successor(it.key());
        }
        rebuilt.set(Range(runStart, r.end), entry.second, false);
    }
    d = rebuilt.d;
}

template <typename K, typename V>
void CompactMap<K, V>::setBrief(bool brief)
{
    if (bool(d->mBrief) == brief)
        return;
    d.detach();
    d->mBrief = brief;
}

template <typename K, typename V>
bool CompactMap<K, V>::operator==(const CompactMap& other) const
{
    if (d == other.d)
        return true;
    return d->mRanges == other.d->mRanges && d->mBrief == other.d->mBrief
        && d->mElided == other.d->mElided && d->mCountIsLowerBound == other.d->mCountIsLowerBound
        && (!d->mElided || d->mCount == other.d->mCount);
}

extern template class CompactMap<int, int>;

#endif
