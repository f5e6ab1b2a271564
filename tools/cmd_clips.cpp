// `playfile clips`: every clip and log of a project with the material files behind it:
// where each lies, whether it is there, linked, on a remote location.
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/FileQueryScope.h"
#include "host/os/OS.h"
#include "host/project/ProjectCatalog.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <unordered_map>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kClipsUsage[] =
    "usage: playfile clips --project DIR [--json]\n"
    "\n"
    "Lists every clip and log of the project in DIR: its cookie, name, log type (4 an\n"
    "imported clip, 2 a sequence) and channels, and for each material file behind it the\n"
    "material (cookie), whether it is the high-resolution file or a proxy, its drive and\n"
    "path on the drive, where the media really is, its size as recorded, and whether it\n"
    "exists now, is linked (left where it was found) and lies on a remote location\n"
    "(a network file system or a PLAYFILE_REMOTE_PREFIXES folder) or a local one.\n"
    "\n"
    "  --project DIR   the project folder, or a postgresql:// URI (required)\n"
    "  --json          one JSON array, one object per clip or log:\n"
    "                    cookie, name, logType, image (bool),\n"
    "                    channels {video, audio},\n"
    "                    files: [{material, role (\"high-res\" or \"proxy\"), drive\n"
    "                    (\"0\" for none), path, physical, size, exists, linked,\n"
    "                    remote}]\n"
    "                  Members are only ever added, never renamed or removed.\n"
    "\n"
    "Exit status: 0 success, 1 the project cannot be opened, 2 a usage error.\n";

struct Presence {
    bool exists = false;
    bool remote = false;
};

// Clips share one file among their materials: each physical file is examined once.
class PresenceCache {
public:
    const Presence& of(const WString& physical) {
        auto [it, added] = known_.try_emplace(physical.str());
        if (added && !physical.empty()) {
            iFileManager* fm = OS()->fileManager();
            it->second.exists = fm->fileExists(physical);
            it->second.remote = fm->isRemoteLocation(physical);
        }
        return it->second;
    }

private:
    std::unordered_map<std::wstring, Presence> known_;
};

Json fileJson(const ClipMediaFile& f, PresenceCache& presence) {
    const MediaFileInfo& info = f.file;
    const WString physical = info.getPhysicalFilename(false);
    const Presence& p = presence.of(physical);
    Json j;
    j["material"] = f.cookie.asString().str();
    j["role"] = info.isProxy() ? "proxy" : "high-res";
    j["drive"] = std::string(1, info.getMaterialFilename().getDriveChar());
    j["path"] = utf8(info.getMaterialFilename().getPath());
    j["physical"] = utf8(physical);
    j["size"] = info.getSize();
    j["exists"] = p.exists;
    j["linked"] = info.isLinked();
    j["remote"] = p.remote;
    return j;
}

void printText(const Json& clip) {
    std::printf("%s  %s  log type %d, %d video, %d audio%s\n", clip["cookie"].get<std::string>().c_str(),
                clip["name"].get<std::string>().c_str(), clip["logType"].get<int>(),
                clip["channels"]["video"].get<int>(), clip["channels"]["audio"].get<int>(),
                clip["image"].get<bool>() ? ", image" : "");
    for (const auto& f : clip["files"]) {
        std::printf("   %s %-8s %s:%s  %s, %s, %s%s%s\n", f["material"].get<std::string>().c_str(),
                    f["role"].get<std::string>().c_str(), f["drive"].get<std::string>().c_str(),
                    f["path"].get<std::string>().c_str(), f["exists"].get<bool>() ? "present" : "missing",
                    f["linked"].get<bool>() ? "linked" : "on the drive", f["remote"].get<bool>() ? "remote" : "local",
                    f["linked"].get<bool>() ? " -> " : "",
                    f["linked"].get<bool>() ? f["physical"].get<std::string>().c_str() : "");
    }
}

bool before(const Cookie& a, const Cookie& b) { return a.id2() != b.id2() ? a.id2() < b.id2() : a.id1() < b.id1(); }

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("clips", args, {{"--project", true}, {"--json", false}})) return fail(kUsage, o.error());
    if (!o.has("--project")) return fail(kUsage, "clips: --project DIR is required");
    if (!o.positional().empty()) return fail(kUsage, "clips: unexpected argument '" + o.positional()[0] + "'");
    std::string error;
    ProjectScope scope;
    if (!scope.open(o.value("--project"), false, error)) return fail(kFailure, "clips: " + error);

    const bool json = o.has("--json");
    const std::vector<EditSummary> edits = ProjectCatalog::edits();
    const std::vector<ClipMediaFile> files = ProjectCatalog::mediaFiles();
    PresenceCache presence;
    // One listing is one query: the mount table is looked at once, each file once.
    FileQueryScope filesQuery;
    size_t next = 0;
    std::string out = json ? "[" : "";
    for (size_t i = 0; i < edits.size(); ++i) {
        const EditSummary& e = edits[i];
        Json clip;
        clip["cookie"] = e.cookie.asString().str();
        clip["name"] = utf8(e.name);
        clip["logType"] = e.logType;
        clip["image"] = (e.flags & 2) != 0;
        clip["channels"] = {{"video", e.videoChannels}, {"audio", e.audioChannels}};
        clip["files"] = Json::array();
        while (next < files.size() && before(files[next].cookie, e.cookie)) ++next; // files of no edit
        for (; next < files.size() && files[next].cookie.sameItem(e.cookie); ++next)
            clip["files"].push_back(fileJson(files[next], presence));
        if (!json) {
            printText(clip);
            continue;
        }
        out += i ? ",\n" : "\n";
        out += clip.dump();
        if (out.size() > (1u << 20)) {
            std::fwrite(out.data(), 1, out.size(), stdout);
            out.clear();
        }
    }
    if (json) {
        out += "\n]\n";
        std::fwrite(out.data(), 1, out.size(), stdout);
    } else if (edits.empty()) {
        std::printf("no clips\n");
    }
    return kOk;
}

CommandRegistration reg({"clips", "list the clips of a project and where their files lie", kClipsUsage, run});

} // namespace
} // namespace tool
