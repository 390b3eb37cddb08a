// QImage's PNG reader: the fixtures written by netpbm and ImageMagick (tests/data/images, see
// make_fixtures.sh) read from a file and from memory, alpha laid over black; cut, damaged,
// oversized and missing input (random input is the fuzz target's).
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "framework/qimage.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Fixture(const std::string& name) {
  Bytes b = ReadBytes(std::string(GLIMRA_SOURCE_DIR) + "/tests/data/images/" + name);
  EXPECT_FALSE(b.empty()) << name;
  return b;
}

struct Rgb { int r, g, b; };
using Picture = std::function<Rgb(int x, int y)>;

// The samples of a binary PGM (maxval 255) as a grey picture, x and y from the top.
Picture Pgm(const std::string& name) {
  const Bytes b = Fixture(name);  // "P5 <w> <h> 255" and one blank
  int w = 0, h = 0, max = 0, used = 0;
  sscanf(reinterpret_cast<const char*>(b.data()), "P5 %d %d %d%n", &w, &h, &max, &used);
  return [b, w, at = size_t(used + 1)](int x, int y) {
    const int g = b.at(at + size_t(y * w + x));
    return Rgb{g, g, g};
  };
}
// What a pixel of colour `c` and opacity `a` shows over black.
Rgb Over(Rgb c, int a) { return {c.r * a / 255, c.g * a / 255, c.b * a / 255}; }

// The picture src.pam encodes (make_fixtures.sh), x and y from the top.
Rgb Src(int x, int y) { return {40 * x + 10, 80 * y + 20, (30 * x * y + 5) % 256}; }
int SrcAlpha(int x, int y) { return 255 - 20 * (x + y); }

// Every pixel within 1 of `want` per colour (rounding), alpha 255.
void ExpectPicture(const QImage& img, int w, int h, const Picture& want, const std::string& what) {
  ASSERT_EQ(img.GetWidth(), w) << what;
  ASSERT_EQ(img.GetHeight(), h) << what;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint8_t* p = img.GetAddress(x, h - 1 - y);  // memory rows run bottom-up
      ASSERT_NE(p, nullptr);
      const Rgb c = want(x, y);
      EXPECT_LE(std::max({std::abs(p[0] - c.r), std::abs(p[1] - c.g), std::abs(p[2] - c.b)}), 1)
          << what << " at " << x << "," << y << ": " << int(p[0]) << " " << int(p[1]) << " "
          << int(p[2]) << " want " << c.r << " " << c.g << " " << c.b;
      EXPECT_EQ(p[3], 255) << what;
    }
}

