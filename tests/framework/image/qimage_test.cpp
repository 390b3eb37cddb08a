// QImage readers: fixtures compared pixel for pixel with their sources; hand-made faults.
#include "framework/image/qimage.h"

#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "framework/virtualfilesystem.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Pixel as 0xRRGGBBAA at column x, y counted from the top of the picture.
uint32_t At(const QBitMap& bm, int x, int y) {
  const uint8_t* p = bm.GetAddress(x, bm.GetHeight() - 1 - y);
  if (!p) return 0xDEADBEEF;
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
uint32_t Rgba(int r, int g, int b, int a) {
  return (uint32_t(r) << 24) | (uint32_t(g) << 16) | (uint32_t(b) << 8) | uint32_t(a);
}

// The picture every lossless fixture encodes (make_fixtures.sh), y from the top.
uint32_t Src(int x, int y, bool alpha = true) {
  return Rgba(40 * x + 10, 80 * y + 20, (30 * x * y + 5) % 256, alpha ? 255 - 20 * (x + y) : 255);
}
void ExpectSource(const QBitMap& bm, bool alpha, const char* what, int w = 5) {
  ASSERT_EQ(bm.GetWidth(), w) << what;
  ASSERT_EQ(bm.GetHeight(), 3) << what;
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < w; ++x) EXPECT_EQ(At(bm, x, y), Src(x, y, alpha)) << what << " " << x << "," << y;
}

struct Rgb { int r, g, b; };
using Picture = std::function<Rgb(int x, int y)>;

// A binary PGM or PPM written by ImageMagick (maxval 255, top row first) as a picture.
Picture Ref(const char* name) {
  const Bytes b = ImageFixture(name);
  char magic[3] = {};
  int w = 0, h = 0, maxval = 0, used = 0;
  const char* text = reinterpret_cast<const char*>(b.data());
  if (sscanf(text, "%2s %d %d %d%n", magic, &w, &h, &maxval, &used) != 4)
    return [](int, int) { return Rgb{-1, -1, -1}; };
  const int channels = magic[1] == '5' ? 1 : 3;
  return [px = Bytes(b.begin() + used + 1, b.end()), w, channels](int x, int y) {
    const uint8_t* s = &px.at(size_t(y * w + x) * channels);
    return channels == 1 ? Rgb{s[0], s[0], s[0]} : Rgb{s[0], s[1], s[2]};
  };
}
// What a pixel of colour `c` and opacity `a` shows over black.
Rgb Over(Rgb c, int a) { return {c.r * a / 255, c.g * a / 255, c.b * a / 255}; }

Rgb SrcRgb(int x, int y) { return {40 * x + 10, 80 * y + 20, (30 * x * y + 5) % 256}; }
int SrcAlpha(int x, int y) { return int(Src(x, y) & 255); }

// Every pixel within `tol` of `want` per colour (rounding), alpha 255.
void ExpectPicture(const QImage& img, int w, int h, const Picture& want, const std::string& what,
                   int tol = 1) {
  ASSERT_EQ(img.GetWidth(), w) << what;
  ASSERT_EQ(img.GetHeight(), h) << what;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint8_t* p = img.GetAddress(x, h - 1 - y);  // memory rows run bottom-up
      ASSERT_NE(p, nullptr);
      const Rgb c = want(x, y);
      EXPECT_LE(std::max({std::abs(p[0] - c.r), std::abs(p[1] - c.g), std::abs(p[2] - c.b)}), tol)
          << what << " at " << x << "," << y << " want " << c.r << " " << c.g << " " << c.b;
      EXPECT_EQ(p[3], 255) << what;
    }
}

