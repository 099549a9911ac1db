#include "nodememory.h"

#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace zor_nodememory {

namespace {

const std::size_t GRAIN = 16;
const std::size_t CLASSES = 32; // blocks of up to 512 bytes
const int BATCH = 1024;
const std::size_t CHUNK = 256 * 1024;

#if defined(__SANITIZE_ADDRESS__)
const bool POOLED = false; // the sanitizer must see every node's own allocation
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
const bool POOLED = false;
#else
const bool POOLED = true;
#endif
#else
const bool POOLED = true;
#endif

struct Block
{
    Block* next;
};

struct Batch
{
    Block* head;
    Block* tail;
    int count;
};

class SharedPool
{
public:
    bool take(std::size_t sizeClass, Batch* batch)
    {
        std::lock_guard<std::mutex> lock(mLock);
        std::vector<Batch>& batches = mBatches[sizeClass];
        if (batches.empty())
            return false;
        *batch = batches.back();
        batches.pop_back();
        return true;
    }

    void give(std::size_t sizeClass, const Batch& batch)
    {
        std::lock_guard<std::mutex> lock(mLock);
        mBatches[sizeClass].push_back(batch);
    }

    char* newChunk()
    {
        char* chunk = static_cast<char*>(std::malloc(CHUNK));
        if (!chunk)
            throw std::bad_alloc();
        std::lock_guard<std::mutex> lock(mLock);
        mChunks.push_back(chunk);
        return chunk;
    }

private:
    std::mutex mLock;
    std::vector<Batch> mBatches[CLASSES];
    std::vector<char*> mChunks; // kept, so that the memory stays reachable
};

SharedPool& sharedPool()
{
    // Never destroyed: nodes may be freed by static destructors at exit.
    static SharedPool* pool = new SharedPool;
    return *pool;
}

class ThreadCache
{
public:
    ~ThreadCache()
    {
        for (std::size_t c = 0; c < CLASSES; ++c) {
            if (mFree[c].count > 0)
                sharedPool().give(c, mFree[c]);
        }
    }

    void* allocate(std::size_t sizeClass)
    {
        Batch& list = mFree[sizeClass];
        if (list.count == 0 && !sharedPool().take(sizeClass, &list))
            return carve(sizeClass);
        Block* block = list.head;
        list.head = block->next;
        if (--list.count == 0)
            list.tail = nullptr;
        return block;
    }

    void release(void* memory, std::size_t sizeClass)
    {
        Batch& list = mFree[sizeClass];
        Block* block = static_cast<Block*>(memory);
        block->next = list.head;
        list.head = block;
        if (list.count++ == 0)
            list.tail = block;
        if (list.count >= 2 * BATCH) {
            // Split off a batch for the threads that make the nodes.
            Batch given{list.head, nullptr, BATCH};
            Block* last = list.head;
            for (int i = 1; i < BATCH; ++i)
                last = last->next;
            given.tail = last;
            list.head = last->next;
            list.count -= BATCH;
            last->next = nullptr;
            sharedPool().give(sizeClass, given);
        }
    }

private:
    void* carve(std::size_t sizeClass)
    {
        const std::size_t size = (sizeClass + 1) * GRAIN;
        if (mLeft < size) {
            mNext = sharedPool().newChunk();
            mLeft = CHUNK;
        }
        void* block = mNext;
        mNext += size;
        mLeft -= size;
        return block;
    }

    Batch mFree[CLASSES] = {};
    char* mNext = nullptr;
    std::size_t mLeft = 0;
};

// Plain pointers, valid to the thread's very end: a node freed by a
// destructor that runs after the cache's goes to the shared pool directly.
thread_local ThreadCache* tlsCache = nullptr;
thread_local bool tlsCacheGone = false;

struct CacheOwner
{
    ~CacheOwner()
    {
        delete tlsCache;
        tlsCache = nullptr;
        tlsCacheGone = true;
    }
};

ThreadCache* threadCache()
{
    if (!tlsCache && !tlsCacheGone) {
        thread_local CacheOwner owner;
        (void)owner;
        tlsCache = new ThreadCache;
    }
    return tlsCache;
}

} // namespace

void* allocate(std::size_t size)
{
    if (!POOLED || size == 0 || size > CLASSES * GRAIN)
        return ::operator new(size);
    const std::size_t sizeClass = (size - 1) / GRAIN;
    if (ThreadCache* cache = threadCache())
        return cache->allocate(sizeClass);
    return ::operator new((sizeClass + 1) * GRAIN);
}

void release(void* block, std::size_t size)
{
    if (!block)
        return;
    if (!POOLED || size == 0 || size > CLASSES * GRAIN) {
        ::operator delete(block);
        return;
    }
    const std::size_t sizeClass = (size - 1) / GRAIN;
    if (ThreadCache* cache = threadCache()) {
        cache->release(block, sizeClass);
        return;
    }
    // After the thread's cache is gone: a batch of one for the others.
    Block* single = static_cast<Block*>(block);
    single->next = nullptr;
    sharedPool().give(sizeClass, Batch{single, single, 1});
}

} // namespace zor_nodememory
