#pragma once

#include <atomic>
#include <cstdint>

#include <boost/intrusive_ptr.hpp>

#include "Assert.h"

namespace ZUNChannel {

// Base of every shared object of the agent, held by boost::intrusive_ptr.
// The count is the only atomic of the framework; an object whose count
// reaches zero is deleted and never resurrected.
template <typename T>
class RefCounter {
public:
    RefCounter() : _refCount(0) {}
    virtual ~RefCounter() = default;

    RefCounter(const RefCounter&) : _refCount(0) {}
    RefCounter& operator=(const RefCounter&) { return *this; }

    int32_t GetRefCount() const { return _refCount.load(); }

    friend void intrusive_ptr_add_ref(const RefCounter* object)
    {
        // A negative count means memory that is no longer ours.
        ASSERT(object->_refCount.load() >= 0);
        object->_refCount.fetch_add(1);
    }

    friend void intrusive_ptr_release(const RefCounter* object)
    {
        // Releasing what nobody holds is a double free in the making.
        ASSERT(object != nullptr && object->_refCount.load() >= 1);
        if (object->_refCount.fetch_sub(1) == 1) {
            delete object;
        }
    }

private:
    mutable std::atomic<int32_t> _refCount;
};

}  // namespace ZUNChannel
