// Plug-in resources: objects that plug-ins hand to the host, listed by resource type, so
// that the host finds every provider of a service without knowing the plug-ins (resource
// type 32: the file-transfer managers that extract sections of material). A plug-in adds
// its resources when its back-end entry registers and may remove them again.
//
// Lock: one mutex guards the lists. It is a leaf lock, held only to copy or edit a list;
// resources are called through the copies findPluginResources returns, never under it, and
// a removed resource is released after the lock.
#pragma once

#include "host/core/RefCount.h"

#include <vector>

namespace Zn {

inline constexpr int kFileXferPluginResource = 32;

class PluginResources {
public:
    // Appends a resource to the list of its type (null and repeated additions are ignored).
    static void add(int type, const Zn::Ptr<iObject>& resource);
    // False when the resource was not listed under that type.
    static bool remove(int type, const Zn::Ptr<iObject>& resource);
    // The resources of a type, in the order they were added.
    static std::vector<Zn::Ptr<iObject>> list(int type);
};

// The resources of a type that implement T, in the order they were added.
template <class T> std::vector<Zn::Ptr<T>> findPluginResources(int type) {
    std::vector<Zn::Ptr<T>> out;
    for (const Zn::Ptr<iObject>& r : PluginResources::list(type))
        if (Zn::Ptr<T> t = dynamicPtrCast<T>(r)) out.push_back(std::move(t));
    return out;
}

} // namespace Zn
