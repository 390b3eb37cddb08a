// The picture pipeline from outside, on a 1920 x 1080 X server: the screen against ImageMagick's
// resize, prefetched steps with the blurred sides, and a junk flood.
#include <chrono>
#include <cmath>
#include <thread>
#include <tuple>
#include <utility>

#include "support/e2e.h"

namespace {

using namespace e2e;

constexpr int kW = 1920, kH = 1080;
constexpr int kStepMs = 20000;  // a 24-megapixel decode under the sanitizers is slow

// Mean absolute difference per channel between the screen's w x kH rectangle from column x0 and
// ImageMagick's resize of `picture`, turned by `rotate` degrees; huge when ImageMagick fails.
double Difference(const Screen& s, int x0, int w, const std::string& picture, int rotate) {
  const std::string px = Capture("convert '" + picture + "' -rotate " + std::to_string(rotate) +
                                 " -resize " + std::to_string(w) + "x" + std::to_string(kH) +
                                 "! -depth 8 rgb:- 2>/dev/null");
  if (px.size() != size_t(w) * kH * 3) return 1e9;
  double sum = 0;
  for (int y = 0; y < kH; ++y)
    for (int x = 0; x < w; ++x) {
      const uint32_t c = s.At(x0 + x, y);
      const auto* p = reinterpret_cast<const unsigned char*>(&px[(size_t(y) * w + x) * 3]);
      sum += std::abs(R(c) - p[0]) + std::abs(G(c) - p[1]) + std::abs(B(c) - p[2]);
    }
  return sum / (3.0 * w * kH);
}

// The mean colour (0xRRGGBB, each channel rounded) of the sides a 720-wide picture leaves free,
// and there the mean difference of horizontal neighbours per channel: the detail left.
std::pair<uint32_t, double> Sides(const Screen& s) {
  double sum[3] = {}, step = 0, n = 0;
  for (int y = 20; y < kH - 20; ++y)
    for (int x0 : {20, 1340})
      for (int x = x0; x < x0 + 560; ++x, ++n) {
        const uint32_t c = s.At(x, y), left = s.At(x - 1, y);
        sum[0] += R(c), sum[1] += G(c), sum[2] += B(c);
        step += (std::abs(R(c) - R(left)) + std::abs(G(c) - G(left)) +
                 std::abs(B(c) - B(left))) / 3.0;
      }
  uint32_t mean = 0;
  for (double v : sum) mean = mean << 8 | uint32_t(v / n + 0.5);
  return {mean, step / n};
}

class PipelineE2E : public ScreenTest<kW, kH> {
 protected:
  static void SetUpTestSuite() {
    also_ = "convert";
    ScreenTest::SetUpTestSuite();
  }
  // A full-screen program on the whole server.
  void Prepare(Program* p) {
    ASSERT_TRUE(p->Prepare() && p->SetKey("resolution.width", std::to_string(kW).c_str()) &&
                p->SetKey("resolution.height", std::to_string(kH).c_str()) &&
                p->SetKey("effects.show_info", "0"));
  }
  // Waits until the log reports the load of `name` and the screen then holds still with
  // something at its centre (a loaded machine may take a while to draw the frame); the last grab
  // stays in screen_.
  bool Shown(Program* p, const std::string& name) {
    if (!p->WaitForLog("Load times (" + name, kStepMs)) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Screen before;
    GrabScreen(&screen_);
    return Poll(kStepMs, [&] {
      before = screen_;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      return GrabScreen(&screen_) && screen_.At(kW / 2, kH / 2) != 0 && screen_.rgb == before.rgb;
    });
  }
};

TEST_F(PipelineE2E, WhatIsShownLooksLikeAHighQualityResizeAndJunkDoesNotHoldUpACommand) {
  Program p;
  Prepare(&p);
  ASSERT_TRUE(WritePicture(p.Path("photo.jpg"), 6000, 4000, Photo));
  // The same photo stored turned: EXIF orientation 6 asks for a quarter turn clockwise.
  ASSERT_TRUE(WriteFile(p.Path("turned.jpg"), p.ReadFile("photo.jpg")));
  ASSERT_TRUE(SetJpegOrientation(p.Path("turned.jpg"), 6));

  // 3:2 in 1920 x 1080: 1620 x 1080 from x = 150; turned, 720 x 1080 from x = 600.
  const struct {
    const char *name, *source;
    int rotate, x, w;
  } cases[] = {{"photo.jpg", "photo.jpg", 0, 150, 1620},
               {"turned.jpg", "turned.jpg", 90, 600, 720}};
  ASSERT_TRUE(p.Start("photo.jpg"));
  for (const auto& c : cases) {
    ASSERT_TRUE(&c == cases || p.Send(std::string("load ") + c.name));
    ASSERT_TRUE(Shown(&p, c.name)) << p.Log();
    // Black beside the picture (the default background), picture at its edges.
    EXPECT_TRUE(Sees([&](const Screen& s) {
      return s.At(c.x - 1, kH / 2) == 0 && s.At(c.x + c.w, kH / 2) == 0 &&
             s.At(c.x, kH / 2) != 0 && s.At(c.x + c.w - 1, kH / 2) != 0;
    })) << c.name;
    EXPECT_LE(Difference(screen_, c.x, c.w, p.Path(c.source), c.rotate), 4.0) << c.name;
  }


  // A flood of junk datagrams does not hold up a real command.
  ASSERT_TRUE(Uniform(p.Path("white.jpg"), kWhite));
  for (int i = 0; i < 10000; ++i) ASSERT_TRUE(p.Send("junk " + std::to_string(i)));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  ASSERT_TRUE(p.Send("load white.jpg"));
  const auto sent = std::chrono::steady_clock::now();
  ASSERT_TRUE(Shows(kWhite));
  // Generous for a loaded machine; the channel used to stay jammed for half a minute.
  EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(5));
}

