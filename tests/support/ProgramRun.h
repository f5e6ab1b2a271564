// Runs the real `playfile` program of the build for the command-line tests, with its log in
// the test's temporary folder, and answers its exit status, standard output and the lines
// it wrote on standard error.
#pragma once

#include "support/Command.h"
#include "support/TempDir.h"

#include <fcntl.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
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

// Starts the program on its own with args, its standard output and error going to the
// files `tag`stdout.txt and `tag`stderr.txt in dir; answers its process id (-1 when it
// could not be started).
inline pid_t startPlayfile(const TempDir& dir, const std::vector<std::string>& args, const std::string& tag = "") {
    std::vector<std::string> words = {PLAYFILE_BUILD_DIR "/tools/playfile"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, dir.file(tag + "stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, dir.file(tag + "stderr.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid = -1;
    ::setenv("PLAYFILE_LOG", dir.file("playfile.log").c_str(), 1);
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// Waits for a started program: its exit status, or minus the signal that ended it.
inline int exitOf(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace testing_support
