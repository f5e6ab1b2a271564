// Lock: the state's mutex guards the product and the observer list, and is held while the
// observers are told of a change, so that an observer being unregistered (from its owner's
// destructor) is never called afterwards, and changes are announced one at a time in the
// order they were made. Observers' clients may take their own locks under it; nothing here
// is called with one of theirs held.
#include "host/os/Product.h"

#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <vector>

namespace Zn {

namespace {

struct State {
    PlainMutex mutex;
    WString product GUARDED_BY(mutex);
    std::vector<ValObserver<WString>*> observers GUARDED_BY(mutex);
};

State& state() {
    static State* s = new State; // never destroyed: observers unregister during process exit
    return *s;
}

} // namespace

WString getProduct() {
    State& s = state();
    PlainMutex::Lock lock(s.mutex);
    return s.product;
}

void setProduct(const WString& product) {
    State& s = state();
    PlainMutex::Lock lock(s.mutex);
    if (s.product == product) return;
    s.product = product;
    for (ValObserver<WString>* o : s.observers) o->change(product);
}

void registerForProductChangeNotification(ValObserver<WString>& observer) {
    State& s = state();
    PlainMutex::Lock lock(s.mutex);
    if (std::find(s.observers.begin(), s.observers.end(), &observer) == s.observers.end())
        s.observers.push_back(&observer);
}

void unregisterForProductChangeNotification(ValObserver<WString>& observer) {
    State& s = state();
    PlainMutex::Lock lock(s.mutex);
    s.observers.erase(std::remove(s.observers.begin(), s.observers.end(), &observer), s.observers.end());
}

} // namespace Zn
