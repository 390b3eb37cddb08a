// glimra as a sign: automatic advance, pan and zoom, a fade that blends and then rests, the
// remote steps, a burst of them worked off at the cost of a few, and a stop in the middle of a
// flood.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

#include "support/e2e.h"

namespace {

using namespace e2e;
using Clock = std::chrono::steady_clock;

// What `pid` does over the next two seconds: processor time in ms, and its main thread's wakes.
struct Activity {
  long cpuMs = 0, wakes = 0;
};
Activity OverTwoSeconds(pid_t pid) {
  const Activity before{CpuMs(pid), Wakes(pid)};
  std::this_thread::sleep_for(std::chrono::seconds(2));
  return {CpuMs(pid) - before.cpuMs, Wakes(pid) - before.wakes};
}

class SignageE2E : public ScreenTest<800, 600> {
 protected:
  // Prepares a show of red a.tga, green b.tga and blue c.tga with `key`=`value`.
  void Prepare(Program* p, const char* key, const char* value) {
    ASSERT_TRUE(p->Prepare() && p->SetKey(key, value));
    ASSERT_TRUE(Uniform(p->Path("a.tga"), kRed) && Uniform(p->Path("b.tga"), kGreen) &&
                Uniform(p->Path("c.tga"), kBlue));
  }
};

TEST_F(SignageE2E, AdvanceCyclesThePicturesSkipsABadOneAKeyRestartsTheCountAndPauseHoldsIt) {
  Program p;
  Prepare(&p, "effects.advance_seconds", "1");
  // Between green and blue in the listing: skipped, logged as any failed load.
  ASSERT_TRUE(WriteFile(p.Path("b_bad.jpg"), "not a picture") && p.Start());
  ASSERT_TRUE(Shows(kRed, kStartMs)) << p.Log();
  // By themselves, in order, round to the first again.
  for (uint32_t next : {kGreen, kBlue, kRed}) ASSERT_TRUE(Shows(next, 5000)) << p.Log();
  EXPECT_TRUE(p.WaitForLog("Can't load image (b_bad.jpg)", kStepMs));

  // A key half-way through red's second starts the count again: red still shows 1.2 s after.
  const auto came = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_TRUE(p.Keys("x", 0));
  while (Clock::now() < came + std::chrono::milliseconds(1200)) {
    ASSERT_TRUE(GrabScreen(&screen_));
    ASSERT_TRUE(Is(screen_.At(400, 300), kRed)) << std::hex << screen_.At(400, 300);
  }
  EXPECT_TRUE(Shows(kGreen, 5000));

  // "pause" holds the advance (blue would come within a second) until "resume".
  ASSERT_TRUE(p.Send("pause") && p.WaitForLog("Advance paused", kStepMs));
  const auto held = Clock::now();
  while (Clock::now() < held + std::chrono::milliseconds(2000)) {
    ASSERT_TRUE(GrabScreen(&screen_));
    ASSERT_TRUE(Is(screen_.At(400, 300), kGreen)) << std::hex << screen_.At(400, 300);
  }
  ASSERT_TRUE(p.Send("resume"));
  EXPECT_TRUE(Shows(kBlue, 5000));
  EXPECT_EQ(p.Escape(), 0);
}

TEST_F(SignageE2E, PanAndZoomMovesThePictureInsideItsPlaceAndPauseHoldsItStill) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("effects.pan_zoom", "1") &&
              p.SetKey("effects.advance_seconds", "10") && p.SetKey("effects.show_info", "0"));
  // Portrait: its place is 450 x 600 in the middle, black beside it.
  ASSERT_TRUE(WritePicture(p.Path("a.jpg"), 300, 400, Photo) && p.Start());
  const auto framed = [](const Screen& s) {
    for (int y = 0; y < 600; ++y)
      for (int x = 0; x < 800; ++x) {
        const uint32_t c = s.At(x, y);
        // The photo's darkest pixel sums to 90.
        if (x >= 178 && x < 622 && R(c) + G(c) + B(c) < 60) return false;
        if ((x < 172 || x >= 628) && c != 0) return false;
      }
    return true;
  };
  // Pixels of the picture's place whose colour changed.
  const auto changed = [](const Screen& a, const Screen& b) {
    int n = 0;
    for (int y = 0; y < 600; ++y)
      for (int x = 178; x < 622; ++x) n += !Is(a.At(x, y), b.At(x, y), 8);
    return n;
  };
  ASSERT_TRUE(Sees(framed, kStartMs)) << p.Log();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  Screen before;
  ASSERT_TRUE(GrabScreen(&before));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  ASSERT_TRUE(GrabScreen(&screen_));
  EXPECT_TRUE(framed(before) && framed(screen_));
  const int moved = changed(before, screen_);
  EXPECT_GT(moved, 444 * 600 / 5);

  // Paused, it stands where it was, and nothing wakes the program.
  ASSERT_TRUE(p.Send("pause") && p.WaitForLog("Advance paused", kStepMs));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ASSERT_TRUE(GrabScreen(&before));
  const Activity held = OverTwoSeconds(p.Pid());
  ASSERT_TRUE(GrabScreen(&screen_));
  EXPECT_TRUE(framed(screen_));
  EXPECT_EQ(changed(before, screen_), 0);
  EXPECT_LE(held.wakes, 2);
  printf("pan and zoom: %d of %d pixels changed in a second; paused: %ld ms, %ld wakes in 2 s\n",
         moved, 444 * 600, held.cpuMs, held.wakes);
  EXPECT_EQ(p.Escape(), 0);
}

