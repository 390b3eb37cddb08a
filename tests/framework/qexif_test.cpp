// QExif: real pictures written by other programs, and hand-built segments aimed at the checks.
#include "framework/qexif.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Fixture(const char* name) {
  Bytes b = ReadBytes(std::string(GLIMRA_SOURCE_DIR) + "/tests/data/exif/" + name);
  EXPECT_FALSE(b.empty()) << name;
  return b;
}

int32_t ReadFile(QExif* x, const char* name) {
  Bytes b = Fixture(name);
  return x->ReadFromJpeg(b.data(), b.size());
}

// Builds a little-endian EXIF payload: "Exif\0\0", the TIFF header, then whatever is appended.
// Offsets given to the entries count from the TIFF header, as in files.
constexpr uint8_t kLittleHeader[] = {'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0};

struct SegmentBuilder {
  Bytes b{std::begin(kLittleHeader), std::end(kLittleHeader)};

  size_t Tiff() const { return b.size() - 6; }  // current offset relative to the TIFF header
  void U16(uint16_t v) { b.insert(b.end(), {uint8_t(v), uint8_t(v >> 8)}); }
  void U32(uint32_t v) { U16(uint16_t(v)), U16(uint16_t(v >> 16)); }
  void Entry(uint16_t tag, uint16_t format, uint32_t count, uint32_t value) {
    U16(tag), U16(format), U32(count), U32(value);
  }
  void PutU32(size_t at, uint32_t v) {
    ASSERT_LE(at + 4, b.size());
    for (size_t k = 0; k < 4; ++k) b.at(at + k) = static_cast<uint8_t>(v >> (8 * k));
  }
  int32_t Parse(QExif* x) const { return x->ReadExifSegment(b.data(), b.size()); }
};

constexpr uint16_t kShort = 3, kLong = 4, kRational = 5, kAscii = 2;

// ---------------------------------------------------------------------------------------------

TEST(QExifJpeg, FixturesGiveTheirOrientationOrTheirFault) {
  // Each read starts from the previous one's record: stale values must not survive.
  const struct {
    const char* file;
    int32_t result;
    int orientation, littleEndian;
  } cases[] = {
      {"orient6_ii.jpg", 0, 6, 1},
      {"orient8_mm.jpg", 0, 8, 0},
      {"trailing.jpg", 0, 6, 1},  // padding after the end marker is ignored
      {"plain.jpg", QExif::NO_EXIF, 0, -1},
      {"orient6_ii.jpg", 0, 6, 1},
      {"xmp_first.jpg", QExif::NO_EXIF, 0, -1},  // only the first APP1 counts, and it holds XMP
      {"orient_long.jpg", 0, 0, -1},             // orientation stored as a long is ignored
      {"truncated.jpg", QExif::NOT_JPEG, -1, -1},
      {"picture.tga", QExif::NOT_JPEG, -1, -1},
      {"short_segment.jpg", QExif::CORRUPT, -1, -1},
  };
  QExif x;
  for (const auto& c : cases) {
    EXPECT_EQ(ReadFile(&x, c.file), c.result) << c.file;
    if (c.orientation >= 0) {
      EXPECT_EQ(x.orientation, c.orientation) << c.file;
    }
    if (c.littleEndian >= 0) {
      EXPECT_EQ(x.littleEndian, c.littleEndian) << c.file;
    }
  }
  EXPECT_EQ(x.ReadFromJpeg(nullptr, 100), QExif::NOT_JPEG);
  const uint8_t tiny[] = {0xFF, 0xD8, 0xFF};
  EXPECT_EQ(x.ReadFromJpeg(tiny, sizeof(tiny)), QExif::NOT_JPEG);
  // Start marker and padding only: the search for an end marker stops at the start marker.
  const uint8_t empty[] = {0xFF, 0xD8, 0, 0xFF, 0};
  EXPECT_EQ(x.ReadFromJpeg(empty, sizeof(empty)), QExif::NO_EXIF);
}

TEST(QExifJpeg, SegmentLengthRunningPastTheEndMarker) {
  QExif x;
  Bytes b = Fixture("orient6_ii.jpg");
  ASSERT_EQ(b[20], 0xFF);
  ASSERT_EQ(b[21], 0xE1);
  b[22] = 0x7F;
  EXPECT_EQ(x.ReadFromJpeg(b.data(), b.size()), QExif::CORRUPT);
}

TEST(QExifJpeg, FrameworkStringStopsAtFirstZero) {
  QExif x;
  // Marker found, length 0x0102 runs past the end: proves the string's bytes were searched.
  qstring s("\xFF\xD8\xFF\xE1\x01\x02\xFF\xD9");
  EXPECT_EQ(x.ReadFromJpeg(s), QExif::CORRUPT);
  // A real file's text ends in its JFIF header: no end marker there.
  Bytes b = Fixture("orient6_ii.jpg");
  b.push_back(0);
  qstring file(reinterpret_cast<const char*>(b.data()));
  EXPECT_EQ(x.ReadFromJpeg(file), QExif::NOT_JPEG);
}

// Values as exiftool wrote them (see make_fixtures.sh).
TEST(QExifJpeg, DescriptiveAndCameraFields) {
  QExif x;
  ASSERT_EQ(ReadFile(&x, "described.jpg"), 0);
  EXPECT_EQ(x.orientation, 3);
  std::string texts;
  for (const qstring* t : {&x.description, &x.cameraMake, &x.cameraModel, &x.software, &x.dateTime,
                           &x.rightsNotice, &x.dateTimeOriginal, &x.dateTimeDigitized,
                           &x.subSecTimeOriginal, &x.lensMake})
    texts += std::string(t->cstr()) + "|";
  EXPECT_EQ(texts, "Harbour at dusk|Glimra Test|Fixture One|fixture writer|2021:06:05 14:03:09|"
                   "CC0 test fixture|2021:06:05 14:03:07|2021:06:05 14:03:08|42|Glimra Optics|");
  const QExif::GeoLocation& g = x.geoLocation;
  const double got[] = {x.exposureTime, x.shutterSpeedValue, x.exposureBias, x.subjectDistance,
                        x.focalLength, x.focalPlaneXResolution, x.focalPlaneYResolution,
                        x.lensInfo.focalLengthMin, x.lensInfo.focalLengthMax, x.lensInfo.fStopMin,
                        x.lensInfo.fStopMax, g.latComponents.degrees, g.latComponents.minutes,
                        g.latComponents.seconds, g.altitude, g.dop};
  // The shutter speed and the exposure bias are signed rationals in the file: no decoded value.
  const double want[] = {1.0 / 250, 0, 0, 2.5, 35, 1000, 2000, 24, 70, 2.8, 4,
                         33, 51, 24.48, -12.5, 1.5};
  for (size_t i = 0; i < std::size(want); ++i) EXPECT_DOUBLE_EQ(got[i], want[i]) << "value " << i;
  EXPECT_TRUE(x.meteringMode == 5 && x.flash == 16 && x.imageWidth == 16u && x.focalLengthIn35mm == 52);
  EXPECT_TRUE(g.hasPosition);
  EXPECT_NEAR(g.latitude, -33.8568, 1e-9);
  EXPECT_NEAR(g.longitude, -70.6693, 1e-9);
  EXPECT_EQ(std::string() + g.latComponents.direction + g.lonComponents.direction, "SW");

  // The next parse starts from a clear record.
  ASSERT_EQ(ReadFile(&x, "orient8_mm.jpg"), 0);
  EXPECT_TRUE(x.cameraMake.IsEmpty());
  EXPECT_FALSE(x.geoLocation.hasPosition);
  EXPECT_DOUBLE_EQ(x.exposureTime, 0);
}

// ---------------------------------------------------------------------------------------------

TEST(QExifSegment, HeaderChecks) {
  QExif x;
  EXPECT_EQ(x.ReadExifSegment(nullptr, 20), QExif::NO_EXIF);
  const uint8_t xmp[] = "http://ns.adobe.com/xap/1.0/";
  EXPECT_EQ(x.ReadExifSegment(xmp, sizeof(xmp)), QExif::NO_EXIF);

  SegmentBuilder s;
  EXPECT_EQ(x.ReadExifSegment(s.b.data(), 13), QExif::CORRUPT);
  s.b[6] = 'I';
  s.b[7] = 'M';
  EXPECT_EQ(s.Parse(&x), QExif::BAD_BYTE_ORDER);
  s.b[7] = 'I';
  s.b[8] = 43;
  EXPECT_EQ(s.Parse(&x), QExif::CORRUPT);
}

TEST(QExifSegment, DirectoryBounds) {
  QExif x;
  SegmentBuilder s;
  s.U16(1);
  s.Entry(274, kShort, 1, 6);
  s.U32(0);
  ASSERT_EQ(s.Parse(&x), 0);
  EXPECT_EQ(x.orientation, 6);

  // Entry count one too many for the bytes left.
  SegmentBuilder many = s;
  many.b[14] = 2;
  EXPECT_EQ(many.Parse(&x), QExif::CORRUPT);
  // IFD0 beyond the data, and inside the TIFF header.
  SegmentBuilder far = s;
  far.PutU32(10, 0xFFFFFFF0u);
  EXPECT_EQ(far.Parse(&x), QExif::CORRUPT);
  // At offset 4 the count is read from the offset field itself (4 entries): refused only while
  // those entries run past the end, then read like any directory.
  SegmentBuilder inside = s;
  inside.PutU32(10, 4);
  EXPECT_EQ(inside.Parse(&x), QExif::CORRUPT);
  inside.b.resize(100);
  EXPECT_EQ(inside.Parse(&x), 0);
  // The next-IFD field must fit too.
  EXPECT_EQ(x.ReadExifSegment(s.b.data(), s.b.size() - 1), QExif::CORRUPT);
}

TEST(QExifSegment, HostileEntryValuesAreIgnored) {
  QExif x;
  SegmentBuilder s;
  s.U16(5);
  s.Entry(271, kAscii, 6, 0x7FFFFFF0u);           // text far outside
  s.Entry(274, kShort, 0x80000001u, 8);           // 2 x count wraps to 2 in 32 bits
  s.Entry(272, kAscii, 4, 'a' | 'b' << 8 | 'c' << 16 | 'd' << 24);  // inline, no final zero
  s.Entry(274, kShort, 0, 6);                     // no value
  s.Entry(258, kShort, 2, 8 | 8 << 16);
  s.U32(0);
  ASSERT_EQ(s.Parse(&x), 0);
  EXPECT_TRUE(x.cameraMake.IsEmpty());
  EXPECT_STREQ(x.cameraModel.cstr(), "abcd");
  EXPECT_EQ(x.orientation, 0);
  EXPECT_EQ(x.sampleBits, 8);
}

TEST(QExifSegment, SubDirectoriesAreReadWhereverTheyPoint) {
  // Tag 11 is the GPS precision and 37385 the flash of the EXIF directory; elsewhere they mean
  // nothing, so a value in `dop` or `flash` shows which way a directory was read.
  QExif x;
  SegmentBuilder s;
  s.U16(5);
  s.Entry(274, kShort, 1, 3);
  s.Entry(11, kRational, 1, 8 + 2 + 5 * 12 + 4);
  s.Entry(37385, kShort, 1, 1);
  s.Entry(34665, kLong, 1, 8);  // both pointers lead back to IFD0
  s.Entry(34853, kLong, 1, 8);
  s.U32(0);
  s.U32(3);
  s.U32(2);
  ASSERT_EQ(s.Parse(&x), 0);
  EXPECT_EQ(x.orientation, 3);
  EXPECT_DOUBLE_EQ(x.geoLocation.dop, 1.5);
  EXPECT_EQ(x.flash, 1);

  // The GPS pointer leads to the EXIF directory, which is read as both.
  SegmentBuilder t;
  const uint32_t sub = 8 + 2 + 2 * 12 + 4;
  t.U16(2);
  t.Entry(34665, kLong, 1, sub);
  t.Entry(34853, kLong, 1, sub);
  t.U32(0);
  t.U16(1);
  t.Entry(11, kRational, 1, sub + 2 + 12 + 4);
  t.U32(0);
  t.U32(3);
  t.U32(2);
  ASSERT_EQ(t.Parse(&x), 0);
  EXPECT_DOUBLE_EQ(x.geoLocation.dop, 1.5);
  // Reached only through the EXIF pointer it is read as EXIF alone, and through the GPS
  // pointer alone as GPS.
  const size_t exifTag = 6 + 8 + 2, gpsTag = exifTag + 12;
  const uint8_t gpsLow = t.b[gpsTag];
  t.b[gpsTag] = 0x99;  // the GPS pointer's tag becomes an unknown one
  ASSERT_EQ(t.Parse(&x), 0);
  EXPECT_DOUBLE_EQ(x.geoLocation.dop, 0);
  t.b[gpsTag] = gpsLow, t.b[exifTag] = 0x99;
  ASSERT_EQ(t.Parse(&x), 0);
  EXPECT_DOUBLE_EQ(x.geoLocation.dop, 1.5);
}

TEST(QExifSegment, FailureKeepsFieldsReadSoFar) {
  QExif x;
  SegmentBuilder s;
  s.U16(2);
  s.Entry(274, kShort, 1, 8);
  s.Entry(34665, kLong, 1, 0x10000);  // EXIF sub-IFD outside the data
  s.U32(0);
  EXPECT_EQ(s.Parse(&x), QExif::CORRUPT);
  EXPECT_EQ(x.orientation, 8);
}

TEST(QExifSegment, GpsNeedsThreeRationals) {
  QExif x;
  SegmentBuilder s;
  s.U16(1);
  s.Entry(34853, kLong, 1, 8 + 2 + 12 + 4);
  s.U32(0);
  size_t gps = s.b.size();
  s.U16(4);
  s.Entry(1, kAscii, 2, 'N');
  s.Entry(2, kRational, 2, 0);  // two components only: no latitude
  s.Entry(3, kAscii, 2, 'E');
  s.Entry(4, kRational, 3, 0);  // offset patched below
  s.U32(0);
  uint32_t lon = static_cast<uint32_t>(s.Tiff());
  for (uint32_t v : {10u, 1u, 30u, 1u, 36u, 1u}) s.U32(v);
  s.PutU32(gps + 2 + 3 * 12 + 8, lon);
  ASSERT_EQ(s.Parse(&x), 0);
  EXPECT_FALSE(x.geoLocation.hasPosition);
  EXPECT_DOUBLE_EQ(x.geoLocation.longitude, 10.51);
  EXPECT_DOUBLE_EQ(x.geoLocation.latitude, 0);
  // Three signed rationals are taken, but the format carries no decoded value: 0, 0, 0.
  s.b[gps + 2 + 12 + 2] = 10;
  s.b[gps + 2 + 12 + 4] = 3;
  ASSERT_EQ(s.Parse(&x), 0);
  EXPECT_TRUE(x.geoLocation.hasPosition);
  EXPECT_DOUBLE_EQ(x.geoLocation.latitude, 0);
  EXPECT_DOUBLE_EQ(x.geoLocation.longitude, 10.51);
}

}  // namespace
