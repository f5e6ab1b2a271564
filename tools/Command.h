// The command table of the `playfile` program. Each command lives in a file of its own
// and registers itself with a static CommandRegistration; main() dispatches by name.
//
// Exit statuses: 0 success, 1 a read or processing failure, 2 a usage error. Errors are
// one line on standard error, starting with "playfile: ".
#pragma once

#include <string>
#include <vector>

namespace tool {

enum ExitStatus { kOk = 0, kFailure = 1, kUsage = 2 };

struct Command {
    const char* name;
    const char* summary; // one line for the command list
    const char* usage;   // the full text printed by `playfile NAME --help`
    int (*run)(const std::vector<std::string>& args);
};

class CommandRegistration {
public:
    explicit CommandRegistration(const Command& command);
};

const std::vector<Command>& commands();

// Prints "playfile: <message>" on standard error and answers the status, for
// `return fail(kUsage, "...")`.
int fail(ExitStatus status, const std::string& message);

} // namespace tool
