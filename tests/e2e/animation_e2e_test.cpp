// Animations on an 800 x 600 X server: frames at their times, the advance at the loop's end, the
// processor time they cost, and a still afterwards that lets the program sleep. The GIF's middle
// shows red 300 ms, green 200, black 400 (100 + 300); the WebP's red 300, green 200, blue 100.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/e2e.h"
// After the test framework, whose names X's macros (None) would spoil.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

using namespace e2e;
using Clock = std::chrono::steady_clock;

// One pixel (0xRRGGBB) straight from the X server, as xwd is too slow to time 100 ms frames.
uint32_t PixelAt(Display* display, int x, int y) {
  XImage* image = display ? XGetImage(display, DefaultRootWindow(display), x, y, 1, 1, AllPlanes,
                                      ZPixmap)
                          : nullptr;
  if (!image) return 0xFFFFFFFF;
  const uint32_t c = uint32_t(XGetPixel(image, 0, 0)) & 0xFFFFFF;
  XDestroyImage(image);
  return c;
}

// One look at the screen: what its middle showed, when, and the program's counters then.
struct Sample {
  double ms;
  char colour;  // R, G, B, K (black), W (the still's white), ? (between)
  long cpuMs, wakes;
};

char ColourOf(uint32_t c) {
  const struct {
    uint32_t rgb;
    char name;
  } kKnown[] = {{0xDC1E1E, 'R'}, {0x1EC83C, 'G'}, {0x283CDC, 'B'}, {0x000000, 'K'}, {kWhite, 'W'}};
  for (const auto& k : kKnown)
    if (Is(c, k.rgb)) return k.name;
  return '?';
}

// A run of samples of one colour; each end is known within the time since the sample before it.
struct Stretch {
  char colour;
  double from, to, slackFrom, slackTo;
  double Length() const { return to - from; }
  double Slack() const { return std::max(slackFrom, slackTo); }
};

std::vector<Stretch> Runs(const std::vector<Sample>& samples) {
  std::vector<Stretch> runs;
  double before = 0;
  for (const Sample& s : samples) {
    const double slack = s.ms - before;
    before = s.ms;
    if (s.colour == '?' || (!runs.empty() && runs.back().colour == s.colour)) continue;
    if (!runs.empty()) runs.back().to = s.ms, runs.back().slackTo = slack;
    runs.push_back({s.colour, s.ms, s.ms, slack, 0});
  }
  return runs;
}

using AnimationE2E = ScreenTest<800, 600>;

TEST_F(AnimationE2E, FramesAtTheirTimesAdvanceAtTheLoopsEndAndAStillSleeps) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("effects.advance_seconds", "2"));
  ASSERT_TRUE(WriteFile(p.Path("a.gif"), ReadFile(kTestImages + "frames.gif")));
  ASSERT_TRUE(WriteFile(p.Path("b.webp"), ReadFile(kTestImages + "frames.webp")));
  ASSERT_TRUE(Uniform(p.Path("c.tga"), kWhite));
  ASSERT_TRUE(p.Start());
  ASSERT_FALSE(p.WindowId(kStartMs).empty()) << p.Log();

  // The middle of the screen, as often as it can be read, until the still has had its turn.
  std::vector<Sample> samples;
  const auto start = Clock::now();
  const std::unique_ptr<Display, int (*)(Display*)> display(XOpenDisplay(nullptr), XCloseDisplay);
  double stillFrom = -1;
  for (;;) {
    const uint32_t middle = PixelAt(display.get(), 400, 300);
    ASSERT_NE(middle, 0xFFFFFFFF);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    samples.push_back({ms, ColourOf(middle), CpuMs(p.Pid()), Wakes(p.Pid())});
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (stillFrom < 0 && samples.back().colour == 'W') stillFrom = ms;
    if ((stillFrom >= 0 && ms > stillFrom + 1800) || ms > 20000) break;
  }
  ASSERT_GE(stillFrom, 0) << "the still never came";
  const std::vector<Stretch> runs = Runs(samples);
  std::string seen;
  for (const Stretch& r : runs) seen += r.colour;
  // GIF: R G K (a blue middle would be the WebP); then the WebP: R G B; then the still.
  const size_t firstBlue = seen.find('B');
  ASSERT_NE(firstBlue, std::string::npos) << seen;
  ASSERT_GE(firstBlue, 2u);
  const size_t webpFrom = firstBlue - 2;  // its first red
  ASSERT_EQ(seen.substr(webpFrom, 3), "RGB") << seen;
  const size_t stillAt = seen.find('W');
  int checked = 0;
  // The last run of each picture ends when the next one is loaded and drawn.
  const size_t gifStart = seen.find('R');  // the screen is black before the first picture
  for (size_t i = gifStart; i + 1 < stillAt; ++i) {
    const Stretch& r = runs[i];
    if (i + 1 == webpFrom) continue;
    const bool gif = i < webpFrom;
    const double want = r.colour == 'R' ? 300 : r.colour == 'G' ? 200 : r.colour == 'K' ? 400 : 100;
    // A frame is drawn within a few display frames of its time on a busy machine.
    EXPECT_NEAR(r.Length(), want, r.Slack() + 40)
        << (gif ? "GIF " : "WebP ") << r.colour << " at " << r.from << " ms in " << seen;
    ++checked;
  }
  EXPECT_GE(checked, 8) << seen;

  // The 2 s interval ends in the GIF's third 900 ms loop, played to its end; the WebP's first
  // blue comes 500 ms later. An advance that did not wait would come 700 ms sooner.

  const double gifFrom = runs[gifStart].from;
  EXPECT_NEAR(runs[firstBlue].from - gifFrom, 3200, 150) << seen;
  const double webpLoops = runs[stillAt].from - runs[webpFrom].from;
  EXPECT_NEAR(webpLoops, 2400, 150) << "four loops of 600 ms, the last one played to its end";

  // Processor time while the GIF plays (its second and third loop) and while the still shows.
  const auto at = [&samples](double ms) {
    return *std::find_if(samples.begin(), samples.end(),
                         [ms](const Sample& x) { return x.ms >= ms; });
  };
  const Sample a0 = at(gifFrom + 900), a1 = at(gifFrom + 2600);
  const double playingMsPerS = (a1.cpuMs - a0.cpuMs) * 1000.0 / (a1.ms - a0.ms);
  const Sample s0 = at(stillFrom + 400), s1 = at(stillFrom + 1800);
  printf("while the GIF plays: %.0f ms of processor time a second; still: %ld ms and %ld wakes "
         "in %.0f ms\n", playingMsPerS, s1.cpuMs - s0.cpuMs, s1.wakes - s0.wakes, s1.ms - s0.ms);
  EXPECT_LE(playingMsPerS, 500) << "an animation of 64 x 48 pixels";
  EXPECT_LE(s1.cpuMs - s0.cpuMs, 20) << "the still";
  EXPECT_LE(s1.wakes - s0.wakes, 2) << "the still";

  // Steps away from an animation in the middle of its frames, then leaves.
  ASSERT_TRUE(Shows(kRed, kStepMs));
  std::this_thread::sleep_for(std::chrono::milliseconds(350));
  ASSERT_TRUE(p.Send("next") &&
              Sees([](const e2e::Screen& x) { return ColourOf(x.At(400, 300)) == 'B'; }));
  ASSERT_TRUE(p.Send("next") && Shows(kWhite));
  ASSERT_TRUE(p.Keys("Escape"));
  p.ExpectOrderlyExit(0);
}

}  // namespace
