// A reference-counted pointer for records that several samples share. The
// count is a plain int: all the sharers belong to one owner, so no atomics
// are paid for.
#ifndef ZOR_SHARED_PTR_H
#define ZOR_SHARED_PTR_H

#include "zor_assert.h"

namespace quorvex {

template <typename T>
class zor_shared_ptr
{
public:
    zor_shared_ptr() : d(nullptr) {}
    explicit zor_shared_ptr(T* object) : d(object ? new Block{object, 1} : nullptr) {}
    zor_shared_ptr(const zor_shared_ptr& other) : d(other.d)
    {
        if (d)
            ++d->count;
    }
    zor_shared_ptr(zor_shared_ptr&& other) noexcept : d(other.d) { other.d = nullptr; }
    ~zor_shared_ptr() { detach(); }

    zor_shared_ptr& operator=(const zor_shared_ptr& other)
    {
        if (d != other.d) {
            Block* incoming = other.d;
            if (incoming)
                ++incoming->count;
            detach();
            d = incoming;
        }
        return *this;
    }
    zor_shared_ptr& operator=(zor_shared_ptr&& other) noexcept
    {
        if (this != &other) {
            detach();
            d = other.d;
            other.d = nullptr;
        }
        return *this;
    }

    // Gives up this reference; the last one deletes the object.
    void detach()
    {
        if (d) {
            if (--d->count < 1) {
                delete d->ptr;
                delete d;
            }
            d = nullptr;
        }
    }

    T* operator->() const
    {
        ZOR_ASSERT(d);
        return d->ptr;
    }
    T& operator*() const
    {
        ZOR_ASSERT(d);
        return *d->ptr;
    }
    T* get() const { return d ? d->ptr : nullptr; }
    bool isNull() const { return d == nullptr; }
    int refCount() const { return d ? d->count : 0; }

private:
    struct Block
    {
        T* ptr;
        int count;
    };
    Block* d;
};

} // namespace quorvex

#endif
