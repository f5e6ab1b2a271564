// `playfile import`: registers media files as clips of a project, linked in place or
// copied onto a media drive.
#include "tools/Command.h"
#include "tools/MediaSession.h"
#include "tools/Progress.h"
#include "tools/ProjectItems.h"

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectImporter.h"

#include <cstdio>
#include <filesystem>
#include <memory>

namespace tool {
namespace {

const char kImportUsage[] =
    "usage: playfile import FILE... --project DIR [--drive ID[=FOLDER]] [--copy]\n"
    "                       [--video N] [--audio N] [--rate HZ]\n"
    "\n"
    "Registers media files as clips of the project in DIR (a new project is made when DIR\n"
    "holds none): one clip per file, with its video material and one sound material per\n"
    "audio channel. By default a file is linked in place: the project uses it where it is,\n"
    "through a link file on the media drive. With --copy it is copied onto the drive.\n"
    "\n"
    "  --project DIR       the project folder, or a postgresql:// URI (required)\n"
    "  --drive ID          the media drive (one letter) for the clips' material files;\n"
    "                      default: the drive that serves imports, else a new drive A\n"
    "                      in DIR/media\n"
    "  --drive ID=FOLDER   the same, making drive ID at FOLDER first (or moving it there)\n"
    "  --copy              copy the files onto the drive instead of linking them\n"
    "  --video N           video channels of each clip (0 or 1)\n"
    "  --audio N           audio channels of each clip\n"
    "  --rate HZ           the clips' audio sample rate (default 48000)\n"
    "\n"
    "The channel layout comes from --video and --audio when given; otherwise the library\n"
    "is asked: the file is opened through the play file cache and the reader that serves\n"
    "it tells whether it has video (1 video channel) and how many audio channels its\n"
    "streams hold together (one sound channel each, at the first stream's sample rate\n"
    "unless --rate is given). A file that no reader opens is not imported unless both\n"
    "--video and --audio are given.\n"
    "\n"
    "Prints one line per clip. Exit status: 0 every file imported, 1 a file or the project\n"
    "failed (each failure is one line on standard error), 2 a usage error.\n";

bool parseCount(const std::string& text, int limit, int& out) {
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    out = std::stoi(text);
    return out <= limit;
}

// What the command line asks for.
struct ImportArgs {
    std::vector<std::string> files;
    std::string project, drive;
    ImportOptions options;
    bool rateGiven = false;
};

// Reads the command line into a; kOk, or the usage failure's status (already reported).
int parseArgs(const std::vector<std::string>& args, ImportArgs& a) {
    ImportOptions& options = a.options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size()) return false;
            out = args[++i];
            return true;
        };
        std::string v;
        if (arg == "--project") {
            if (!value(a.project)) return fail(kUsage, "import: --project needs a folder");
        } else if (arg == "--drive") {
            if (!value(a.drive) || a.drive.empty() || (a.drive.size() > 1 && a.drive[1] != '='))
                return fail(kUsage, "import: --drive needs a drive letter, optionally =FOLDER");
        } else if (arg == "--copy") {
            options.copy = true;
        } else if (arg == "--video") {
            if (!value(v) || !parseCount(v, 1, options.videoChannels))
                return fail(kUsage, "import: --video needs 0 or 1");
        } else if (arg == "--audio") {
            if (!value(v) || !parseCount(v, 254, options.audioChannels))
                return fail(kUsage, "import: --audio needs a number of channels (0 to 254)");
        } else if (arg == "--rate") {
            int rate = 0;
            if (!value(v) || !parseCount(v, 768000, rate) || rate == 0)
                return fail(kUsage, "import: --rate needs a sample rate in Hz");
            options.sampleRate = unsigned(rate);
            a.rateGiven = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return fail(kUsage, "import: unknown option '" + arg + "' (see 'playfile import --help')");
        } else {
            a.files.push_back(arg);
        }
    }
    if (a.project.empty()) return fail(kUsage, "import: --project DIR is required");
    if (a.files.empty()) return fail(kUsage, "import: no files given");
    if (options.videoChannels == 0 && options.audioChannels == 0)
        return fail(kUsage, "import: a clip needs at least one channel");
    return kOk;
}

// Makes the drive named by --drive ID=FOLDER and sets options.drive to the drive that
// takes the imports; false with error set when either fails.
bool chooseDrive(const std::string& drive, ImportOptions& options, std::string& error) {
    WString why;
    if (!drive.empty()) {
        options.drive = DriveId(drive[0]);
        if (drive.size() > 2) {
            std::error_code ec;
            std::string root = std::filesystem::absolute(drive.substr(2), ec).lexically_normal().string();
            if (!DiskManager::addDrive(options.drive, fromUTF8(root.c_str()), WString(), String("import,render"), &why)) {
                error = "cannot make drive " + drive.substr(0, 1) + ": " + toUTF8(why).str();
                return false;
            }
        }
    }
    DriveId used = ProjectImporter::importDrive(options.drive, &why);
    if (used.isNone()) {
        error = toUTF8(why).str();
        return false;
    }
    options.drive = used;
    return true;
}

// Imports one file as a clip and prints its line; false (the failure reported) when the
// readers or the importer refuse it.
bool importOne(const std::string& f, const ImportArgs& a, std::unique_ptr<ProgressBar>& bar) {
    ImportOptions fileOptions = a.options;
    if (a.options.videoChannels < 0 || a.options.audioChannels < 0) {
        std::string why;
        if (!clipLayoutFromReaders(f, fileOptions, a.rateGiven, why)) {
            fail(kFailure, "import: " + f + ": " + why);
            return false;
        }
    }
    ProjectImporter importer(fileOptions);
    ImportResult r = importer.importFile(fromUTF8(f.c_str()));
    if (bar) {
        bar->finish();
        bar.reset();
    }
    if (!r.ok) {
        fail(kFailure, "import: " + f + ": " + toUTF8(r.error).str());
        return false;
    }
    std::printf("imported %s as clip %s (%s drive %c): %d video, %d audio channel%s at %u Hz\n", f.c_str(),
                r.clip.asString().c_str(), a.options.copy ? "copied to" : "linked on", a.options.drive.getUniqueId(),
                fileOptions.videoChannels, fileOptions.audioChannels, fileOptions.audioChannels == 1 ? "" : "s",
                fileOptions.sampleRate);
    return true;
}

int run(const std::vector<std::string>& args) {
    ImportArgs a;
    if (int status = parseArgs(args, a); status != kOk) return status;

    WString error;
    std::error_code ec;
    std::string projectDir = tool::projectLocation(a.project, ec);
    if (!EditManager::openProject(fromUTF8(projectDir.c_str()), true, &error))
        return fail(kFailure, "import: " + toUTF8(error).str());
    struct Closer {
        ~Closer() { EditManager::closeProject(); }
    } closer;

    std::string why;
    if (!chooseDrive(a.drive, a.options, why)) return fail(kFailure, "import: " + why);

    std::unique_ptr<ProgressBar> bar;
    a.options.progress = [&](const ImportProgress& p) {
        if (p.stage == ImportProgress::eCopying) {
            if (!bar) bar = std::make_unique<ProgressBar>("copying " + toUTF8(stripPath(p.file)).str(), p.total);
            bar->update(p.done);
        } else if (bar) {
            bar->finish();
            bar.reset();
        }
    };
    int status = kOk;
    for (const auto& f : a.files)
        if (!importOne(f, a, bar)) status = kFailure;
    return status;
}

CommandRegistration reg({"import", "register media files as clips of a project", kImportUsage, run});

} // namespace
} // namespace tool
