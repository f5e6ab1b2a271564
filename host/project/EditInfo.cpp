// Reading an edit's stored description.
#include "host/project/EditInfo.h"

#include "host/project/EditManager.h"

EditInfo::EditInfo(const Cookie& cookie) {
    auto db = EditManager::getProjdb();
    if (!db || !cookie.valid()) return;
    ProjectDatabase::Read r(*db);
    sqlite::Query q(r.db(), "SELECT name, log_type, flags FROM edits WHERE id1 = ?1 AND id2 = ?2");
    q.bind(1, int64_t(cookie.id1())).bind(2, int64_t(cookie.id2()));
    if (!q.next()) return;
    exists_ = true;
    name_ = q.wtext(0);
    logType_ = int(q.int64(1));
    flags_ = unsigned(q.int64(2));
}
