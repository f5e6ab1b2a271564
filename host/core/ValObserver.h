// Value observers: a ValObserver<T> watches one value that the host announces changes of
// (the product the application runs as, say) and tells its client before and after each
// change. The client tells its observers apart by address.
#pragma once

#include "host/threads/PlainMutex.h"

#include <utility>

class ValObserverBase;

class ValObserverClient {
public:
    virtual ~ValObserverClient() = default;
    // After the value changed; observer.value() is the new one.
    virtual void notifyValChanged(ValObserverBase& observer) = 0;
    // Before it changes; the default does nothing.
    virtual void notifyPreValChanged(ValObserverBase& observer) {}
};

class ValObserverBase {
public:
    explicit ValObserverBase(ValObserverClient* client) noexcept : client_(client) {}
    virtual ~ValObserverBase() = default;
    ValObserverBase(const ValObserverBase&) = delete;
    ValObserverBase& operator=(const ValObserverBase&) = delete;

    ValObserverClient* client() const noexcept { return client_; }

private:
    ValObserverClient* const client_;
};

// Lock: mutex_ guards value_ only; it is a leaf lock.
template <class T> class ValObserver : public ValObserverBase {
public:
    explicit ValObserver(ValObserverClient* client, T initial = T()) : ValObserverBase(client), value_(std::move(initial)) {}

    T value() const {
        PlainMutex::Lock lock(mutex_);
        return value_;
    }
    // Called by whoever announces the value: tells the client before and after storing it.
    void change(const T& v) {
        if (client()) client()->notifyPreValChanged(*this);
        {
            PlainMutex::Lock lock(mutex_);
            value_ = v;
        }
        if (client()) client()->notifyValChanged(*this);
    }

private:
    mutable PlainMutex mutex_;
    T value_ GUARDED_BY(mutex_);
};
