// Runs the real `playfile` program of the build for the command-line tests, with its log in
// the test's temporary folder, and answers its exit status, standard output and the lines
// it wrote on standard error.
#pragma once

#include "support/Command.h"
#include "support/TempDir.h"

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tool_test {

struct Outcome {
    int status = -1; // -1: the program did not exit normally (a crash)
    std::string out;
    std::vector<std::string> err;
};

// prefix goes before the program (an environment or a user change).
inline Outcome playfile(const testing_support::TempDir& dir, const std::string& args, const std::string& prefix = "") {
    using testing_support::shellQuote;
    const std::string errFile = dir.file("stderr.txt");
    const std::string line = prefix + " env PLAYFILE_LOG=" + shellQuote(dir.file("playfile.log")) + " " +
                             shellQuote(PLAYFILE_BUILD_DIR "/tools/playfile") + " " + args + " 2>" +
                             shellQuote(errFile);
    const testing_support::CommandResult r = testing_support::runCommand(line);
    Outcome run;
    run.status = r.exitCode;
    run.out = r.out;
    std::ifstream in(errFile);
    for (std::string l; std::getline(in, l);) run.err.push_back(l);
    return run;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

} // namespace tool_test
