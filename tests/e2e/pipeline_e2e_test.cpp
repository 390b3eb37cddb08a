// The picture pipeline from outside, on a 1920 x 1080 X server: the screen against ImageMagick's
// resize for every kind of picture, prefetched steps, replaced files and a junk flood.
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>
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

// The Photo pattern as a binary PPM.
bool WritePpm(const std::string& path, int w, int h) {
  std::string ppm = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint32_t c = Photo(x, y);
      ppm += {char(c >> 16), char(c >> 8), char(c)};
    }
  return WriteFile(path, ppm);
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
  // Waits until the log reports the load of `name`, then grabs the screen.
  bool Shown(Program* p, const std::string& name) {
    return p->WaitForLog("Load times (" + name, kStepMs) && (Settle(), GrabScreen(&screen_));
  }
  static void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }
};

TEST_F(PipelineE2E, WhatIsShownLooksLikeAHighQualityResizeAndJunkDoesNotHoldUpACommand) {
  Program p;
  Prepare(&p);
  ASSERT_TRUE(WritePicture(p.Path("photo.jpg"), 6000, 4000, Photo));
  // ImageMagick resizes the Targa's pixels from a PPM: it reads a Targa's row origin its own way.
  ASSERT_TRUE(WritePicture(p.Path("big.tga"), 3000, 2000, Photo));
  ASSERT_TRUE(WritePpm(p.Path("big.ppm"), 3000, 2000));
  // The same photo stored turned: EXIF orientation 6 asks for a quarter turn clockwise.
  ASSERT_TRUE(WriteFile(p.Path("turned.jpg"), p.ReadFile("photo.jpg")));
  ASSERT_TRUE(SetJpegOrientation(p.Path("turned.jpg"), 6));

  // 3:2 in 1920 x 1080: 1620 x 1080 from x = 150; turned, 720 x 1080 from x = 600.
  const struct {
    const char *name, *source;
    int rotate, x, w;
  } cases[] = {{"photo.jpg", "photo.jpg", 0, 150, 1620},
               {"turned.jpg", "turned.jpg", 90, 600, 720},
               {"big.tga", "big.ppm", 0, 150, 1620}};
  ASSERT_TRUE(p.Start("photo.jpg"));
  for (const auto& c : cases) {
    ASSERT_TRUE(&c == cases || p.Send(std::string("load ") + c.name));
    ASSERT_TRUE(Shown(&p, c.name)) << p.Log();
    EXPECT_LE(Difference(screen_, c.x, c.w, p.Path(c.source), c.rotate), 4.0) << c.name;
    // Black beside the picture, picture at its edges.
    for (int x : {c.x - 1, c.x + c.w}) EXPECT_EQ(screen_.At(x, kH / 2), 0u) << c.name << ' ' << x;
    for (int x : {c.x, c.x + c.w - 1}) EXPECT_NE(screen_.At(x, kH / 2), 0u) << c.name << ' ' << x;
  }

  // A phone panorama wider than any texture: decoded reduced, it runs over both sides.
  ASSERT_TRUE(WritePicture(p.Path("pano.jpg"), 30000, 1500,
                           [](int x, int) { return x < 15000 ? 0xC83232u : 0x3232C8u; }));
  ASSERT_TRUE(p.Send("load pano.jpg") && Shown(&p, "pano.jpg")) << p.Log();
  EXPECT_TRUE(Is(screen_.At(5, kH / 2), 0xC83232));
  EXPECT_TRUE(Is(screen_.At(kW - 5, kH / 2), 0x3232C8));
  EXPECT_EQ(p.Log().find("Can't load image"), std::string::npos) << p.Log();

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

TEST_F(PipelineE2E, StepsUsePrefetchedPicturesUnlessTheFileChanged) {
  Program p;
  Prepare(&p);
  // Grain, so that each file is a few megabytes and a read of it cannot go unnoticed.
  const std::pair<const char*, uint32_t> files[] = {
      {"a.jpg", 0xC83232}, {"b.jpg", 0x32C832}, {"c.jpg", 0x3232C8}};
  for (const auto& [name, c] : files)
    ASSERT_TRUE(WritePicture(p.Path(name), 3000, 2000,
                             [c = c](int x, int y) { return c ^ (Photo(x, y) & 0x0F0F0F); }));
  ASSERT_GT(p.ReadFile("b.jpg").size(), 1000000u);
  ASSERT_TRUE(p.Start() && Shown(&p, "a.jpg")) << p.Log();
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

  // c was prefetched as blue; replaced on disk by a white one, the step shows white.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  ASSERT_TRUE(WritePicture(p.Path("c.jpg"), 600, 400, [](int, int) { return 0xE6E6E6u; }));
  ASSERT_TRUE(p.Keys("Right") && Shown(&p, "c.jpg")) << p.Log();
  EXPECT_TRUE(Is(screen_.At(kW / 2, kH / 2), kWhite));
}

TEST_F(PipelineE2E, HeicAvifWebPGifAndTiffShowUpright) {
  Program p;
  Prepare(&p);
  // 64 x 48 quadrants, 1440 x 1080 from x = 240; "o6" files are stored turned and ask for
  // orientation 6 (TIFF tag, WebP EXIF), the "irot" HEIC turns by its own rotation box.
  const struct {
    const char *name, *source;
    int rotate;
  } cases[] = {{"quad.heic", "quad.heic", 0},      {"quad_irot.heic", "quad_irot.heic", 0},
               {"quad.avif", "quad.avif", 0},
               {"quad_o6.webp", "quad_o6.webp", 90}, {"quad.gif", "quad.gif", 0},
               {"quad_o6.tif", "quad_o6.tif", 90},
               // Display P3 as ImageMagick converts it; without its profile as stored.
               {"p3.jpg", "p3_jpg_ref.png", 0},      {"p3.png", "p3_png_ref.png", 0},
               {"p3_plain.jpg", "p3_plain.jpg", 0}};
  for (const auto& c : cases)
    for (const char* f : {c.name, c.source})
      ASSERT_TRUE(WriteFile(p.Path(f), ReadBytes(kTestImages + f)));
  ASSERT_TRUE(Uniform(p.Path("start.jpg"), kWhite));
  ASSERT_TRUE(p.Start("start.jpg") && Shown(&p, "start.jpg")) << p.Log();
  for (const auto& c : cases) {
    ASSERT_TRUE(p.Send(std::string("load ") + c.name));
    ASSERT_TRUE(Shown(&p, c.name)) << p.Log();
    EXPECT_LE(Difference(screen_, 240, 1440, p.Path(c.source), c.rotate), 4.0) << c.name;
    if (strncmp(c.name, "p3", 2) == 0) continue;
    // Red top left, yellow bottom right.
    EXPECT_TRUE(Is(screen_.At(240 + 360, 270), 0xDC1E1E, 16)) << c.name;
    EXPECT_TRUE(Is(screen_.At(240 + 1080, 810), 0xE6D228, 16)) << c.name;
  }
  EXPECT_EQ
(p.Log().find("Can't load image"), std::string::npos) << p.Log();
}

}  // namespace
