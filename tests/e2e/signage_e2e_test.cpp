// glimra as a sign, from outside on its own 800 x 600 X server: pictures that change by
// themselves (a bad one skipped, a key restarting the count), a fade that blends and then lets
// the machine rest, and the remote steps of the command channel.
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "support/e2e.h"
#include "support/tempdir.h"

namespace {

using Clock = std::chrono::steady_clock;
using e2e::Program;
using e2e::Screen;

constexpr int kStartMs = 30000;  // software GL under the sanitizers is slow to come up
constexpr int kStepMs = 10000;
using e2e::Is;
using e2e::kBlue;
using e2e::kGreen;
using e2e::kRed;

bool Uniform(const std::string& path, uint32_t c) {
  return e2e::WritePicture(path, 40, 30, [c](int, int) { return c; });
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Processor time the process has used, in clock ticks (user and system).
long CpuTicks(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  long user = 0, system = 0;
  if (close == std::string::npos ||
      sscanf(stat.c_str() + close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user,
             &system) != 2)
    return -1;
  return user + system;
}

class SignageE2E : public e2e::ScreenTest<800, 600> {
 protected:
  // Prepares a show of red a.tga, green b.tga and blue c.tga with `key`=`value`.
  void Prepare(Program* p, const char* key, const char* value) {
    ASSERT_TRUE(p->Prepare(e2e::FreeUdpPort()));
    ASSERT_TRUE(p->SetKey(key, value));
    ASSERT_TRUE(Uniform(p->Path("a.tga"), kRed) && Uniform(p->Path("b.tga"), kGreen) &&
                Uniform(p->Path("c.tga"), kBlue));
  }
  // Waits until the program's glimra.ini holds `key`=`value`.
  static bool Saved(const Program& p, const char* key, const char* value) {
    for (auto end = Clock::now() + std::chrono::milliseconds(kStepMs); Clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(20)))
      if (p.Key(key) == value) return true;
    return false;
  }
  bool Shows(uint32_t want, int ms = kStepMs) {
    return e2e::WaitForScreen([&](const Screen& s) { return Is(s.At(400, 300), want); }, ms,
                              &screen_);
  }
  Screen screen_;
};

TEST_F(SignageE2E, AdvanceCyclesThePicturesSkipsABadOneAndAKeyRestartsTheCount) {
  Program p;
  Prepare(&p, "effects.advance_seconds", "1");
  // Between green and blue in the listing: skipped, logged as any failed load.
  ASSERT_TRUE(WriteFile(p.Path("b_bad.jpg"), "not a picture"));
  ASSERT_TRUE(p.Start());
  ASSERT_TRUE(Shows(kRed, kStartMs)) << p.Log();
  // By themselves, in order, round to the first again.
  for (uint32_t next : {kGreen, kBlue, kRed}) ASSERT_TRUE(Shows(next, 5000)) << p.Log();
  EXPECT_TRUE(p.WaitForLog("Can't load image (b_bad.jpg)", kStepMs));

  // Red just came: a key half-way through its second starts the count again, so red is still
  // there 1.2 s after it came (without the key, green would be).
  const auto came = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_TRUE(p.Keys("x", 0));
  while (Clock::now() < came + std::chrono::milliseconds(1200)) {
    ASSERT_TRUE(e2e::GrabScreen(&screen_));
    ASSERT_TRUE(Is(screen_.At(400, 300), kRed)) << std::hex << screen_.At(400, 300);
  }
  EXPECT_TRUE(Shows(kGreen, 5000));
  ASSERT_TRUE(p.Keys("Escape"));
  EXPECT_EQ(p.WaitExit(kStepMs), 0);
}

TEST_F(SignageE2E, AFolderOfBadPicturesIsTriedNoFasterThanTheInterval) {
  Program p;
  ASSERT_TRUE(p.Prepare(e2e::FreeUdpPort()));
  ASSERT_TRUE(p.SetKey("effects.advance_seconds", "0.5"));
  ASSERT_TRUE(WriteFile(p.Path("a.jpg"), "not a picture") &&
              WriteFile(p.Path("b.jpg"), "no picture either"));
  ASSERT_TRUE(p.Start());
  ASSERT_TRUE(p.WaitForLog("Can't load image (b.jpg)", kStartMs)) << p.Log();
  const long before = CpuTicks(p.Pid());
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_LE((CpuTicks(p.Pid()) - before) * 1000 / sysconf(_SC_CLK_TCK), 100);
  ASSERT_TRUE(p.Send("next"));  // still answering
  ASSERT_TRUE(p.Keys("Escape"));
  EXPECT_EQ(p.WaitExit(kStepMs), 0);
}

TEST_F(SignageE2E, FadeBlendsThePicturesThenTheProgramRests) {
  Program p;
  Prepare(&p, "effects.fade_ms", "300");
  ASSERT_TRUE(p.Start());
  ASSERT_TRUE(Shows(kRed, kStartMs)) << p.Log();
  ASSERT_TRUE(p.Send("next"));
  // Some frame on the way holds both: red and green each clearly present, neither whole.
  std::string seen;
  const auto blend = [&seen](const Screen& s) {
    const uint32_t c = s.At(400, 300);
    char hex[16];
    snprintf(hex, sizeof(hex), "%06x ", unsigned(c));
    seen += hex;
    return e2e::R(c) > 40 && e2e::R(c) < 200 && e2e::G(c) > 40 && e2e::G(c) < 200;
  };
  EXPECT_TRUE(e2e::WaitForScreen(blend, 3000, &screen_)) << "seen: " << seen;
  ASSERT_TRUE(Shows(kGreen));

  // After the fade nothing is drawn: well under 1 % of a core over two seconds.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const long before = CpuTicks(p.Pid());
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const long used = CpuTicks(p.Pid()) - before;
  ASSERT_GE(before, 0);
  EXPECT_LE(used * 1000 / sysconf(_SC_CLK_TCK), 20) << used << " ticks";
  ASSERT_TRUE(p.Keys("Escape"));
  EXPECT_EQ(p.WaitExit(kStepMs), 0);
}

TEST_F(SignageE2E, RemoteStepsEffectsAndRescanAndNothingElse) {
  Program p;
  Prepare(&p, "effects.show_info", "0");
  ASSERT_TRUE(p.Start());
  ASSERT_TRUE(Shows(kRed, kStartMs)) << p.Log();
  ASSERT_TRUE(p.Send("next\n"));  // as a shell's echo sends it
  ASSERT_TRUE(Shows(kGreen));
  ASSERT_TRUE(p.Send("prev"));
  ASSERT_TRUE(Shows(kRed));

  // Near misses change nothing: once the good one after them is handled, they were too.
  const size_t loads = Count(p.Log(), "Load times (");
  for (const char* junk : {"NEXT", "next2", "next ", "bw", "bw 2", "info"}) ASSERT_TRUE(p.Send(junk));
  ASSERT_TRUE(p.Send("info 1"));
  EXPECT_TRUE(Saved(p, "effects.show_info", "1"));
  EXPECT_TRUE(Is(screen_.At(400, 300), kRed));
  EXPECT_EQ(p.Key("effects.black_and_white"), "0");
  EXPECT_EQ(Count(p.Log(), "Load times ("), loads);

  // Red in grey (the exact weights are checked elsewhere).
  ASSERT_TRUE(p.Send("bw 1"));
  ASSERT_TRUE(e2e::WaitForScreen(
      [](const Screen& s) {
        const uint32_t c = s.At(400, 300);
        return e2e::R(c) > 40 && e2e::Near(c, e2e::R(c), e2e::R(c), e2e::R(c), 2);
      },
      kStepMs, &screen_))
      << std::hex << screen_.At(400, 300);
  EXPECT_TRUE(Saved(p, "effects.black_and_white", "1"));
  ASSERT_TRUE(p.Send("bw 0"));
  ASSERT_TRUE(Shows(kRed));
  EXPECT_TRUE(Saved(p, "effects.black_and_white", "0"));
  ASSERT_TRUE(p.Send("info 0"));
  EXPECT_TRUE(Saved(p, "effects.show_info", "0"));

  // A picture that came after the start joins at its place in the listing with a rescan.
  ASSERT_TRUE(Uniform(p.Path("a2.tga"), kBlue));
  ASSERT_TRUE(p.Send("next"));
  ASSERT_TRUE(Shows(kGreen));
  ASSERT_TRUE(p.Send("prev"));
  ASSERT_TRUE(Shows(kRed));
  ASSERT_TRUE(p.Send("rescan"));
  ASSERT_TRUE(p.Send("next"));
  ASSERT_TRUE(Shows(kBlue));
  ASSERT_TRUE(p.Keys("Escape"));
  EXPECT_EQ(p.WaitExit(kStepMs), 0);
}

}  // namespace
