// A set of integers kept as sorted, disjoint half-open ranges, shared
// copy-on-write. Ranks 0 to 99999 cost one node.
//
// A brief set stops growing once it holds BRIEF_RANGE_LIMIT ranges: it turns
// elided, keeps only its lowest ranges and counts the rest, so that the
// description of a huge job stays small.
#ifndef ZOR_COMPACTSET_H
#define ZOR_COMPACTSET_H

#include "range.h"

#include <QExplicitlySharedDataPointer>
#include <QSharedData>
#include <QString>
#include <QStringList>
#include <QVector>

#include <algorithm>
#include <iterator>
#include <set>

enum { BRIEF_RANGE_LIMIT = 10 };

namespace zor_compact {

// Sums and counts are 32-bit and wrap like the int they are stored in.
inline int add32(int a, unsigned long long b)
{
    return int(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}

// The value after v, wrapping at the top instead of overflowing.
template <typename T>
T successor(T v)
{
    return static_cast<T>(static_cast<unsigned long long>(v) + 1);
}

template <typename T>
bool parseNumber(const QString& text, T* value);

template <>
inline bool parseNumber<int>(const QString& text, int* value)
{
    bool ok = false;
    *value = text.toInt(&ok);
    return ok;
}

template <>
inline bool parseNumber<unsigned long long>(const QString& text, unsigned long long* value)
{
    bool ok = false;
    *value = text.toULongLong(&ok);
    return ok;
}

// The parts of the brief tail "...", "/", ">" and a count, shared by the
// set's and the map's string forms.
struct BriefTail
{
    bool isTail = false;
    bool elided = false;
    bool lowerBound = false;
    int numberStart = 0;
};

inline BriefTail parseBriefTail(const QString& token)
{
    BriefTail tail;
    if (token.startsWith(QLatin1String("..."))) {
        // The dots are always followed by "/", which is skipped unread.
        tail.isTail = true;
        tail.elided = true;
        tail.numberStart = 4;
    } else if (token.startsWith(QLatin1Char('/'))) {
        tail.isTail = true;
        tail.numberStart = 1;
    }
    if (tail.isTail && tail.numberStart < token.size() && token.at(tail.numberStart) == QLatin1Char('>')) {
        tail.lowerBound = true;
        ++tail.numberStart;
    }
    return tail;
}

} // namespace zor_compact

template <typename T>
class CompactSetData : public QSharedData
{
public:
    CompactSetData() : mCount(0), mBrief(0), mElided(0), mCountIsLowerBound(0) {}

    std::set<range<T>> mRanges;
    int mCount;
    unsigned mBrief : 1;
    unsigned mElided : 1;
    unsigned mCountIsLowerBound : 1;
};

template <typename T>
class CompactSet
{
public:
    typedef range<T> Range;
    typedef typename std::set<Range>::const_iterator const_iterator;

    CompactSet() : d(sharedEmpty()) {}
    explicit CompactSet(T value) : d(sharedEmpty()) { insert(Range(value, zor_compact::successor(value)), true); }
    // Reads the string form; a malformed text leaves what was read before the
    // bad token.
    explicit CompactSet(const QString& text) : d(sharedEmpty()) { fromString(text, nullptr); }

    // Adds r to the set. Touching and overlapping ranges join. A brief set
    // that holds BRIEF_RANGE_LIMIT ranges turns elided first; from then on a
    // counted insertion adds its size to the count and an uncounted one makes
    // the count a lower bound.
    void insert(const Range& r, bool counted);
    void insert(const CompactSet& other, bool counted);
    void erase(const Range& r);
    CompactSet minus(const CompactSet& other) const;

    // True when a single stored range holds all of r.
    bool contains(const Range& r) const;
    bool contains(T value) const { return contains(Range(value, zor_compact::successor(value))); }

    // The range that r.end falls strictly inside, else the first range that
    // begins at or after r.end, else end().
    const_iterator end_upper_bound(const Range& r) const;

    int sizeLowerBound() const;
    bool fromString(const QString& text, QString* badToken);
    // The form that fromString reads: "0-3,7", with ",.../>42" after the
    // stored ranges of an elided set and ",/" after those of a brief one.
    QString toString() const;

    void setBrief(bool brief);
    bool isBrief() const { return d->mBrief; }
    bool isElided() const { return d->mElided; }
    bool countIsLowerBound() const { return d->mCountIsLowerBound; }
    int count() const { return d->mCount; }

    bool isEmpty() const { return d->mRanges.empty(); }
    int rangeCount() const { return int(d->mRanges.size()); }
    const_iterator begin() const { return d->mRanges.begin(); }
    const_iterator end() const { return d->mRanges.end(); }
    const std::set<Range>& ranges() const { return d->mRanges; }

