// QBitMap writers: Targa and JPEG output read back by ImageMagick, and the refusals.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "framework/qbitmap.h"
#include "framework/image/qimage.h"
#include "support/command.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using e2e::Capture;
bool HaveImageMagick() { return Capture("identify -version 2>/dev/null").find("ImageMagick") != std::string::npos; }

// ImageMagick's decode of `file` as 8-bit RGBA, top row first. ImageMagick 6 keeps a Targa's
// rows in file order and only records the origin, hence -auto-orient.
std::vector<uint8_t> MagickRgba(const std::string& file) {
  const std::string out = Capture("convert '" + file + "' -auto-orient -depth 8 rgba:- 2>/dev/null");
  return std::vector<uint8_t>(out.begin(), out.end());
}

// A w x h picture that tells rows, columns and channels apart; (x, y) with y from the top.
void Paint(QBitMap* bm, int w, int h) {
  ASSERT_TRUE(bm->Alloc(32, w, h));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = bm->GetAddress(x, h - 1 - y);
      p[0] = uint8_t(x * 255 / (w - 1)), p[1] = uint8_t(y * 255 / (h - 1));
      p[2] = uint8_t((x + y) * 4), p[3] = uint8_t(255 - 3 * x);
    }
}

struct QImageWriteTest : TempDirTest { LogCapture log_; };

}  // namespace

TEST_F(QImageWriteTest, TargaAndJpegReadBackInImageMagick) {
  if (!HaveImageMagick()) GTEST_SKIP() << "ImageMagick is not installed";
  QBitMap bm;
  Paint(&bm, 7, 5);
  const std::string colour = Tmp("out.tga"), grey = Tmp("grey.tga");
  ASSERT_TRUE(bm.Write(colour.c_str(), 1));
  EXPECT_TRUE(log_.Seen("WriteTGA(" + colour + ", format 1)"));
  ASSERT_TRUE(bm.Write(grey.c_str(), 2));
  const std::vector<uint8_t> rgba = MagickRgba(colour), g = MagickRgba(grey);
  ASSERT_EQ(rgba.size(), 7u * 5 * 4);
  ASSERT_EQ(g.size(), 7u * 5 * 4);
  for (int y = 0; y < 5; ++y)
    for (int x = 0; x < 7; ++x) {
      const uint8_t* p = bm.GetAddress(x, 4 - y);
      const size_t at = size_t(y * 7 + x) * 4;
      for (int c = 0; c < 4; ++c) EXPECT_EQ(rgba[at + size_t(c)], p[c]) << x << "," << y << " ch " << c;
      EXPECT_TRUE(g[at] == p[0] && g[at + 2] == p[0]) << x << "," << y;  // grey is the red byte
    }

  // JPEG: lossy, but the picture is the one we wrote, the right way up, and our reader agrees.
  Paint(&bm, 32, 16);
  const std::string file = Tmp("out.jpg");
  ASSERT_TRUE(bm.Write(file.c_str(), 3, 95));
  EXPECT_EQ(Capture("identify -format '%w %h %[colorspace]' '" + file + "'"), "32 16 sRGB");
  const std::vector<uint8_t> theirs = MagickRgba(file);
  ASSERT_EQ(theirs.size(), 32u * 16 * 4);
  QImage back;
  ASSERT_TRUE(back.Read(file.c_str()));
  int worst = 0;
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 32; ++x) {
      const uint8_t *p = bm.GetAddress(x, 15 - y), *q = back.GetAddress(x, 15 - y);
      for (int c = 0; c < 3; ++c) {
        const int t = theirs[size_t(y * 32 + x) * 4 + size_t(c)];
        worst = std::max(worst, std::abs(t - p[c]));
        EXPECT_NEAR(q[c], t, 1);
      }
      EXPECT_EQ(q[3], 255);
    }
  EXPECT_LE(worst, 12);
  // Into memory: the same file's bytes.
  std::string bytes;
  ASSERT_TRUE(bm.EncodeJPG(95, &bytes));
  QImage again;
  ASSERT_TRUE(again.ReadJPG(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), "mem"));
  EXPECT_EQ(0, memcmp(again.GetBuffer(), back.GetBuffer(), size_t(back.GetSize())));
}

TEST_F(QImageWriteTest, RefusalsAreReportedOnce) {
  QBitMap bm;
  Paint(&bm, 4, 4);
  EXPECT_FALSE(bm.Write(Tmp("x.gif").c_str(), 7));
  EXPECT_TRUE(log_.Seen("QBitMap:Write(); unsupported format 7 to write '" + Tmp("x.gif") + "'"));
  EXPECT_FALSE(bm.Write(Tmp("no/dir/x.tga").c_str(), 1));
  EXPECT_FALSE(bm.Write(Tmp("no/dir/x.jpg").c_str(), 3));
  EXPECT_TRUE(log_.Seen("QBitMap::WriteJPG(" + Tmp("no/dir/x.jpg") + "); can't open file"));

  QBitMap wide(32, 8193, 1);
  log_.Clear();
  EXPECT_FALSE(wide.Write(Tmp("w.tga").c_str(), 1));
  EXPECT_TRUE(log_.Seen("QBitMap:WriteTGA(); image too wide"));
  EXPECT_FALSE(wide.Write(Tmp("w.rgb").c_str(), 0));
  EXPECT_TRUE(log_.Seen("QBitMap:Write; image too wide"));
  EXPECT_NE(access(Tmp("w.tga").c_str(), F_OK), 0);

  // An empty bitmap cannot become a JPEG: the library's error comes back as a warning.
  QBitMap empty;
  log_.Clear();
  EXPECT_FALSE(empty.Write(Tmp("e.jpg").c_str(), 3));
  EXPECT_EQ(log_.Lines().size(), 1u);
  std::string kept = "kept";
  EXPECT_FALSE(empty.EncodeJPG(80, &kept));
  EXPECT_EQ(kept, "kept");
  EXPECT_EQ(log_.Lines().size(), 2u);
}
