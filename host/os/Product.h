// The product the application runs as (its edition, which decides for instance which
// codecs it may use). Objects whose answers depend on it register an observer and hear of
// every change; a cache of files that failed to open, say, forgets them, since another
// product may open them.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/ValObserver.h"

namespace Zn {

// The product now; empty until a program sets one.
WString getProduct();
// Sets the product and, when it differs from the current one, tells every registered
// observer (each before and after the change), on the calling thread.
void setProduct(const WString& product);

// The observer must stay registered no longer than it lives. Registration and removal
// must not be made from inside a notification (see the lock note in Product.cpp).
void registerForProductChangeNotification(ValObserver<WString>& observer);
void unregisterForProductChangeNotification(ValObserver<WString>& observer);

} // namespace Zn