// A w x h PNG of noise (it compresses badly); a palette has 256 noisy colours and alphas.
Bytes MakePng(int w, int h, bool interlaced = false, int type = PNG_COLOR_TYPE_RGB, int depth = 8) {
  const int channels = type == PNG_COLOR_TYPE_RGB ? 3 : type == PNG_COLOR_TYPE_RGBA ? 4 : 1;
  const size_t rowBytes = size_t(w) * channels * depth / 8;
  std::vector<uint8_t> px(rowBytes * h);
  uint32_t v = 12345;
  const auto noise = [&v] { return uint8_t((v = v * 1103515245u + 12345u) >> 24); };
  for (uint8_t& b : px) b = noise();
  std::vector<png_bytep> rows;
  for (int y = 0; y < h; ++y) rows.push_back(&px[size_t(y) * rowBytes]);
  Bytes out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_set_write_fn(png, &out, [](png_structp p, png_bytep data, size_t n) {
    Bytes* to = static_cast<Bytes*>(png_get_io_ptr(p));
    to->insert(to->end(), data, data + n);
  }, nullptr);
  png_set_IHDR(png, info, png_uint_32(w), png_uint_32(h), depth, type,
               interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_color palette[256];
  png_byte alpha[256];
  for (int i = 0; i < 256; ++i) palette[i] = {noise(), noise(), noise()}, alpha[i] = noise();
  if (type == PNG_COLOR_TYPE_PALETTE) {
    png_set_PLTE(png, info, palette, 256);
    png_set_tRNS(png, info, alpha, 256, nullptr);
  }
  png_set_rows(png, info, rows.data());
  png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

class QImageTest : public TempDirTest {
 protected:
  QImageTest() : TempDirTest("qimage_test") {}
  void TearDown() override { QSetVirtualFileSystem(nullptr); }
  // Writes `b` under `name` in the temporary directory and answers the path.
  std::string Put(const std::string& name, const Bytes& b) const {
    EXPECT_TRUE(WriteFile(Tmp(name), b)) << name;
    return Tmp(name);
  }
  static bool ReadFixture(QImage* img, const char* name) { return img->Read((kTestImages + name).c_str()); }
  // A JPEG from our writer under `name`: flat grey, or with `busy` a pattern that changes from
  // pixel to pixel.
  Bytes Jpeg(const std::string& name, int w, int h, bool busy = false) const {
    QBitMap bm(32, w, h);
    for (int i = 0; i < bm.GetSize(); ++i) bm.GetBuffer()[i] = busy ? uint8_t(i * 7 + i / w * 3) : 128;
    EXPECT_TRUE(bm.Write(Tmp(name).c_str(), 3, 95)) << name;
    return ReadBytes(Tmp(name));
  }

  QVirtualFileSystem vfs_;
  LogCapture log_;
};

// A hand-made Targa: 18-byte header, then `data`.
Bytes Tga(int type, int depth, int w, int h, int descriptor, const Bytes& data, int cmap = 0) {
  Bytes b(18, 0);
  b[1] = uint8_t(cmap), b[2] = uint8_t(type), b[12] = uint8_t(w), b[13] = uint8_t(w >> 8);
  b[14] = uint8_t(h), b[15] = uint8_t(h >> 8), b[16] = uint8_t(depth), b[17] = uint8_t(descriptor);
  b.insert(b.end(), data.begin(), data.end());
  return b;
}

TEST_F(QImageTest, UnknownKindsAndMissingFilesAreLogged) {
  QImage img;
  EXPECT_FALSE(img.Read(Tmp("notes.txt").c_str()));
  EXPECT_TRUE(log_.Seen("QImage:Read(): image '" + Tmp("notes.txt") + "' has unknown file format"));
  EXPECT_FALSE(QImage(Tmp("missing.jpg").c_str()).IsRead());
  EXPECT_TRUE(log_.Seen("QImage ctor: can't load '" + Tmp("missing.jpg") + "'"));
  EXPECT_FALSE(img.ReadJPG(Tmp("missing.jpg").c_str()));
  EXPECT_TRUE(log_.Seen("QImage:ReadJPG(); can't open '" + Tmp("missing.jpg") + "'"));
}

TEST_F(QImageTest, TargaFixturesDecodeOnBothPaths) {
  for (bool inMemory : {false, true}) {
    QSetVirtualFileSystem(inMemory ? &vfs_ : nullptr);
    const char* path = inMemory ? "memory" : "stdio";
    QImage img;
    for (const char* name : {"rgba32_bl.tga", "rgba32_tl.tga", "rle32.tga", "rgb24.tga", "rle24.tga"}) {
      ASSERT_TRUE(ReadFixture(&img, name)) << name << " " << path;
      ExpectSource(img, strstr(name, "32") != nullptr, name);
    }
    // Grey: the level is also the opacity.
    ASSERT_TRUE(ReadFixture(&img, "grey8.tga")) << path;
    const Picture ref = Ref("grey8_ref.pgm");
    for (int i = 0; i < 15; ++i) {
      const int g = ref(i % 5, i / 5).r;
      EXPECT_EQ(At(img, i % 5, i / 5), Rgba(g, g, g, g)) << path;
    }
  }
}

TEST_F(QImageTest, TargaPacketAcrossALineRefusalsAndLyingSizes) {
  // 2 x 2, 32-bit run-length: a run of 4 pixels on the first line, then 2 raw pixels.
  const Bytes data = {0x83, 1, 2, 3, 4, 0x01, 10, 20, 30, 40, 50, 60, 70, 80};
  const std::string file = Put("cross.tga", Tga(10, 32, 2, 2, 0, data));

  QSetVirtualFileSystem(&vfs_);
  QImage slow;
  EXPECT_FALSE(slow.Read(file.c_str()));
  EXPECT_TRUE(log_.Seen("Image 'qimage' is corrupt"));
  QSetVirtualFileSystem(nullptr);
  ASSERT_TRUE(slow.Read(file.c_str()));
  // Bottom-left origin: the first line is the bottom one.
  EXPECT_EQ((std::vector<uint32_t>{At(slow, 0, 1), At(slow, 1, 1), At(slow, 0, 0), At(slow, 1, 0)}),
            (std::vector<uint32_t>{Rgba(3, 2, 1, 4), Rgba(3, 2, 1, 4), Rgba(30, 20, 10, 40), Rgba(70, 60, 50, 80)}));

  const std::string pal = Put("pal.tga", Tga(1, 8, 2, 2, 0, Bytes(4 + 768, 0), 1));
  const std::string grey16 = Put("g16.tga", Tga(3, 16, 2, 2, 0, Bytes(8, 7)));
  const std::string wide = Put("wide.tga", Tga(2, 24, 16385, 1, 0, Bytes(16385 * 3, 1)));
  // An identifier length of 128 or more moves the start back before the file.
  Bytes back = Tga(2, 24, 1, 1, 0, {1, 2, 3});
  back[0] = 0x90;
  const std::string backwards = Put("back.tga", back);
  QImage img;
  for (bool inMemory : {true, false}) {
    QSetVirtualFileSystem(inMemory ? &vfs_ : nullptr);
    for (const std::string& f : {pal, wide}) EXPECT_FALSE(img.Read(f.c_str())) << f;
    // Only the stream path takes 16-bit grey (its pixels deliberately unset) and the start
    // before the file (the backwards seek fails; data at 18).
    EXPECT_EQ(img.Read(grey16.c_str()), !inMemory);
    EXPECT_EQ(img.Read(backwards.c_str()), !inMemory);
  }
  EXPECT_EQ(At(img, 0, 0), Rgba(3, 2, 1, 255));
  EXPECT_TRUE(log_.Seen("colormap is not supported"));
  EXPECT_TRUE(log_.Seen("QImage:ReadTGA(" + wide + "); too wide (max width=16384)"));
  EXPECT_TRUE(log_.Seen("QImage:ReadTGA(); no image loader for type 3, pixDepth 16"));
}

TEST_F(QImageTest, JpegMatchesTheReferenceDecode) {
  QImage img;
  for (auto [name, ref] : {std::pair{"photo.jpg", "photo_ref.ppm"},
                           std::pair{"progressive.jpg", "progressive_ref.ppm"},
                           std::pair{"grey.jpg", "grey_ref.pgm"}}) {
    ASSERT_TRUE(ReadFixture(&img, name));
    ExpectPicture(img, 16, 8, Ref(ref), name);
  }

  // Adobe CMYK stores inverted samples; the first three become R, G, B as they lie.
  ASSERT_TRUE(ReadFixture(&img, "cmyk.jpg"));
  int c = 0, m = 0, y = 0, k = 0;
  Bytes ref = ImageFixture("cmyk_ref.txt");
  ASSERT_EQ(sscanf(reinterpret_cast<const char*>(ref.data()), "0,0: (%d,%d,%d,%d)", &c, &m, &y, &k), 4);
  const uint32_t v = At(img, 3, 3);
  const int want[4] = {255 - c, 255 - m, 255 - y, 255};
  for (int ch = 0; ch < 4; ++ch) EXPECT_NEAR(int(v >> (24 - 8 * ch)) & 0xFF, want[ch], ch < 3 ? 2 : 0);
}

// The 10-scan progressive fixture with its first scan repeated `repeats` times.
Bytes ProgressiveJpeg(int repeats) {
  Bytes b = ImageFixture("progressive.jpg");
  // Up to the next marker that is not a stuffed byte or a restart.
  const uint8_t sos[] = {0xFF, 0xDA};
  const auto start = std::search(b.begin(), b.end(), sos, sos + 2);
  auto end = start + 2;
  while (end + 1 < b.end() && !(end[0] == 0xFF && end[1] != 0 && (end[1] & 0xF8) != 0xD0)) ++end;
  const Bytes scan(start, end);
  const long at = end - b.begin();
  for (int i = 0; i < repeats; ++i) b.insert(b.begin() + at, scan.begin(), scan.end());
  return b;
}

TEST_F(QImageTest, JpegSizeAndScanLimitsScaledDecodesAndShrinkingWhileDecoding) {
  QImage img;
  Jpeg("edge.jpg", 16384, 8);
  EXPECT_TRUE(img.Read(Tmp("edge.jpg").c_str()));
  EXPECT_EQ(img.GetWidth(), 16384);
  EXPECT_EQ(At(img, 16383, 7), Rgba(128, 128, 128, 255));
  for (auto [w, h] : {std::pair{16385, 8}, std::pair{8, 16385}}) {
    const Bytes jpeg = Jpeg("over.jpg", w, h);
    const std::string f = Tmp("over.jpg");
    EXPECT_FALSE(img.Read(f.c_str()));
    EXPECT_TRUE(log_.Seen("QImage:ReadJPG(); (" + f + ") is " + std::to_string(w) + "x" +
                       std::to_string(h) + " large; supported only upto 16384x16384"));
    // The limit is on what is decoded: half size fits.
    EXPECT_TRUE(img.ReadJPG(jpeg.data(), jpeg.size(), "over.jpg", 4));
    EXPECT_EQ(img.GetWidth() * img.GetHeight(), 8193 * 4);
  }

  const Bytes jpeg = Jpeg("s.jpg", 203, 101, true);
  int w = 0, h = 0;
  ASSERT_TRUE(QImage::ReadJPGSize(jpeg.data(), jpeg.size(), &w, &h));
  EXPECT_EQ(w * 1000 + h, 203101);
  EXPECT_FALSE(QImage::ReadJPGSize(jpeg.data(), 20, &w, &h));
  // 3/8 rounds up: 77 x 38.
  QImage scaled, shrunk;
  ASSERT_TRUE(scaled.ReadJPG(jpeg.data(), jpeg.size(), "s.jpg", 3));
  EXPECT_EQ(scaled.GetWidth() * 1000 + scaled.GetHeight(), 77038);
  // Shrinking row by row gives what shrinking the whole decode gives.
  ASSERT_TRUE(shrunk.ReadJPG(jpeg.data(), jpeg.size(), "s.jpg", 3, 50, 25));
  ASSERT_TRUE(scaled.AreaReduce(50, 25));
  ASSERT_EQ(shrunk.GetSize(), scaled.GetSize());
  EXPECT_EQ(memcmp(shrunk.GetBuffer(), scaled.GetBuffer(), size_t(scaled.GetSize())), 0);
  // A reduced size larger than the decode is ignored.
  ASSERT_TRUE(shrunk.ReadJPG(jpeg.data(), jpeg.size(), "s.jpg", 1, 100, 100));
  EXPECT_EQ(shrunk.GetWidth() * 1000 + shrunk.GetHeight(), 26013);
  // 90 scans decode, 110 are refused.
  const Bytes ninety = ProgressiveJpeg(80), more = ProgressiveJpeg(100);
  EXPECT_TRUE(img.ReadJPG(ninety.data(), ninety.size(), "ninety.jpg"));
  EXPECT_EQ(img.GetWidth() * 1000 + img.GetHeight(), 16008);
  EXPECT_FALSE(img.ReadJPG(more.data(), more.size(), "more.jpg", 8, 8, 4));
  EXPECT_TRUE(
      log_.Seen("QImage:ReadJPG(); (more.jpg) has more than 100 scans (stopped at scan 101)"));
}

TEST_F(QImageTest, JpegWarningsKeepWhatDecodedAndErrorsEndTheRead) {
  QImage img, whole;
  const Bytes photo = Jpeg("whole.jpg", 64, 64, true);
  ASSERT_TRUE(whole.Read(Tmp("whole.jpg").c_str()));
  const size_t rowBytes = size_t(whole.GetWidth()) * 4;
  // Only the end marker missing: the same picture.
  ASSERT_TRUE(img.Read(Put("noend.jpg", Bytes(photo.begin(), photo.end() - 2)).c_str()));
  ASSERT_EQ(img.GetSize(), whole.GetSize());
  EXPECT_EQ(memcmp(img.GetBuffer(), whole.GetBuffer(), whole.GetSize()), 0);
  // Cut at 60 %: the top rows (the last in memory) as decoded, the rest the library's fill.
  const std::string cut = Put("cut.jpg", Bytes(photo.begin(), photo.begin() + long(photo.size()) * 3 / 5));
  ASSERT_TRUE(img.Read(cut.c_str()));
  EXPECT_TRUE(log_.Seen("QImage:ReadJPG(" + cut + "); Premature end of JPEG file"));
  const int top = whole.GetHeight() - 1;
  EXPECT_EQ(memcmp(img.GetAddress(0, top), whole.GetAddress(0, top), rowBytes), 0);
  EXPECT_NE(memcmp(img.GetAddress(0, 0), whole.GetAddress(0, 0), rowBytes), 0);

  log_.Clear();
  EXPECT_FALSE(img.Read(Put("junk.jpg", {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x03, 0x42}).c_str()));
  EXPECT_TRUE(log_.Seen("QImage:ReadJPG(" + Tmp("junk.jpg") + "); "));
}

TEST_F(QImageTest, BitmapRowsAreReadUnpaddedAndShortOrLyingFilesAreSafe) {
  QImage img;
  ASSERT_TRUE(ReadFixture(&img, "rgb24_w4.bmp"));
  ExpectSource(img, false, "w4", 4);

  // 15-byte rows padded to 16: the first row read is right, the next starts one byte early.
  ASSERT_TRUE(ReadFixture(&img, "rgb24_w5.bmp"));
  for (int x = 0; x < 5; ++x) EXPECT_EQ(At(img, x, 2), Src(x, 2, false)) << x;
  const uint32_t next = Src(0, 1, false);  // read as pad, blue, green
  EXPECT_EQ(At(img, 0, 1), Rgba(next >> 16 & 255, next >> 8 & 255, 0, 255));

  // 8 bits: the palette index itself is the grey level.
  ASSERT_TRUE(ReadFixture(&img, "index8.bmp"));
  const Bytes index8 = ImageFixture("index8.bmp");
  const size_t offset = index8[10] | (index8[11] << 8);
  for (int i = 0; i < 15; ++i) {
    const uint8_t v = index8[offset + size_t(i)];
    EXPECT_EQ(At(img, i % 5, 2 - i / 5), Rgba(v, v, v, 255)) << i;
  }

  Bytes bmp = ImageFixture("rgb24_w4.bmp");
  bmp.resize(bmp.size() - 12);  // the top row is missing
  ASSERT_TRUE(img.Read(Put("short.bmp", bmp).c_str()));
  EXPECT_EQ(At(img, 0, 0), Rgba(0, 0, 0, 255));
  EXPECT_EQ(At(img, 0, 2), Src(0, 2, false));

  Bytes rle = ImageFixture("rgb24_w4.bmp");
  rle[30] = 1;  // compressed: deliberately true with nothing decoded, and black
  // The short picture's block (same geometry) is freed and likely handed straight back.
  EXPECT_TRUE(img.Read(Put("rle.bmp", rle).c_str()));
  EXPECT_TRUE(log_.Seen("unsupported #bits (24) or compression (1)"));
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) EXPECT_EQ(At(img, x, y), 0u) << x << "," << y;
}

TEST_F(QImageTest, SgiByteOrdersRunLengthLyingTablesAndOverlongRows) {
  QImage img;
  for (const char* name : {"rgba_be.rgb", "rgba_le.rgb", "rgba_be_rle.rgb"}) {
    ASSERT_TRUE(ReadFixture(&img, name)) << name;
    ExpectSource(img, true, name);
  }
  // One channel: green and blue copy red, alpha is opaque.
  ASSERT_TRUE(ReadFixture(&img, "grey_be_rle.rgb"));
  ExpectPicture(img, 5, 3, Ref("grey_be_rle_ref.pgm"), "grey_be_rle.rgb", 0);

  Bytes rle = ImageFixture("rgba_be_rle.rgb");
  Bytes far = rle;
  far[512] = 0x7F;  // first row starts 2 GB into the file
  EXPECT_FALSE(img.Read(Put("far.rgb", far).c_str()));
  EXPECT_TRUE(log_.Seen("QImage::Read: can't read rle chunk"));

  // Every row of the first channel points at one run of 127 pixels: it runs on into the rows
  // above and, for the top row, would leave the picture.
  Bytes runs = rle;
  const uint32_t at = uint32_t(runs.size());
  runs.insert(runs.end(), {0x7F, 0x55, 0x00});
  for (int row = 0; row < 3; ++row) {
    for (int k = 0; k < 4; ++k) runs[512 + row * 4 + k] = uint8_t(at >> (24 - 8 * k));
    for (int k = 0; k < 4; ++k) runs[512 + 48 + row * 4 + k] = uint8_t(3 >> (24 - 8 * k));
  }
  ASSERT_TRUE(img.Read(Put("runs.rgb", runs).c_str()));
  EXPECT_EQ(At(img, 4, 0) >> 24, 0x55u);

  Bytes wide = ImageFixture("rgba_be.rgb");
  wide[6] = 0x40, wide[7] = 0x01;  // 16385
  EXPECT_FALSE(img.Read(Put("wide.rgb", wide).c_str()));
  EXPECT_TRUE(log_.Seen(Tmp("wide.rgb") + " width 16385 out of bounds"));
}

// Photoshop
struct PsdBuilder {
  Bytes b;
  void U8(int v) { b.push_back(uint8_t(v)); }
  void U16(int v) { U8(v >> 8), U8(v); }
  void U32(uint32_t v) { U16(int(v >> 16)), U16(int(v & 0xFFFF)); }
  void Text(const char* t) { b.insert(b.end(), t, t + strlen(t)); }
  void Header(int rows, int cols) {
    Text("8BPS"), U16(1), U32(0), U16(0);
    U16(3), U32(uint32_t(rows)), U32(uint32_t(cols)), U16(8), U16(3);
    U32(0), U32(0), U32(0), U32(0);  // colour data, resources, layer-and-mask, layer info
  }
  // A layer record with channels 0, 1, 2 and the given mask record length.
  void Layer(int top, int left, int bottom, int right, int maskSize) {
    U32(uint32_t(top)), U32(uint32_t(left)), U32(uint32_t(bottom)), U32(uint32_t(right));
    U16(3);
    for (int id = 0; id < 3; ++id) U16(id), U32(0);
    Text("8BIMnorm"), U8(255), U8(0), U8(0), U8(0);
    U32(uint32_t(4 + maskSize + 4 + 2)), U32(uint32_t(maskSize));
    b.resize(b.size() + size_t(maskSize), 0);
    U32(0), U8(1), U8('L');
  }
};

TEST_F(QImageTest, PsdLayersOverWhiteAMaskOf36BytesFailsAndEdgesStayInside) {
  QImage img;
  ASSERT_TRUE(ReadFixture(&img, "layers.psd"));
  ASSERT_EQ(img.GetWidth(), 6);
  ASSERT_EQ(img.GetHeight(), 4);
  // Outside every layer: the white start.
  EXPECT_EQ(At(img, 0, 0), Rgba(255, 255, 255, 255));
  // The opaque layer (alpha channel last, weight 255): s * 255 >> 8, alpha 255 * 255 >> 8.
  EXPECT_EQ(At(img, 1, 1), Rgba(199, 99, 49, 254));
  // Alpha 128: the first pixel still weighs 255, the others the previous pixel's 128.
  const int a = (254 * (255 - 128) + 128 * 128) >> 8;
  EXPECT_EQ(At(img, 3, 2), Rgba((10 * 255 + 199 * 0) >> 8, (20 * 255) >> 8, (30 * 255) >> 8, a));
  EXPECT_EQ(At(img, 4, 2), Rgba((10 * 128 + 255 * 127) >> 8, (20 * 128 + 255 * 127) >> 8,
                                (30 * 128 + 255 * 127) >> 8, (255 * 127 + 128 * 128) >> 8));

  PsdBuilder masked;
  masked.Header(2, 2), masked.U16(1), masked.Layer(0, 0, 1, 1, 36);
  EXPECT_FALSE(img.Read(Put("mask.psd", masked.b).c_str()));
  EXPECT_TRUE(log_.Seen("Unsupported layer mask size (36)"));

  // A 2 x 2 layer at (1, 1) on a 2 x 2 canvas: the parts past the edges wrap or fall outside.
  PsdBuilder edge;
  edge.Header(2, 2), edge.U16(1), edge.Layer(1, 1, 3, 3, 0);
  for (int ch = 0; ch < 3; ++ch) {
    edge.U16(1), edge.U16(2), edge.U16(2);
    // PackBits -128: 129 bytes a row, past the channel's buffer.
    edge.U8(0x80), edge.U8(40 + ch), edge.U8(0x80), edge.U8(40 + ch);
  }
  edge.b.resize(edge.b.size() + 64, 0);  // room for the merged image a real file has
  ASSERT_TRUE(img.Read(Put("edge.psd", edge.b).c_str()));
  const uint32_t layer = Rgba(39, 40, 41, 255);
  EXPECT_EQ(At(img, 1, 1), layer);
  EXPECT_EQ(At(img, 0, 0), layer);  // (2, 1) wrapped into the row above
  EXPECT_EQ(At(img, 0, 1), layer);  // (2, 2) wrapped back into the block from below it
  EXPECT_EQ(At(img, 1, 0), Rgba(255, 255, 255, 255));
}

// MIP
Bytes Mip(int w, int h, int bytesPerRow, int pixelType, int cmapSize, const Bytes& pixels) {
  Bytes b = {'P', 'I', 'M', ' '};
  b.resize(12, 0);
  b.resize(b.size() + 13, 0);
  b.back() = 5;  // kind: no colour map here
  b.resize(b.size() + 12 + 7 + 12, 0);
  b.resize(b.size() + 13, 0);
  b.back() = uint8_t(pixelType);
  for (int v : {w, h, bytesPerRow})
    for (int k = 0; k < 4; ++k) b.push_back(uint8_t(v >> (8 * k)));
  b.resize(b.size() + 3, 0);
  const size_t cmap = b.size();
  b.resize(cmap + 76, 0);
  b[cmap + 8] = uint8_t(cmapSize);
  for (int i = 0; i < 16; ++i) {  // entry i: B = i, G = 16 i, R = 255 - i, A = 200
    uint8_t* e = &b[cmap + 12 + size_t(i) * 4];
    e[0] = uint8_t(i), e[1] = uint8_t(16 * i), e[2] = uint8_t(255 - i), e[3] = 200;
  }
  b.resize(b.size() + 12, 0);
  b.insert(b.end(), pixels.begin(), pixels.end());
  return b;
}
uint32_t Entry(int i) { return Rgba(255 - i, 16 * i, i, 200); }

TEST_F(QImageTest, MipNibblesThroughThePalette) {
  QImage img;
  // 3 x 2, two bytes per row: the odd width skips each row's last low nibble.
  ASSERT_TRUE(img.Read(Put("a.mip", Mip(3, 2, 2, 2, 64, {0x12, 0x3F, 0x45, 0x6F})).c_str()));
  EXPECT_TRUE(log_.Seen("QImage:ReadMip(" + Tmp("a.mip") + ")"));
  const int want[2][3] = {{1, 2, 3}, {4, 5, 6}};
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) EXPECT_EQ(At(img, x, y), Entry(want[y][x]));

  Bytes wrong = Mip(3, 2, 2, 2, 64, {1, 2, 3, 4});
  wrong[3] = 'X';
  for (const auto& [file, message] : std::vector<std::pair<Bytes, std::string>>{
           {Mip(3, 2, 2, 2, 32, {1, 2, 3, 4}), "MIP with CMAP size!=64; unexpected"},
           {Mip(3, 2, 2, 3, 64, {1, 2, 3, 4}), "MIP type 3 not yet supported"},
           {wrong, "MIP image doesn't have correct header"}}) {
    EXPECT_FALSE(img.Read(Put("x.mip", file).c_str())) << message;
    EXPECT_TRUE(log_.Seen(message)) << message;
  }
  EXPECT_TRUE(log_.Seen("Failed to read CMAP in " + Tmp("x.mip")));
}

