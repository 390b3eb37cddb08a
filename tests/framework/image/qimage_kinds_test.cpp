// QImage's library readers on fixtures from make_kinds.sh: 64 x 48 quadrants red, green, blue,
// yellow, so that a turn, a mirror or a swapped channel shows; then cut files and lying headers.
#include "framework/image/qimage.h"
#include "framework/image/qpicturekinds.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;

// As the loader reads from memory: the header first (WebP's orientation), then the reader (TIFF's).
bool ReadKind(QImage* img, const std::string& name, const Bytes& b, int* orientation,
              const QPictureKind::Target& target = {}) {
  *orientation = 0;
  const QPictureKind* kind = qPictureKindOf(name.c_str());
  if (!kind || !kind->readMemory) return false;
  int w = 0, h = 0;
  if (kind->readSize) kind->readSize(b.data(), b.size(), &w, &h, orientation);
  return kind->readMemory(img, b.data(), b.size(), name.c_str(), target, orientation);
}

// RGBA of the pixel at (x, y from the top).
std::vector<int> At(const QBitMap& bm, int x, int y) {
  const uint8_t* p = bm.GetAddress(x, bm.GetHeight() - 1 - y);
  if (!p) return {};
  return {p[0], p[1], p[2], p[3]};
}

struct Spot { int x, y; std::vector<int> rgba; };
const Spot kQuad[] = {{16, 12, {220, 30, 30, 255}},
                      {48, 12, {30, 200, 60, 255}},
                      {16, 36, {40, 60, 220, 255}},
                      {48, 36, {230, 210, 40, 255}}};

// Orientation 6 stores the upright pixel (u, v) at (v, 63 - u).
void ExpectQuadrants(const QImage& img, int orientation, int tol, const std::string& what,
                     bool redTransparent = false) {
  for (const Spot& s : kQuad) {
    std::vector<int> want = s.rgba;
    if (redTransparent && &s == kQuad) want = {0, 0, 0, 0};
    const std::vector<int> got =
        orientation == 6 ? At(img, s.y, 63 - s.x) : At(img, s.x, s.y);
    ASSERT_EQ(got.size(), 4u) << what;
    for (int c = 0; c < 4; ++c)
      EXPECT_LE(std::abs(got[size_t(c)] - want[size_t(c)]), tol)
          << what << " at " << s.x << "," << s.y << " channel " << c;
  }
}

// Mean absolute difference per channel from a PNG of the same size.
double MeanDifference(const QImage& img, const std::string& refName) {
  QImage ref;
  const Bytes b = ImageFixture(refName);
  if (!ref.ReadPNG(b.data(), b.size(), refName.c_str()) || ref.GetWidth() != img.GetWidth() ||
      ref.GetHeight() != img.GetHeight())
    return 1e9;
  double sum = 0;
  for (int i = 0; i < img.GetSize(); ++i)
    if (i % 4 != 3) sum += std::abs(int(img.GetBuffer()[i]) - int(ref.GetBuffer()[i]));
  return sum / (img.GetWidth() * img.GetHeight() * 3.0);
}

struct QImageKindsTest : ::testing::Test { LogCapture log_; };

TEST_F(QImageKindsTest, EachKindDecodesItsQuadrantsInPlaceFromAFileAndFromMemory) {
  const struct {
    const char* file;
    const char* ref;  // ImageMagick's decode, or null
    int orientation, tol;
  } cases[] = {
      {"quad.heic", "quad_heic_ref.png", 0, 12},  {"quad.avif", "quad_avif_ref.png", 0, 12},
      // Stored turned, with an irot box that libheif applies: upright and reported as such.
      {"quad_irot.heic", "quad_irot_heic_ref.png", 0, 12},
      {"quad.webp", "quad_webp_ref.png", 0, 12},  {"quad_o6.webp", "quad_o6_webp_ref.png", 6, 12},
      {"anim.webp", nullptr, 0, 0},               {"anim.gif", nullptr, 0, 0},
      // ImageMagick writes the Orientation tag of TIFF files, 1 when upright.
      {"quad.tif", nullptr, 1, 0},                {"quad_tiled.tif", nullptr, 1, 0},
      {"quad_palette.tif", nullptr, 1, 0},        {"quad_cmyk.tif", nullptr, 1, 3},
      {"quad_o6.tif", nullptr, 6, 0},
      {"quad_grey16.tif", "quad_grey16_tif_ref.png", 1, -1},
  };
  for (const auto& c : cases) {
    const Bytes bytes = ImageFixture(c.file);
    QImage fromMemory, fromFile;
    int orientation = -1;
    ASSERT_TRUE(ReadKind(&fromMemory, c.file, bytes, &orientation)) << c.file;
    EXPECT_EQ(orientation, c.orientation) << c.file;
    ASSERT_TRUE(fromFile.Read((kTestImages + c.file).c_str())) << c.file;
    const bool turned = c.orientation == 6;
    EXPECT_EQ(fromMemory.GetWidth(), turned ? 48 : 64) << c.file;
    EXPECT_EQ(fromMemory.GetHeight(), turned ? 64 : 48) << c.file;
    ASSERT_EQ(fromFile.GetSize(), fromMemory.GetSize()) << c.file;
    EXPECT_EQ(memcmp(fromFile.GetBuffer(), fromMemory.GetBuffer(), size_t(fromFile.GetSize())), 0)
        << c.file;
    if (c.tol >= 0) ExpectQuadrants(fromMemory, c.orientation, c.tol, c.file);
    if (c.ref) {
      EXPECT_LE(MeanDifference(fromMemory, c.ref), c.tol > 0 ? 4.0 : 0.5) << c.file;
    }
  }
  EXPECT_EQ(log_.Lines(), std::vector<std::string>{});

  // An interlaced GIF whose red is its transparent colour: black with alpha 0 there.
  QImage gif;
  ASSERT_TRUE(gif.Read((kTestImages + "trns_interlaced.gif").c_str()));
  ExpectQuadrants(gif, 0, 0, "trns_interlaced.gif", true);
}