TEST_F(SignageE2E, AFolderOfBadPicturesIsTriedNoFasterThanTheInterval) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("effects.advance_seconds", "0.5"));
  ASSERT_TRUE(WriteFile(p.Path("a.jpg"), "not a picture") &&
              WriteFile(p.Path("b.jpg"), "no picture either"));
  ASSERT_TRUE(p.Start() && p.WaitForLog("Can't load image (b.jpg)", kStartMs)) << p.Log();
  // A loop that retried at once would burn most of the 2 s; four tries cost 20-70 ms alone and
  // up to 110 ms under the sanitizers beside other tests.
  EXPECT_LE(OverTwoSeconds(p.Pid()).cpuMs, 250);
  ASSERT_TRUE(p.Send("next"));  // still answering
  EXPECT_EQ(p.Escape(), 0);
}

TEST_F(SignageE2E, FadeBlendsThenRestsAndRemoteStepsEffectsAndRescanAndNothingElse) {
  Program p;
#if defined(__SANITIZE_ADDRESS__)
  // Long enough for the slow grabs of a sanitizer build to catch a frame of it.
  Prepare(&p, "effects.fade_ms", "1000");
#else
  Prepare(&p, "effects.fade_ms", "300");
#endif
  // A photo slow to decode, listed last; names enough to make each listing cost something.
  ASSERT_TRUE(WritePicture(p.Path("p.jpg"), 3000, 2000, Photo));
  for (int i = 0; i < 5000; ++i) std::ofstream(p.Path("n" + std::to_string(i) + ".txt"));
  ASSERT_TRUE(p.SetKey("effects.show_info", "0") && p.Start() && Shows(kRed, kStartMs)) << p.Log();
  // Sends the command and waits for the colour it brings.
  const auto step = [&](const char* cmd, uint32_t want) { return p.Send(cmd) && Shows(want); };
  ASSERT_TRUE(p.Send("next\n"));  // as a shell's echo sends it
  // Some frame on the way holds both: red and green each clearly present, neither whole.
  std::string seen;
  const auto blend = [&seen](const Screen& s) {
    const uint32_t c = s.At(400, 300);
    char hex[16];
    snprintf(hex, sizeof(hex), "%06x ", unsigned(c));
    seen += hex;
    return R(c) > 40 && R(c) < 200 && G(c) > 40 && G(c) < 200;
  };
  EXPECT_TRUE(Sees(blend, 3000)) << "seen: " << seen;
  ASSERT_TRUE(Shows(kGreen));
  // After the fade the loop sleeps until something happens: no wake without a cause (a periodic
  // one would make 20 in two seconds).
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const Activity rest = OverTwoSeconds(p.Pid());
  EXPECT_LE(rest.cpuMs, 20);
  EXPECT_LE(rest.wakes, 2);
  ASSERT_TRUE(step("prev", kRed));

  // A picture that came after the start joins at its place in the listing with a rescan.
  ASSERT_TRUE(Uniform(p.Path("a2.tga"), kBlue));
  ASSERT_TRUE(step("next", kGreen));
  ASSERT_TRUE(step("prev", kRed));
  ASSERT_TRUE(p.Send("rescan") && step("next", kBlue));

  // A burst (fewer than the socket holds) that one by one would decode the photo about a hundred
  // times; from grey with the information line it ends as its last commands ask: green b, in
  // colour, no information line.
  ASSERT_TRUE(p.Send("bw 1") && p.Send("info 1") && p.WaitForKey("effects.black_and_white", "1") &&
              p.WaitForKey("effects.show_info", "1"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const long cpuBefore = CpuMs(p.Pid());
  const char* mix[] = {"next",   "prev",   "bw 1", "load p.jpg", "rescan", "info 1",
                       "next\n", "bw 0",   "load c.tga", "info 0", "prev", "load p.jpg"};
  for (int i = 0; i < 20; ++i)
    for (const char* c : mix) ASSERT_TRUE(p.Send(c));
  ASSERT_TRUE(p.Send("load b.tga"));
  EXPECT_TRUE(Shows(kGreen)) << p.Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_TRUE(Is(screen_.At(400, 300), kGreen) && GrabScreen(&screen_) &&
              Is(screen_.At(400, 300), kGreen));
  const long burstMs = CpuMs(p.Pid()) - cpuBefore;
  const long long peakKb = ProcValue(p.Pid(), "status", "VmHWM:");
  EXPECT_EQ(p.Key("effects.black_and_white"), "0");
  EXPECT_EQ(p.Key("effects.show_info"), "0");
  EXPECT_LE(burstMs, 1500) << "processor time for 241 commands";
  EXPECT_GT(peakKb, 0);
  EXPECT_LE(peakKb, 400 * 1024) << "peak memory";
  printf("burst of 241 commands: %ld ms of processor time, peak %lld KB\n", burstMs, peakKb);

  // A stop in a flood of rescans ends the program within a second (the sanitizers' leak check
  // at the end takes longer by itself).
  std::atomic<bool> flooding{true};
  std::thread flood([&] {
    while (flooding) p.Send("rescan");
  });
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto stop = Clock::now();
  ASSERT_EQ(kill(p.Pid(), SIGTERM), 0);
  const int status = p.WaitExit(kStartMs);
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - stop);
  flooding = false;
  flood.join();
  EXPECT_EQ(status, 0);
  EXPECT_LT(took, kStopWithin) << "stop during a rescan flood";
  printf("stop during a rescan flood: %lld ms\n", static_cast<long long>(took.count()));
}

}  // namespace
