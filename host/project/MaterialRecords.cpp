// SQL of the material directory's rows.
#include "host/project/MaterialRecords.h"

#include "host/project/DriveId.h"

#include <string>

namespace records {
namespace {

String driveText(const DriveId& d) { return String(std::string(1, d.getUniqueId())); }

// Binds a cookie's four parts at positions first .. first+3 as (id1, id2, type, idx).
void bindCookie(sql::Query& q, int first, const Cookie& c) {
    q.bind(first, int64_t(c.id1())).bind(first + 1, int64_t(c.id2()));
    q.bind(first + 2, int64_t(uint8_t(c.type()))).bind(first + 3, int64_t(c.index()));
}

// A file row from the columns role, seq, drive, path, link_target, storage, status, size
// and the drive's root, starting at column first.
FileRow fileFrom(sql::Query& q, int first) {
    FileRow row;
    row.role = int(q.int64(first));
    row.seq = int(q.int64(first + 1));
    String drive = q.text(first + 2);
    MaterialFilename name(DriveId(drive.empty() ? DriveId::kNone : drive[0]), q.wtext(first + 3), q.wtext(first + 8));
    row.info = MediaFileInfo(name, uint64_t(q.int64(first + 7)), q.wtext(first + 4));
    row.info.setStatus(int(q.int64(first + 6)));
    row.info.setProxy(row.role == eProxy);
    return row;
}

} // namespace

bool loadEntry(sql::Connection& db, const Cookie& material, EntryRow& out) {
    sql::Query q(db, "SELECT m.kind, m.start_offset, f.role, f.seq, f.drive, f.path, f.link_target, "
                     "f.storage, f.status, f.size, d.root "
                     "FROM material m "
                     "LEFT JOIN files f ON f.id1 = m.id1 AND f.id2 = m.id2 AND f.type = m.type AND f.idx = m.idx "
                     "LEFT JOIN drives d ON d.id = f.drive "
                     "WHERE m.id1 = ?1 AND m.id2 = ?2 AND m.type = ?3 AND m.idx = ?4 "
                     "ORDER BY f.role, f.seq");
    bindCookie(q, 1, material);
    bool found = false;
    out.files.clear();
    while (q.next()) {
        found = true;
        out.kind = int(q.int64(0));
        out.startOffset = q.int64(1);
        if (q.isNull(2)) continue;
        out.files.push_back(fileFrom(q, 2));
    }
    return found && q.ok();
}

bool forEachFile(sql::Connection& db, const std::function<void(const Cookie&, FileRow&&)>& visit) {
    sql::Query q(db, "SELECT f.id1, f.id2, f.type, f.idx, f.role, f.seq, f.drive, f.path, f.link_target, "
                     "f.storage, f.status, f.size, d.root "
                     "FROM files f LEFT JOIN drives d ON d.id = f.drive "
                     "ORDER BY f.id2, f.id1, CASE f.type WHEN 86 THEN 0 WHEN 83 THEN 1 ELSE 2 END, f.type, f.idx, "
                     "f.role, f.seq");
    while (q.next()) {
        Cookie material(char(q.int64(2)), uint32_t(q.int64(0)), uint32_t(q.int64(1)), uint8_t(q.int64(3)));
        visit(material, fileFrom(q, 4));
    }
    return q.ok();
}

bool ensureMaterial(sql::Connection& db, const Cookie& material, int kind) {
    sql::Query q(db, "INSERT INTO material(id1, id2, type, idx, kind) VALUES(?1, ?2, ?3, ?4, ?5) "
                     "ON CONFLICT DO NOTHING");
    bindCookie(q, 1, material);
    q.bind(5, kind);
    return q.run();
}

bool insertFile(sql::Connection& db, const Cookie& material, int role, int seq, const MediaFileInfo& f) {
    sql::Query q(db, "INSERT INTO files(id1, id2, type, idx, role, seq, drive, path, link_target, storage, status, size) "
                     "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12) "
                     "ON CONFLICT(id1, id2, type, idx, role, seq) DO UPDATE SET drive = excluded.drive, "
                     "path = excluded.path, link_target = excluded.link_target, storage = excluded.storage, "
                     "status = excluded.status, size = excluded.size");
    bindCookie(q, 1, material);
    q.bind(5, role).bind(6, seq).bind(7, driveText(f.getMaterialFilename().getDrive()));
    q.bind(8, f.getMaterialFilename().getPath()).bind(9, f.getLinkTarget()).bind(10, f.getStorageKind());
    q.bind(11, f.getStatus()).bind(12, int64_t(f.getSize()));
    return q.run();
}

bool updateFile(sql::Connection& db, const Cookie& material, int role, int seq, const MediaFileInfo& f) {
    sql::Query q(db, "UPDATE files SET drive = ?7, path = ?8, link_target = ?9, storage = ?10, status = ?11, "
                     "size = ?12 WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4 AND role = ?5 AND seq = ?6");
    bindCookie(q, 1, material);
    q.bind(5, role).bind(6, seq).bind(7, driveText(f.getMaterialFilename().getDrive()));
    q.bind(8, f.getMaterialFilename().getPath()).bind(9, f.getLinkTarget()).bind(10, f.getStorageKind());
    q.bind(11, f.getStatus()).bind(12, int64_t(f.getSize()));
    return q.run();
}

bool deleteFile(sql::Connection& db, const Cookie& material, int role, int seq) {
    sql::Query q(db, "DELETE FROM files WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4 "
                     "AND role = ?5 AND seq = ?6");
    bindCookie(q, 1, material);
    q.bind(5, role).bind(6, seq);
    return q.run();
}

bool deleteMaterial(sql::Connection& db, const Cookie& material) {
    sql::Query q(db, "DELETE FROM material WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4");
    bindCookie(q, 1, material);
    return q.run();
}

int nextProxySeq(sql::Connection& db, const Cookie& material) {
    sql::Query q(db, "SELECT coalesce(max(seq), -1) + 1 FROM files "
                     "WHERE id1 = ?1 AND id2 = ?2 AND type = ?3 AND idx = ?4 AND role = 1");
    bindCookie(q, 1, material);
    return q.next() ? int(q.int64(0)) : 0;
}

CookieVec materialsOf(sql::Connection& db, const Cookie& clip) {
    CookieVec out;
    sql::Query q(db, "SELECT type, idx FROM material WHERE id1 = ?1 AND id2 = ?2 "
                     "ORDER BY CASE type WHEN 86 THEN 0 WHEN 83 THEN 1 ELSE 2 END, type, idx");
    q.bind(1, int64_t(clip.id1())).bind(2, int64_t(clip.id2()));
    while (q.next()) out.add(Cookie(char(q.int64(0)), clip.id1(), clip.id2(), uint8_t(q.int64(1))));
    return out;
}

Cookie firstVideoVariant(sql::Connection& db, const Cookie& item) {
    sql::Query q(db, "SELECT min(idx) FROM material WHERE id1 = ?1 AND id2 = ?2 AND type = 86");
    q.bind(1, int64_t(item.id1())).bind(2, int64_t(item.id2()));
    if (!q.next() || q.isNull(0)) return Cookie();
    return Cookie('V', item.id1(), item.id2(), uint8_t(q.int64(0)));
}

} // namespace records
