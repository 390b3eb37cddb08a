// Pictures made for one window size and wanted for another (the desktop resized the window):
// handed over shrunk while they still cover their new place, decoded again once they do not.
#include "app/picture_loader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "app/prefetcher.h"
#include "framework/qbitmap.h"
#include "support/tempdir.h"

namespace {

ScreenFit Window(int w, int h) {
  ScreenFit fit;
  fit.windowWidth = w, fit.windowHeight = h;
  fit.desktopAspect = 16.0 / 9.0;
  return fit;
}

// Waits (at most 10 s) until the prefetcher has `path` decoded.
bool Decoded(Prefetcher* pre, const std::string& path) {
  for (int i = 0; i < 1000 && !pre->Ready(path); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return pre->Ready(path);
}

class Resized : public TempDirTest {
 protected:
  void SetUp() override {
    QBitMap bm(32, 1200, 900);
    ASSERT_NE(bm.GetBuffer(), nullptr);
    path_ = Tmp("a.jpg");
    ASSERT_TRUE(bm.Write(path_.c_str(), 3, 90));
  }
  std::string path_;
};

// Refit is reached through Take: what covers is shrunk, what does not is decoded again.
TEST_F(Resized, ThePrefetcherHandsOverWhatStillCoversAndDecodesAgainWhatDoesNot) {
  LoadedPicture p;
  LoadPicture(path_, Window(1280, 720), false, &p);
  ASSERT_TRUE(p.ok);
  // 4:3 on a 16:9 desktop in a 1280 x 720 window: a quad of 960 x 720.
  EXPECT_EQ(p.pixels->GetWidth(), 960);
  EXPECT_EQ(p.pixels->GetHeight(), 720);
  // A picture smaller than every quad covers each: there is nothing more to decode.
  EXPECT_TRUE(Covers(p, p.width, p.height, Window(4000, 3000)));

  Prefetcher pre;
  ASSERT_TRUE(pre.IsRunning());
  pre.Want({path_}, Window(1280, 720), false);
  ASSERT_TRUE(Decoded(&pre, path_));
  ASSERT_TRUE(pre.Take(path_, Window(640, 480), false, &p));
  // The quad is 480 x 480 there; kept in proportion, 640 x 480 covers it.
  EXPECT_EQ(p.pixels->GetWidth(), 640);
  EXPECT_EQ(p.pixels->GetHeight(), 480);
  EXPECT_EQ(p.fit.windowWidth, 640);
  pre.Want({path_}, Window(640, 480), false);
  ASSERT_TRUE(Decoded(&pre, path_));
  EXPECT_FALSE(pre.Take(path_, Window(1280, 720), false, &p));
  // Wanted again for the larger window, it is decoded for it.
  pre.Want({path_}, Window(1280, 720), false);
  ASSERT_TRUE(Decoded(&pre, path_));
  ASSERT_TRUE(pre.Take(path_, Window(1280, 720), false, &p));
  EXPECT_EQ(p.pixels->GetHeight(), 720);
}

// 48 x 64 stored, shown 64 x 48 in a 32 x 24 window (16:9 desktop), needs 24 x 32 stored pixels;
// a HEIC stored turned comes upright from its own rotation (irot) and is not turned again.

TEST(LoadPicture, TiffAndWebPAreTurnedByTheirOrientationAndShrunkToTheQuad) {
  for (const char* name : {"quad_o6.tif", "quad_o6.webp", "quad_irot.heic"}) {
    LoadedPicture p;
    LoadPicture(kTestImages + name, Window(32, 24), false, &p);
    ASSERT_TRUE(p.ok && p.pixels) << name;
    const bool turned = std::string(name).find("o6") != std::string::npos;
    EXPECT_EQ(p.orientation, turned ? 6 : 0) << name;
    EXPECT_EQ(p.width, turned ? 48 : 64) << name;
    EXPECT_EQ(p.pixels->GetWidth(), turned ? 24 : 32) << name;
    EXPECT_EQ(p.pixels->GetHeight(), turned ? 32 : 24) << name;
  }
}

}  // namespace