// The corpora's "bomb_*" files ask for hundreds of megabytes: refused from the header at once.
TEST_F(QImageTest, SizeBombsInTheFuzzCorporaAreRefusedAtOnce) {
  namespace fs = std::filesystem;
  int bombs = 0;
  for (const auto& dir : fs::directory_iterator(std::string(GLIMRA_SOURCE_DIR) + "/fuzz/corpus")) {
    if (dir.path().filename().string().rfind("qimage_", 0) != 0) continue;
    for (const auto& f : fs::directory_iterator(dir.path())) {
      if (f.path().filename().string().rfind("bomb_", 0) != 0) continue;
      const std::string path = Tmp("bomb" + f.path().extension().string());
      fs::copy_file(f.path(), path, fs::copy_options::overwrite_existing);
      for (bool inMemory : {false, true}) {
        QSetVirtualFileSystem(inMemory ? &vfs_ : nullptr);
        const auto start = std::chrono::steady_clock::now();
        QImage img;
        EXPECT_FALSE(img.Read(path.c_str())) << f.path();
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start);
        EXPECT_LT(ms.count(), 50) << f.path();
        EXPECT_EQ(img.GetBuffer(), nullptr) << f.path();
      }
      ++bombs;
    }
  }
  EXPECT_GE(bombs, 10);
  log_.Clear();
}

