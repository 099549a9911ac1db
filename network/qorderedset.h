// A set kept in ascending order, with Qt-style names: for the address sets
// that are searched for the first element above a value.
#ifndef ZOR_QORDEREDSET_H
#define ZOR_QORDEREDSET_H

#include <set>

template <typename T>
class QOrderedSet
{
public:
    typedef typename std::set<T>::const_iterator const_iterator;
    typedef const_iterator iterator;

    void insert(const T& value) { mValues.insert(value); }
    // Cheap when `value` belongs right before `hint`, as when values come in
    // ascending order with end() as the hint.
    void insert(const_iterator hint, const T& value) { mValues.insert(hint, value); }
    bool remove(const T& value) { return mValues.erase(value) != 0; }
    bool contains(const T& value) const { return mValues.count(value) != 0; }
    void clear() { mValues.clear(); }

    int size() const { return int(mValues.size()); }
    int count() const { return size(); }
    bool isEmpty() const { return mValues.empty(); }

    const_iterator begin() const { return mValues.begin(); }
    const_iterator end() const { return mValues.end(); }
    const_iterator constBegin() const { return mValues.begin(); }
    const_iterator constEnd() const { return mValues.end(); }
    // The first element not below `value`, and the first above it.
    const_iterator lowerBound(const T& value) const { return mValues.lower_bound(value); }
    const_iterator upperBound(const T& value) const { return mValues.upper_bound(value); }

    bool operator==(const QOrderedSet& other) const { return mValues == other.mValues; }
    bool operator!=(const QOrderedSet& other) const { return mValues != other.mValues; }

private:
    std::set<T> mValues;
};

#endif
