// `playfile header`: the play header functions on real texts: a media file's header
// (as the project keeps it, or its ".hdr" sidecar), a header text parsed with either
// generation's parser, and the key look-up.
#include "tools/Command.h"
#include "tools/MediaSession.h"
#include "tools/Options.h"

#include "host/core/Strings.h"
#include "host/project/MaterialInfo.h"
#include "playfile/header/PlayHeader.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tool {
namespace {

const char kHeaderUsage[] =
    "usage: playfile header show FILE\n"
    "       playfile header parse TEXTFILE [--v1 | --v2]\n"
    "       playfile header lookup KEY... [--in TEXTFILE]\n"
    "\n"
    "The play header: the small text of \"key value\" lines that says what a material\n"
    "file holds (medium, rates, channels or picture size, time codes, origin).\n"
    "\n"
    "  show FILE         the header of the media file FILE, from its \".hdr\" sidecar (the\n"
    "                    file's name with the extension replaced), read through the\n"
    "                    project's material layer and printed as print_header prints the\n"
    "                    parsed record\n"
    "  parse TEXTFILE    parses a header text and prints the record as print_header does;\n"
    "                    the parser is chosen by the text's header_version (1: the first\n"
    "                    generation, else the second) unless --v1 or --v2 says which\n"
    "  lookup KEY...     looks each key up with the header's key look-up. With --in, in\n"
    "                    TEXTFILE: prints \"KEY VALUE\" per key found (the value up to the\n"
    "                    end of its line). Without, runs the built-in look-up self-test\n"
    "                    and prints what it prints (Item \"KEY\" = {...} or not found)\n"
    "\n"
    "print_header writes each line as key, blank, value, then a line feed and a carriage\n"
    "return, and ends with a newline.\n"
    "\n"
    "Exit status: 0 success; 1 a file cannot be read, has no header or is not a header\n"
    "text, or (lookup) a key was not found; 2 a usage error.\n";

bool readText(const std::string& path, std::string& text, std::string& why) {
    if (!checkMediaFile(path, why)) return false;
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    if (!in && !in.eof()) {
        why = "cannot be read";
        return false;
    }
    text = s.str();
    return true;
}

// A header text names its version or its medium, and holds no NUL bytes.
bool looksLikeHeader(const std::string& text) {
    return text.find('\0') == std::string::npos && (PlayHdrString_seek_value(text.c_str(), "header_version") ||
                                                    PlayHdrString_seek_value(text.c_str(), "medium"));
}

void printParsed(std::string text, int version) {
    SAV_HEADER hdr;
    if (version == 1)
        parse_header_v1(&hdr, text.data());
    else
        parse_header_v2(&hdr, text.data());
    print_header(&hdr);
}

int show(const std::vector<std::string>& files) {
    if (files.size() != 1) return fail(kUsage, "header show: give one media file");
    const std::string& path = files[0];
    std::string why, error;
    if (!checkMediaFile(path, why)) return fail(kFailure, "header show: " + path + ": " + why);
    MediaSession session;
    if (!session.openScratch(error)) return fail(kFailure, "header show: " + error);
    const Cookie clip = session.addClip(path, true, 0, 0, error);
    if (!clip.valid()) return fail(kFailure, "header show: " + error);
    const String text = MaterialInfo::read_header(convertCookie(clip, 'V', 0));
    if (text.empty())
        return fail(kFailure, "header show: " + path + " has no play header (no " +
                                  toUTF8(MaterialInfo::headerFileName(convertCookie(clip, 'V', 0))).str() + ")");
    std::string t = text.str();
    if (!looksLikeHeader(t)) return fail(kFailure, "header show: the header of " + path + " is not a header text");
    printParsed(t, playhdr_get_version(t.data()) <= 1 ? 1 : 2);
    return kOk;
}

int parse(const Options& o) {
    if (o.positional().size() != 2) return fail(kUsage, "header parse: give one header text file");
    if (o.has("--v1") && o.has("--v2")) return fail(kUsage, "header parse: give --v1 or --v2, not both");
    const std::string& path = o.positional()[1];
    std::string text, why;
    if (!readText(path, text, why)) return fail(kFailure, "header parse: " + path + ": " + why);
    if (!looksLikeHeader(text))
        return fail(kFailure, "header parse: " + path + ": not a header text (no header_version or medium line)");
    int version = playhdr_get_version(text.data()) <= 1 ? 1 : 2;
    if (o.has("--v1")) version = 1;
    if (o.has("--v2")) version = 2;
    printParsed(text, version);
    return kOk;
}

int lookup(const Options& o) {
    std::vector<std::string> keys(o.positional().begin() + 1, o.positional().end());
    if (keys.empty()) return fail(kUsage, "header lookup: give at least one key");
    if (!o.has("--in")) {
        std::vector<std::string> storage = {"playfile header lookup"};
        storage.insert(storage.end(), keys.begin(), keys.end());
        std::vector<char*> argv;
        for (auto& s : storage) argv.push_back(s.data());
        argv.push_back(nullptr);
        return playhdr_selftest_main(int(storage.size()), argv.data());
    }
    const std::string path = o.value("--in");
    std::string text, why;
    if (!readText(path, text, why)) return fail(kFailure, "header lookup: " + path + ": " + why);
    if (text.find('\0') != std::string::npos) return fail(kFailure, "header lookup: " + path + ": not a text file");
    std::string missing;
    for (const std::string& key : keys) {
        const char* value = PlayHdrString_seek_value(text.c_str(), key.c_str());
        if (!value) {
            missing += (missing.empty() ? "" : ", ") + key;
            continue;
        }
        const size_t length = std::strcspn(value, "\n\r");
        std::printf("%s %.*s\n", key.c_str(), int(length), value);
    }
    if (!missing.empty()) return fail(kFailure, "header lookup: not found in " + path + ": " + missing);
    return kOk;
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("header", args, {{"--v1", false}, {"--v2", false}, {"--in", true}})) return fail(kUsage, o.error());
    if (o.positional().empty()) return fail(kUsage, "header: give show, parse or lookup (see 'playfile header --help')");
    const std::string& what = o.positional()[0];
    const bool versioned = o.has("--v1") || o.has("--v2");
    if (what == "show") {
        if (versioned || o.has("--in")) return fail(kUsage, "header show: takes no options");
        return show({o.positional().begin() + 1, o.positional().end()});
    }
    if (what == "parse") {
        if (o.has("--in")) return fail(kUsage, "header parse: --in belongs to lookup");
        return parse(o);
    }
    if (what == "lookup") {
        if (versioned) return fail(kUsage, "header lookup: --v1 and --v2 belong to parse");
        return lookup(o);
    }
    return fail(kUsage, "header: unknown action '" + what + "' (show, parse or lookup)");
}

CommandRegistration reg({"header", "show, parse and look up play headers", kHeaderUsage, run});

} // namespace
} // namespace tool
