#pragma once
// Starting an outside program (an encoder) and waiting for it, with no window, no inherited standard
// streams and a time limit.

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct ProgramResult {
    int32_t startError = 0;  // errno when the program could not be started (ENOENT: not found on PATH)
    int32_t exitCode = -1;  // the program's exit status once it ended by itself, else -1
    bool timedOut = false;  // still running at the limit; it is then stopped
};

// Runs `arguments[0]`, looked up on PATH, with the rest as its arguments, and waits at most timeoutMs.
ProgramResult runProgram(const std::vector<std::string>& arguments, int32_t timeoutMs);

}  // namespace platform
