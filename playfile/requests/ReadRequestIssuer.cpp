#include "playfile/requests/ReadRequestIssuer.h"

bool ReadRequestIssuer::Proxy::call(Zn::Ptr<iObject>& result, RequestStatus status) {
    CriticalSection::Lock lock(lock_);
    if (!issuer_) return false;
    issuer_->readRequestComplete(result, status);
    return true;
}

void ReadRequestIssuer::Proxy::clear() noexcept {
    CriticalSection::Lock lock(lock_);
    issuer_ = nullptr;
}

ReadRequestIssuer::ReadRequestIssuer() : proxy_(Zn::makePtr<Proxy>(this)) {}

ReadRequestIssuer::~ReadRequestIssuer() { proxy_->clear(); }
