// `playfile status`: what the material queries answer for clips and logs: the location
// record of each, and whether its media is offline, remote, local, available and
// downloadable, for high-resolution media, proxies and both.
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"

#include "host/core/Strings.h"
#include "host/project/Edit.h"
#include "host/project/EditModule.h"
#include "host/project/SystemCache.h"
#include "playfile/material/MaterialManager.h"
#include "playfile/material/MediaLocationUtils.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kStatusUsage[] =
    "usage: playfile status ITEM... --project DIR [--json] [--time SECONDS] [--channel N]\n"
    "\n"
    "For each clip or log (ITEM: its cookie text or its name) of the project in DIR, shows\n"
    "what the library's material queries answer: the clip's location record (per material\n"
    "file: high-res and proxy status, folder, file name, material file name), whether its\n"
    "media is offline, and for high-resolution media, proxies and both: whether it is\n"
    "remote, local (only in a remote project space), available, and whether a download\n"
    "would fetch something. Statuses: 0 unknown, 1 offline (missing), 2 available.\n"
    "\n"
    "A log of type 2 (a sequence) has no location record of its own; its offline answer is\n"
    "that of the material under the cursor on the first selected video channel.\n"
    "\n"
    "  --project DIR     the project folder, or a postgresql:// URI (required)\n"
    "  --time SECONDS    the cursor for a sequence's offline answer (default 0)\n"
    "  --channel N       the selected channel (default: every channel)\n"
    "  --json            one JSON array, one object per ITEM:\n"
    "                      item (as given), name, logType, offline,\n"
    "                      remote, local, available, canDownload (each an object\n"
    "                      {highRes, proxy, both}),\n"
    "                      files: [{material, highResStatus, proxyStatus, location,\n"
    "                      fileName, materialFile}] (members that a material without\n"
    "                      a directory entry lacks are null)\n"
    "                    Members are only ever added, never renamed or removed.\n"
    "\n"
    "Exit status: 0 every item answered, 1 an item is not in the project or the project\n"
    "cannot be opened (one line on standard error each), 2 a usage error.\n";

struct View {
    double time = 0;
    int channel = 0; // 0: every channel
};

Json perKind(const std::function<bool(eMediaTypes)>& ask) {
    return {{"highRes", ask(kMediaHighRes)}, {"proxy", ask(kMediaProxy)}, {"both", ask(kMediaAll)}};
}

// The location record as one object per referenced material: the record lists fill only
// for materials with a directory entry (and names only when not empty).
Json filesJson(const MediaLocationInfo& info) {
    Json files = Json::array();
    unsigned withEntry = 0, named = 0;
    for (const Cookie& m : info.materialCookies) {
        Json f;
        f["material"] = m.asString().str();
        auto entry = SystemCache::findEntryForCookie(m);
        if (!entry || withEntry >= info.highResStatuses.size()) {
            for (const char* k : {"highResStatus", "proxyStatus", "location", "fileName", "materialFile"}) f[k] = nullptr;
        } else {
            f["highResStatus"] = int(info.highResStatuses[withEntry]);
            f["proxyStatus"] = int(info.proxyStatuses[withEntry]);
            f["location"] = utf8(info.locations[withEntry]);
            f["fileName"] = utf8(info.fileNames[withEntry]);
            ++withEntry;
            f["materialFile"] = nullptr;
            if (!entry->getMaterialFilename().getPath().empty() && named < info.materialFilenames.size())
                f["materialFile"] = materialFileText(info.materialFilenames[named++]);
        }
        files.push_back(std::move(f));
    }
    return files;
}

