// ProxySet: the issuers waiting on one read request, as an ordered set of proxies (by
// pointer; a proxy is in it at most once), with the request lock that guards it.
// Delivering calls every proxy once and empties the set, so an issuer is called at most
// once per request however often the request completes.
#pragma once

#include "host/threads/CriticalSection.h"
#include "playfile/requests/ReadRequestIssuer.h"

#include <algorithm>
#include <vector>

// Lock: lock_ is the request's own lock. It guards proxies_, and the request holding the
// set may guard more with it (its status change on completion). Locks that may be held
// when it is taken: the lock of the queue that holds the request. Taken under it: a
// proxy's lock (while the issuer is called).
class ProxySet {
public:
    using ProxyPtr = Zn::Ptr<ReadRequestIssuer::Proxy>;

    CriticalSection& lock() noexcept RETURN_CAPABILITY(lock_) { return lock_; }

    // Adds a proxy not already present, keeping the order.
    void insert(const ProxyPtr& p) {
        if (!p) return;
        CriticalSection::Lock guard(lock_);
        insertLocked(p);
    }
    void insertLocked(const ProxyPtr& p) REQUIRES(lock_) {
        auto at = std::lower_bound(proxies_.begin(), proxies_.end(), p);
        if (at == proxies_.end() || *at != p) proxies_.insert(at, p);
    }
    std::vector<ProxyPtr> copy() const {
        CriticalSection::Lock guard(lock_);
        return proxies_;
    }
    bool empty() const {
        CriticalSection::Lock guard(lock_);
        return proxies_.empty();
    }
    size_t size() const {
        CriticalSection::Lock guard(lock_);
        return proxies_.size();
    }

    // Under the lock: calls every proxy in order with result and status, empties the set,
    // then runs afterCalls (still under the lock). An empty set calls nobody but still
    // runs afterCalls.
    template <class F> void deliver(Zn::Ptr<iObject>& result, RequestStatus status, F&& afterCalls) {
        CriticalSection::Lock guard(lock_);
        // Taken out first: the lock is re-entrant, and the set must not change under the
        // loop if a callback reaches this request again on this thread.
        std::vector<ProxyPtr> calling;
        calling.swap(proxies_);
        for (const ProxyPtr& p : calling) p->call(result, status);
        afterCalls();
    }

    // Drops every proxy without calling it.
    void clear() {
        CriticalSection::Lock guard(lock_);
        proxies_.clear();
    }

private:
    mutable CriticalSection lock_;
    std::vector<ProxyPtr> proxies_ GUARDED_BY(lock_);
};
