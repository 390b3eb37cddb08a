// glimra-ar: edits replace the archive only when whole, so a kill or a failure in the middle of
// one leaves the old archive readable.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "framework/qarchive.h"
#include "support/tempdir.h"

namespace {

const std::string kTool = std::string(GLIMRA_BUILD_DIR) + "/tools/glimra-ar";

// Starts the tool with `args` in `dir`, output discarded; the child's pid.
pid_t Start(const std::string& dir, std::vector<std::string> args) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (chdir(dir.c_str()) != 0) _exit(126);
  if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(125);
  std::vector<char*> argv{const_cast<char*>(kTool.c_str())};
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  execv(kTool.c_str(), argv.data());
  _exit(127);
}

// Exit status, or -signal when a signal ended it.
int Wait(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int RunTool(const std::string& dir, std::vector<std::string> args) {
  return Wait(Start(dir, args));
}

// The member's bytes as the archive gives them back ("" when it cannot).
std::string Member(const std::string& archive, const char* name, const std::string& out) {
  QArchive ar(archive.c_str(), QArchive::READ);
  if (!ar.IsOpen() || !ar.DecompressFile(name, out.c_str())) return "";
  return ReadFile(out);
}

class GlimraAr : public TempDirTest {
 protected:
  GlimraAr() : TempDirTest("glimra_ar_test") {}
  void SetUp() override {
    if (access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << "glimra-ar is not built";
    MakeFile("first.txt", "the member that must survive\n");
    ASSERT_EQ(RunTool(dir_, {"create", "data.ar"}), 0);
    ASSERT_EQ(RunTool(dir_, {"add", "data.ar", "first.txt"}), 0);
  }
  bool Survives() {
    return Member(Tmp("data.ar"), "first.txt", Tmp("out.txt")) == ReadFile(Tmp("first.txt"));
  }
};

TEST_F(GlimraAr, KilledAddLeavesTheOldArchiveReadable) {
  // Big enough that packing it takes a while: the kills land in the middle of the edit.
  std::mt19937 random(5);
  std::string big(24 << 20, 0);
  for (char& c : big) c = char(random() % 16);
  MakeFile("big.bin", big);
  int interrupted = 0;
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const pid_t pid = Start(dir_, {"add", "data.ar", "big.bin", "big" + std::to_string(round)});
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 150));
    kill(pid, SIGKILL);
    interrupted += Wait(pid) == -SIGKILL;
    EXPECT_TRUE(Survives());
  }
  EXPECT_GE(interrupted, 4);
}

TEST_F(GlimraAr, FailedEditsChangeNothingAndGoodOnesLeaveNoCopyBehind) {
  const std::string before = ReadFile(Tmp("data.ar"));
  EXPECT_EQ(RunTool(dir_, {"add", "data.ar", "missing.txt"}), 1);
  EXPECT_EQ(RunTool(dir_, {"remove", "data.ar", "missing.txt"}), 1);
  EXPECT_EQ(ReadFile(Tmp("data.ar")), before);

  MakeFile("second.txt", "two\n");
  EXPECT_EQ(RunTool(dir_, {"add", "data.ar", "second.txt"}), 0);
  EXPECT_EQ(Member(Tmp("data.ar"), "second.txt", Tmp("out2.txt")), "two\n");
  EXPECT_EQ(RunTool(dir_, {"remove", "data.ar", "first.txt"}), 0);
  EXPECT_EQ(Member(Tmp("data.ar"), "first.txt", Tmp("out3.txt")), "");
  EXPECT_EQ(Member(Tmp("data.ar"), "second.txt", Tmp("out4.txt")), "two\n");
  for (const auto& f : std::filesystem::directory_iterator(dir_))
    EXPECT_EQ(f.path().filename().string().find("data.ar."), std::string::npos) << f.path();
}

}  // namespace
