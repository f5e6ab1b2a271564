// The offline answers of a clip's location record.
#include "host/project/MediaLocationInfo.h"

#include <algorithm>

namespace {
bool availableAt(const MediaLocationInfo& info, unsigned i) {
    return (i < info.highResStatuses.size() && info.highResStatuses[i] == MediaLocationInfo::eAvailable) ||
           (i < info.proxyStatuses.size() && info.proxyStatuses[i] == MediaLocationInfo::eAvailable);
}
} // namespace

bool MediaLocationInfo::allMediaOffline() const {
    unsigned n = std::max(highResStatuses.size(), proxyStatuses.size());
    for (unsigned i = 0; i < n; ++i)
        if (availableAt(*this, i)) return false;
    return true;
}
