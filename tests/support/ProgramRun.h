// Runs the real `playfile` program of the build for the command-line tests, with its log in
// the test's temporary folder, and answers its exit status, standard output and the lines
// it wrote on standard error.
#pragma once

#include "support/Command.h"
#include "support/TempDir.h"

#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

struct Outcome {
    int status = -1; // -1: the program did not exit normally (a crash)
    std::string out;
    std::vector<std::string> err;
};

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// prefix goes before the program (an environment or a user change).
inline Outcome playfile(const TempDir& dir, const std::string& args, const std::string& prefix = "") {
    const std::string errFile = dir.file("stderr.txt");
    const CommandResult r = runCommand(prefix + " env PLAYFILE_LOG=" + shellQuote(dir.file("playfile.log")) + " " +
                                       shellQuote(PLAYFILE_BUILD_DIR "/tools/playfile") + " " + args + " 2>" +
                                       shellQuote(errFile));
    return {r.exitCode, r.out, lines(readFile(errFile))};
}

} // namespace testing_support
