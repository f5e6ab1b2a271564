// Registry<T>: the ordered list behind each of the host's registries (file readers, file
// writers, video and audio decoder factories), safe to use from any thread.
//
// Lock: mutex_ guards items_. It is a leaf lock, held only to copy or edit the list: the
// registered objects are called through snapshot() copies, never under it, and an object
// taken out is released after the lock, since its destructor may call back in.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <vector>

namespace Zn {

template <class T> class Registry {
public:
    // At position (a negative or too large one appends); a null item is ignored.
    void add(Zn::Ptr<T> item, int position = -1) {
        if (!item) return;
        PlainMutex::Lock lock(mutex_);
        if (position < 0 || size_t(position) >= items_.size()) items_.push_back(std::move(item));
        else items_.insert(items_.begin() + position, std::move(item));
    }

    // False when the item was not registered.
    bool remove(const Zn::Ptr<T>& item) {
        Zn::Ptr<T> dropped; // declared before the lock, so released after it
        PlainMutex::Lock lock(mutex_);
        auto it = std::find(items_.begin(), items_.end(), item);
        if (it == items_.end()) return false;
        dropped = std::move(*it);
        items_.erase(it);
        return true;
    }

    std::vector<Zn::Ptr<T>> snapshot() const {
        PlainMutex::Lock lock(mutex_);
        return items_;
    }

    size_t size() const {
        PlainMutex::Lock lock(mutex_);
        return items_.size();
    }

    // The item at index, or null past the end.
    Zn::Ptr<T> at(size_t index) const {
        PlainMutex::Lock lock(mutex_);
        return index < items_.size() ? items_[index] : nullptr;
    }

private:
    mutable PlainMutex mutex_;
    std::vector<Zn::Ptr<T>> items_ GUARDED_BY(mutex_);
};

} // namespace Zn
