// The developer console: shown standard output at once with a terminal program, else nothing.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/qshell.h"
#include "support/tempdir.h"

namespace {

struct Console : TempDirTest {
  // Runs the console in a child with PATH `path`, output into `stdoutFile`; its exit status.
  int RunChild(const std::string& path, const std::string& stdoutFile) {
    pid_t pid = fork();
    if (pid == 0) {
      int out = open(stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1), dup2(out, 2);
      setenv("PATH", path.c_str(), 1);
      QOpenDeveloperConsole();
      printf("hello console\n");  // no flush: the console makes the stream unbuffered
      _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(Console, TerminalShowsWhatIsWrittenAtOnceAndWithoutOneOutputStays) {
  // A stand-in terminal: runs its "-e" command with the output into a file.
  chmod(MakeFile("x-terminal-emulator",
                 "#!/bin/sh\n[ \"$1\" = -e ] && shift\nexec \"$@\" > " + Tmp("seen.txt") + "\n")
            .c_str(),
        0755);
  ASSERT_EQ(RunChild(dir_ + ":/usr/bin:/bin", Tmp("stdout.txt")), 0);
  std::string seen;
  for (int i = 0; i < 50 && seen.find("hello console") == std::string::npos; ++i) {
    usleep(100 * 1000);
    seen = ReadFile(Tmp("seen.txt"));
  }
  EXPECT_EQ(seen, "hello console\n");
  EXPECT_EQ(ReadFile(Tmp("stdout.txt")), "");  // the text went to the console instead

  // Without a terminal program nothing is reported and the output stays where it was.
  mkdir(Tmp("empty").c_str(), 0700);
  ASSERT_EQ(RunChild(Tmp("empty"), Tmp("stdout.txt")), 0);
  EXPECT_EQ(ReadFile(Tmp("stdout.txt")), "hello console\n");
}

}  // namespace
