// Start offsets and play header texts of materials.
#include "host/project/MaterialInfo.h"

#include "host/core/Strings.h"
#include "host/project/EditManager.h"
#include "host/project/MaterialRecords.h"
#include "host/project/ProjectFiles.h"
#include "host/project/SystemCache.h"

namespace {

void bindKey(sql::Query& q, const Cookie& c) {
    q.bind(1, int64_t(c.id1())).bind(2, int64_t(c.id2())).bind(3, int64_t(uint8_t(c.type()))).bind(4, int64_t(c.index()));
}

} // namespace

int64_t MaterialInfo::get_start_offset(const Cookie& material) {
    auto db = EditManager::getProjdb();
    if (!db) return 0;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT start_offset FROM material WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4");
    bindKey(q, material);
    return q.next() ? q.int64(0) : 0;
}

bool MaterialInfo::set_start_offset(const Cookie& material, int64_t offset) {
    auto db = EditManager::getProjdb();
    if (!db || !material.valid()) return false;
    ProjectDatabase::Write w(*db);
    if (!records::ensureMaterial(w.db(), material, 1)) w.fail();
    sql::Query q(w.db(), "UPDATE material SET start_offset = ?5 WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4");
    bindKey(q, material);
    q.bind(5, offset);
    if (!q.run()) w.fail();
    return w.commit();
}

WString MaterialInfo::headerFileName(const Cookie& material) {
    auto e = SystemCache::findEntryForCookie(material);
    if (!e || !e->hasFile()) return WString();
    WString os = e->getFile().getOsPath();
    return os.empty() ? WString() : stripExtension(os) + L".hdr";
}

uint32_t MaterialInfo::write_header(const Cookie& material, const String& text) {
    auto db = EditManager::getProjdb();
    if (!db || !material.valid()) return kWriteFailed;
    WString sidecar = headerFileName(material);
    if (!sidecar.empty() && !projectfs::writeTextFile(sidecar, text)) return kWriteFailed;
    ProjectDatabase::Write w(*db);
    if (!records::ensureMaterial(w.db(), material, 1)) w.fail();
    sql::Query q(w.db(), "UPDATE material SET header = ?5 WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4");
    bindKey(q, material);
    q.bind(5, text);
    if (!q.run()) w.fail();
    return w.commit() ? uint32_t(text.size()) : kWriteFailed;
}

String MaterialInfo::read_header(const Cookie& material) {
    auto db = EditManager::getProjdb();
    if (!db) return String();
    {
        ProjectDatabase::Read r(*db);
        sql::Query q(r.db(), "SELECT header FROM material WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4");
        bindKey(q, material);
        if (q.next()) {
            String text = q.text(0);
            if (!text.empty()) return text;
        }
    }
    WString sidecar = headerFileName(material);
    return sidecar.empty() ? String() : projectfs::readTextFile(sidecar);
}
