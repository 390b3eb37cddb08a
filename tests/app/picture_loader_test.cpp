// The loader's decode sizes (quad, turns, texture limit) and the prefetcher's hand-over.
#include "app/picture_loader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>
#include <vector>

#include "app/prefetcher.h"
#include "framework/qbitmap.h"
#include "support/e2e.h"
#include "support/tempdir.h"

namespace {

ScreenFit Window(int w, int h, int maxTexture = 0, double zoom = 1.0) {
  ScreenFit fit;
  fit.windowWidth = w, fit.windowHeight = h, fit.maxTexture = maxTexture, fit.zoom = zoom;
  fit.desktopAspect = 16.0 / 9.0;
  return fit;
}
// One of a portrait pair on a `w` x `h` window shaped like its desktop.
ScreenFit Half(int w, int h) {
  ScreenFit fit = Window(w, h);
  fit.desktopAspect = 0, fit.half = true;
  return fit;
}

// Waits (at most 10 s) until the prefetcher has `path` decoded.
bool Decoded(Prefetcher* pre, const std::string& path) {
  for (int i = 0; i < 1000 && !pre->Ready(path); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return pre->Ready(path);
}

// The quad's size in stored directions (times the zoom), within the picture and the texture
// limit; irot not redone.
TEST(LoadPicture, DecodesToTheQuadsSizeTurnedAsAskedAndWithinTheTextureLimit) {
  const TempDir tmp;
  const std::string jpeg = tmp.File("0.jpg"), pano = tmp.File("pano.tga");
  ASSERT_TRUE(e2e::WritePicture(jpeg, 3200, 2400, e2e::Photo));
  for (int o : {3, 6, 8})
    ASSERT_TRUE(e2e::SetJpegOrientation(tmp.Write(std::to_string(o) + ".jpg", ReadFile(jpeg)), o));
  ASSERT_TRUE(e2e::WritePicture(pano, 8000, 500, [](int x, int) { return x * 255u / 8000; }));
  const struct {
    std::string file;
    ScreenFit fit;
    int orientation, quadW, quadH, pixW, pixH;
  } cases[] = {
      {jpeg, Window(320, 180), 0, 240, 180, 240, 180},
      {jpeg, Window(2560, 1440), 0, 1920, 1440, 1920, 1440},
      {jpeg, Window(6400, 3600), 0, 4800, 3600, 3200, 2400},
      {tmp.File("3.jpg"), Window(1280, 720), 3, 960, 720, 960, 720},
      {tmp.File("6.jpg"), Window(1280, 720), 6, 540, 720, 720, 540},
      {tmp.File("8.jpg"), Window(320, 180), 8, 135, 180, 180, 135},
      // 450 x 600 on the whole window, narrowed to its half; a narrower one keeps the height.
      {tmp.File("6.jpg"), Half(800, 600), 6, 400, 533, 533, 400},
      {tmp.File("6.jpg"), Half(1280, 720), 6, 540, 720, 720, 540},
      {tmp.File("6.jpg"), Window(2560, 1440, 1200), 6, 1080, 1440, 1200, 900},
      // Room for pan and zoom: the quad stays, the pixels cover it 1.15 times over.
      {jpeg, Window(1280, 720, 0, 1.15), 0, 960, 720, 1104, 828},
      {tmp.File("6.jpg"), Window(1280, 720, 0, 1.15), 6, 540, 720, 828, 621},
      {pano, Window(1280, 720, 2048), 0, 11520, 720, 2048, 128},
      // 48 x 64 stored, shown 64 x 48.
      {kTestImages + "quad_o6.tif", Window(32, 24), 6, 24, 24, 24, 32},
      {kTestImages + "quad_o6.webp", Window(32, 24), 6, 24, 24, 24, 32},
      {kTestImages + "quad_irot.heic", Window(32, 24), 0, 24, 24, 32, 24},
  };
  for (const auto& c : cases) {
    const std::string what = c.file + " in " + std::to_string(c.fit.windowWidth);
    LoadedPicture p;
    LoadPicture(c.file, c.fit, false, &p);
    ASSERT_TRUE(p.ok && p.pixels) << what;
    int w = 0, h = 0;
    p.QuadSize(&w, &h);
    EXPECT_EQ(std::vector<int>({p.orientation, w, h, p.pixels->GetWidth(), p.pixels->GetHeight()}),
              std::vector<int>({c.orientation, c.quadW, c.quadH, c.pixW, c.pixH}))
        << what;
  }
}

// Only where the sides are free: a 16th of the covered window, stored directions, the picture's
// mean colour without its stripes, grey with it.
TEST(LoadPicture, BlursACoverOfAPictureThatLeavesTheSidesFree) {
  const TempDir tmp;
  const auto stripes = [](int x, int) { return (x / 8) % 2 ? 0xFF0000u : 0x0000FFu; };
  const std::string tall = tmp.File("tall.jpg"), turned = tmp.File("turned.jpg");
  const std::string wide = tmp.File("wide.jpg");
  ASSERT_TRUE(e2e::WritePicture(tall, 600, 900, stripes) &&
              e2e::WritePicture(wide, 1600, 900, stripes));
  ASSERT_TRUE(e2e::WritePicture(turned, 900, 600, [&](int x, int y) { return stripes(y, x); }) &&
              e2e::SetJpegOrientation(turned, 6));
  ScreenFit fit = Window(1920, 1080);
  fit.background = true;
  const struct {
    std::string file;
    bool grey;
    int w, h;  // 0: none made
  } cases[] = {{tall, false, 120, 180}, {turned, false, 180, 120}, {tall, true, 120, 180},
               {wide, false, 0, 0}};
  for (const auto& c : cases) {
    const std::string what = c.file + (c.grey ? " grey" : "");
    LoadedPicture p;
    LoadPicture(c.file, fit, c.grey, &p);
    ASSERT_TRUE(p.ok) << what;
    const QBitMap* b = p.background.get();
    ASSERT_EQ(std::vector<int>({b ? b->GetWidth() : 0, b ? b->GetHeight() : 0}),
              std::vector<int>({c.w, c.h})) << what;
    if (!b) continue;
    double sum[3] = {}, step = 0;
    const uint8_t* px = b->GetBuffer();
    for (int i = 0; i < c.w * c.h; ++i, px += 4) {
      for (int k = 0; k < 3; ++k) sum[k] += px[k];
      if (i % c.w) step += std::abs(px[0] - px[-4]) + std::abs(px[2] - px[-2]);
      if (c.grey) {
        ASSERT_TRUE(px[0] == px[1] && px[1] == px[2]) << what << " texel " << i;
      }
    }
    const int n = c.w * c.h;
    // Red and blue half and half; grey has them equal anyway.
    EXPECT_NEAR(sum[0] / n, c.grey ? sum[1] / n : 127, 12) << what;
    EXPECT_NEAR(sum[0] / n, sum[2] / n, 12) << what;
    EXPECT_LT(step / n, 4.0) << what << ": the stripes show";
  }
}

// Shrunk while it covers the new quad; not when it does not, is unwanted, grey or changed on disk.
TEST(Prefetcher, HandsOverOnlyWhatTheLastWantAskedForAsTheFileIsNow) {
  const TempDir tmp;
  const std::string a = tmp.File("a.jpg"), b = tmp.File("b.tga");
  ASSERT_TRUE(e2e::WritePicture(a, 1200, 900, e2e::Photo) && e2e::Uniform(b, 0x32C832));
  Prefetcher pre;
  pre.Want({a, b}, Window(1280, 720), false);
  ASSERT_TRUE(Decoded(&pre, a) && Decoded(&pre, b));
  LoadedPicture p;
  ASSERT_TRUE(pre.Take(a, Window(640, 480), false, &p));
  // The quad is 480 x 480 there; kept in proportion, 640 x 480 covers it.
  EXPECT_EQ(std::vector<int>({p.pixels->GetWidth(), p.pixels->GetHeight(), p.fit.windowWidth}),
            std::vector<int>({640, 480, 640}));
  // A picture smaller than every quad covers each: there is nothing more to decode.
  EXPECT_TRUE(Covers(p, p.width, p.height, Window(4000, 3000)));
  pre.Want({a}, Window(640, 480), false);
  EXPECT_FALSE(pre.Ready(b) || pre.Take(b, Window(640, 480), false, &p));
  ASSERT_TRUE(Decoded(&pre, a));
  EXPECT_FALSE(pre.Take(a, Window(1280, 720), false, &p));
  pre.Want({a, b}, Window(1280, 720), false);
  ASSERT_TRUE(Decoded(&pre, a) && Decoded(&pre, b));
  EXPECT_FALSE(pre.Take(a, Window(1280, 720), true, &p)) << "made in colour, taken grey";
  ASSERT_TRUE(pre.Take(a, Window(1280, 720), false, &p));
  EXPECT_EQ(p.pixels->GetHeight(), 720);
  ASSERT_TRUE(e2e::WritePicture(b, 20, 10, [](int, int) { return 0x3232C8u; }));
  EXPECT_FALSE(pre.Take(b, Window(1280, 720), false, &p));
  pre.Want({b}, Window(1280, 720), false);
  ASSERT_TRUE(Decoded(&pre, b) && pre.Take(b, Window(1280, 720), false, &p));
  const uint8_t* px = p.pixels->GetBuffer();
  EXPECT_EQ(std::vector<int>({px[0], px[1], px[2]}), std::vector<int>({0x32, 0x32, 0xC8}));
}

// In a child process, since a stop stays asked; the leak check at its exit changes its status.
TEST(Prefetcher, AStopInTheMiddleOfADecodeLetsItGoAtOnce) {
  const TempDir tmp;
  const std::string slow = tmp.Write("slow.png", e2e::RepeatedRowsPng(16384, 16384, 16));
  const std::string again = tmp.Write("again.png", ReadFile(slow));
  EXPECT_EXIT(
      {
        auto* pre = new Prefetcher();
        pre->Want({slow, again}, Window(800, 600), false);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        QBitMap::RequestStop();
        const auto start = std::chrono::steady_clock::now();
        delete pre;
        std::exit(std::chrono::steady_clock::now() - start < std::chrono::seconds(1) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
