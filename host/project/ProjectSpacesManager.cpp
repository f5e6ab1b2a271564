// The project space: its type and the remote resource stored in the project.
#include "host/project/ProjectSpacesManager.h"

#include "host/project/EditManager.h"
#include "host/project/RowCache.h"
#include "host/threads/PlainMutex.h"

namespace {

RowCache<int, int> g_spaceType(1);

PlainMutex g_mutex; // guards g_replaced and g_replacement
bool g_replaced GUARDED_BY(g_mutex) = false;
Zn::Ptr<iProjectSpaceResource> g_replacement GUARDED_BY(g_mutex);

// The remote resource as the project stores it. Every question reads the project anew,
// so that what another process wrote is seen.
class StoredResource : public iProjectSpaceResource {
public:
    explicit StoredResource(Zn::Ptr<ProjectDatabase> db) : db_(std::move(db)) {}

    std::vector<MountPointInfo> getMountPoints() const override {
        std::vector<MountPointInfo> out;
        ProjectDatabase::Read r(*db_);
        sql::Query q(r.db(), "SELECT path, alt_path FROM mount_points ORDER BY seq");
        while (q.next()) out.push_back({q.wtext(0), q.wtext(1)});
        return out;
    }

    std::vector<ServerMediaEntry> getServerMediaEntries(const Cookie& log) const override {
        std::vector<ServerMediaEntry> out;
        ProjectDatabase::Read r(*db_);
        sql::Query q(r.db(), "SELECT type, mid1, mid2, midx, path FROM server_media WHERE id1 = ?1 AND id2 = ?2 "
                             "ORDER BY seq");
        q.bind(1, int64_t(log.id1())).bind(2, int64_t(log.id2()));
        while (q.next())
            out.push_back({Cookie(char(q.int64(0)), uint32_t(q.int64(1)), uint32_t(q.int64(2)), uint8_t(q.int64(3))),
                           q.wtext(4)});
        return out;
    }

    bool hasServerProxies(const Cookie& log) const override {
        ProjectDatabase::Read r(*db_);
        sql::Query q(r.db(), "SELECT has_proxies FROM server_logs WHERE id1 = ?1 AND id2 = ?2");
        q.bind(1, int64_t(log.id1())).bind(2, int64_t(log.id2()));
        return q.next() && q.int64(0) != 0;
    }

private:
    Zn::Ptr<ProjectDatabase> db_;
};

} // namespace

int ProjectSpacesManager::getCurrentProjectSpaceType() {
    auto db = EditManager::getProjdb();
    if (!db) return eLocal;
    // Asked by every media query: kept while the project is unchanged.
    int type;
    uint64_t state;
    if (g_spaceType.find(*db, 0, type, state)) return type;
    {
        ProjectDatabase::Read r(*db);
        type = int(ProjectDatabase::setting(r.db(), "project_space_type", eLocal));
    }
    g_spaceType.put(*db, 0, type, state);
    return type;
}

bool ProjectSpacesManager::setCurrentProjectSpaceType(int type) {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    if (!ProjectDatabase::setSetting(w.db(), "project_space_type", type)) w.fail();
    return w.commit();
}

Zn::Ptr<iProjectSpaceResource> ProjectSpacesManager::getResourceForRemoteProjectSpace(const WString&) {
    if (getCurrentProjectSpaceType() != eRemote) return nullptr;
    {
        PlainMutex::Lock lock(g_mutex);
        if (g_replaced) return g_replacement;
    }
    return getStoredResource();
}

Zn::Ptr<iProjectSpaceResource> ProjectSpacesManager::getStoredResource() {
    auto db = EditManager::getProjdb();
    return db ? Zn::Ptr<iProjectSpaceResource>(new StoredResource(db)) : nullptr;
}

bool ProjectSpacesManager::addMountPoint(const MountPointInfo& mount) {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    sql::Query q(w.db(), "INSERT INTO mount_points(seq, path, alt_path) "
                         "VALUES((SELECT coalesce(max(seq), 0) + 1 FROM mount_points), ?1, ?2)");
    q.bind(1, mount.path).bind(2, mount.altPath);
    if (!q.run()) w.fail();
    return w.commit();
}

bool ProjectSpacesManager::addServerMediaEntry(const Cookie& log, const ServerMediaEntry& entry) {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    sql::Query q(w.db(), "INSERT INTO server_media(id1, id2, seq, type, mid1, mid2, midx, path) "
                         "VALUES(?1, ?2, (SELECT coalesce(max(seq), 0) + 1 FROM server_media "
                         "WHERE id1 = ?1 AND id2 = ?2), ?3, ?4, ?5, ?6, ?7)");
    q.bind(1, int64_t(log.id1())).bind(2, int64_t(log.id2())).bind(3, int64_t(uint8_t(entry.material.type())));
    q.bind(4, int64_t(entry.material.id1())).bind(5, int64_t(entry.material.id2()));
    q.bind(6, int64_t(entry.material.index())).bind(7, entry.path);
    if (!q.run()) w.fail();
    return w.commit();
}

bool ProjectSpacesManager::setServerProxies(const Cookie& log, bool hasProxies) {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    sql::Query q(w.db(), "INSERT INTO server_logs(id1, id2, has_proxies) VALUES(?1, ?2, ?3) "
                         "ON CONFLICT(id1, id2) DO UPDATE SET has_proxies = excluded.has_proxies");
    q.bind(1, int64_t(log.id1())).bind(2, int64_t(log.id2())).bind(3, hasProxies ? 1 : 0);
    if (!q.run()) w.fail();
    return w.commit();
}

bool ProjectSpacesManager::clearRemoteResource() {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    if (!w.db().exec("DELETE FROM mount_points; DELETE FROM server_logs; DELETE FROM server_media;")) w.fail();
    return w.commit();
}

bool ProjectSpacesManager::clearMountPoints() {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    if (!w.db().exec("DELETE FROM mount_points;")) w.fail();
    return w.commit();
}

CookieVec ProjectSpacesManager::getServerLogs() {
    CookieVec out;
    auto db = EditManager::getProjdb();
    if (!db) return out;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT id1, id2 FROM server_logs WHERE has_proxies <> 0 "
                         "UNION SELECT id1, id2 FROM server_media ORDER BY 2, 1");
    while (q.next()) out.add(Cookie('E', uint32_t(q.int64(0)), uint32_t(q.int64(1))));
    return out;
}

void ProjectSpacesManager::replaceResource(bool active, Zn::Ptr<iProjectSpaceResource> resource, bool& wasActive,
                                           Zn::Ptr<iProjectSpaceResource>& was) {
    PlainMutex::Lock lock(g_mutex);
    wasActive = g_replaced;
    was = std::move(g_replacement);
    g_replaced = active;
    g_replacement = std::move(resource);
}
