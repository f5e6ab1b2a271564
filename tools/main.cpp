// Entry point of the `playfile` program: finds the command and runs it.
#include "tools/Command.h"

#include "host/media/BackendPlugins.h"
#include "host/os/Log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tool {

namespace {
std::vector<Command>& table() {
    static std::vector<Command> t;
    return t;
}

void printCommands(FILE* out) {
    std::fprintf(out, "usage: playfile COMMAND [ARGS...]\n"
                      "       playfile COMMAND --help\n\ncommands:\n");
    for (const Command& c : commands()) std::fprintf(out, "  %-10s %s\n", c.name, c.summary);
}
} // namespace

CommandRegistration::CommandRegistration(const Command& command) {
    auto& t = table();
    t.insert(std::upper_bound(t.begin(), t.end(), command,
                              [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; }),
             command);
}

const std::vector<Command>& commands() { return table(); }

int fail(int status, const std::string& message) {
    std::fprintf(stderr, "playfile: %s\n", message.c_str());
    return status;
}

} // namespace tool

int main(int argc, char** argv) {
    using namespace tool;
    // Library diagnostics go to the log file; the program's own output owns the console.
    Logging::setConsole(false);
    // The decoder back-ends, from the plug-in folder, before any file is opened.
    Zn::BackendPlugins::loadAll();
    if (argc < 2) {
        printCommands(stderr);
        return kUsage;
    }
    std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        printCommands(stdout);
        return kOk;
    }
    for (const Command& c : commands()) {
        if (name != c.name) continue;
        std::vector<std::string> args(argv + 2, argv + argc);
        if (std::find(args.begin(), args.end(), "--help") != args.end()) {
            std::fputs(c.usage, stdout);
            return kOk;
        }
        return c.run(args);
    }
    return fail(kUsage, "unknown command '" + name + "' (see 'playfile --help')");
}
