#include "intprocessmap.h"

#include <QByteArray>
#include <QVector>

#include <climits>
#include <utility>

namespace {

int product32(int length, int value)
{
    return int(static_cast<unsigned int>(length) * static_cast<unsigned int>(value));
}

} // namespace

IntProcessMap::IntProcessMap() {}

IntProcessMap::IntProcessMap(const QString& text)
{
    if (text.isEmpty())
        return;
    const QStringList tokens = text.split(QLatin1Char(','));
    for (const QString& token : tokens) {
        const zor_compact::BriefTail tail = zor_compact::parseBriefTail(token);
        if (tail.isTail) {
            int size = 0;
            int total = 0;
            if (tail.elided) {
                const QString counts = token.mid(tail.numberStart);
                const int equals = counts.indexOf(QLatin1Char('='));
                size = counts.left(equals).toInt();
                if (equals >= 0)
                    total = counts.mid(equals + 1).toInt();
            }
            setBrief(true, size, total, tail.elided, tail.lowerBound);
            return;
        }
        const int equals = token.indexOf(QLatin1Char('='));
        const QString keys = equals < 0 ? token : token.left(equals);
        const int value = equals < 0 ? 0 : token.mid(equals + 1).toInt();
        // "-" is looked for past the first character so that keys may be negative.
        const int dash = keys.indexOf(QLatin1Char('-'), 1);
        const int first = (dash < 0 ? keys : keys.left(dash)).toInt();
        const int last = dash < 0 ? first : keys.mid(dash + 1).toInt();
        set(first, zor_compact::successor(last), value, true);
    }
}

void IntProcessMap::setTotal(int total)
{
    d.detach();
    d->mTotal = total;
}

void IntProcessMap::set(const range<int>& r, int value, bool counted)
{
    // The map is about to elide: from now on the total is counted.
    if (isBrief() && !isElided() && rangeCount() > BRIEF_RANGE_LIMIT - 1)
        setTotal(total());
    Base::set(r, value, counted);
    if (counted && isElided())
        setTotal(zor_compact::add32(d->mTotal, static_cast<unsigned int>(product32(r.end - r.begin, value))));
}

void IntProcessMap::set(const CompactSet<int>& ranks, int value, bool counted)
{
    for (const range<int>& r : ranks)
        Base::set(r, value, counted);
}

void IntProcessMap::setSimple(const IntProcessMap& other, bool counted)
{
    if (mayElideMerging(other, counted))
        setTotal(total());
    const int totalBefore = d->mTotal;
    Base::setSimple(other, counted);
    if (counted && isElided())
        setTotal(zor_compact::add32(totalBefore, static_cast<unsigned int>(other.total())));
}

void IntProcessMap::set(const IntProcessMap& other, bool counted)
{
    if (&other == this)
        return;
    if (!isBrief() && !other.isBrief() && !isElided() && !other.isElided()) {
        // Neither can elide, so neither count nor total is kept: other's
        // ranges go in one by one (usually one, past the last range here).
        for (const auto& entry : other.ranges())
            Base::set(entry.first, entry.second, counted);
        return;
    }
    if (!takesModeFrom(other)) {
        setSimple(other, counted);
        return;
    }
    // The result takes on the brief and elided states of other.
    if (isEmpty()) {
        d = other.d;
        return;
    }
    IntProcessMap merged(other);
    merged.setSimple(*this, counted);
    d = merged.d;
}

void IntProcessMap::add(int key, int delta)
{
    // Every fresh node of a call tree is told one thread of one rank: such
    // maps share one copy, which the first change detaches, instead of each
    // allocating its own.
    if (isEmpty() && !isBrief()) {
        thread_local IntProcessMap single;
        thread_local int singleKey = 0;
        thread_local int singleDelta = 0;
        if (single.isEmpty() || singleKey != key || singleDelta != delta) {
            IntProcessMap fresh;
            fresh.set(key, delta, false);
            single = fresh;
            singleKey = key;
            singleDelta = delta;
        }
        if (!single.isEmpty()) {
            *this = single;
            return;
        }
    }
    const iterator it = lookup(key);
    set(key, it == d->mRanges.end() ? delta : it->second + delta, false);
}

