// `playfile download`: copies the remote media of clips into a folder outside the media
// drives, named after the clips or their files, as a background task drawn as it runs;
// its settings can be read from and written to a JSON file.
#include "tools/Command.h"
#include "tools/MediaTaskRun.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"
#include "tools/TaskView.h"

#include "host/core/Strings.h"
#include "playfile/material/MaterialManager.h"

#include <filesystem>

namespace tool {
namespace {

const char kDownloadUsage[] =
    "usage: playfile download --project DIR ITEM... --location DIR [--naming clip|file]\n"
    "                         [--proxy-ext EXT] [--high-res] [--proxies]\n"
    "                         [--settings FILE.json] [--save-settings FILE.json]\n"
    "\n"
    "Copies the remote media of the clips and logs ITEM... (by cookie or name) into folder\n"
    "--location (made when missing). Media is remote when it lies on a network file system\n"
    "or under one of the folders in PLAYFILE_REMOTE_PREFIXES. A file used by several clips\n"
    "is fetched once. Each file is written as NAME.partial and renamed once it is whole.\n"
    "\n"
    "  --project DIR        the project folder, or a postgresql:// URI (required)\n"
    "  --location DIR       the destination folder (required unless --settings gives it)\n"
    "  --naming clip|file   name each copy after its clip (made safe as a file name; the\n"
    "                       default) or keep the source file's name\n"
    "  --proxy-ext EXT      the extension of proxy copies, NAME.proxy.EXT (default mp4)\n"
    "  --high-res           the clips' own media (the default when neither kind is given)\n"
    "  --proxies            their proxy files\n"
    "  --settings FILE      take location, naming and proxy extension from a JSON file\n"
    "                       {\"Location\": ..., \"ProxyExt\": ..., \"Naming\": \"clip\"|\"file\"};\n"
    "                       the options above override what it says\n"
    "  --save-settings FILE write the settings in effect to FILE (with no ITEM: only that)\n"
    "\n"
    "Ctrl-C stops the copy in hand (its .partial file is removed); files copied before\n"
    "it stay copied.\n"
    "\n"
    "Exit status: 0 done, 1 stopped, not enough space, a file that failed to copy or a\n"
    "project or settings file that cannot be used, 2 a usage error.\n";

// The settings from --settings and the options; false with error set when they are not
// usable.
bool settingsFrom(const Options& o, ExternalDownloadTask::Settings& s, std::string& error) {
    s.naming = ExternalDownloadTask::Settings::eNameByClip;
    s.proxyExt = WString(L"mp4");
    if (o.has("--settings")) {
        String why;
        if (!JSON::loadFromFile(s, fromUTF8(o.value("--settings").c_str()), &why)) {
            error = "cannot use the settings in " + o.value("--settings") + ": " +
                    (why.empty() ? std::string("Location and ProxyExt must be given") : why.str());
            return false;
        }
    }
    if (o.has("--location")) s.location = fromUTF8(std::filesystem::absolute(o.value("--location")).string().c_str());
    if (o.has("--proxy-ext")) s.proxyExt = fromUTF8(o.value("--proxy-ext").c_str());
    if (o.has("--naming")) {
        const std::string naming = o.value("--naming");
        if (naming != "clip" && naming != "file") {
            error = "--naming takes clip or file";
            return false;
        }
        s.naming = naming == "clip" ? ExternalDownloadTask::Settings::eNameByClip
                                    : ExternalDownloadTask::Settings::eNameByFile;
    }
    if (s.location.empty()) error = "--location DIR is required";
    else if (s.proxyExt.empty()) error = "--proxy-ext must not be empty";
    return error.empty();
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("download", args,
                 {{"--project", true}, {"--location", true}, {"--naming", true}, {"--proxy-ext", true},
                  {"--high-res", false}, {"--proxies", false}, {"--settings", true}, {"--save-settings", true}}))
        return fail(kUsage, o.error());
    std::string error;
    ExternalDownloadTask::Settings settings;
    if (!settingsFrom(o, settings, error)) return fail(kUsage, "download: " + error);
    if (o.has("--save-settings")) {
        String why;
        if (!JSON::saveToFile(settings, fromUTF8(o.value("--save-settings").c_str()), &why))
            return fail(kFailure, "download: cannot write " + o.value("--save-settings") + ": " + why.str());
        if (o.positional().empty()) return kOk;
    }
    if (!o.has("--project")) return fail(kUsage, "download: --project DIR is required");
    if (o.positional().empty()) return fail(kUsage, "download: give at least one ITEM");

    ProjectScope scope;
    if (!scope.open(o.value("--project"), false, error)) return fail(kFailure, "download: " + error);
    CookieVec items;
    if (!itemCookies(o.positional(), items, error)) return fail(kUsage, "download: " + error);
    const bool proxies = o.has("--proxies");
    const bool highRes = o.has("--high-res") || !proxies;
    const auto types = eMediaTypes((highRes ? unsigned(kMediaHighRes) : 0u) | (proxies ? unsigned(kMediaProxy) : 0u));
    TaskView::CatchInterrupts catcher; // the task may start before the view does
    return followDownload(MaterialManager::downloadRemoteMedia(items, types, settings), "download", "downloading");
}

CommandRegistration reg({"download", "copy remote media into a folder of your choosing", kDownloadUsage, run});

} // namespace
} // namespace tool
