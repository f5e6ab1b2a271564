// Bulk reads of the current project for listings.
#include "host/project/ProjectCatalog.h"

#include "host/project/EditManager.h"
#include "host/project/MaterialRecords.h"

std::vector<EditSummary> ProjectCatalog::edits() {
    std::vector<EditSummary> out;
    auto db = EditManager::getProjdb();
    if (!db) return out;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT e.id1, e.id2, e.name, e.log_type, e.flags, "
                         "(SELECT count(*) FROM channels c WHERE c.id1 = e.id1 AND c.id2 = e.id2 AND c.kind = 1), "
                         "(SELECT count(*) FROM channels c WHERE c.id1 = e.id1 AND c.id2 = e.id2 AND c.kind = 2) "
                         "FROM edits e ORDER BY e.id2, e.id1");
    while (q.next())
        out.push_back({Cookie('E', uint32_t(q.int64(0)), uint32_t(q.int64(1))), q.wtext(2), int(q.int64(3)),
                       unsigned(q.int64(4)), int(q.int64(5)), int(q.int64(6))});
    return out;
}

std::vector<ClipMediaFile> ProjectCatalog::mediaFiles() {
    std::vector<ClipMediaFile> out;
    auto db = EditManager::getProjdb();
    if (!db) return out;
    ProjectDatabase::Read r(*db);
    records::forEachFile(r.db(), [&](const Cookie& material, records::FileRow&& row) {
        out.push_back({material, std::move(row.info)});
    });
    return out;
}

CookieVec ProjectCatalog::editsNamed(const WString& name) {
    CookieVec out;
    auto db = EditManager::getProjdb();
    if (!db) return out;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT id1, id2 FROM edits WHERE name = ?1 ORDER BY id2, id1");
    q.bind(1, name);
    while (q.next()) out.add(Cookie('E', uint32_t(q.int64(0)), uint32_t(q.int64(1))));
    return out;
}

bool ProjectCatalog::editExists(const Cookie& cookie) {
    auto db = EditManager::getProjdb();
    if (!db || !cookie.valid()) return false;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT 1 FROM edits WHERE id1 = ?1 AND id2 = ?2");
    q.bind(1, int64_t(cookie.id1())).bind(2, int64_t(cookie.id2()));
    return q.next();
}