TEST_F(QImageTest, PngEveryKindReadsFromFileAndMemoryWithAlphaOverBlack) {
  const Picture grey = Ref("grey8_ref.pgm");
  const Picture srcOverBlack = [](int x, int y) { return Over(SrcRgb(x, y), SrcAlpha(x, y)); };
  struct Case { const char* file; int w, h; Picture want; };
  const Case cases[] = {
      {"rgba.png", 5, 3, srcOverBlack},
      {"rgba_adam7.png", 5, 3, srcOverBlack},
      {"grey8.png", 5, 3, grey},
      {"grey_alpha.png", 5, 3, [&grey](int x, int y) { return Over(grey(x, y), SrcAlpha(x, y)); }},
      // Palette index of (0, 0)'s colour is transparent: black; the rest opaque.
      {"palette_trns.png", 5, 3, [](int x, int y) { return x + y ? SrcRgb(x, y) : Rgb{0, 0, 0}; }},
      // The high byte counts: the low bytes of these samples differ from the high ones.
      {"grey16.png", 3, 5, Ref("grey16_ref.pgm")},
  };
  for (const Case& c : cases) {
    QImage fromFile, fromMemory;
    ASSERT_TRUE(ReadFixture(&fromFile, c.file)) << c.file;
    ExpectPicture(fromFile, c.w, c.h, c.want, c.file);
    const Bytes b = ImageFixture(c.file);
    ASSERT_TRUE(fromMemory.ReadPNG(b.data(), b.size(), c.file)) << c.file;
    ExpectPicture(fromMemory, c.w, c.h, c.want, std::string(c.file) + " in memory");
  }
}

