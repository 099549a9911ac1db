// A half-open interval of integers, [begin, end).
#ifndef ZOR_RANGE_H
#define ZOR_RANGE_H

template <typename T>
struct range
{
    T begin;
    // Mutable so that a range stored as a key of an ordered container can be
    // stretched or shortened in place: the ordering looks at begin alone.
    mutable T end;

    range() : begin(), end() {}
    range(T b, T e) : begin(b), end(e) {}

    bool empty() const { return begin == end; }
    T size() const { return end - begin; }

    // Ranges are keyed by where they start; two ranges with the same begin
    // are the same key.
    bool operator<(const range& other) const { return begin < other.begin; }
    bool operator==(const range& other) const { return begin == other.begin && end == other.end; }
    bool operator!=(const range& other) const { return !(*this == other); }
};

#endif
