#include "internstringcache.h"

#include <QHash>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

QString InternStringCache::intern(const QString& text)
{
    if (text.isNull())
        return text;
    const auto it = mStrings.constFind(text);
    if (it != mStrings.constEnd())
        return *it;
    mStrings.insert(text);
    return text;
}

namespace {

// The strings kept forever, in an open-addressing table of hash and storage.
// A run's decoder asks for the same few thousand names a hundred thousand
// times: a name already kept is found without a lock, and only a new one
// takes it. A table that grows is kept after its successor is published, as
// a reader may still be probing it; all of them together are smaller than
// twice the last one.
class ForeverStrings
{
public:
    ForeverStrings() : mCurrent(new Table(1024)) { mTables.emplace_back(mCurrent.load(std::memory_order_relaxed)); }

    QString find(const QString& text, uint hash) const
    {
        const Table* table = mCurrent.load(std::memory_order_acquire);
        for (size_t i = hash & table->mask;; i = (i + 1) & table->mask) {
            QStringData* data = table->slots[i].data.load(std::memory_order_acquire);
            if (!data)
                return QString();
            if (table->slots[i].hash.load(std::memory_order_relaxed) == hash && equal(data, text))
                return QString(QStringDataPtr{data});
        }
    }

    QString keep(const QString& text, uint hash)
    {
        std::lock_guard<std::mutex> lock(mWriting);
        // Another thread may have kept it since this one looked.
        const QString kept = find(text, hash);
        if (!kept.isNull())
            return kept;
        QStringData* data = makeStatic(text);
        if (!data)
            return text;
        Table* table = mCurrent.load(std::memory_order_relaxed);
        if ((mCount + 1) * 2 > table->mask + 1) {
            Table* larger = new Table(2 * (table->mask + 1));
            for (size_t i = 0; i <= table->mask; ++i) {
                if (QStringData* old = table->slots[i].data.load(std::memory_order_relaxed))
                    larger->place(old, table->slots[i].hash.load(std::memory_order_relaxed));
            }
            mTables.emplace_back(larger);
            mCurrent.store(larger, std::memory_order_release);
            table = larger;
        }
        table->place(data, hash);
        ++mCount;
        return QString(QStringDataPtr{data});
    }

private:
    struct Slot
    {
        std::atomic<QStringData*> data{nullptr};
        std::atomic<uint> hash{0};
    };
    struct Table
    {
        explicit Table(size_t size) : mask(size - 1), slots(new Slot[size]) {}
        // Readers see the hash once they see the storage.
        void place(QStringData* data, uint hash)
        {
            size_t i = hash & mask;
            while (slots[i].data.load(std::memory_order_relaxed))
                i = (i + 1) & mask;
            slots[i].hash.store(hash, std::memory_order_relaxed);
            slots[i].data.store(data, std::memory_order_release);
        }
        const size_t mask;
        const std::unique_ptr<Slot[]> slots;
    };

    static bool equal(QStringData* data, const QString& text)
    {
        return data->size == text.size()
            && std::memcmp(data->data(), text.constData(), size_t(text.size()) * sizeof(ushort)) == 0;
    }

    // A header whose reference count says "static", as that of a literal:
    // Qt neither counts its copies nor frees it, and detaches on a change.
    static QStringData* makeStatic(const QString& text)
    {
        const int size = text.size();
        void* block = std::malloc(sizeof(QStringData) + (size_t(size) + 1) * sizeof(ushort));
        if (!block)
            return nullptr;
        QStringData* data = static_cast<QStringData*>(block);
        data->ref.atomic.storeRelaxed(-1);
        data->size = size;
        data->alloc = 0;
        data->capacityReserved = 0;
        data->offset = sizeof(QStringData);
        std::memcpy(data->data(), text.constData(), size_t(size) * sizeof(ushort));
        data->data()[size] = 0;
        return data;
    }

    std::atomic<Table*> mCurrent;
    std::mutex mWriting;
    size_t mCount = 0;
    std::vector<std::unique_ptr<Table>> mTables;
};

} // namespace

QString InternStringCache::internForever(const QString& text)
{
    if (text.isNull())
        return text;
    // Never destroyed: kept strings live as long as the process.
    static ForeverStrings* strings = new ForeverStrings;
    // Mixed, as the table probes by the low bits.
    uint hash = qHash(text);
    hash ^= hash >> 16;
    hash *= 0x45d9f3bu;
    hash ^= hash >> 16;
    const QString kept = strings->find(text, hash);
    return kept.isNull() ? strings->keep(text, hash) : kept;
}
