// The project's drive table and the media-online notice.
#include "host/project/DiskManager.h"

#include "host/core/Strings.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectFiles.h"
#include "host/threads/PlainMutex.h"

#include <atomic>
#include <map>

namespace {

PlainMutex g_listenerMutex; // guards g_listeners and g_nextToken
std::map<int, std::function<void()>> g_listeners GUARDED_BY(g_listenerMutex);
int g_nextToken GUARDED_BY(g_listenerMutex) = 1;
std::atomic<uint64_t> g_notices{0};

const char kSelectDrives[] =
    "SELECT id, name, root, video_folder, sound_folder, tasks FROM drives ORDER BY seq";

Zn::Ptr<MediaDrive> driveFromRow(sql::Query& q) {
    String id = q.text(0);
    return Zn::Ptr<MediaDrive>(new MediaDrive(DriveId(id.empty() ? DriveId::kNone : id[0]), q.wtext(1), q.wtext(2),
                                              q.wtext(3), q.wtext(4), q.text(5)));
}

// A root as stored: absolute, without a trailing '/' (except "/").
WString normalisedRoot(const WString& root) {
    std::wstring r = root.str();
    while (r.size() > 1 && r.back() == L'/') r.pop_back();
    return WString(r);
}

} // namespace

std::vector<Zn::Ptr<MediaDrive>> DiskManager::getDrives() {
    std::vector<Zn::Ptr<MediaDrive>> out;
    auto db = EditManager::getProjdb();
    if (!db) return out;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), kSelectDrives);
    while (q.next()) out.push_back(driveFromRow(q));
    return out;
}

Zn::Ptr<MediaDrive> DiskManager::getDriveWithUniqueId(const DriveId& id) {
    auto db = EditManager::getProjdb();
    if (!db || id.isNone()) return nullptr;
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT id, name, root, video_folder, sound_folder, tasks FROM drives WHERE id = ?1");
    q.bind(1, String(std::string(1, id.getUniqueId())));
    return q.next() ? driveFromRow(q) : nullptr;
}

DriveId DiskManager::getDriveForTask(const char* task, bool fallBackToAny) {
    auto drives = getDrives();
    for (auto& d : drives)
        if (d->servesTask(task)) return d->getUniqueId();
    if (fallBackToAny && !drives.empty()) return drives.front()->getUniqueId();
    return DriveId();
}

Zn::Ptr<MediaDrive> DiskManager::findDriveForPath(const WString& osPath) {
    Zn::Ptr<MediaDrive> best;
    for (auto& d : getDrives()) {
        WString root = d->getLocation(0);
        if (osPath.startsWith(root.view()) && (!best || root.size() > best->getLocation(0).size())) best = d;
    }
    return best;
}

int64_t DiskManager::getSpaceForRecording(const DriveId& id) {
    auto d = getDriveWithUniqueId(id);
    return d ? int64_t(d->getSpaceBytes() / 1048576) : 0;
}

bool DiskManager::isMaterialVolume(char id) { return getDriveWithUniqueId(DriveId(id)) != nullptr; }

WString DiskManager::getMaterialVolumeName(const DriveId& id, bool label) {
    auto d = getDriveWithUniqueId(id);
    if (!d) return WString();
    if (label) return d->getName().empty() ? d->getRoot() : d->getName();
    return d->getLocation(0);
}

bool DiskManager::addDrive(const DriveId& id, const WString& root, const WString& name, const String& tasks,
                           WString* error) {
    auto refuse = [&](const wchar_t* why) {
        if (error) *error = WString(why);
        return false;
    };
    char c = id.getUniqueId();
    bool letterOrDigit = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '1' && c <= '9');
    if (!letterOrDigit) return refuse(L"a drive id is one letter or a digit other than 0");
    if (!root.startsWith(L"/")) return refuse(L"a drive's root must be an absolute path");
    auto db = EditManager::getProjdb();
    if (!db) return refuse(L"no project is open");
    WString r = normalisedRoot(root);
    MediaDrive probe(id, name, r, WString(L"video"), WString(L"sound"), tasks);
    if (!projectfs::createDirectory(probe.getLocation('V')) || !projectfs::createDirectory(probe.getLocation('S')))
        return refuse(L"cannot create the drive's folders");
    ProjectDatabase::Write w(*db);
    sql::Query q(w.db(), "INSERT INTO drives(id, seq, name, root, tasks) "
                         "VALUES(?1, (SELECT coalesce(max(seq), 0) + 1 FROM drives), ?2, ?3, ?4) "
                         "ON CONFLICT(id) DO UPDATE SET name = excluded.name, root = excluded.root, "
                         "tasks = excluded.tasks");
    q.bind(1, String(std::string(1, c))).bind(2, name).bind(3, r).bind(4, tasks);
    if (!q.run()) w.fail();
    if (!w.commit()) {
        if (error) *error = fromUTF8(w.error().c_str());
        return false;
    }
    return true;
}

bool DiskManager::removeDrive(const DriveId& id) {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    sql::Query q(w.db(), "DELETE FROM drives WHERE id = ?1");
    q.bind(1, String(std::string(1, id.getUniqueId())));
    if (!q.run()) w.fail();
    bool removed = w.db().changes() > 0;
    return w.commit() && removed;
}

void DiskManager::issueMediaOnlineChangeNotification() {
    g_notices.fetch_add(1, std::memory_order_relaxed);
    std::vector<std::function<void()>> listeners;
    {
        PlainMutex::Lock lock(g_listenerMutex);
        for (auto& [token, fn] : g_listeners) listeners.push_back(fn);
    }
    for (auto& fn : listeners) fn();
}

int DiskManager::addMediaOnlineListener(std::function<void()> listener) {
    PlainMutex::Lock lock(g_listenerMutex);
    g_listeners[g_nextToken] = std::move(listener);
    return g_nextToken++;
}

void DiskManager::removeMediaOnlineListener(int token) {
    PlainMutex::Lock lock(g_listenerMutex);
    g_listeners.erase(token);
}

uint64_t DiskManager::mediaOnlineChangeCount() { return g_notices.load(std::memory_order_relaxed); }
