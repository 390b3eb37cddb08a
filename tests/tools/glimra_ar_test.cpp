// glimra-ar: a kill or a failure in the middle of an edit leaves the old archive readable.
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "framework/qarchive.h"
#include "support/e2e.h"

namespace {

const std::string kTool = std::string(GLIMRA_BUILD_DIR) + "/tools/glimra-ar";

// Runs the tool with `args` in `dir`; its exit status (-2 when a signal ended it).
int RunTool(const std::string& dir, const std::vector<std::string>& args) {
  e2e::Program p;
  return p.MakeDir() && p.Run(kTool, args, dir) ? p.WaitExit(60000) : -1;
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
    e2e::Program p;
    ASSERT_TRUE(p.MakeDir());
    ASSERT_TRUE(p.Run(kTool, {"add", "data.ar", "big.bin", "big" + std::to_string(round)}, dir_));
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 150));
    kill(p.Pid(), SIGKILL);
    interrupted += p.WaitExit(60000) == -2;
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
  EXPECT_EQ(RunTool(dir_, {"remove", "data.ar", "first.txt"}), 0);
  EXPECT_EQ(Member(Tmp("data.ar"), "first.txt", Tmp("out3.txt")), "");
  EXPECT_EQ(Member(Tmp("data.ar"), "second.txt", Tmp("out4.txt")), "two\n");
  for (const auto& f : std::filesystem::directory_iterator(dir_))
    EXPECT_EQ(f.path().filename().string().find("data.ar."), std::string::npos) << f.path();
}

}  // namespace
