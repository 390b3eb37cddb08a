#include "support/command.h"

#include <cstdio>
#include <cstdlib>

namespace e2e {

bool Have(const char* tool) {
  return system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Capture(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

}  // namespace e2e
