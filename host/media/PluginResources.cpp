// The host's lists of plug-in resources by type.
#include "host/media/PluginResources.h"

#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <map>

namespace {

struct Lists {
    PlainMutex mutex;
    std::map<int, std::vector<Zn::Ptr<iObject>>> byType GUARDED_BY(mutex);
};

Lists& lists() {
    static Lists* l = new Lists; // never destroyed: plug-ins may remove resources at exit
    return *l;
}

} // namespace

void Zn::PluginResources::add(int type, const Zn::Ptr<iObject>& resource) {
    if (!resource) return;
    Lists& l = lists();
    PlainMutex::Lock lock(l.mutex);
    auto& v = l.byType[type];
    if (std::find(v.begin(), v.end(), resource) == v.end()) v.push_back(resource);
}

bool Zn::PluginResources::remove(int type, const Zn::Ptr<iObject>& resource) {
    Zn::Ptr<iObject> dropped; // released after the lock
    Lists& l = lists();
    PlainMutex::Lock lock(l.mutex);
    auto it = l.byType.find(type);
    if (it == l.byType.end()) return false;
    auto at = std::find(it->second.begin(), it->second.end(), resource);
    if (at == it->second.end()) return false;
    dropped = std::move(*at);
    it->second.erase(at);
    return true;
}

std::vector<Zn::Ptr<iObject>> Zn::PluginResources::list(int type) {
    Lists& l = lists();
    PlainMutex::Lock lock(l.mutex);
    auto it = l.byType.find(type);
    return it == l.byType.end() ? std::vector<Zn::Ptr<iObject>>() : it->second;
}
