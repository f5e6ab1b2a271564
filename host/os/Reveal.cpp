// Showing files in the file browser: the configured program, the file manager on the
// session bus, or xdg-open on the folders.
#include "host/os/Reveal.h"

#include "host/core/Strings.h"
#include "host/os/Config.h"
#include "host/os/Log.h"
#include "host/os/Process.h"

#include <algorithm>
#include <filesystem>

namespace {

// How long each exchange with the session bus may take, and how long a started program
// is waited for before it is left to run.
constexpr int kBusTimeoutMs = 3000;
constexpr int kProgramWaitMs = 3000;

std::string absoluteUtf8(const WString& file) {
    std::string name(toUTF8(file).view());
    if (name.empty() || name[0] == '/') return name;
    std::error_code ec;
    std::filesystem::path p = std::filesystem::absolute(name, ec);
    return ec ? name : p.string();
}

bool ranWell(const Zn::ProgramRun& run, const std::string& program) {
    if (run.started && (!run.exited || run.exitStatus == 0)) return true;
    if (!run.error.empty() && !run.started) LogBoth("revealFilesInOS: %s\n", run.error.c_str());
    else if (!run.error.empty()) LogBoth("revealFilesInOS: \"%s\" %s\n", program.c_str(), run.error.c_str());
    else LogBoth("revealFilesInOS: \"%s\" exited with status %d\n", program.c_str(), run.exitStatus);
    return false;
}

std::string uriOfBytes(const std::string& bytes) {
    static const char hex[] = "0123456789ABCDEF";
    std::string uri = "file://";
    for (unsigned char b : bytes) {
        bool plain = (b >= 'a' && b <= 'z') || (b >= 'A' && b <= 'Z') || (b >= '0' && b <= '9') || b == '-' ||
                     b == '.' || b == '_' || b == '~' || b == '/';
        if (plain) {
            uri += char(b);
        } else {
            uri += '%';
            uri += hex[b >> 4];
            uri += hex[b & 15];
        }
    }
    return uri;
}

} // namespace

std::string Zn::fileUri(const WString& absolutePath) { return uriOfBytes(std::string(toUTF8(absolutePath).view())); }

Zn::RevealRoute Zn::revealFilesInOS(const std::vector<WString>& files) {
    if (files.empty()) return RevealRoute::eNone;
    std::vector<std::string> paths;
    for (const WString& f : files) paths.push_back(absoluteUtf8(f));

    String command = config_string("RevealCommand");
    if (!command.empty()) {
        std::string program(command.view());
        return ranWell(runProgram(program, paths, kProgramWaitMs), program) ? RevealRoute::eCommand
                                                                            : RevealRoute::eNone;
    }

    std::vector<std::string> uris;
    for (const std::string& p : paths) uris.push_back(uriOfBytes(p));
    std::string why;
    if (showItemsOverDBus(uris, kBusTimeoutMs, &why)) return RevealRoute::eFileManager;
    Log("revealFilesInOS: %s; opening the folders instead\n", why.c_str());

    std::vector<std::string> folders;
    for (const std::string& p : paths) {
        std::filesystem::path parent = std::filesystem::path(p).parent_path();
        std::string folder = parent.empty() ? std::string(1, '/') : parent.string();
        if (std::find(folders.begin(), folders.end(), folder) == folders.end()) folders.push_back(folder);
    }
    bool any = false;
    for (const std::string& folder : folders)
        any = ranWell(runProgram("xdg-open", {folder}, kProgramWaitMs), "xdg-open") || any;
    return any ? RevealRoute::eFolder : RevealRoute::eNone;
}
