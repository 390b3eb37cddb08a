// The developer console: the standard streams unbuffered and, when they are not a terminal,
// shown in a terminal window fed through a named pipe.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/qshell.h"

namespace {

bool g_attached = false;

// Starts `terminal -e cat fifo` and waits up to five seconds for it to open the pipe. Answers
// the write end, or -1 when the terminal does not exist or never reads.
int StartTerminal(const char* terminal, const std::string& fifo) {
  pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    setsid();
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
    }
    execlp(terminal, terminal, "-e", "cat", fifo.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 50; ++i) {
    int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
      return fd;
    }
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return -1;  // the terminal is gone already
    usleep(100 * 1000);
  }
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  return -1;
}

}  // namespace

void QOpenDeveloperConsole() {
  setvbuf(stdout, nullptr, _IONBF, 0);
  setvbuf(stderr, nullptr, _IONBF, 0);
  if (g_attached || (isatty(1) && isatty(2))) return;

  const char* tmp = getenv("TMPDIR");
  std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/glimra-console-XXXXXX";
  if (!mkdtemp(&dir[0])) return;
  std::string fifo = dir + "/out";
  int fd = -1;
  if (mkfifo(fifo.c_str(), 0600) == 0) {
    fd = StartTerminal("x-terminal-emulator", fifo);
    if (fd < 0) fd = StartTerminal("xterm", fifo);
  }
  // Once both ends are open the name is no longer needed.
  unlink(fifo.c_str());
  rmdir(dir.c_str());
  if (fd < 0) return;
  fflush(stdout);
  fflush(stderr);
  dup2(fd, 1);
  dup2(fd, 2);
  close(fd);
  // A closed console window must not end the program on its next log line.
  signal(SIGPIPE, SIG_IGN);
  g_attached = true;
}