TEST_F(PipelineE2E, StepsUsePrefetchedPicturesWithTheirBlurredSides) {
  Program p;
  Prepare(&p);
  ASSERT_TRUE(p.SetKey("effects.background", "blur"));
  // Grain, so that each file is a few megabytes and a read of it cannot go unnoticed; portrait,
  // 720 x 1080 in the middle of the screen.
  const std::pair<const char*, uint32_t> files[] = {
      {"a.jpg", 0xC83232}, {"b.jpg", 0x32C832}, {"c.jpg", 0x3232C8}};
  for (const auto& [name, c] : files)
    ASSERT_TRUE(WritePicture(p.Path(name), 2000, 3000,
                             [c = c](int x, int y) { return c ^ (Photo(x, y) & 0x0F0F0F); }));
  ASSERT_GT(p.ReadFile("b.jpg").size(), 1000000u);
  ASSERT_TRUE(p.Start() && Shown(&p, "a.jpg")) << p.Log();
  // The picture's colour at 1 - 0.6 (the default blur_dim), without its grain.
  auto [colour, step] = Sides(screen_);
  EXPECT_TRUE(Is(colour, 0x501414, 12)) << std::hex << colour;
  EXPECT_LT(step, 1.0);
  // Time to decode b and c; a goes, so that the prefetch after the step has nothing to read.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  ASSERT_EQ(unlink(p.Path("a.jpg").c_str()), 0);
  // Bytes the program has read through read() so far.
  const long long before = ProcValue(p.Pid(), "io", "rchar:");
  ASSERT_TRUE(p.Keys("Right") && Shown(&p, "b.jpg")) << p.Log();
  EXPECT_TRUE(Is(screen_.At(kW / 2, kH / 2), 0x32C832));
  EXPECT_NE(p.Log().find("(prefetched)"), std::string::npos) << p.Log();
  EXPECT_GE(before, 0);
  EXPECT_LT(ProcValue(p.Pid(), "io", "rchar:") - before, 100000) << "bytes read by the step";
  std::tie(colour, step) = Sides(screen_);
  EXPECT_TRUE(Is(colour, 0x145014, 12)) << std::hex << colour;
  EXPECT_LT(step, 1.0);
}

}  // namespace
