// `playfile reveal`: shows a clip's files in the desktop's file browser.
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"

#include "playfile/material/MaterialManager.h"

#include <cstdio>

namespace tool {
namespace {

const char kRevealUsage[] =
    "usage: playfile reveal ITEM --project DIR\n"
    "\n"
    "Shows the files of clip ITEM (by cookie or name) that exist in the desktop's file\n"
    "browser, selected in their folders (the freedesktop file manager over D-Bus, else\n"
    "xdg-open on their folders). The configuration key RevealCommand (environment\n"
    "PLAYFILE_RevealCommand) names a program to run instead, with each file's path as one\n"
    "argument. Files that are missing are named in the log.\n"
    "\n"
    "Exit status: 0 files were shown, 1 none of them exists or the project cannot be\n"
    "opened, 2 a usage error.\n";

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("reveal", args, {{"--project", true}})) return fail(kUsage, o.error());
    if (!o.has("--project")) return fail(kUsage, "reveal: --project DIR is required");
    if (o.positional().size() != 1) return fail(kUsage, "reveal: give one ITEM");
    std::string error;
    ProjectScope scope;
    if (!scope.open(o.value("--project"), false, error)) return fail(kFailure, "reveal: " + error);
    Cookie item;
    if (!findItem(o.positional()[0], item, error)) return fail(kUsage, "reveal: " + error);
    if (MaterialManager::revealFilesInOS(item) != MaterialManager::kShown)
        return fail(kFailure, "reveal: none of the files of " + o.positional()[0] + " exists");
    return kOk;
}

CommandRegistration reg({"reveal", "show a clip's files in the desktop's file browser", kRevealUsage, run});

} // namespace
} // namespace tool
