// Helper programs started with posix_spawnp; waited for briefly, then reaped by a thread.
#include "host/os/Process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

extern char** environ;

namespace {

void describeEnd(Zn::ProgramRun& run, int status) {
    run.exited = true;
    if (WIFEXITED(status)) {
        run.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        run.error = std::string("ended by signal ") + std::to_string(WTERMSIG(status));
    }
}

} // namespace

Zn::ProgramRun Zn::runProgram(const std::string& program, const std::vector<std::string>& args, int waitMs) {
    ProgramRun run;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    // The program starts with no signal blocked and every signal at its default, whatever
    // the calling thread has set up, and in a process group of its own, so that a Ctrl-C
    // meant for this process does not also close the file browser it opened.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    pid_t pid = -1;
    int rc = ::posix_spawnp(&pid, program.c_str(), nullptr, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        run.error = "cannot run \"" + program + "\": " + std::strerror(rc);
        return run;
    }
    run.started = true;

    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs < 0 ? 0 : waitMs);
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        int status = 0;
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            describeEnd(run, status);
            return run;
        }
        if (r < 0 && errno != EINTR) return run; // reaped elsewhere: nothing more to learn
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
    // Still running: a thread of its own waits for it, so that it does not stay a zombie.
    std::thread([pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    }).detach();
    return run;
}
