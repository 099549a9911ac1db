// A map from 64-bit keys to small integers in one flat table: the analysis
// looks a key up for every frame of every thread of every sample, and a
// probe into a flat array costs far less than a walk through the nodes of a
// QHash.
#ifndef ZOR_FLATINDEX_H
#define ZOR_FLATINDEX_H

#include <cstdint>
#include <vector>

class FlatIndex
{
public:
    FlatIndex() { clear(); }

    // The value stored for key, or -1.
    int find(std::uint64_t key) const
    {
        if (key == EmptyKey)
            return mEmptyKeyValue;
        for (std::size_t i = slot(key);; i = (i + 1) & mMask) {
            if (mKeys[i] == key)
                return mValues[i];
            if (mKeys[i] == EmptyKey)
                return -1;
        }
    }
    // Sets the value of key, replacing any value stored for it.
    void insert(std::uint64_t key, int value)
    {
        if (key == EmptyKey) {
            mEmptyKeyValue = value;
            return;
        }
        if ((mCount + 1) * 2 > mKeys.size())
            grow();
        place(key, value);
    }
    void clear()
    {
        mKeys.assign(1024, EmptyKey);
        mValues.assign(1024, -1);
        mMask = 1023;
        mShift = 64 - 10;
        mCount = 0;
        mEmptyKeyValue = -1;
    }

private:
    // The slot marker; a key equal to it is kept apart.
    static constexpr std::uint64_t EmptyKey = ~std::uint64_t(0);

    std::size_t slot(std::uint64_t key) const { return std::size_t((key * 0x9E3779B97F4A7C15ULL) >> mShift); }
    void place(std::uint64_t key, int value)
    {
        for (std::size_t i = slot(key);; i = (i + 1) & mMask) {
            if (mKeys[i] == key) {
                mValues[i] = value;
                return;
            }
            if (mKeys[i] == EmptyKey) {
                mKeys[i] = key;
                mValues[i] = value;
                ++mCount;
                return;
            }
        }
    }
    void grow()
    {
        std::vector<std::uint64_t> keys(mKeys.size() * 2, EmptyKey);
        std::vector<int> values(mKeys.size() * 2, -1);
        keys.swap(mKeys);
        values.swap(mValues);
        mMask = mKeys.size() - 1;
        --mShift;
        mCount = 0;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (keys[i] != EmptyKey)
                place(keys[i], values[i]);
        }
    }

    std::vector<std::uint64_t> mKeys;
    std::vector<int> mValues;
    std::size_t mMask;
    int mShift;
    std::size_t mCount;
    int mEmptyKeyValue;
};

#endif
