#include "support/Command.h"

#include <cstdio>
#include <sys/wait.h>

namespace testing_support {

CommandResult runCommand(const std::string& commandLine) {
    CommandResult r;
    FILE* p = popen(commandLine.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int status = pclose(p);
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

bool ffmpeg(const std::string& args) {
    return runCommand("ffmpeg -nostdin -hide_banner -loglevel error -y " + args).exitCode == 0;
}

std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s) {
        if (c == '\'') out += "'\\''";
        else out += c;
    }
    return out + "'";
}

} // namespace testing_support
