// Huge but legal PNGs: shown within the README's memory figure, and a stop during their decode
// in the main loop ends the program within a second with status 0.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <thread>

#include "support/e2e.h"

namespace {

using namespace e2e;

// The README's figure for the program's peak while it shows such a picture.
constexpr long long kPeakLimitKb = 300 << 10;

using DecodeE2E = ScreenTest<800, 600>;

TEST_F(DecodeE2E, HugePngsStayInTheMemoryLimitAndAStopDuringTheirDecodeEndsWithinASecond) {
  const std::string big = RepeatedRowsPng(16000, 16000, 8);
  const std::string slow = RepeatedRowsPng(16384, 16384, 16);
  ASSERT_LT(big.size() + slow.size(), 4u << 20);

  // The main loop's decode: a.jpg alone in the catalogue (nothing to prefetch).
  Program p;
  ASSERT_TRUE(p.Prepare() && Uniform(p.Path("a.jpg"), kRed));
  ASSERT_EQ(mkdir(p.Path("sub").c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(p.Path("sub/big.png"), big) && WriteFile(p.Path("sub/slow.png"), slow));
  ASSERT_TRUE(p.Start("a.jpg") && Shows(kRed, kStartMs)) << p.Log();
  ASSERT_TRUE(p.Send("load sub/big.png"));
  ASSERT_TRUE(p.WaitForLog("Load times (sub/big.png", 60000)) << p.Log();
  const long long peak = ProcValue(p.Pid(), "status", "VmHWM:");
  EXPECT_GT(peak, 0);
  EXPECT_LT(peak, kPeakLimitKb) << "kB at the peak";
  // The 16-bit one takes seconds to decode; the stop comes a moment into it.
  ASSERT_TRUE(p.Send("load sub/slow.png"));
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  // The slideshow released within a second (timed there, as the sanitizers' leak scan at exit
  // alone takes half a second), then status 0.
  const auto sent = std::chrono::steady_clock::now();
  ASSERT_EQ(kill(p.Pid(), SIGTERM), 0);
  EXPECT_TRUE(p.WaitForLog("RaceManager: released", kStartMs)) << p.Log();
  EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1)) << p.Log();
  EXPECT_EQ(p.WaitExit(kStartMs), 0);
  EXPECT_EQ(p.Log().find("Can't load image"), std::string::npos) << p.Log();
}

}  // namespace
