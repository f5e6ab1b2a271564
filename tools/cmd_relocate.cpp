// `playfile relocate`: copies or moves the material of chosen clips and logs, or of a
// whole drive, to another media drive, as a background task of the host's queue whose log
// and progress are drawn as it runs.
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"
#include "tools/TaskView.h"

#include "host/core/Strings.h"
#include "host/os/Resources.h"
#include "host/project/DiskManager.h"
#include "host/tasks/BackgroundTaskQueue.h"
#include "host/tasks/SystemWatchdog.h"
#include "playfile/material/MaterialMove.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kRelocateUsage[] =
    "usage: playfile relocate --project DIR --to DRIVE (ITEM... | --from DRIVE) [--move] [--json]\n"
    "\n"
    "Copies the material files that the clips and logs ITEM... use (by cookie or name), or\n"
    "the files of the material on drive --from, to the same places on media drive --to.\n"
    "Files already there are left alone; each file appears under its name only once it is\n"
    "completely copied. Companion files beside a media file (an .xml description, say)\n"
    "travel with it. Nothing is copied unless the destination has more free space than\n"
    "the files need.\n"
    "\n"
    "  --project DIR   the project folder, or a postgresql:// URI (required)\n"
    "  --to DRIVE      the destination drive's id (required)\n"
    "  --from DRIVE    take the material on this drive instead of ITEMs\n"
    "  --move          also point the project's material directory at the copies (the\n"
    "                  old files stay where they are)\n"
    "  --json          print the log's lines and the outcome as one JSON object:\n"
    "                    lines (array of {text, severity, kind}), outcome (\"done\",\n"
    "                    \"nothing to relocate\", \"not enough space\", \"stopped\"),\n"
    "                    files (records to process), failures, bytes, seconds\n"
    "                  Members are only ever added, never renamed or removed.\n"
    "\n"
    "Ctrl-C stops between files: the files copied so far stay, the report is closed.\n"
    "\n"
    "Exit status: 0 done (or nothing to relocate), 1 stopped, not enough space, a file that\n"
    "failed to copy, or a project that cannot be opened, 2 a usage error.\n";

class RelocateTask final : public BackgroundTaskBase {
public:
    RelocateTask(DriveId to, CookieVec items, DriveId from, MaterialMove::eType type)
        : BackgroundTaskBase(WString(L"Relocate material")), to_(to), items_(std::move(items)), from_(from),
          type_(type) {}

protected:
    void run() override {
        LoggerHandle logger(getLog());
        if (from_.isNone()) MaterialMove::relocate(to_, items_, type_, logger);
        else MaterialMove::relocate(from_, to_, type_, logger);
    }

private:
    DriveId to_;
    CookieVec items_;
    DriveId from_;
    MaterialMove::eType type_;
};

// What the log says happened.
struct Outcome {
    std::string what;
    int records = 0;
    int failures = 0;
};

Outcome outcomeOf(const std::vector<iTaskLog::Entry>& lines, bool stopped) {
    const WString finished = resourceStrW(12528), nothing = resourceStrW(10915);
    const WString writeFailed = resourceStrW(11995);
    const std::wstring_view writeFailedStart = writeFailed.view().substr(0, writeFailed.find(L'$'));
    Outcome o;
    o.what = "not enough space";
    for (const auto& e : lines) {
        if (e.text == finished) o.what = "done";
        else if (e.text == nothing) o.what = "nothing to relocate";
        else if (e.kind == iTaskLog::eKindError || e.text.startsWith(writeFailedStart)) ++o.failures;
        std::swscanf(e.text.c_str(), L"%d file(s) to process", &o.records);
    }
    if (stopped) o.what = "stopped";
    return o;
}

bool driveArgument(const Options& o, const char* name, DriveId& out) {
    std::string v = o.value(name);
    if (v.size() != 1) return false;
    out = DriveId(v[0]);
    return true;
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("relocate", args,
                 {{"--project", true}, {"--to", true}, {"--from", true}, {"--move", false}, {"--json", false}}))
        return fail(kUsage, o.error());
    const std::string project = o.value("--project");
    if (project.empty()) return fail(kUsage, "relocate: --project DIR is required");
    DriveId to, from;
    if (!driveArgument(o, "--to", to)) return fail(kUsage, "relocate: --to DRIVE (a drive id) is required");
    if (o.has("--from") && !driveArgument(o, "--from", from))
        return fail(kUsage, "relocate: --from takes a drive id, one character");
    if (o.has("--from") == !o.positional().empty())
        return fail(kUsage, "relocate: give either ITEMs or --from DRIVE");

    std::string error;
    ProjectScope scope;
    if (!scope.open(project, false, error)) return fail(kFailure, "relocate: " + error);
    for (DriveId d : {to, from})
        if ((d == to || !d.isNone()) && !DiskManager::getDriveWithUniqueId(d))
            return fail(kUsage, std::string("relocate: the project has no drive ") + d.getUniqueId());
    if (to == from) return fail(kUsage, "relocate: --from and --to name the same drive");
    CookieVec items;
    for (const auto& text : o.positional()) {
        Cookie edit;
        if (!findItem(text, edit, error)) return fail(kUsage, "relocate: " + error);
        items.add(edit);
    }

    const bool json = o.has("--json");
    g_esc_pressed = false;
    auto task = Zn::makePtr<RelocateTask>(to, items, from, o.has("--move") ? MaterialMove::eMove : MaterialMove::eCopy);
    TaskView::Options viewOptions;
    viewOptions.showLines = viewOptions.showProgress = !json;
    viewOptions.label = o.has("--move") ? "moving" : "copying";
    TaskView view(viewOptions);
    if (!view.run(task)) return fail(kFailure, "relocate: the task queue has ended");

    const auto lines = task->getLog()->getEntries();
    const bool stopped = view.interrupted() || task->getStatus() == iBackgroundTask::eCancelled;
    Outcome out = outcomeOf(lines, stopped);
    const iTaskLog::Progress p = task->getLog()->getProgress();
    const uint64_t bytes = uint64_t(p.fraction * double(p.totalBytes) + 0.5);
    const double seconds = task->getLifetime();
    if (json) {
        Json j;
        j["lines"] = Json::array();
        for (const auto& e : lines)
            j["lines"].push_back({{"text", utf8(e.text)},
                                  {"severity", e.severity},
                                  {"kind", e.kind}});
        j["outcome"] = out.what;
        j["files"] = out.records;
        j["failures"] = out.failures;
        j["bytes"] = bytes;
        j["seconds"] = seconds;
        std::printf("%s\n", j.dump(2).c_str());
    } else if (out.what == "done" || out.what == "stopped") {
        std::printf("%d file(s) processed, %d failed; %s in %.1f s\n", out.records, out.failures,
                    utf8(bytesAsString(bytes)).c_str(), seconds);
    }
    if (stopped) return fail(kFailure, "relocate: stopped by Ctrl-C; the files copied so far stay copied");
    if (out.what == "not enough space") return kFailure;
    return out.failures ? kFailure : kOk;
}

CommandRegistration reg({"relocate", "copy or move material to another media drive", kRelocateUsage, run});

} // namespace
} // namespace tool
