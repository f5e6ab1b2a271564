// A media drive's folders and free space.
#include "host/project/MediaDrive.h"

#include "host/core/Strings.h"
#include "host/project/ProjectFiles.h"

#include <string_view>

namespace {
WString withSlash(const WString& folder) { return folder.endsWith(L"/") ? folder : folder + L'/'; }
} // namespace

MediaDrive::MediaDrive(DriveId id, const WString& name, const WString& root, const WString& videoFolder,
                       const WString& soundFolder, const String& tasks)
    : id_(id), name_(name), root_(root), video_(videoFolder), sound_(soundFolder), tasks_(tasks) {}

WString MediaDrive::getLocation(int type) const {
    switch (type) {
    case 'V': return withSlash(joinPaths(root_, video_));
    case 'S': return withSlash(joinPaths(root_, sound_));
    default: return withSlash(root_);
    }
}

WString MediaDrive::getFolder(const Cookie& cookie) const { return getLocation(cookie.type() == 'S' ? 'S' : 'V'); }

uint64_t MediaDrive::getSpaceBytes() const {
    int64_t n = projectfs::freeSpace(root_);
    return n < 0 ? 0 : uint64_t(n);
}

bool MediaDrive::servesTask(const char* task) const {
    if (!task || !*task) return false;
    std::string_view all = tasks_.view(), want = task;
    size_t start = 0;
    while (start <= all.size()) {
        size_t comma = all.find(',', start);
        std::string_view item = all.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
        while (!item.empty() && item.front() == ' ') item.remove_prefix(1);
        while (!item.empty() && item.back() == ' ') item.remove_suffix(1);
        if (item == want) return true;
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    return false;
}
