// Process rank to count, with a running total: how many threads of each rank
// stood at a node of a call tree.
#ifndef ZOR_INTPROCESSMAP_H
#define ZOR_INTPROCESSMAP_H

#include "compactmap.h"

class IntProcessMap : public CompactMap<int, int>
{
public:
    typedef CompactMap<int, int> Base;

    IntProcessMap();
    // Reads the form toString writes. Numbers that don't convert count as 0.
    explicit IntProcessMap(const QString& text);

    void set(const range<int>& r, int value, bool counted);
    void set(int begin, int end, int value, bool counted) { set(range<int>(begin, end), value, counted); }
    void set(int key, int value, bool counted) { set(range<int>(key, key + 1), value, counted); }
    // Every rank of the set gets value. The total doesn't follow.
    void set(const CompactSet<int>& ranks, int value, bool counted);
    // Takes other's value for each of other's keys: for maps of disjoint
    // ranks, the merge of their counts.
    void set(const IntProcessMap& other, bool counted);

    void add(int key, int delta);
    void add(const range<int>& r, int delta);
    void add(int begin, int end, int delta) { add(range<int>(begin, end), delta); }
    void add(const CompactSet<int>& ranks, int delta);
    void add(const CompactMap<int, int>& other);

    // The largest value; the lowest int when empty.
    int max() const;
    int totalLowerBound() const;
    int total() const { return totalLowerBound(); }

    void setBrief(bool brief, int size, int total, bool elided, bool lowerBound);
    // Turns brief mode on or off and keeps the elided state as it is.
    void setBrief(bool brief);

    QString toString() const;
    // Appends what toString gives, as Latin-1 bytes.
    void appendText(QByteArray* out) const;

    // See CompactMap::keepForever.
    void keepForever() { Base::keepForever(); }

    bool operator==(const IntProcessMap& other) const;
    bool operator!=(const IntProcessMap& other) const { return !(*this == other); }

private:
    void setTotal(int total);
    void setSimple(const IntProcessMap& other, bool counted);
};

#endif