// A w x h RGB PNG of noise (which compresses badly) written by libpng.
Bytes MakePng(int w, int h, bool interlaced = false) {
  std::vector<uint8_t> px(size_t(w) * h * 3);
  uint32_t v = 12345;
  for (uint8_t& b : px) b = uint8_t((v = v * 1103515245u + 12345u) >> 24);
  std::vector<png_bytep> rows;
  for (int y = 0; y < h; ++y) rows.push_back(&px[size_t(y) * w * 3]);
  Bytes out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(png, &out, [](png_structp p, png_bytep data, size_t n) {
    Bytes* to = static_cast<Bytes*>(png_get_io_ptr(p));
    to->insert(to->end(), data, data + n);
  }, nullptr);
  png_set_IHDR(png, info, png_uint_32(w), png_uint_32(h), 8, PNG_COLOR_TYPE_RGB,
               interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_set_rows(png, info, rows.data());
  png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

struct QImagePngTest : TempDirTest {
  LogCapture log_;
};

}  // namespace

TEST_F(QImagePngTest, EveryKindReadsFromFileAndMemoryWithAlphaOverBlack) {
  const Picture grey = Pgm("grey8_ref.pgm");
  const Picture srcOverBlack = [](int x, int y) { return Over(Src(x, y), SrcAlpha(x, y)); };
  struct Case {
    const char* file;
    int w, h;
    Picture want;
  };
  const Case cases[] = {
      {"rgba.png", 5, 3, srcOverBlack},
      {"rgba_adam7.png", 5, 3, srcOverBlack},
      {"grey8.png", 5, 3, grey},
      {"grey_alpha.png", 5, 3, [&grey](int x, int y) { return Over(grey(x, y), SrcAlpha(x, y)); }},
      // Palette index of (0, 0)'s colour is transparent: black; the rest opaque.
      {"palette_trns.png", 5, 3, [](int x, int y) { return x + y ? Src(x, y) : Rgb{0, 0, 0}; }},
      // The high byte counts: the low bytes of these samples differ from the high ones.
      {"grey16.png", 3, 5, Pgm("grey16_ref.pgm")},
  };
  for (const Case& c : cases) {
    QImage fromFile, fromMemory;
    const std::string path = std::string(GLIMRA_SOURCE_DIR) + "/tests/data/images/" + c.file;
    ASSERT_TRUE(fromFile.Read(path.c_str())) << c.file;
    ExpectPicture(fromFile, c.w, c.h, c.want, c.file);
    const Bytes b = Fixture(c.file);
    ASSERT_TRUE(fromMemory.ReadPNG(b.data(), b.size(), c.file)) << c.file;
    ExpectPicture(fromMemory, c.w, c.h, c.want, std::string(c.file) + " in memory");
  }
}

TEST_F(QImagePngTest, CutFilesKeepTheRowsThatDecodedAndDamageFails) {
  const auto black = [](const QImage& img, int y) {
    for (int x = 0; x < img.GetWidth(); ++x)
      if (memcmp(img.GetAddress(x, img.GetHeight() - 1 - y), "\0\0\0\xff", 4) != 0) return false;
    return true;
  };
  const size_t rowBytes = 64 * 4;
  Bytes whole;
  for (bool interlaced : {false, true}) {
    // 64 x 256 of noise, about 48 kB; cut at 45 %.
    whole = MakePng(64, 256, interlaced);
    ASSERT_GT(whole.size(), 40000u);
    QImage full, cut;
    ASSERT_TRUE(full.ReadPNG(whole.data(), whole.size(), "whole.png"));
    // The whole picture's block is freed by the next read and likely handed straight back.
    ASSERT_TRUE(cut.ReadPNG(whole.data(), whole.size(), "whole.png"));
    ASSERT_TRUE(cut.ReadPNG(whole.data(), whole.size() * 45 / 100, "cut.png"));
    EXPECT_TRUE(log_.Seen("QImage:ReadPNG(cut.png); the file ends early after "));
    if (!interlaced) {
      int kept = 0;
      while (kept < 256 && memcmp(cut.GetAddress(0, 255 - kept), full.GetAddress(0, 255 - kept),
                                  rowBytes) == 0)
        ++kept;
      EXPECT_GT(kept, 100);
      EXPECT_LT(kept, 116);
      for (int y = kept + 1; y < 256; ++y) EXPECT_TRUE(black(cut, y)) << y;
    } else {
      // The first six passes hold half of the data and every pixel of the even rows; the odd
      // rows come only with the seventh.
      EXPECT_EQ(memcmp(cut.GetAddress(0, 255), full.GetAddress(0, 255), rowBytes), 0);
      for (int y = 1; y < 256; y += 2) EXPECT_TRUE(black(cut, y)) << y;
    }
    // Without its end chunk the picture is whole.
    ASSERT_TRUE(cut.ReadPNG(whole.data(), whole.size() - 12, "noend.png"));
    EXPECT_EQ(memcmp(cut.GetBuffer(), full.GetBuffer(), size_t(full.GetSize())), 0);
  }

  // A changed byte inside the pixel data breaks its chunk's checksum.
  Bytes damaged = whole;
  damaged[whole.size() / 2] ^= 0x40;
  QImage img;
  EXPECT_FALSE(img.ReadPNG(damaged.data(), damaged.size(), "damaged.png"));
  EXPECT_TRUE(log_.Seen("QImage:ReadPNG(damaged.png); IDAT: CRC error"));

  // Every cut of every fixture, from a file and from memory: nothing crashes, and a cut before
  // the first row fails.
  for (const char* name : {"rgba.png", "rgba_adam7.png", "grey16.png", "palette_trns.png"}) {
    const Bytes b = Fixture(name);
    for (size_t n = 0; n < b.size(); ++n) {
      QImage part;
      const bool fromMemory = part.ReadPNG(b.data(), n, name);
      if (n < 40) {
        EXPECT_FALSE(fromMemory) << name << " cut at " << n;
      }
      ASSERT_TRUE(WriteFile(Tmp("cut.png"), Bytes(b.begin(), b.begin() + long(n))));
      EXPECT_EQ(part.Read(Tmp("cut.png").c_str()), fromMemory) << name << " cut at " << n;
    }
  }
}

TEST_F(QImagePngTest, OversizedOrMissingInputIsRefusedBeforeAllocating) {
  // The header's sizes are checked before the library sees them (the checksum is not redone).
  const Bytes wide = MakePng(16384, 2);
  QImage img;
  ASSERT_TRUE(img.ReadPNG(wide.data(), wide.size(), "edge.png") && img.GetWidth() == 16384);
  for (auto [w, h] : {std::pair{16385u, 2u}, std::pair{2u, 0x7FFFFFFFu}}) {
    Bytes b = Fixture("rgba.png");
    for (int k = 0; k < 4; ++k)
      b[16 + k] = uint8_t(w >> (24 - 8 * k)), b[20 + k] = uint8_t(h >> (24 - 8 * k));
    QImage fresh;
    EXPECT_FALSE(fresh.ReadPNG(b.data(), b.size(), "big.png"));
    EXPECT_EQ(fresh.GetBuffer(), nullptr);
    EXPECT_TRUE(log_.Seen("QImage:ReadPNG(); (big.png) is " + std::to_string(w) + "x" +
                          std::to_string(h) + " large; supported only upto 16384x16384"));
  }
  EXPECT_FALSE(img.Read(Tmp("absent.png").c_str()));
  EXPECT_TRUE(log_.Seen("QImage:ReadPNG(); can't open '" + Tmp("absent.png") + "'"));
}
