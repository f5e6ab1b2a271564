// ReadRequestIssuer: a client that queues read requests and is told when they end; and
// its Proxy, the small shared object a request holds instead of the client itself, so that
// a client may go away while its requests are still queued.
//
// A client derives from ReadRequestIssuer, passes getProxy() with each request, and is
// called back through readRequestComplete on the thread that ends the request (a queue
// thread, or the queuing thread when its request was matched to one already complete).
// A derived class calls detachProxy() first thing in its destructor: after it returns no
// callback is running or will run, so the derived part may be destroyed safely.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/CriticalSection.h"
#include "playfile/Export.h"
#include "playfile/requests/RequestStatus.h"

class PLAYFILE_API ReadRequestIssuer {
public:
    // Lock: lock_ guards issuer_ and is held while the issuer is called, so clear() waits
    // for a running callback. It is taken last: a queue's lock and the request's lock may
    // be held when it is taken. It is re-entrant, so a client may detach from inside its
    // own callback.
    class Proxy : public iObject {
    public:
        explicit Proxy(ReadRequestIssuer* issuer) noexcept : issuer_(issuer) {}

        // Calls the issuer unless it has been cleared; answers whether it was called.
        bool call(Zn::Ptr<iObject>& result, RequestStatus status);
        // Forgets the issuer; returns once no callback through this proxy is running.
        void clear() noexcept;

    private:
        mutable CriticalSection lock_;
        ReadRequestIssuer* issuer_;
    };

    // The completion callback: result is the request's result object (a frame buffer for
    // video; null for audio, whose samples stay on the request) and status how it ended.
    virtual void readRequestComplete(Zn::Ptr<iObject>& result, RequestStatus status) = 0;

    ReadRequestIssuer();
    virtual ~ReadRequestIssuer();
    ReadRequestIssuer(const ReadRequestIssuer&) = delete;
    ReadRequestIssuer& operator=(const ReadRequestIssuer&) = delete;

    const Zn::Ptr<Proxy>& getProxy() const noexcept { return proxy_; }

protected:
    void detachProxy() noexcept { proxy_->clear(); }

private:
    const Zn::Ptr<Proxy> proxy_;
};
