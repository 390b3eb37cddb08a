// glimra left alone for months: kills during settings writes, stop signals, the fatal-error box,
// a read-only glimra.ini, and starts at the same moment.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

#include "framework/qini.h"
#include "support/e2e.h"

namespace {

using namespace e2e;

// A picture the program can show, so that every start runs the whole show.
bool AddPicture(const Program& p) { return Uniform(p.Path("a.tga"), kRed); }

// "R", "S", "Z", ... of process `pid`; "" when it is gone. The parent's id into `ppid`.
std::string State(pid_t pid, pid_t* ppid = nullptr) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return "";
  char state = 0;
  long parent = 0;
  if (sscanf(stat.c_str() + close + 1, " %c %ld", &state, &parent) != 2) return "";
  if (ppid) *ppid = pid_t(parent);
  return std::string(1, state);
}

// A process whose parent is `pid`, within `ms`; 0 when none shows up.
pid_t WaitForChild(pid_t pid, int ms) {
  pid_t found = 0;
  Poll(ms, [&] {
    for (const auto& e : std::filesystem::directory_iterator("/proc")) {
      const pid_t child = atoi(e.path().filename().c_str());  // 0: not a process
      pid_t parent = 0;
      if (child > 0 && State(child, &parent) != "" && parent == pid) return (found = child) > 0;
    }
    return false;
  });
  return found;
}

using UnattendedE2E = ScreenTest<800, 600>;

TEST_F(UnattendedE2E, KillDuringFastEffectKeysNeverLeavesACutSettingsFile) {
  std::mt19937 random(12);
  int written = 0;
  // A kill tells nothing to the sanitizers, whose slow starts would make this the longest test.
#if defined(__SANITIZE_ADDRESS__)
  // ... and whose slow key handling needs a longer while before the kill to have written.
  constexpr int kRounds = 20, kKillWithinMs = 1200;
#else
  constexpr int kRounds = 50, kKillWithinMs = 400;
#endif
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Program p;
    ASSERT_TRUE(p.Prepare() && p.SetKey("dev.idle_sleep_ms", "2") && AddPicture(p) && p.Start());
    ASSERT_FALSE(p.WindowId(kStartMs).empty()) << p.Log();
    std::string keys;
    for (int i = 0; i < 40; ++i) keys += i % 2 ? " c" : " b";
    // Typing goes on while the program dies; xdotool then fails, which is expected.
    std::thread typist([&p, keys] { p.Keys(keys, 4); });
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % kKillWithinMs));
    kill(p.Pid(), SIGKILL);
    EXPECT_EQ(p.WaitExit(kStepMs), -2);
    typist.join();

    // Whole: both a key written by the program and one it never touched read back.
    QIni ini(p.Path("glimra.ini").c_str());
    ASSERT_TRUE(ini.IsFound());
    EXPECT_EQ(ini.GetInt("network.port", 0), p.Port());
    const std::string bw = p.Key("effects.black_and_white");
    EXPECT_TRUE(bw == "0" || bw == "1") << "'" << bw << "'";
    written += p.Log().find("Writing ini file") != std::string::npos;
  }
  // Otherwise the kills all came before the first key and proved nothing.
  EXPECT_GE(written, kRounds / 5);
}

// The over-long command's exit is the slideshow test's.
TEST_F(UnattendedE2E, StopSignalsLeaveThroughTheExitPath) {
  for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
    SCOPED_TRACE(strsignal(sig));
    Program p;
    ASSERT_TRUE(p.Prepare() && AddPicture(p) && p.Start());
    ASSERT_FALSE(p.WindowId(kStartMs).empty()) << p.Log();
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(p.Pid(), sig), 0);
    p.ExpectOrderlyExit(0);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, kStopWithin);
    EXPECT_NE(p.Log().find("Signal " + std::to_string(sig) + " ("), std::string::npos) << p.Log();
  }
}

