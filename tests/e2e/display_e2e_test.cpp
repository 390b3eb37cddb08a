// The display's power: the schedule's edges cross in real time (the program's wall clock moved by
// GLIMRA_DEV_CLOCK_SHIFT to seconds before one), "display off"/"display on" datagrams and a key,
// what the dark screen costs, and datagrams of a sender network.allow does not list.
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "support/e2e.h"

namespace {

using namespace e2e;

class DisplayE2E : public ScreenTest<640, 480> {
 protected:
  void TearDown() override { unsetenv("GLIMRA_DEV_CLOCK_SHIFT"); }

  // Red a.tga and green b.tga advancing every second (so that a load while dark would show in
  // the log) under `hours`; started `lead` seconds before the program's clock reaches the next
  // 10:00 local time.
  void Start(Program* p, const char* hours, int lead, const char* allow = "") {
    ASSERT_TRUE(p->Prepare() && p->SetKey("display.schedule", hours) &&
                p->SetKey("effects.advance_seconds", "1") && p->SetKey("network.allow", allow));
    ASSERT_TRUE(Uniform(p->Path("a.tga"), kRed) && Uniform(p->Path("b.tga"), kGreen));
    const time_t now = time(nullptr);
    struct tm t;
    localtime_r(&now, &t);
    t.tm_mday += 1, t.tm_hour = 10, t.tm_min = 0, t.tm_sec = 0, t.tm_isdst = -1;
    edge_ = std::chrono::steady_clock::now() + std::chrono::seconds(lead);
    setenv("GLIMRA_DEV_CLOCK_SHIFT", std::to_string(mktime(&t) - now - lead).c_str(), 1);
    ASSERT_TRUE(p->Start());
  }
  bool Dark(int ms = kStepMs) { return Shows(0x000000, ms); }
  bool Lit(int ms = kStepMs) {
    return Sees(
        [](const Screen& s) { return Is(s.At(320, 240), kRed) || Is(s.At(320, 240), kGreen); }, ms);
  }
  // The monitor's power as the X server reports it; "" when the server has no DPMS.
  static std::string Monitor() {
    const std::string q = Capture("xset q 2>/dev/null");
    const size_t at = q.find("Monitor is ");
    return at == std::string::npos ? "" : q.substr(at + 11, q.find('\n', at) - at - 11);
  }
  std::chrono::steady_clock::time_point edge_;
};

TEST_F(DisplayE2E, TheEdgeDarkensTheScreenAtNoCostAndTheNextBringsThePictureBack) {
  {
    Program p;
    ASSERT_NO_FATAL_FAILURE(Start(&p, "09:00-10:00", 6));
    ASSERT_TRUE(Lit(kStartMs)) << p.Log();
    ASSERT_TRUE(std::chrono::steady_clock::now() < edge_) << "started too slowly to see the edge";
    ASSERT_TRUE(p.WaitForLog("Display off (schedule)", 10000)) << p.Log();
    EXPECT_TRUE(std::chrono::steady_clock::now() >= edge_ - std::chrono::milliseconds(1500));
    EXPECT_TRUE(Dark(3000));
    const std::string power = Monitor();
    if (power.empty()) {
      // Xvfb has no DPMS; the program says so and the black frame is all.
      EXPECT_TRUE(p.WaitForLog("No monitor power control", 2000)) << p.Log();
      RecordProperty("dpms", "the X server has no DPMS extension");
    } else {
      EXPECT_EQ(power, "Off");
    }
    // Dark and idle: no load although the advance would step every second, and the processor
    // all but untouched.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int loads = Count(p.Log(), "Load times (");
    const long cpu = CpuMs(p.Pid());
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const long used = CpuMs(p.Pid()) - cpu;
    EXPECT_LT(used, 30) << "ms of processor time in 3 s while dark";
    RecordProperty("dark_cpu_ms_in_3s", std::to_string(used));
    EXPECT_EQ(Count(p.Log(), "Load times ("), loads);
    EXPECT_TRUE(Dark(0));
    EXPECT_EQ(p.Escape(), 0);
  }
  // Started outside the hours: dark from the start, nothing decoded until the edge.
  Program p;
  ASSERT_NO_FATAL_FAILURE(Start(&p, "10:00-11:00", 5));
  ASSERT_TRUE(p.WaitForLog("Display off (schedule)", kStartMs)) << p.Log();
  ASSERT_TRUE(Dark(kStartMs));
  ASSERT_TRUE(std::chrono::steady_clock::now() < edge_) << "started too slowly to see the edge";
  EXPECT_EQ(Count(p.Log(), "Load times ("), 0) << p.Log();
  ASSERT_TRUE(Lit(10000)) << p.Log();
  EXPECT_TRUE(std::chrono::steady_clock::now() >= edge_ - std::chrono::milliseconds(1500));
  EXPECT_TRUE(p.WaitForLog("Display on (schedule)", 1000));
  if (!Monitor().empty()) {
    EXPECT_EQ(Monitor(), "On");
  }
  EXPECT_EQ(p.Escape(), 0);
}

TEST_F(DisplayE2E, CommandsAndKeysHoldUntilTheNextEdgeAndAStrangersDatagramsAreDropped) {
  Program p;
  // The listed sender is 127.0.0.1; 127.0.0.2 on the same machine is a stranger.
  ASSERT_NO_FATAL_FAILURE(Start(&p, "09:00-10:00", 11, "192.168.0.1, 127.0.0.1/32"));
  ASSERT_TRUE(Lit(kStartMs)) << p.Log();
  ASSERT_TRUE(p.Send("display off"));
  ASSERT_TRUE(Dark());
  EXPECT_TRUE(p.WaitForLog("Display off (command)", 1000));
  // Inside the hours a command holds the screen dark; a stranger's datagrams, even one that would
  // end the program, do nothing and are warned about once a minute.
  const auto stranger = [&p](const std::string& b) { return SendUdp(p.Port(), b, "127.0.0.2"); };
  ASSERT_TRUE(stranger("display on") && stranger(std::string(1024, 'x')) && stranger("next"));
  ASSERT_TRUE(
      p.WaitForLog("Datagram from 127.0.0.2 dropped: the sender is not in network.allow", kStepMs))
      << p.Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  ASSERT_TRUE(stranger("display on"));
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  EXPECT_TRUE(Dark(0));
  EXPECT_EQ(Count(p.Log(), "Datagram from 127.0.0.2 dropped"), 1) << p.Log();
  EXPECT_EQ(Count(p.Log(), "bytes (next)") + Count(p.Log(), "is too long"), 0) << p.Log();
  ASSERT_TRUE(p.Send("display on\n"));
  ASSERT_TRUE(Lit()) << p.Log();
  ASSERT_TRUE(std::chrono::steady_clock::now() < edge_) << "started too slowly to see the edge";
  // The edge ends the hold: dark by the schedule.
  ASSERT_TRUE(p.WaitForLog("Display off (schedule)", 15000)) << p.Log();
  ASSERT_TRUE(Dark());
  // A key wakes it (and does nothing else); it stays on until the next edge, past this test.
  ASSERT_TRUE(p.Keys("Right", 0));
  ASSERT_TRUE(Lit()) << p.Log();
  EXPECT_TRUE(p.WaitForLog("Display on (key)", 1000));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_TRUE(Lit(0));
  EXPECT_EQ(Count(p.Log(), "Datagram from 127.0.0.1 dropped"), 0);
  EXPECT_EQ(p.Escape(), 0);
}

}  // namespace
