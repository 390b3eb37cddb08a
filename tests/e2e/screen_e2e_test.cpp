// Proof of display: the JPEG glimra makes of its screen ("dev.screen_file") against an xwd grab
// of that screen reduced the same way, after a start, a step with a fade and an overlay change.
#include <sys/stat.h>

#include <algorithm>

#include "framework/image/qimage.h"
#include "support/e2e.h"

namespace {

using namespace e2e;

// The window's part of `s` (x, y, w, h), area-reduced to `rw` x `rh` like the program's shot.
bool Reduce(const Screen& s, int x0, int y0, int w, int h, int rw, int rh, QBitMap* out) {
  if (!out->Alloc(32, w, h)) return false;
  for (int y = 0; y < h; ++y) {
    uint8_t* row = out->GetBuffer() + size_t(h - 1 - y) * w * 4;
    for (int x = 0; x < w; ++x) {
      const uint32_t c = s.At(x0 + x, y0 + y);
      row[x * 4] = uint8_t(R(c)), row[x * 4 + 1] = uint8_t(G(c)), row[x * 4 + 2] = uint8_t(B(c));
      row[x * 4 + 3] = 255;
    }
  }
  return out->AreaReduce(rw, rh);
}

// The largest difference of a channel's mean over 16 x 16 blocks; JPEG's own error averages out
// in a block, a wrong or half-faded picture does not.
int WorstBlock(const QBitMap& a, const QBitMap& b) {
  int worst = 0;
  for (int by = 0; by + 16 <= a.GetHeight(); by += 16)
    for (int bx = 0; bx + 16 <= a.GetWidth(); bx += 16)
      for (int c = 0; c < 3; ++c) {
        long sa = 0, sb = 0;
        for (int y = by; y < by + 16; ++y)
          for (int x = bx; x < bx + 16; ++x)
            sa += a.GetAddress(x, y)[c], sb += b.GetAddress(x, y)[c];
        worst = std::max(worst, int(std::labs(sa - sb) / 256));
      }
  return worst;
}

// Left half red over green, right half a photo: colour fields and detail.
uint32_t Mixed(int x, int y) { return x < 800 ? (y < 450 ? kRed : kGreen) : Photo(x, y); }

class ScreenShotE2E : public ScreenTest<1920, 1080> {
 protected:
  // Waits for a shot other than `*last`, then checks it against the window at (0, 0) w x h.
  void ExpectShotMatches(const Program& p, int w, int h, std::string* last, const char* what) {
    SCOPED_TRACE(what);
    std::string bytes;
    ASSERT_TRUE(Poll(kStepMs, [&] {
      bytes = p.ReadFile("shot.jpg");
      return !bytes.empty() && bytes != *last;
    })) << p.Log();
    *last = bytes;
    QImage shot;  // 32-bit, rows bottom-up
    ASSERT_TRUE(shot.ReadJPG(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), "shot"));
    // At most 480 wide, the window's proportions kept.
    const int sw = shot.GetWidth(), sh = shot.GetHeight();
    EXPECT_EQ(sw, std::min(w, 480));
    EXPECT_EQ(sh, int(h * double(sw) / w + 0.5));
    ASSERT_TRUE(GrabScreen(&screen_));
    QBitMap grab;
    ASSERT_TRUE(Reduce(screen_, 0, 0, w, h, sw, sh, &grab));
    EXPECT_LE(WorstBlock(shot, grab), 6);
  }
};

TEST_F(ScreenShotE2E, TheShotShowsWhatTheWindowShowsAfterEachChange) {
  // Full screen at 16:9, then a 4:3 window with a fade between pictures.
  for (const auto& size : {std::make_pair(1920, 1080), std::make_pair(800, 600)}) {
    const int w = size.first, h = size.second;
    SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
    Program p;
    ASSERT_TRUE(p.Prepare() && p.SetKey("resolution.width", std::to_string(w).c_str()) &&
                p.SetKey("resolution.height", std::to_string(h).c_str()) &&
                p.SetKey("dev.screen_file", p.Path("shot.jpg").c_str()) &&
                p.SetKey("effects.fade_ms", w == 800 ? "1000" : "0") &&
                WritePicture(p.Path("a.jpg"), 1600, 900, Mixed) &&
                WritePicture(p.Path("b.jpg"), 1200, 900,
                             [](int x, int y) { return x < 600 ? kBlue : Photo(y, x); }) &&
                p.Start("a.jpg"));
    // A black frame before the picture may be taken too; the picture's comes once it stands.
    ASSERT_TRUE(Sees([&](const Screen& s) { return Is(s.At(w / 2 - 20, h / 4), kRed); }, kStartMs))
        << p.Log();
    usleep(1000 * 1000);
    std::string last;
    ExpectShotMatches(p, w, h, &last, "start");
    ASSERT_TRUE(p.Send("next"));
    ExpectShotMatches(p, w, h, &last, "next picture");
    ASSERT_TRUE(p.Send("info 0"));
    ExpectShotMatches(p, w, h, &last, "information line off");
    // Drawn again the same (the command asks for a frame): read, but the file is not replaced.
    struct stat before {}, after {};
    ASSERT_EQ(stat(p.Path("shot.jpg").c_str(), &before), 0);
    const int reads = Count(p.Log(), "Screen shot ");
    ASSERT_TRUE(p.Send("info 0"));
    EXPECT_TRUE(p.WaitForLog("Screen shot ", kStepMs, reads + 1));
    usleep(500 * 1000);
    ASSERT_EQ(stat(p.Path("shot.jpg").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "an unchanged screen was written again";
    EXPECT_EQ(p.Escape(), 0);
  }
}

}  // namespace