// A fatal error with its message box up: the program without its font.
TEST_F(UnattendedE2E, FatalBoxGoesWithItsProgramEndsOnAStopClosesItselfWhenAskedReadOnlyIniSaid) {
  ScopedEnv boxes("GLIMRA_NO_MESSAGEBOX", nullptr);

  Program p;
  ASSERT_TRUE(p.Prepare() && AddPicture(p));
  const std::string fonts = p.Path("fonts"), away = p.Path("fonts-away");
  ASSERT_EQ(rename(fonts.c_str(), away.c_str()), 0);
  ASSERT_TRUE(p.Start());
  const pid_t box = WaitForChild(p.Pid(), kStartMs);
  ASSERT_NE(box, 0) << p.Log();
  kill(p.Pid(), SIGKILL);
  p.WaitExit(kStepMs);
  // Gone with its parent (at most an ended entry nobody has reaped yet).
  const auto gone = [](pid_t pid) {
    return Poll(2000, [pid] { return State(pid) == "" || State(pid) == "Z"; });
  };
  EXPECT_TRUE(gone(box)) << State(box);

  // A stop signal to the program alone, while its box waits for a click, ends both.
  for (const int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(sig));
    ASSERT_TRUE(p.Start());
    const pid_t waiting = WaitForChild(p.Pid(), kStartMs);
    ASSERT_NE(waiting, 0) << p.Log();
    const auto sent = std::chrono::steady_clock::now();
    kill(p.Pid(), sig);
    EXPECT_EQ(p.WaitExit(kStepMs), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, kStopWithin);
    EXPECT_TRUE(gone(waiting));
    const std::string said = "Signal " + std::to_string(sig) + " (" + strsignal(sig) + "): ending";
    EXPECT_EQ(Count(p.Log(), said), 1) << p.Log();
  }

  // A real start again (no hand-off to a box), on a read-only glimra.ini: an effect key still
  // shows, and the failed write is reported and changes nothing.
  ASSERT_EQ(rename(away.c_str(), fonts.c_str()), 0);
  const std::string before = p.ReadFile("glimra.ini");
  ASSERT_EQ(chmod(p.Path("glimra.ini").c_str(), 0444), 0);
  ASSERT_TRUE(p.Start() && Shows(kRed, kStartMs)) << p.Log();
  EXPECT_EQ(p.WaitExit(200), -1) << "it handed off and ended";
  ASSERT_TRUE(p.Keys("b"));
  EXPECT_TRUE(Sees([](const Screen& g) {
    const uint32_t c = g.At(400, 300);
    return Is(c, R(c) * 0x010101u, 0);
  }));
  EXPECT_TRUE(p.WaitForLog("Can't write " + p.Path("glimra.ini") + " (Permission denied)", kStepMs))
      << p.Log();
  EXPECT_EQ(p.ReadFile("glimra.ini"), before);
  kill(p.Pid(), SIGTERM);
  EXPECT_EQ(p.WaitExit(kStepMs), 0);
  ASSERT_EQ(chmod(p.Path("glimra.ini").c_str(), 0644), 0);

  // With dev.fatal_box_seconds the box closes itself and the program ends.
  ASSERT_EQ(rename(fonts.c_str(), away.c_str()), 0);
  ASSERT_TRUE(p.SetKey("dev.fatal_box_seconds", "1") && p.Start());
  ASSERT_NE(WaitForChild(p.Pid(), kStartMs), 0) << p.Log();
  const auto shown = std::chrono::steady_clock::now();
  EXPECT_NE(p.WaitExit(kStepMs), -1) << "still waiting for a click";
  EXPECT_GE(std::chrono::steady_clock::now() - shown, std::chrono::milliseconds(500));
  // It was shown, and said so.
  EXPECT_EQ(p.Log().find("could not be shown"), std::string::npos) << p.Log();
  EXPECT_NE(p.Log().find("closed itself after 1 s"), std::string::npos) << p.Log();
}

