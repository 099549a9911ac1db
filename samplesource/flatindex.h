// A map from 64-bit keys to small integers in one flat table: the analysis
// looks a key up for every frame of every thread of every sample, and a
// probe into a flat array costs far less than a walk through the nodes of a
// QHash.
#ifndef ZOR_FLATINDEX_H
#define ZOR_FLATINDEX_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include <sys/mman.h>

// The slots of a FlatTable. A table of a large run's frames spans megabytes
// probed at random: from 2 MB on it lies on pages of 2 MB where the system
// gives them, so that a lookup costs no miss in the address translation's
// cache, and filling the table a fault per 2 MB rather than per 4 kB.
template <typename Slot>
class FlatSlots
{
public:
    FlatSlots() = default;
    explicit FlatSlots(std::size_t count) : mCount(count)
    {
        const std::size_t bytes = count * sizeof(Slot);
        if (bytes >= HugePage)
            mSlots = static_cast<Slot*>(mapHuge(bytes));
        if (!mSlots)
            mSlots = static_cast<Slot*>(::operator new(bytes, std::align_val_t(alignof(Slot))));
        else
            mMapped = true;
        for (std::size_t i = 0; i < count; ++i)
            new (mSlots + i) Slot();
    }
    FlatSlots(FlatSlots&& other) noexcept { swap(other); }
    FlatSlots& operator=(FlatSlots&& other) noexcept
    {
        FlatSlots(std::move(other)).swap(*this);
        return *this;
    }
    FlatSlots(const FlatSlots&) = delete;
    FlatSlots& operator=(const FlatSlots&) = delete;
    ~FlatSlots()
    {
        if (!mSlots)
            return;
        for (std::size_t i = 0; i < mCount; ++i)
            mSlots[i].~Slot();
        if (mMapped)
            munmap(mSlots, roundedUp(mCount * sizeof(Slot)));
        else
            ::operator delete(mSlots, std::align_val_t(alignof(Slot)));
    }
    void swap(FlatSlots& other) noexcept
    {
        std::swap(mSlots, other.mSlots);
        std::swap(mCount, other.mCount);
        std::swap(mMapped, other.mMapped);
    }

    std::size_t size() const { return mCount; }
    Slot& operator[](std::size_t i) { return mSlots[i]; }
    const Slot& operator[](std::size_t i) const { return mSlots[i]; }
    Slot* begin() { return mSlots; }
    Slot* end() { return mSlots + mCount; }
    const Slot* begin() const { return mSlots; }
    const Slot* end() const { return mSlots + mCount; }

private:
    static constexpr std::size_t HugePage = std::size_t(2) << 20;
    static std::size_t roundedUp(std::size_t bytes) { return (bytes + HugePage - 1) & ~(HugePage - 1); }
    // Memory on a 2 MB boundary, or null.
    static void* mapHuge(std::size_t bytes)
    {
        const std::size_t size = roundedUp(bytes);
        void* raw = mmap(nullptr, size + HugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (raw == MAP_FAILED)
            return nullptr;
        char* const first = static_cast<char*>(raw);
        char* const start =
            reinterpret_cast<char*>((reinterpret_cast<std::uintptr_t>(first) + HugePage - 1) & ~(HugePage - 1));
        if (start > first)
            munmap(first, std::size_t(start - first));
        if (first + HugePage > start)
            munmap(start + size, std::size_t(first + HugePage - start));
        // Only advice: without it the table works the same on small pages.
        madvise(start, size, MADV_HUGEPAGE);
        return start;
    }

    Slot* mSlots = nullptr;
    std::size_t mCount = 0;
    bool mMapped = false;
};

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
            if (mSlots[i].key == key)
                return mSlots[i].value;
            if (mSlots[i].key == EmptyKey)
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
        if ((mCount + 1) * 2 > mSlots.size())
            grow();
        place(key, value);
    }
    void clear()
    {
        mSlots.assign(1024, Slot());
        mMask = 1023;
        mShift = 64 - 10;
        mCount = 0;
        mEmptyKeyValue = -1;
    }

private:
    // The slot marker; a key equal to it is kept apart.
    static constexpr std::uint64_t EmptyKey = ~std::uint64_t(0);
    // Key and value side by side: a lookup touches one cache line.
    struct Slot
    {
        std::uint64_t key = EmptyKey;
        int value = -1;
    };

    std::size_t slot(std::uint64_t key) const { return std::size_t((key * 0x9E3779B97F4A7C15ULL) >> mShift); }
    void place(std::uint64_t key, int value)
    {
        for (std::size_t i = slot(key);; i = (i + 1) & mMask) {
            if (mSlots[i].key == key) {
                mSlots[i].value = value;
                return;
            }
            if (mSlots[i].key == EmptyKey) {
                mSlots[i].key = key;
                mSlots[i].value = value;
                ++mCount;
                return;
            }
        }
    }
    void grow()
    {
        std::vector<Slot> old(mSlots.size() * 2);
        old.swap(mSlots);
        mMask = mSlots.size() - 1;
        --mShift;
        mCount = 0;
        for (const Slot& slot : old) {
            if (slot.key != EmptyKey)
                place(slot.key, slot.value);
        }
    }

    std::vector<Slot> mSlots;
    std::size_t mMask;
    int mShift;
    std::size_t mCount;
    int mEmptyKeyValue;
};

