// Rows of the material directory (tables material and files): the SQL that the
// directory classes (SystemCache, FsysDirectoryEntry, MaterialInfo) and the importer
// share. Every function works inside a transaction its caller holds.
#pragma once

#include "host/core/Cookie.h"
#include "host/project/MediaFileInfo.h"
#include "host/project/SqlConnection.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace records {

enum eRole { eHighRes = 0, eProxy = 1 };

struct FileRow {
    int role = eHighRes;
    int seq = 0;
    MediaFileInfo info;
};

struct EntryRow {
    int kind = 1;
    int64_t startOffset = 0;
    std::vector<FileRow> files; // high-res first, then proxies in order
};

// The entry of a material cookie with its files (their names carry the drive roots);
// false when there is none.
bool loadEntry(sql::Connection& db, const Cookie& material, EntryRow& out);
// Every file of the directory with its material cookie, clip by clip (see
// ProjectCatalog::mediaFiles for the order).
bool forEachFile(sql::Connection& db, const std::function<void(const Cookie&, FileRow&&)>& visit);
// Makes the entry when it is missing (kind 1 complete, 2 still being written).
bool ensureMaterial(sql::Connection& db, const Cookie& material, int kind);
bool insertFile(sql::Connection& db, const Cookie& material, int role, int seq, const MediaFileInfo& file);
bool updateFile(sql::Connection& db, const Cookie& material, int role, int seq, const MediaFileInfo& file);
bool deleteFile(sql::Connection& db, const Cookie& material, int role, int seq);
bool deleteMaterial(sql::Connection& db, const Cookie& material);
// The number after the highest proxy of the entry.
int nextProxySeq(sql::Connection& db, const Cookie& material);
// The material cookies of a clip (same identifier words): video, then sound, then any
// other type, each by index.
CookieVec materialsOf(sql::Connection& db, const Cookie& clip);
// The video material with the lowest variant of the item; invalid when it has none.
Cookie firstVideoVariant(sql::Connection& db, const Cookie& item);

} // namespace records
