// Entry point of the `playfile` program: loads the media back-ends, finds the command
// and runs it. Library diagnostics go to the log file only, unless --verbose is given.
#include "tools/Command.h"

#include "host/media/BackendPlugins.h"
#include "host/os/Log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

namespace tool {

namespace {
std::vector<Command>& table() {
    static std::vector<Command> t;
    return t;
}

void printCommands(FILE* out) {
    std::fprintf(out, "usage: playfile COMMAND [ARGS...] [--verbose]\n"
                      "       playfile COMMAND --help\n\ncommands:\n");
    for (const Command& c : commands()) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
    std::fprintf(out, "\n--verbose shows the library's diagnostics on standard error as well as in the\n"
                      "log file ($PLAYFILE_LOG, else $XDG_STATE_HOME/playfile/playfile.log).\n"
                      "Exit status: 0 success, 1 a read or processing failure, 2 a usage error.\n");
}
} // namespace

CommandRegistration::CommandRegistration(const Command& command) {
    auto& t = table();
    t.insert(std::upper_bound(t.begin(), t.end(), command,
                              [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; }),
             command);
}

const std::vector<Command>& commands() { return table(); }

int fail(ExitStatus status, const std::string& message) {
    std::fprintf(stderr, "playfile: %s\n", message.c_str());
    return status;
}

} // namespace tool

int main(int argc, char** argv) {
    using namespace tool;
    // Library diagnostics go to the log file; the program's own output owns the console.
    Logging::setConsole(false);
    // --verbose may stand anywhere; everything else is the command and its arguments.
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--verbose") == 0)
            Logging::setConsole(true);
        else
            words.push_back(argv[i]);
    }
    if (words.empty()) return fail(kUsage, "no command given (see 'playfile --help')");
    const std::string name = words[0];
    if (name == "--help" || name == "-h" || name == "help") {
        printCommands(stdout);
        return kOk;
    }
    for (const Command& c : commands()) {
        if (name != c.name) continue;
        const std::vector<std::string> args(words.begin() + 1, words.end());
        if (std::find(args.begin(), args.end(), "--help") != args.end()) {
            std::fputs(c.usage, stdout);
            return kOk;
        }
        // Back-ends that fail to load are logged and skipped; a command that needs a
        // reader says so when it finds none.
        Zn::BackendPlugins::loadAll();
        // Back-ends and the host report failures by return values; whatever escapes is a
        // fault, and still only one line for the person at the terminal.
        try {
            return c.run(args);
        } catch (const std::exception& e) {
            return fail(kFailure, name + ": internal error: " + e.what());
        } catch (...) {
            return fail(kFailure, name + ": internal error");
        }
    }
    return fail(kUsage, "unknown command '" + name + "' (see 'playfile --help')");
}