Json statusOf(const std::string& item, const Cookie& edit, const View& view) {
    EditPtr opened;
    opened.i_open(edit, eEditOpenReadOnly);
    EditModule module(opened);
    if (opened) {
        for (const auto& c : opened->getChannels())
            if (view.channel == 0 || c.chan == view.channel) module.selectChan(c.chan);
        module.setCurrentTime(view.time);
    }
    std::set<Cookie> materials;
    MaterialManager::getReferencedMediaFiles(CookieVec{edit}, materials);
    Json j;
    j["item"] = item;
    j["cookie"] = edit.asString().str();
    j["name"] = opened ? utf8(opened->getName()) : std::string();
    j["logType"] = opened ? opened->getLogType() : 0;
    j["offline"] = isMediaOffline(module);
    j["remote"] = perKind([&](eMediaTypes t) { return MaterialManager::isMediaRemote(materials, t); });
    j["local"] = perKind([&](eMediaTypes t) { return MaterialManager::isMediaLocal(materials, t); });
    j["available"] = perKind([&](eMediaTypes t) { return MaterialManager::isMediaAvailable(edit, t); });
    j["canDownload"] = perKind([&](eMediaTypes t) { return MaterialManager::canDownload(edit, t); });
    j["files"] = filesJson(MediaLocationUtils::getClipLocationInfo(edit));
    return j;
}

// "high-res, both" for the kinds that answered yes; "no" when none did.
std::string kinds(const Json& k) {
    std::string s;
    for (auto [member, text] : {std::pair{"highRes", "high-res"}, {"proxy", "proxy"}, {"both", "both"}})
        if (k[member].get<bool>()) s += (s.empty() ? "" : ", ") + std::string(text);
    return s.empty() ? "no" : s;
}

void printText(const Json& j) {
    std::printf("%s  %s  log type %d\n", j["cookie"].get<std::string>().c_str(), j["name"].get<std::string>().c_str(),
                j["logType"].get<int>());
    std::printf("   offline: %s\n   remote: %s\n   local: %s\n   available: %s\n   can download: %s\n",
                j["offline"].get<bool>() ? "yes" : "no", kinds(j["remote"]).c_str(), kinds(j["local"]).c_str(),
                kinds(j["available"]).c_str(), kinds(j["canDownload"]).c_str());
    for (const auto& f : j["files"]) {
        if (f["highResStatus"].is_null()) {
            std::printf("   %s  not in the material directory\n", f["material"].get<std::string>().c_str());
            continue;
        }
        std::printf("   %s  high-res %d, proxy %d  %s%s%s\n", f["material"].get<std::string>().c_str(),
                    f["highResStatus"].get<int>(), f["proxyStatus"].get<int>(), f["location"].get<std::string>().c_str(),
                    f["fileName"].get<std::string>().c_str(),
                    f["materialFile"].is_null() ? "" : ("  (" + f["materialFile"].get<std::string>() + ")").c_str());
    }
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("status", args, {{"--project", true}, {"--json", false}, {"--time", true}, {"--channel", true}}))
        return fail(kUsage, o.error());
    if (!o.has("--project")) return fail(kUsage, "status: --project DIR is required");
    if (o.positional().empty()) return fail(kUsage, "status: no clip or log given");
    View view;
    if (o.has("--time")) {
        char* end = nullptr;
        const std::string t = o.value("--time");
        view.time = std::strtod(t.c_str(), &end);
        if (t.empty() || *end || view.time < 0) return fail(kUsage, "status: --time needs seconds from 0, not '" + t + "'");
    }
    uint64_t channel = 0;
    if (!o.number("--channel", 1, 65535, 0, channel)) return fail(kUsage, o.error());
    view.channel = int(channel);

    std::string error;
    ProjectScope scope;
    if (!scope.open(o.value("--project"), false, error)) return fail(kFailure, "status: " + error);
    int status = kOk;
    Json all = Json::array();
    for (const std::string& item : o.positional()) {
        Cookie edit;
        if (!findItem(item, edit, error)) {
            fail(kFailure, "status: " + error);
            status = kFailure;
            continue;
        }
        Json j = statusOf(item, edit, view);
        if (!o.has("--json")) {
            printText(j);
            continue;
        }
        j.erase("cookie"); // the text's heading only: the JSON members are fixed
        all.push_back(std::move(j));
    }
    if (o.has("--json")) std::printf("%s\n", all.dump(2).c_str());
    return status;
}

CommandRegistration reg({"status", "what the material queries answer for clips and logs", kStatusUsage, run});

} // namespace
} // namespace tool
