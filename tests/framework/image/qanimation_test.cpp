// QAnimation on the make_kinds.sh animations: frames composed as the GIF's disposal says, their
// times (a 0 or 10 ms delay shows 100 ms), the loop's end and the start again; then refusals.
#include "framework/image/qanimation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "framework/qbitmap.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;

QBlock Block(const Bytes& b) {
  QBlock block(static_cast<uint8_t*>(qmalloc(b.size() + 1)));
  if (!b.empty()) memcpy(block.get(), b.data(), b.size());
  return block;
}

// 0xRRGGBB of the pixel at (x, y from the top); alpha must be 255.
uint32_t At(const QBitMap& bm, int x, int y) {
  const uint8_t* p = bm.GetAddress(x, bm.GetHeight() - 1 - y);
  if (!p || p[3] != 255) return 0xFFFFFFFF;
  return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
}

constexpr uint32_t kRed = 0xDC1E1E, kGreen = 0x1EC83C, kBlue = 0x283CDC, kWhite = 0xE6E6E6;

// What one frame shows: the middle, the top-left and the bottom-right corner.
struct Frame { int delayMs; uint32_t middle, topLeft, bottomRight; };

void ExpectFrames(const char* name, const std::vector<Frame>& want) {
  const Bytes b = ImageFixture(name);
  EXPECT_TRUE(QAnimation::Animates(b.data(), b.size())) << name;
  QAnimation anim;
  ASSERT_TRUE(anim.Open(Block(b), b.size(), name));
  ASSERT_EQ(anim.GetWidth(), 64);
  ASSERT_EQ(anim.GetHeight(), 48);
  QBitMap out;
  // Two loops: the second starts from an empty canvas again.
  for (size_t i = 0; i < want.size() * 2; ++i) {
    const Frame& f = want[i % want.size()];
    int delay = 0;
    ASSERT_TRUE(anim.Next(&out, 64, 48, &delay)) << name << " frame " << i;
    EXPECT_EQ(anim.FrameIndex(), int(i % want.size()));
    EXPECT_EQ(anim.AtLoopEnd(), i % want.size() == want.size() - 1) << name << " frame " << i;
    EXPECT_EQ(delay, f.delayMs) << name << " frame " << i;
    EXPECT_EQ(At(out, 32, 24), f.middle) << name << " frame " << i;
    EXPECT_EQ(At(out, 4, 4), f.topLeft) << name << " frame " << i;
    EXPECT_EQ(At(out, 60, 44), f.bottomRight) << name << " frame " << i;
  }
  // Reduced while it is written out: a quarter of the pixels, the same picture.
  int delay = 0;
  ASSERT_TRUE(anim.Next(&out, 32, 24, &delay));
  EXPECT_EQ(out.GetWidth(), 32);
  EXPECT_EQ(At(out, 16, 12), want[0].middle);
  EXPECT_FALSE(anim.Next(&out, 65, 48, &delay)) << "larger than the picture";
}

TEST(QAnimationFrames, FramesComposeAsTheirDisposalSaysAndStillsDoNotAnimate) {
  // GIF: red; a green middle cleared after it (background); a blue corner taken away after it
  // (previous); a white corner.
  ExpectFrames("frames.gif", {{300, kRed, kRed, kRed},
                              {200, kGreen, kRed, kRed},
                              {100, 0x000000, kBlue, kRed},
                              {300, 0x000000, kRed, kWhite}});
  ExpectFrames("frames.webp", {{300, kRed, kRed, kRed},
                               {200, kGreen, kGreen, kGreen},
                               {100, kBlue, kBlue, kBlue}});
  for (const char* name : {"quad.webp", "trns_interlaced.gif", "photo.jpg"}) {
    const Bytes b = ImageFixture(name);
    EXPECT_FALSE(QAnimation::Animates(b.data(), b.size())) << name;
  }
}

TEST(QAnimationRefusals, ACutFileStopsOnItsLastGoodFrameLyingHeadersAndJunkDoNotOpen) {
  Bytes b = ImageFixture("frames.gif");
  // Into the third frame's pixels: past its control block (8 bytes) and descriptor (10).
  size_t gce = 0;
  for (int n = 0; n < 3; ++n)
    while (++gce + 3 < b.size() && memcmp(&b[gce], "\x21\xF9\x04", 3) != 0) {
    }
  ASSERT_LT(gce + 21, b.size());
  b.resize(gce + 21);
  LogCapture log;
  QAnimation anim;
  ASSERT_TRUE(anim.Open(Block(b), b.size(), "cut.gif"));
  QBitMap out;
  int delay = 0;
  for (bool more : {true, true, false, false}) ASSERT_EQ(anim.Next(&out, 64, 48, &delay), more);
  EXPECT_TRUE(anim.Ended());
  EXPECT_EQ(log.Count("cut.gif"), 1) << "warned once";
  EXPECT_EQ(At(out, 32, 24), kGreen) << "the last good frame stays";

  // Headers that lie, and junk.
  Bytes huge = ImageFixture("frames.gif");
  huge[6] = huge[8] = 0x80, huge[7] = huge[9] = 0x3E;  // 16000 x 16000
  Bytes junk(300, 0x5A);
  Bytes notGif = junk;
  memcpy(notGif.data(), "GIF89a", 6);
  for (const Bytes* bad : {&huge, &junk, &notGif}) {
    QAnimation refused;
    EXPECT_FALSE(refused.Open(Block(*bad), bad->size(), "bad.gif"));
    EXPECT_FALSE(refused.Next(&out, 1, 1, &delay));
  }

  EXPECT_EQ(log.Count("bad.gif"), 3);
  EXPECT_TRUE(log.Seen("16000x16000"));
}

}  // namespace
