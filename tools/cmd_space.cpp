// `playfile space`: the project space of a project: local, or remote (shared) with the
// server's mount points and what the server holds per log. Shows it, or sets it so that a
// person can describe a shared project and see what the material queries answer.
#include "tools/Command.h"
#include "tools/ProjectItems.h"

#include "host/core/Strings.h"
#include "host/project/ProjectSpacesManager.h"
#include "playfile/material/MaterialManager.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <set>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kSpaceUsage[] =
    "usage: playfile space --project DIR [--json] [--local | --remote MOUNT...]\n"
    "                      [--server-media ITEM...] [--server-proxies ITEM...]\n"
    "\n"
    "Shows the project space of the project in DIR: its type (0 local, 2 remote), the mount\n"
    "points of a remote space in order (where the server's media appear on this machine)\n"
    "and, per log, the media and proxies the server holds. With options, sets it first:\n"
    "\n"
    "  --project DIR           the project folder, or a postgresql:// URI (required)\n"
    "  --local                 make the space local (the remote description is kept)\n"
    "  --remote MOUNT...       make the space remote with these mount points, in order,\n"
    "                          replacing the old ones ('' is an empty mount path, which\n"
    "                          the queries take to hold every file)\n"
    "  --server-media ITEM...  record that the server holds the media of these clips or\n"
    "                          logs (cookie text or name): their material files\n"
    "  --server-proxies ITEM...  record that the server holds their proxies\n"
    "  --json                  {type, mountPoints: [path...], server: [{log,\n"
    "                          media: [{material, path}], proxies}]}\n"
    "                          Members are only ever added, never renamed or removed.\n"
    "\n"
    "Exit status: 0 success, 1 the project cannot be opened or changed or an ITEM is not in\n"
    "it, 2 a usage error.\n";

struct Wanted {
    bool local = false, remote = false, json = false;
    std::string project;
    std::vector<std::string> mounts, media, proxies;
};

// Options take every following argument up to the next option.
bool parse(const std::vector<std::string>& args, Wanted& w, std::string& error) {
    std::vector<std::string>* list = nullptr;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--project") {
            if (i + 1 >= args.size()) return (error = "--project needs a folder", false);
            w.project = args[++i];
            list = nullptr;
        } else if (a == "--json") {
            w.json = true;
            list = nullptr;
        } else if (a == "--local") {
            w.local = true;
            list = nullptr;
        } else if (a == "--remote") {
            w.remote = true;
            list = &w.mounts;
        } else if (a == "--server-media") {
            list = &w.media;
        } else if (a == "--server-proxies") {
            list = &w.proxies;
        } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
            return (error = "unknown option '" + a + "' (see 'playfile space --help')", false);
        } else if (!list) {
            return (error = "unexpected argument '" + a + "'", false);
        } else {
            list->push_back(a);
        }
    }
    if (w.project.empty()) return (error = "--project DIR is required", false);
    if (w.local && w.remote) return (error = "--local and --remote exclude each other", false);
    return true;
}

bool recordServer(const Wanted& w, std::string& error) {
    for (const std::string& item : w.media) {
        Cookie log;
        if (!findItem(item, log, error)) return false;
        std::set<Cookie> materials;
        MaterialManager::getReferencedMediaFiles(CookieVec{log}, materials);
        for (const Cookie& m : materials)
            if (!ProjectSpacesManager::addServerMediaEntry(log, {m, WString()}))
                return (error = "the project refused the server entry of " + item, false);
    }
    for (const std::string& item : w.proxies) {
        Cookie log;
        if (!findItem(item, log, error)) return false;
        if (!ProjectSpacesManager::setServerProxies(log, true))
            return (error = "the project refused the server proxies of " + item, false);
    }
    return true;
}

bool applyChanges(const Wanted& w, std::string& error) {
    if (w.local && !ProjectSpacesManager::setCurrentProjectSpaceType(ProjectSpacesManager::eLocal))
        return (error = "cannot make the space local", false);
    if (w.remote) {
        bool ok = ProjectSpacesManager::clearMountPoints();
        for (const std::string& m : w.mounts) ok = ok && ProjectSpacesManager::addMountPoint({fromUTF8(m.c_str()), WString()});
        if (!ok || !ProjectSpacesManager::setCurrentProjectSpaceType(ProjectSpacesManager::eRemote))
            return (error = "cannot make the space remote", false);
    }
    return recordServer(w, error);
}

Json describe() {
    Json j;
    j["type"] = ProjectSpacesManager::getCurrentProjectSpaceType();
    // The stored description, whatever the type: a local space keeps it for later.
    auto resource = ProjectSpacesManager::getStoredResource();
    j["mountPoints"] = Json::array();
    j["server"] = Json::array();
    if (!resource) return j;
    for (const auto& m : resource->getMountPoints()) j["mountPoints"].push_back(utf8(m.localPath()));
    for (const Cookie& log : ProjectSpacesManager::getServerLogs()) {
        Json s;
        s["log"] = log.asString().str();
        Json media = Json::array();
        for (const auto& e : resource->getServerMediaEntries(log))
            media.push_back({{"material", e.material.asString().str()}, {"path", utf8(e.path)}});
        s["media"] = media;
        s["proxies"] = resource->hasServerProxies(log);
        j["server"].push_back(std::move(s));
    }
    return j;
}

int run(const std::vector<std::string>& args) {
    Wanted w;
    std::string error;
    if (!parse(args, w, error)) return fail(kUsage, "space: " + error);
    ProjectScope scope;
    if (!scope.open(w.project, false, error)) return fail(kFailure, "space: " + error);
    if (!applyChanges(w, error)) return fail(kFailure, "space: " + error);
    Json j = describe();
    if (w.json) {
        std::printf("%s\n", j.dump(2).c_str());
        return kOk;
    }
    std::printf("project space: %s (type %d)\n", j["type"] == 2 ? "remote" : "local", j["type"].get<int>());
    for (const auto& m : j["mountPoints"]) std::printf("   mount point \"%s\"\n", m.get<std::string>().c_str());
    for (const auto& s : j["server"])
        std::printf("   server holds %s: %zu media file%s%s\n", s["log"].get<std::string>().c_str(), s["media"].size(),
                    s["media"].size() == 1 ? "" : "s", s["proxies"].get<bool>() ? ", proxies" : "");
    return kOk;
}

CommandRegistration reg({"space", "show or set the project space (local, or remote with mount points)", kSpaceUsage,
                         run});

} // namespace
} // namespace tool
