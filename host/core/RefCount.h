// Intrusive reference counting: the base every shared object derives from, and the
// pointer that holds it. The count is readable because callers decide that an object is
// idle when its count is exactly 1 (only the asking holder still refers to it).
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace Zn {

class InternalRefCount {
public:
    void incRefCount() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
    // Returns the count after the decrement; the caller deletes the object at 0.
    int decRefCount() const noexcept { return refs_.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    int getRefCount() const noexcept { return refs_.load(std::memory_order_acquire); }

protected:
    InternalRefCount() noexcept = default;
    // A copy is a new object: it starts unreferenced.
    InternalRefCount(const InternalRefCount&) noexcept {}
    InternalRefCount& operator=(const InternalRefCount&) noexcept { return *this; }
    virtual ~InternalRefCount() = default;

private:
    mutable std::atomic<int> refs_{0};
};

// Intrusive pointer to any class with incRefCount/decRefCount (normally through
// InternalRefCount). Copies are one atomic increment; the last release deletes.
template <class T> class Ptr {
public:
    using element_type = T;

    constexpr Ptr() noexcept = default;
    constexpr Ptr(std::nullptr_t) noexcept {}
    Ptr(T* p) noexcept : p_(p) { if (p_) p_->incRefCount(); }
    Ptr(const Ptr& o) noexcept : p_(o.p_) { if (p_) p_->incRefCount(); }
    Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <class U> Ptr(const Ptr<U>& o) noexcept : p_(o.get()) { if (p_) p_->incRefCount(); }
    template <class U> Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
    ~Ptr() { drop(p_); }

    Ptr& operator=(const Ptr& o) noexcept {
        if (o.p_) o.p_->incRefCount();
        drop(std::exchange(p_, o.p_));
        return *this;
    }
    Ptr& operator=(Ptr&& o) noexcept {
        if (this != &o) drop(std::exchange(p_, std::exchange(o.p_, nullptr)));
        return *this;
    }
    Ptr& operator=(std::nullptr_t) noexcept { reset(); return *this; }

    void reset() noexcept { drop(std::exchange(p_, nullptr)); }
    // Gives up ownership without releasing: the caller now owns one reference.
    T* release() noexcept { return std::exchange(p_, nullptr); }

    T* get() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    int refCount() const noexcept { return p_ ? p_->getRefCount() : 0; }

    template <class U> bool operator==(const Ptr<U>& o) const noexcept { return p_ == o.get(); }
    bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
    template <class U> bool operator<(const Ptr<U>& o) const noexcept { return p_ < o.get(); }

private:
    static void drop(T* p) noexcept {
        if (p && p->decRefCount() == 0) delete p;
    }
    T* p_ = nullptr;
};

template <class T, class... A> Ptr<T> makePtr(A&&... args) {
    return Ptr<T>(new T(std::forward<A>(args)...));
}

template <class T, class U> Ptr<T> dynamicPtrCast(const Ptr<U>& p) noexcept {
    return Ptr<T>(dynamic_cast<T*>(p.get()));
}

} // namespace Zn

// Root of every polymorphic host object: gives a virtual destructor.
class iVirtual {
public:
    virtual ~iVirtual() = default;
};

// A reference-counted polymorphic object, held through Zn::Ptr.
class iObject : public virtual Zn::InternalRefCount, public virtual iVirtual {
public:
    ~iObject() override = default;
};