    bool isSharedWith(const CompactSet& other) const { return d == other.d; }
    bool operator==(const CompactSet& other) const;
    bool operator!=(const CompactSet& other) const { return !(*this == other); }

private:
    typedef CompactSetData<T> Data;
    typedef typename std::set<Range>::iterator iterator;

    static Data* sharedEmpty()
    {
        // Never freed: empty sets share it instead of allocating.
        static QExplicitlySharedDataPointer<Data> empty(new Data);
        return empty.data();
    }

    void noteInsertion(const Range& r, bool counted);
    void insertSimple(const CompactSet& other, bool counted);
    iterator endUpperBound(const Range& r);
    // The first range that begins at or after value. Insertions past the
    // last range are the common case and skip the search of the tree.
    iterator lowerBound(T value)
    {
        std::set<Range>& s = d->mRanges;
        if (!s.empty() && std::prev(s.end())->begin < value)
            return s.end();
        return s.lower_bound(Range(value, value));
    }

    QExplicitlySharedDataPointer<Data> d;
};

template <typename T>
void CompactSet<T>::noteInsertion(const Range& r, bool counted)
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

template <typename T>
typename CompactSet<T>::iterator CompactSet<T>::endUpperBound(const Range& r)
{
    std::set<Range>& s = d->mRanges;
    iterator it = lowerBound(r.end);
    if (it != s.begin()) {
        iterator before = std::prev(it);
        if (before->end > r.end)
            return before;
    }
    return it;
}

template <typename T>
typename CompactSet<T>::const_iterator CompactSet<T>::end_upper_bound(const Range& r) const
{
    return const_cast<CompactSet*>(this)->endUpperBound(r);
}

template <typename T>
void CompactSet<T>::insert(const Range& r, bool counted)
{
    if (!(r.begin < r.end))
        return;
    d.detach();
    noteInsertion(r, counted);

    std::set<Range>& s = d->mRanges;
    iterator first = lowerBound(r.begin);
    iterator prev = first == s.begin() ? s.end() : std::prev(first);
    // Everything in the set begins below r.begin before first, so prev can
    // only hold r by reaching past r.end.
    if (prev != s.end() && prev->end >= r.end)
        return;

    iterator last = endUpperBound(r);
    const bool joinLeft = prev != s.end() && prev->end >= r.begin;
    const bool joinRight = last != s.end() && r.end < last->end && last->begin <= r.end;

    if (!joinLeft && !joinRight && first != s.end() && first->begin == r.begin && first->end >= r.end)
        return;

    if (joinLeft) {
        prev->end = joinRight ? last->end : std::max(prev->end, r.end);
        s.erase(first, last);
        if (joinRight)
            s.erase(last);
        return;
    }
    if (joinRight) {
        const Range joined(std::min(last->begin, r.begin), last->end);
        s.erase(first, last);
        iterator hint = s.erase(last);
        s.insert(hint, joined);
        return;
    }

    iterator hint = s.erase(first, last);
    if (d->mElided && !s.empty()) {
        // An elided set keeps its lowest ranges and never grows.
        iterator back = std::prev(s.end());
        if (back->begin < r.begin)
            return;
        hint = s.erase(back);
    }
    s.insert(hint, r);
}

template <typename T>
void CompactSet<T>::insertSimple(const CompactSet& other, bool counted)
{
    // Keep other's data alive and unchanged while this set detaches.
    const QExplicitlySharedDataPointer<Data> source = other.d;
    if (counted && d->mBrief && !source->mElided && !d->mElided
        && d->mRanges.size() + source->mRanges.size() > BRIEF_RANGE_LIMIT - 1) {
        d.detach();
        d->mCount = sizeLowerBound();
    }
    const int countBefore = d->mCount;
    for (const Range& r : source->mRanges)
        insert(r, counted);
    // What the other set adds is its own size, elided part included, in
    // place of what its stored ranges counted on the way.
    if (counted && d->mElided)
        d->mCount = zor_compact::add32(countBefore, static_cast<unsigned int>(other.sizeLowerBound()));
}

template <typename T>
void CompactSet<T>::insert(const CompactSet& other, bool counted)
{
    if (&other == this)
        return;
    const bool otherHasMode = (other.d->mBrief && !d->mBrief) || (other.d->mElided && !d->mElided);
    if (!otherHasMode) {
        insertSimple(other, counted);
        return;
    }
    // The union takes on the brief and elided states of other.
    if (d->mRanges.empty()) {
        d = other.d;
        return;
    }
    CompactSet merged(other);
    merged.insertSimple(*this, counted);
    d = merged.d;
}

template <typename T>
void CompactSet<T>::erase(const Range& r)
{
    if (!(r.begin < r.end))
        return;
    d.detach();
    std::set<Range>& s = d->mRanges;
    iterator first = s.lower_bound(r);
    iterator prev = first == s.begin() ? s.end() : std::prev(first);
    iterator last = endUpperBound(r);
    const bool lastIsPrev = last != s.end() && last == prev;
    const bool cutLast = last != s.end() && !lastIsPrev && last->begin < r.end && r.end < last->end;

    if (!lastIsPrev)
        s.erase(first, last);
    if (cutLast) {
        const Range rest(r.end, last->end);
        iterator hint = s.erase(last);
        s.insert(hint, rest);
    }
    if (prev != s.end() && prev->end > r.begin) {
        // r lay strictly within prev: the part past r.end survives.
        if (prev->end > r.end)
            s.insert(Range(r.end, prev->end));
        prev->end = r.begin;
    }
}

template <typename T>
CompactSet<T> CompactSet<T>::minus(const CompactSet& other) const
{
    CompactSet result(*this);
    for (const Range& r : other.d->mRanges)
        result.erase(r);
    return result;
}

template <typename T>
bool CompactSet<T>::contains(const Range& r) const
{
    if (r.empty())
        return true;
    const std::set<Range>& s = d->mRanges;
    const_iterator it = s.upper_bound(Range(r.begin, r.begin));
    if (it == s.begin())
        return false;
    --it;
    return it->begin <= r.begin && it->end >= r.end;
}

template <typename T>
int CompactSet<T>::sizeLowerBound() const
{
    if (d->mElided && !d->mCountIsLowerBound)
        return d->mCount;
    int sum = 0;
    for (const Range& r : d->mRanges)
        sum = zor_compact::add32(sum, r.end - r.begin);
    return sum;
}

template <typename T>
void CompactSet<T>::setBrief(bool brief)
{
    if (bool(d->mBrief) == brief)
        return;
    d.detach();
    d->mBrief = brief;
}

template <typename T>
bool CompactSet<T>::fromString(const QString& text, QString* badToken)
{
    if (text.isEmpty())
        return true;
    d.detach();
    const QStringList tokens = text.split(QLatin1Char(','));
    for (const QString& token : tokens) {
        const zor_compact::BriefTail tail = zor_compact::parseBriefTail(token);
        if (tail.isTail) {
            if (tail.elided) {
                int number = 0;
                zor_compact::parseNumber(token.mid(tail.numberStart), &number);
                if (!d->mElided)
                    d->mCount = number != 0 ? number : sizeLowerBound();
                else if (number > d->mCount)
                    d->mCount = number;
            }
            d->mBrief = 0;
            d->mElided = tail.elided;
            d->mCountIsLowerBound = tail.lowerBound;
            return true;
        }

        // "-" is looked for past the first character so that "-5" is a value.
        const int dash = token.indexOf(QLatin1Char('-'), 1);
        T first = T();
        T lastIncluded = T();
        bool ok;
        if (dash < 0) {
            ok = zor_compact::parseNumber(token, &first);
            lastIncluded = first;
        } else {
            ok = zor_compact::parseNumber(token.left(dash), &first)
                && zor_compact::parseNumber(token.mid(dash + 1), &lastIncluded);
        }
        if (!ok) {
            if (badToken)
                *badToken = token;
            return false;
        }
        // Taken as written: no joining, no counting.
        d->mRanges.insert(Range(first, zor_compact::successor(lastIncluded)));
    }
    return true;
}

template <typename T>
QString CompactSet<T>::toString() const
{
    QString text;
    for (const Range& r : d->mRanges) {
        if (!text.isEmpty())
            text += QLatin1Char(',');
        text += QString::number(r.begin);
        if (r.end - r.begin != 1) {
            text += QLatin1Char('-');
            text += QString::number(r.end - 1);
        }
    }
    if (d->mBrief || d->mElided) {
        if (!text.isEmpty())
            text += QLatin1Char(',');
        if (d->mElided)
            text += QLatin1String("...");
        text += QLatin1Char('/');
        if (d->mCountIsLowerBound)
            text += QLatin1Char('>');
        if (d->mElided)
            text += QString::number(d->mCount);
    }
    return text;
}

template <typename T>
bool CompactSet<T>::operator==(const CompactSet& other) const
{
    if (d == other.d)
        return true;
    return d->mRanges.size() == other.d->mRanges.size()
        && std::equal(d->mRanges.begin(), d->mRanges.end(), other.d->mRanges.begin())
        && d->mBrief == other.d->mBrief && d->mElided == other.d->mElided
        && d->mCountIsLowerBound == other.d->mCountIsLowerBound
        && (!d->mElided || d->mCount == other.d->mCount);
}

// Built once, in compactset.cpp.
extern template class CompactSet<int>;
extern template class CompactSet<unsigned long long>;

#endif
