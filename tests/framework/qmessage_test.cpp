// The log writer: folding, newlines, rotation, the second file, threads, boxes, the fatal paths.
#include "framework/qmessage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "framework/qdebug.h"
#include "support/tempdir.h"

namespace {

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> out;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

int CountContaining(const std::vector<std::string>& lines, const std::string& what) {
  return int(std::count_if(lines.begin(), lines.end(),
                           [&](auto& l) { return l.find(what) != std::string::npos; }));
}

class LogTest : public TempDirTest {
 protected:
  LogTest() : TempDirTest("glimra_log") {}
  void SetUp() override {
    log_ = dir_ + "/QLOG.txt";
    qlogSetFileName(log_.c_str());
    qlogSetMask(QLOGMASK_ERR | QLOGMASK_WARN | QLOGMASK_INFO);
    // A line no test repeats, so folding state from an earlier test never leaks in.
    qlogwrite(QLOG_INFO, nullptr, "setup %s", dir_.c_str());
  }
  void TearDown() override { qlogCloseSecondFile(); }
  std::string log_;
};

TEST_F(LogTest, RepeatsAreFoldedAndFlushedBeforeTheNextMessage) {
  for (int i = 0; i < 3; ++i) QWARN("LogTest::Repeat", "disk is full");
  EXPECT_EQ(CountContaining(Lines(log_), "disk is full"), 1);

  QWARN("LogTest::Repeat", "disk is empty");
  const auto lines = Lines(log_);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_NE(lines.back().find("disk is empty"), std::string::npos);
  // The repeat line keeps the level and header of the folded message.
  for (const char* part : {"[2x repeat] disk is full", "(WARN )", "LogTest::Repeat]"})
    EXPECT_NE(lines[lines.size() - 2].find(part), std::string::npos) << part;
  // Box messages are never folded.
  for (int i = 0; i < 2; ++i) qlogwrite(QLOG_ERR | QLOG_BOX, nullptr, "box text");
  EXPECT_EQ(CountContaining(Lines(log_), "box text"), 2);
}

TEST_F(LogTest, LineFormatAndOneTrailingNewlineStripped) {
  QERR("QIni::Read", "bad bracket in line %d\n", 7);
  const auto lines = Lines(log_);
  ASSERT_FALSE(lines.empty());
  // "<time> (ERR  ): [<app>] <text> [<header>]"
  EXPECT_NE(lines.back().find(" (ERR  ): [-] bad bracket in line 7 [ERR,qmessage_test.cpp:"),
            std::string::npos) << lines.back();
  EXPECT_NE(lines.back().find(",QIni::Read]"), std::string::npos);
  EXPECT_EQ(CountContaining(lines, "bad bracket"), 1);
  // Standard error gets one line end, whether or not the text brings its own; debug lines too.
  testing::internal::CaptureStderr();
  QWARN("LogTest::Newline", "warned\n");
  QWARN("LogTest::Newline", "warned again");
  qmessage("said\n");
  qmessage("said again");
  QERR("LogTest::Newline", "erred\n");
  QDBG("LogTest::Newline", "debugged");
  const int flags = qdbgGetFlags();
  qdbgSetFlags(flags | QDEBUG_QDBG_TO_QLOG);
  QDBG("LogTest::Newline", "logged");
  QDBG("LogTest::Newline", "logged again\n");
  qdbgSetFlags(flags);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "warned\nwarned again\nsaid\nsaid again\nerred\n"
            "debugged\nlogged\nlogged again\n");
  EXPECT_EQ(CountContaining(Lines(log_), "(DBG  ): [-] logged"), 2);
}

TEST_F(LogTest, RotatesPastTenMillionBytes) {
  std::ofstream(log_, std::ios::binary | std::ios::app) << std::string(10 << 20, 'x');
  std::ofstream(dir_ + "/QLOG_OLD.txt") << "older";
  QWARN("LogTest::Rotate", "after rotation");
  const std::string old = ReadFile(dir_ + "/QLOG_OLD.txt"), fresh = ReadFile(log_);
  EXPECT_TRUE(old.size() > 10000000u && old.find("older") == std::string::npos);
  EXPECT_TRUE(fresh.size() < 1000u && fresh.find("after rotation") != std::string::npos) << fresh;
}

