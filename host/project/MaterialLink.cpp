// Re-pointing the project's links from one media file to another.
#include "host/project/MaterialLink.h"

#include "host/project/EditManager.h"
#include "host/project/MaterialRecords.h"
#include "host/project/ProjectFiles.h"

#include <vector>

bool MaterialLink::createLink(const WString& from, const WString& to, bool replace) {
    if (from.empty() || to.empty()) return false;
    auto db = EditManager::getProjdb();
    if (!db) return projectfs::makeLink(from, to, replace);

    struct Linked {
        Cookie material;
        int role, seq;
    };
    std::vector<Linked> found;
    ProjectDatabase::Write w(*db);
    {
        sql::Query q(w.db(), "SELECT id1, id2, type, idx, role, seq FROM files WHERE link_target = ?1");
        q.bind(1, from);
        while (q.next())
            found.push_back({Cookie(char(q.int64(2)), uint32_t(q.int64(0)), uint32_t(q.int64(1)), uint8_t(q.int64(3))),
                             int(q.int64(4)), int(q.int64(5))});
    }
    if (found.empty()) {
        w.commit();
        return projectfs::makeLink(from, to, replace);
    }
    std::vector<MediaFileInfo> relinked;
    for (const auto& l : found) {
        records::EntryRow row;
        if (!records::loadEntry(w.db(), l.material, row)) continue;
        for (auto& f : row.files) {
            if (f.role != l.role || f.seq != l.seq) continue;
            f.info.setLinkTarget(to);
            f.info.refreshStatus();
            if (!records::updateFile(w.db(), l.material, f.role, f.seq, f.info)) w.fail();
            relinked.push_back(f.info);
        }
    }
    if (!w.commit()) return false;
    // The records are the truth; the link files follow them.
    bool ok = true;
    for (const auto& f : relinked) ok = f.createLinkFile() && ok;
    return ok;
}
