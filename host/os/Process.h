// Starting helper programs (file browsers, openers) directly, without a shell: each
// argument reaches the program as one argument, whatever characters it holds.
#pragma once

#include <string>
#include <vector>

namespace Zn {

struct ProgramRun {
    bool started = false;  // the program could be run at all
    bool exited = false;   // it ended within the wait
    int exitStatus = -1;   // its exit status when it exited normally, else -1
    std::string error;     // why it did not start (or ended by a signal)
};

// Runs program (searched in PATH when it holds no '/') with the arguments, inheriting the
// environment and the standard streams, and waits up to waitMs for it to end. A program
// still running after that is left to run; it is reaped in the background when it ends,
// so no zombie remains.
ProgramRun runProgram(const std::string& program, const std::vector<std::string>& args, int waitMs);

} // namespace Zn
