// Other programs for the tests: whether one is installed, and what a shell command prints.
#pragma once

#include <string>

namespace e2e {

bool Have(const char* tool);  // on PATH
// What the shell command writes to its standard output ("" when it cannot run).
std::string Capture(const std::string& cmd);

}  // namespace e2e
