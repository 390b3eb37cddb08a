#include "support/command.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

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

pid_t Spawn(const std::vector<std::string>& argv, const std::string& out, const std::string& cwd,
            const std::vector<std::string>& env) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
  const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd >= 0) dup2(fd, 1), dup2(fd, 2);
  for (const std::string& kv : env) putenv(strdup(kv.c_str()));
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

}  // namespace e2e