TEST_F(LogTest, FileNameStaysWhenTheDirectoryChangesAndSecondFileTakesErrorsAndWarningsOnly) {
  char before[4096];
  ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
  ASSERT_EQ(chdir("/tmp"), 0);
  QWARN("LogTest::Cwd", "written after chdir");
  ASSERT_EQ(chdir(before), 0);
  EXPECT_STREQ(qlogGetFileName(), log_.c_str());
  EXPECT_NE(ReadFile(log_).find("written after chdir"), std::string::npos);

  ASSERT_TRUE(qlogOpenSecondFile());
  QWARN("LogTest::Second", "warned %d", 1);
  QINFO("LogTest::Second", "informed");
  // A line the log file cannot take does not reach the second file either.
  qlogSetFileName((dir_ + "/missing/QLOG.txt").c_str());
  QWARN("LogTest::Second", "unlogged");
  qlogSetFileName(log_.c_str());
  qlogCloseSecondFile();
  std::string second = ReadFile(dir_ + "/QLOG_LAST.txt");
  EXPECT_NE(second.find(" (WARN): warned 1 [WARN,qmessage_test.cpp:"), std::string::npos) << second;
  EXPECT_EQ(second.find("informed"), std::string::npos);
  EXPECT_EQ(second.find("unlogged"), std::string::npos) << second;
}

TEST_F(LogTest, ConcurrentWritersNeitherInterleaveNorLose) {
  constexpr int kThreads = 4, kEach = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) QWARN("LogTest::Threads", "thread %d message %d end", t, i);
    });
  for (auto& th : threads) th.join();
  // Exactly one message per line, complete.
  const auto lines = Lines(log_);
  EXPECT_EQ(CountContaining(lines, "LogTest::Threads"), kThreads * kEach);
  for (auto& l : lines)
    EXPECT_TRUE(l.find("LogTest::Threads") == l.npos ||
                (CountContaining({l}, "thread ") == 1 && l.find(" end [WARN,") != l.npos)) << l;
}

TEST_F(LogTest, ABoxThatCannotBeShownLeavesItsTitleAndTextOnStandardErrorAndInTheLog) {
  ScopedEnv display("DISPLAY", nullptr), wayland("WAYLAND_DISPLAY", nullptr);
  const std::string note = "Message box 'Fatal error - the program will exit' could not be "
                           "shown: no font here";
  {
    ScopedEnv quiet("GLIMRA_NO_MESSAGEBOX", nullptr);
    testing::internal::CaptureStderr();
    qlogwrite(QLOG_FATAL | QLOG_BOX, nullptr, "no font here");
    EXPECT_NE(testing::internal::GetCapturedStderr().find(note), std::string::npos);
    EXPECT_EQ(CountContaining(Lines(log_), "(NOTE ): [-] " + note), 1) << ReadFile(log_);
  }
  // Boxes switched off on purpose stay silent.
  ScopedEnv quiet("GLIMRA_NO_MESSAGEBOX", "1");
  qlogwrite(QLOG_ERR | QLOG_BOX, "Caption", "switched off");
  EXPECT_EQ(CountContaining(Lines(log_), "could not be shown: switched off"), 0);
}

using LogDeathTest = LogTest;

TEST_F(LogDeathTest, FatalLogsThenCrashesAndFatalExitEndsWithCodeZero) {
  EXPECT_DEATH(qfatal("Can't create font %d", 0), "");
  EXPECT_EXIT(qfatalexit("leaving"), ::testing::ExitedWithCode(0), "");
  const std::string text = ReadFile(log_);
  for (const char* line : {"(FATAL): [-] Can't create font 0", "Going to crash, reason: qfatal",
                           "(FATAL): [-] leaving"})
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
}

}  // namespace