// The header of a w x h RGBA PNG and `idat` bytes of undecodable pixel data.
Bytes PngHeader(uint32_t w, uint32_t h, bool interlaced, size_t idat) {
  Bytes b = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  const auto chunk = [&b](const char* type, Bytes data) {
    for (int k = 3; k >= 0; --k) b.push_back(uint8_t(data.size() >> (8 * k)));
    data.insert(data.begin(), type, type + 4);
    const uint32_t crc = uint32_t(crc32(0, data.data(), uInt(data.size())));
    b.insert(b.end(), data.begin(), data.end());
    for (int k = 3; k >= 0; --k) b.push_back(uint8_t(crc >> (8 * k)));
  };
  Bytes ihdr;
  for (uint32_t v : {w, h})
    for (int k = 3; k >= 0; --k) ihdr.push_back(uint8_t(v >> (8 * k)));
  ihdr.insert(ihdr.end(), {8, PNG_COLOR_TYPE_RGBA, 0, 0, uint8_t(interlaced)});
  chunk("IHDR", ihdr);
  chunk("IDAT", Bytes(idat, 0));
  return b;
}

TEST_F(QImageTest, PngCutFilesKeepTheDecodedRowsDamageFailsAndOversizedIsRefused) {
  const auto black = [](const QImage& img, int y) {
    for (int x = 0; x < img.GetWidth(); ++x)
      if (memcmp(img.GetAddress(x, img.GetHeight() - 1 - y), "\0\0\0\xff", 4) != 0) return false;
    return true;
  };
  const size_t rowBytes = 64 * 4;
  Bytes whole;
  for (bool interlaced : {false, true}) {
    whole = MakePng(64, 256, interlaced);  // about 48 kB, cut at 45 %
    ASSERT_GT(whole.size(), 40000u);
    QImage full, cut;
    ASSERT_TRUE(full.ReadPNG(whole.data(), whole.size(), "whole.png"));
    // The whole picture's block, freed by the cut read, is likely handed straight back.
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
      // The first six passes hold every pixel of the even rows; the odd rows come with the 7th.
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
  // Cut after its header, before any pixel data.
  EXPECT_FALSE(img.ReadPNG(ImageFixture("rgba.png").data(), 33, "head.png"));

  // The header's sizes are checked before the library sees them (the checksum is not redone).
  const Bytes wide = MakePng(16384, 2);
  ASSERT_TRUE(img.ReadPNG(wide.data(), wide.size(), "edge.png") && img.GetWidth() == 16384);
  for (auto [w, h] : {std::pair{16385u, 2u}, std::pair{2u, 0x7FFFFFFFu}}) {
    Bytes b = ImageFixture("rgba.png");
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
  // 7100 x 7100 x 4 bytes are more than one decode may hold, unless plain rows are shrunk.
  QImage limit;
  const Bytes plain = PngHeader(7100, 7100, false, 200000);
  EXPECT_FALSE(limit.ReadPNG(plain.data(), plain.size(), "big.png"));
  EXPECT_EQ(limit.GetBuffer(), nullptr);
  EXPECT_TRUE(
      log_.Seen("QImage:ReadPNG(); (big.png) is a 7100x7100: decoding it needs 193 MB, more than 192"));
  // Past the header check: the undecodable pixel data fails the read, not the limit.
  log_.Clear();
  EXPECT_FALSE(limit.ReadPNG(plain.data(), plain.size(), "big.png", 700, 700));
  EXPECT_FALSE(log_.Seen("decoding it needs"));
  const Bytes adam7 = PngHeader(7100, 7100, true, 200000);
  EXPECT_FALSE(limit.ReadPNG(adam7.data(), adam7.size(), "adam7.png", 700, 700));
  EXPECT_TRUE(log_.Seen("(adam7.png) is an interlaced 7100x7100: decoding it needs 195 MB"));
}

// For every kind of PNG, interlaced or not, whole or cut short.
TEST_F(QImageTest, PngShrunkWhileDecodingEqualsTheWholeDecodeShrunk) {
  using Kind = std::pair<int, int>;  // colour type, bits
  for (auto [type, depth] : {Kind{PNG_COLOR_TYPE_GRAY, 8}, Kind{PNG_COLOR_TYPE_PALETTE, 8},
                             Kind{PNG_COLOR_TYPE_RGB, 16}, Kind{PNG_COLOR_TYPE_RGBA, 8}})
    for (bool interlaced : {false, true}) {
      const Bytes png = MakePng(203, 101, interlaced, type, depth);
      for (size_t size : {png.size(), png.size() * 3 / 5}) {
        const std::string what = "type " + std::to_string(type) + "/" + std::to_string(depth) +
                                 (interlaced ? " interlaced " : " ") + std::to_string(size);
        QImage whole, shrunk;
        ASSERT_TRUE(whole.ReadPNG(png.data(), size, "w.png")) << what;
        ASSERT_TRUE(whole.AreaReduce(50, 25)) << what;
        ASSERT_TRUE(shrunk.ReadPNG(png.data(), size, "s.png", 50, 25)) << what;
        ASSERT_EQ(shrunk.GetSize(), whole.GetSize()) << what;
        EXPECT_EQ(memcmp(shrunk.GetBuffer(), whole.GetBuffer(), size_t(whole.GetSize())), 0)
            << what;
      }
    }
  int w = 0, h = 0;
  const Bytes png = MakePng(203, 101);
  ASSERT_TRUE(QImage::ReadPNGSize(png.data(), png.size(), &w, &h));
  EXPECT_EQ(w * 1000 + h, 203101);
  EXPECT_FALSE(QImage::ReadPNGSize(png.data(), 20, &w, &h));
}

}  // namespace