// WebP decodes scaled; HEIF and TIFF reduce their rows as the library hands them over.
TEST_F(QImageKindsTest, WebPHeifAndTiffComeOutAtTheSizeAskedFor) {
  for (const char* name : {"quad.webp", "quad.heic", "quad.avif", "quad.tif", "quad_tiled.tif"}) {
    const Bytes b = ImageFixture(name);
    QImage img;
    int orientation = 0;
    ASSERT_TRUE(ReadKind(&img, name, b, &orientation, {8, 32, 24})) << name;

    ASSERT_EQ(img.GetWidth(), 32) << name;
    ASSERT_EQ(img.GetHeight(), 24) << name;
    for (const Spot& s : kQuad) {
      const std::vector<int> got = At(img, s.x / 2, s.y / 2);
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(got[size_t(c)], s.rgba[size_t(c)], 16) << name << " " << s.x << "," << s.y;
    }
  }
}

// A broken file answers false, warns naming the file, and leaves the picture as it was.
void ExpectRefused(LogCapture* log, const std::string& name, const Bytes& b, const char* why) {
  QImage img;
  ASSERT_TRUE(img.Alloc(32, 2, 2));
  memset(img.GetBuffer(), 0x5A, 16);
  log->Clear();
  int orientation = 0;
  EXPECT_FALSE(ReadKind(&img, name, b, &orientation)) << name << " " << why;
  EXPECT_TRUE(log->Seen(name)) << name << " " << why;
  EXPECT_EQ(img.GetWidth(), 2) << name << " " << why;
  ASSERT_EQ(img.GetHeight(), 2) << name << " " << why;
  for (int i = 0; i < 16; ++i) ASSERT_EQ(img.GetBuffer()[i], 0x5A) << name << " " << why;
}

// One cut file per reader; the fuzz targets try every other damage.
TEST_F(QImageKindsTest, ACutFileFailsWithAWarningAndKeepsThePicture) {
  for (const char* name : {"quad.heic", "quad.webp", "anim.gif", "quad.tif"}) {
    const Bytes whole = ImageFixture(name);
    ExpectRefused(&log_, name, Bytes(whole.begin(), whole.begin() + whole.size() / 2), "cut");
  }
}

long PeakKb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// quad.tif with its width and length tags (SHORT or LONG, little-endian) set to `v`.
Bytes TiffSized(uint32_t v) {
  Bytes b = ImageFixture("quad.tif");
  if (b.size() < 8 || b[0] != 'I') return {};
  const uint32_t ifd = b[4] | b[5] << 8 | b[6] << 16 | uint32_t(b[7]) << 24;
  const int count = b[ifd] | b[ifd + 1] << 8;
  for (int i = 0; i < count; ++i) {
    uint8_t* e = &b[ifd + 2 + 12 * size_t(i)];
    const int tag = e[0] | e[1] << 8;
    if (tag == 256 || tag == 257)
      for (int k = 0; k < 4; ++k) e[8 + k] = uint8_t(v >> (8 * k));
  }
  return b;
}

// `name` with every ispe box (HEIF's picture size) saying `v` x `v`.
Bytes HeifSized(const char* name, uint32_t v) {
  Bytes b = ImageFixture(name);
  for (size_t at = 4; at + 16 <= b.size(); ++at)
    if (memcmp(&b[at], "ispe", 4) == 0)
      for (int i = 0; i < 8; ++i) b[at + 8 + size_t(i)] = uint8_t(v >> (24 - 8 * (i % 4)));
  return b;
}

TEST_F(QImageKindsTest, AHeaderClaiming16000SquaredIsRefusedBeforeAnythingLargeIsAllocated) {
  Bytes gif = ImageFixture("anim.gif");
  gif[6] = gif[8] = 16000 & 255, gif[7] = gif[9] = 16000 >> 8;
  Bytes webp = ImageFixture("quad.webp");
  ASSERT_EQ(memcmp(&webp[12], "VP8 ", 4), 0);  // the lossy frame's 14-bit sizes at 26 and 28
  webp[26] = webp[28] = 16000 & 255, webp[27] = webp[29] = 16000 >> 8;
  const struct { const char* name; Bytes bytes; } cases[] = {
      {"big.heic", HeifSized("quad.heic", 16000)}, {"big.avif", HeifSized("quad.avif", 16000)},
      {"big.webp", webp}, {"big.gif", gif}, {"big.tif", TiffSized(16000)}};
  // 16000 x 16000 pixels would take a gigabyte.
  const long before = PeakKb();
  for (const auto& c : cases) {
    ExpectRefused(&log_, c.name, c.bytes, "16000 x 16000");
    EXPECT_TRUE(log_.Seen("16000x16000")) << c.name << ": " << ::testing::PrintToString(log_.Lines());
  }
  EXPECT_LT(PeakKb() - before, 64 * 1024) << "peak memory grew by kB";

  // A size its bytes could hold, whose decode (planes and RGB copy) needs more than allowed.
  ExpectRefused(&log_, "large.heic", HeifSized("quad.heic", 6000), "6000 x 6000");
  EXPECT_TRUE(log_.Seen("is a 6000x6000: decoding it needs 344 MB, more than 192")) << ::testing::PrintToString(log_.Lines());
}

}  // namespace