// The same table holding the values themselves, for values looked up so
// often that the step through an index costs a cache miss of its own.
// Pointers to values stay valid only until the next insertion.
template <typename Value>
class FlatTable
{
public:
    FlatTable() { clear(); }

    // Safe beside one thread that inserts without growing the table (see
    // wouldGrow), for keys whose insertion happened before: the keys are
    // read and written atomically, the values of other keys not at all.
    Value* find(std::uint64_t key)
    {
        if (key == EmptyKey)
            return mHasEmptyKey ? &mEmptyKeyValue : nullptr;
        for (std::size_t i = slot(key);; i = (i + 1) & mMask) {
            const std::uint64_t stored = __atomic_load_n(&mSlots[i].key, __ATOMIC_RELAXED);
            if (stored == key)
                return &mSlots[i].value;
            if (stored == EmptyKey)
                return nullptr;
        }
    }
    // Whether inserting one more key would move the values.
    bool wouldGrow() const { return (mCount + 1) * 2 > mSlots.size(); }
    // Starts loading the slot where the search for key begins, so that a
    // lookup a little later finds it in the cache; both of its cache lines
    // where it straddles two.
    void prefetch(std::uint64_t key) const
    {
        const char* at = reinterpret_cast<const char*>(&mSlots[slot(key)]);
        __builtin_prefetch(at);
        __builtin_prefetch(at + sizeof(Slot) - 1);
    }
    std::size_t size() const { return mCount; }
    // Room for count keys in all without growing.
    void reserve(std::size_t count)
    {
        std::size_t capacity = mSlots.size();
        while (count * 2 > capacity)
            capacity *= 2;
        if (capacity > mSlots.size())
            rehash(capacity);
    }
    // The value of key, made by its default constructor if key is new.
    Value& insert(std::uint64_t key)
    {
        if (key == EmptyKey) {
            mHasEmptyKey = true;
            return mEmptyKeyValue;
        }
        if ((mCount + 1) * 2 > mSlots.size())
            grow();
        return place(key);
    }
    void clear()
    {
        FlatSlots<Slot>(1024).swap(mSlots);
        mMask = 1023;
        mShift = 64 - 10;
        mCount = 0;
        mHasEmptyKey = false;
        mEmptyKeyValue = Value();
    }

private:
    static constexpr std::uint64_t EmptyKey = ~std::uint64_t(0);
    // A slot of more than half a cache line lies in one line of its own,
    // one of exactly half a line in half of one, so that a lookup touches
    // one line, not two.
    static constexpr std::size_t SlotBytes = sizeof(std::uint64_t) + sizeof(Value);
    static constexpr std::size_t SlotAlignment = SlotBytes > 32 && SlotBytes <= 64 ? 64
        : SlotBytes == 32                                                           ? 32
                                                    : (alignof(Value) > 8 ? alignof(Value) : 8);
    struct alignas(SlotAlignment) Slot
    {
        std::uint64_t key = EmptyKey;
        Value value;
    };

    std::size_t slot(std::uint64_t key) const { return std::size_t((key * 0x9E3779B97F4A7C15ULL) >> mShift); }
    Value& place(std::uint64_t key)
    {
        for (std::size_t i = slot(key);; i = (i + 1) & mMask) {
            if (mSlots[i].key == key)
                return mSlots[i].value;
            if (mSlots[i].key == EmptyKey) {
                __atomic_store_n(&mSlots[i].key, key, __ATOMIC_RELAXED);
                ++mCount;
                return mSlots[i].value;
            }
        }
    }
    void grow() { rehash(mSlots.size() * 2); }
    void rehash(std::size_t capacity)
    {
        FlatSlots<Slot> old(capacity);
        old.swap(mSlots);
        mMask = mSlots.size() - 1;
        while ((std::size_t(1) << (64 - mShift)) < capacity)
            --mShift;
        mCount = 0;
        for (Slot& entry : old) {
            if (entry.key != EmptyKey)
                place(entry.key) = std::move(entry.value);
        }
    }

    FlatSlots<Slot> mSlots;
    std::size_t mMask;
    int mShift;
    std::size_t mCount;
    bool mHasEmptyKey;
    Value mEmptyKeyValue;
};

#endif