void IntProcessMap::add(const range<int>& r, int delta)
{
    if (!(r.begin < r.end))
        return;
    // Gather first, then change: gaps get delta, stored ranges their value
    // plus delta.
    QVector<std::pair<range<int>, int>> pieces;
    const Ranges& m = ranges();
    const_iterator it = m.upper_bound(range<int>(r.begin, r.begin));
    if (it != m.begin() && std::prev(it)->first.end > r.begin)
        --it;
    int position = r.begin;
    for (; it != m.end() && it->first.begin < r.end; ++it) {
        if (it->first.begin > position)
            pieces.append(std::make_pair(range<int>(position, it->first.begin), delta));
        const int pieceBegin = std::max(it->first.begin, position);
        const int pieceEnd = std::min(it->first.end, r.end);
        pieces.append(std::make_pair(range<int>(pieceBegin, pieceEnd), it->second + delta));
        position = pieceEnd;
    }
    if (position < r.end)
        pieces.append(std::make_pair(range<int>(position, r.end), delta));
    for (const auto& piece : pieces)
        set(piece.first, piece.second, false);
}

void IntProcessMap::add(const CompactSet<int>& ranks, int delta)
{
    for (const range<int>& r : ranks)
        add(r, delta);
}

void IntProcessMap::add(const CompactMap<int, int>& other)
{
    // A copy keeps the ranges steady should other be this map.
    const CompactMap<int, int> source(other);
    for (const auto& entry : source)
        add(entry.first, entry.second);
}

int IntProcessMap::max() const
{
    int largest = INT_MIN;
    for (const auto& entry : ranges())
        largest = std::max(largest, entry.second);
    return largest;
}

int IntProcessMap::totalLowerBound() const
{
    if (isElided() && !countIsLowerBound())
        return d->mTotal;
    int sum = 0;
    for (const auto& entry : ranges())
        sum = zor_compact::add32(sum, static_cast<unsigned int>(product32(entry.first.end - entry.first.begin, entry.second)));
    return sum;
}

void IntProcessMap::setBrief(bool brief, int size, int total, bool elided, bool lowerBound)
{
    d.detach();
    if (elided) {
        // The total and the count take their new values by opposite tests.
        if (!isElided())
            d->mTotal = std::max(d->mTotal, total);
        else
            d->mTotal = total != 0 ? total : this->total();
    }
    d.detach();
    if (elided) {
        if (isElided())
            d->mCount = std::max(d->mCount, size);
        else
            d->mCount = size != 0 ? size : sizeLowerBound();
    }
    d->mBrief = brief;
    d->mElided = elided;
    d->mCountIsLowerBound = lowerBound;
}

void IntProcessMap::setBrief(bool brief)
{
    Base::setBrief(brief);
}

namespace {

void appendNumber(QByteArray* out, long long value)
{
    char text[24];
    int n = sizeof(text);
    unsigned long long rest = value < 0 ? 0ULL - (unsigned long long)value : (unsigned long long)value;
    do {
        text[--n] = char('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (value < 0)
        text[--n] = '-';
    out->append(text + n, int(sizeof(text)) - n);
}

} // namespace

QString IntProcessMap::toString() const
{
    QByteArray text;
    appendText(&text);
    return QString::fromLatin1(text);
}

void IntProcessMap::appendText(QByteArray* out) const
{
    const int start = out->size();
    for (const auto& entry : ranges()) {
        if (out->size() != start)
            out->append(',');
        appendNumber(out, entry.first.begin);
        if (entry.first.end - entry.first.begin != 1) {
            out->append('-');
            appendNumber(out, entry.first.end - 1);
        }
        out->append('=');
        appendNumber(out, entry.second);
    }
    if (isBrief()) {
        if (out->size() != start)
            out->append(',');
        if (isElided())
            out->append("...");
        out->append('/');
        if (countIsLowerBound())
            out->append('>');
        if (isElided()) {
            appendNumber(out, count());
            out->append('=');
            appendNumber(out, d->mTotal);
        }
    }
}

bool IntProcessMap::operator==(const IntProcessMap& other) const
{
    return Base::operator==(other) && (!isElided() || d->mTotal == other.d->mTotal);
}
