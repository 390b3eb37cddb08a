// Other programs for the tests: whether one is installed, and what a shell command prints.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace e2e {

bool Have(const char* tool);  // on PATH
// What the shell command writes to its standard output ("" when it cannot run).
std::string Capture(const std::string& cmd);
// Runs `argv` (a bare name from PATH) in `cwd` (empty: here) with `env` ("NAME=value") added, its
// output and errors into the file `out`; the child's id, -1 when fork fails.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& out,
            const std::string& cwd = "", const std::vector<std::string>& env = {});

}  // namespace e2e
