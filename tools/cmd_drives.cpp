// `playfile drives`: the media drives of a project (where material files are kept), and
// adding one.
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kDrivesUsage[] =
    "usage: playfile drives --project DIR [--json]\n"
    "       playfile drives add ID FOLDER --project DIR [--tasks import,render]\n"
    "\n"
    "Lists the media drives of the project in DIR, in the project's order: each drive's id,\n"
    "root folder, video and sound folders, the tasks it serves and the free space of its\n"
    "volume. A material file's name is its drive and a path below the drive's root.\n"
    "\n"
    "'add' makes drive ID (one letter, or a digit other than 0) with its root at FOLDER (the\n"
    "folder and its video and sound folders are created; a project is made in DIR when it\n"
    "holds none), or moves an existing drive ID there.\n"
    "\n"
    "  --project DIR   the project folder, or a postgresql:// URI (required)\n"
    "  --tasks LIST    with add: the tasks the drive serves, comma-separated\n"
    "                  (\"import\", \"render\"; default import,render; \"\" for none)\n"
    "  --json          one JSON array, one object per drive:\n"
    "                    id, name, root, video, sound (folders, ending in '/'),\n"
    "                    tasks (array of strings), freeBytes\n"
    "                  Members are only ever added, never renamed or removed.\n"
    "\n"
    "Exit status: 0 success, 1 the project cannot be opened or the drive not made, 2 a\n"
    "usage error.\n";

std::vector<std::string> taskList(const std::string& tasks) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start < tasks.size()) {
        size_t comma = tasks.find(',', start);
        std::string item = tasks.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!item.empty()) out.push_back(item);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return out;
}

int addDrive(const Options& o, const std::string& project) {
    const auto& pos = o.positional();
    if (pos.size() != 3) return fail(kUsage, "drives: add needs an ID and a FOLDER");
    const std::string& id = pos[1];
    if (id.size() != 1) return fail(kUsage, "drives: a drive id is one letter or a digit, not '" + id + "'");
    std::error_code ec;
    std::string root = std::filesystem::absolute(pos[2], ec).lexically_normal().string();
    std::string error;
    ProjectScope scope;
    if (!scope.open(project, true, error)) return fail(kFailure, "drives: " + error);
    WString why;
    if (!DiskManager::addDrive(DriveId(id[0]), fromUTF8(root.c_str()), WString(),
                               String(o.value("--tasks", "import,render").c_str()), &why))
        return fail(why.startsWith(L"a drive") ? kUsage : kFailure, "drives: cannot add drive " + id + ": " + utf8(why));
    std::printf("drive %s at %s\n", id.c_str(), root.c_str());
    return kOk;
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("drives", args, {{"--project", true}, {"--json", false}, {"--tasks", true}}))
        return fail(kUsage, o.error());
    const std::string project = o.value("--project");
    if (project.empty()) return fail(kUsage, "drives: --project DIR is required");
    if (!o.positional().empty()) {
        if (o.positional()[0] != "add")
            return fail(kUsage, "drives: unknown action '" + o.positional()[0] + "' (see 'playfile drives --help')");
        return addDrive(o, project);
    }
    if (o.has("--tasks")) return fail(kUsage, "drives: --tasks is for 'drives add'");

    std::string error;
    ProjectScope scope;
    if (!scope.open(project, false, error)) return fail(kFailure, "drives: " + error);
    Json all = Json::array();
    for (const auto& d : DiskManager::getDrives()) {
        Json j;
        j["id"] = std::string(1, d->getUniqueId().getUniqueId());
        j["name"] = utf8(d->getName());
        j["root"] = utf8(d->getRoot());
        j["video"] = utf8(d->getLocation('V'));
        j["sound"] = utf8(d->getLocation('S'));
        j["tasks"] = taskList(d->getTasks().str());
        j["freeBytes"] = d->getSpaceBytes();
        all.push_back(std::move(j));
    }
    if (o.has("--json")) {
        std::printf("%s\n", all.dump(2).c_str());
        return kOk;
    }
    if (all.empty()) std::printf("no media drives\n");
    for (const auto& j : all) {
        std::string tasks;
        for (const auto& t : j["tasks"]) tasks += (tasks.empty() ? "" : ",") + t.get<std::string>();
        if (tasks.empty()) tasks = "none";
        std::printf("%s  %s\n   video %s\n   sound %s\n   tasks %s, %s free\n", j["id"].get<std::string>().c_str(),
                    j["root"].get<std::string>().c_str(), j["video"].get<std::string>().c_str(),
                    j["sound"].get<std::string>().c_str(), tasks.c_str(),
                    utf8(bytesAsString(j["freeBytes"].get<uint64_t>())).c_str());
    }
    return kOk;
}

CommandRegistration reg({"drives", "list or add the media drives of a project", kDrivesUsage, run});

} // namespace
} // namespace tool
