// Runs external programs (ffmpeg, the playfile program) from tests.
#pragma once

#include <string>

namespace testing_support {

struct CommandResult {
    int exitCode = -1;
    std::string out; // standard output
};

// Runs a shell command line; standard error goes to the test's log.
CommandResult runCommand(const std::string& commandLine);
// Runs ffmpeg quietly with the given arguments; true when it succeeded.
bool ffmpeg(const std::string& args);
// Quotes a path for the shell.
std::string shellQuote(const std::string& s);

} // namespace testing_support
