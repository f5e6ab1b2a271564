// ProjectCatalog: the whole of the current project (see EditManager) in a few bulk
// reads, for listings that visit every edit and file: every edit with its channel
// counts, every file of the material directory, edits by name. Each call reads one
// committed state of the project; nothing is cached.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/project/SystemCache.h"

#include <vector>

struct EditSummary {
    Cookie cookie; // type 'E'
    WString name;
    int logType = 0;
    unsigned flags = 0; // Edit::eFlags
    int videoChannels = 0;
    int audioChannels = 0;
};

class ProjectCatalog {
public:
    // Every edit in creation order.
    static std::vector<EditSummary> edits();
    // Every file of every material entry, ordered by identifier words, then material
    // (video, then sound, then others, each by index), the high-res file before the
    // proxies. An entry without files is not listed.
    static std::vector<ClipMediaFile> mediaFiles();
    // The edits called name, in creation order.
    static CookieVec editsNamed(const WString& name);
    // The edit with the identifier words of the cookie, when there is one.
    static bool editExists(const Cookie& cookie);
};