// Ten starts at once with a picture each, then a pair: one copy runs, the others hand over and
// end with 0; the winner alone clears what killed settings writes left beside glimra.ini.
TEST_F(UnattendedE2E, StartsAtTheSameMomentLeaveExactlyOneCopyThatTakesTheOthersPictures) {
  Program p;
  ASSERT_TRUE(p.Prepare());
  const uint32_t colours[10] = {kRed,     kGreen,   kBlue,    kWhite,   0xDCDC14,
                                0x14DCDC, 0xDC14DC, 0x808080, 0xDC7814, 0x7814DC};
  std::vector<std::string> pictures;
  for (int i = 0; i < 10; ++i) {
    pictures.push_back(p.Path("g" + std::to_string(i) + ".tga"));
    ASSERT_TRUE(Uniform(pictures.back(), colours[i]));
  }
  const char* stale[] = {"glimra.ini.Ab3xZ9", "glimra.ini.q0LmWz"};
  const char* kept[] = {"glimra.ini.bak", "glimra.ini.Ab3xZ9x", "glimra.ini.Ab3-Z9",
                        "glimra.iniAb3xZ9", "other.ini.Ab3xZ9"};
  for (const char* name : stale) ASSERT_TRUE(WriteFile(p.Path(name), "app\n{\n"));
  for (const char* name : kept) ASSERT_TRUE(WriteFile(p.Path(name), "keep"));

  // Starts `args.size()` copies at once; answers the one that still runs when all others ended
  // with 0 (null, with a failure, otherwise).
  std::vector<std::unique_ptr<Program>> starts;
  const auto race = [&](const std::vector<const char*>& args) -> Program* {
    starts.clear();
    for (size_t i = 0; i < args.size(); ++i) starts.emplace_back(new Program);
    for (auto& s : starts) EXPECT_TRUE(s->MakeDir());
    for (size_t i = 0; i < args.size(); ++i)
      EXPECT_TRUE(starts[i]->Run(p.Path("glimra"),
                                 args[i] ? std::vector<std::string>{args[i]}
                                         : std::vector<std::string>{},
                                 "/"));
    std::vector<int> status(args.size(), -1);
    int ended = 0;
    Poll(kStartMs, [&] {
      for (size_t i = 0; i < args.size(); ++i)
        if (status[i] == -1 && (status[i] = starts[i]->WaitExit(0)) != -1) ++ended;
      return ended >= int(args.size()) - 1;
    });
    // Nothing else may come up late.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Program* running = nullptr;
    for (size_t i = 0; i < args.size(); ++i) {
      if (status[i] == -1) status[i] = starts[i]->WaitExit(0);
      if (status[i] == -1) {
        EXPECT_EQ(running, nullptr) << "two copies run";
        running = starts[i].get();
      } else {
        EXPECT_EQ(status[i], 0) << starts[i]->ReadFile("out.txt");
      }
    }
    EXPECT_NE(running, nullptr) << "none runs\n" << p.Log();
    EXPECT_EQ(RunningCopies(), 1);
    return running;
  };
  const auto stop = [](Program* running) {
    kill(running->Pid(), SIGTERM);
    EXPECT_EQ(running->WaitExit(kStepMs), 0);
  };

  std::vector<const char*> ten;
  for (const std::string& path : pictures) ten.push_back(path.c_str());
  Program* running = race(ten);
  ASSERT_NE(running, nullptr);
  // Nine hand-offs arrive as loads; the screen shows the picture of the last one.
  const std::string arrived = "bytes (load ";
  ASSERT_TRUE(p.WaitForLog(arrived, kStepMs, 9)) << p.Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const std::string log = p.Log();
  EXPECT_EQ(Count(log, arrived), 9) << log;
  const size_t last = log.rfind(arrived) + arrived.size();
  const std::string path = log.substr(last, log.find(')', last) - last);
  int shown = -1;
  for (int i = 0; i < 10; ++i)
    if (pictures[i] == path) shown = i;
  ASSERT_NE(shown, -1) << path;
  EXPECT_TRUE(Shows(colours[shown])) << path;
  for (const char* name : stale) EXPECT_FALSE(std::filesystem::exists(p.Path(name))) << name;
  for (const char* name : kept) EXPECT_TRUE(std::filesystem::exists(p.Path(name))) << name;
  stop(running);

  // A pair without pictures: a start without one has nothing to hand over.
  running = race({nullptr, nullptr});
  ASSERT_NE(running, nullptr);
  stop(running);
}

}  // namespace
