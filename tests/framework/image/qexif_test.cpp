// QExif: the orientation of pictures written by other programs; hand-built segments for the bounds.
#include "framework/image/qexif.h"

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

// A little-endian EXIF payload: "Exif\0\0", the TIFF header, then entries with offsets from it.
constexpr uint8_t kLittleHeader[] = {'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0};

struct SegmentBuilder {
  Bytes b{std::begin(kLittleHeader), std::end(kLittleHeader)};

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

constexpr uint16_t kShort = 3, kLong = 4, kAscii = 2;

TEST(QExifJpeg, FixturesGiveTheirOrientationOrTheirFault) {
  // Each read starts from the previous one's record: stale values must not survive.
  const struct { const char* file; int32_t result; int orientation, littleEndian; } cases[] = {
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
    const Bytes b = Fixture(c.file);
    EXPECT_EQ(x.ReadFromJpeg(b.data(), b.size()), c.result) << c.file;
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
  // A segment length running past the end marker.
  Bytes b = Fixture("orient6_ii.jpg");
  ASSERT_TRUE(b[20] == 0xFF && b[21] == 0xE1);
  b[22] = 0x7F;
  EXPECT_EQ(x.ReadFromJpeg(b.data(), b.size()), QExif::CORRUPT);
}

TEST(QExifJpeg, TitlesAndCommentAreReadAsUtf8AndOnlyBeforeTheScan) {
  QExif x;
  const Bytes titled = Fixture("titled.jpg");
  ASSERT_EQ(x.ReadFromJpeg(titled.data(), titled.size()), 0);
  EXPECT_STREQ(x.windowsTitle.cstr(), "\xCE\x91\xCE\xB8\xCE\xAE\xCE\xBD\xCE\xB1");  // Αθήνα
  EXPECT_STREQ(x.comment.cstr(), "Caf\xC3\xA9");
  EXPECT_STREQ(x.dateTimeOriginal.cstr(), "2021:03:07 09:30:00");
  EXPECT_TRUE(x.description.IsEmpty());

  // A comment without an EXIF block; one whose length runs past the data, one after the scan's
  // start, and a later read without one leave none.
  const struct { Bytes jpeg; const char* comment; } cases[] = {
      {{0xFF, 0xD8, 0xFF, 0xFE, 0, 5, 'a', 'b', 'c', 0xFF, 0xD9}, "abc"},
      {{0xFF, 0xD8, 0xFF, 0xFE, 0, 50, 'a', 'b', 'c', 0xFF, 0xD9}, ""},
      {{0xFF, 0xD8, 0xFF, 0xDA, 0, 2, 0xFF, 0xFE, 0, 5, 'a', 'b', 'c', 0xFF, 0xD9}, ""},
      {{0xFF, 0xD8, 0xFF, 0xFE, 0, 6, 'x', 0, 'y', 'z', 0xFF, 0xD9}, "x"},
      {titled, "Caf\xC3\xA9"},
      {Fixture("plain.jpg"), ""}};
  for (const auto& c : cases) {
    x.ReadFromJpeg(c.jpeg.data(), c.jpeg.size());
    EXPECT_STREQ(x.comment.cstr(), c.comment) << c.jpeg.size();
  }

  // The title's units: 'A', a surrogate pair (U+1F305), a lone low and a lone high surrogate,
  // 'B', and an odd last byte that is no unit.
  SegmentBuilder s;
  s.U16(1);
  s.Entry(40091, 1, 13, 26);
  s.U32(0);
  for (uint16_t unit : {0x41, 0xD83C, 0xDF05, 0xDC00, 0xD800, 0x42}) s.U16(unit);
  s.b.push_back(0x43);
  ASSERT_EQ(s.Parse(&x), 0);
  EXPECT_STREQ(x.windowsTitle.cstr(), "A\xF0\x9F\x8C\x85\xEF\xBF\xBD\xEF\xBF\xBD" "B");
}

TEST(QExifSegment, HeaderAndDirectoryBounds) {
  QExif x;
  EXPECT_EQ(x.ReadExifSegment(nullptr, 20), QExif::NO_EXIF);
  const uint8_t xmp[] = "http://ns.adobe.com/xap/1.0/";
  EXPECT_EQ(x.ReadExifSegment(xmp, sizeof(xmp)), QExif::NO_EXIF);
  SegmentBuilder h;
  EXPECT_EQ(x.ReadExifSegment(h.b.data(), 13), QExif::CORRUPT);
  h.b[7] = 'M';
  EXPECT_EQ(h.Parse(&x), QExif::BAD_BYTE_ORDER);
  h.b[7] = 'I', h.b[8] = 43;
  EXPECT_EQ(h.Parse(&x), QExif::CORRUPT);

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

  // A failure keeps the fields read before it: here a sub-directory outside the data.
  SegmentBuilder sub;
  sub.U16(2);
  sub.Entry(274, kShort, 1, 8);
  sub.Entry(34665, kLong, 1, 0x10000);
  sub.U32(0);
  EXPECT_EQ(sub.Parse(&x), QExif::CORRUPT);
  EXPECT_EQ(x.orientation, 8);
}

TEST(QExifSegment, HostileEntryValuesAreIgnoredAndDirectoryLoopsEnd) {
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

  // Sub-directory pointers back to the first directory end; tag 37385 is the EXIF directory's
  // flash, so a value there shows it was read that way.
  SegmentBuilder loop;
  loop.U16(6);
  loop.Entry(274, kShort, 1, 3);
  loop.Entry(37385, kShort, 1, 1);
  loop.Entry(34665, kLong, 1, 8);  // both pointers lead back to IFD0
  loop.Entry(34853, kLong, 1, 8);
  // The same 1/4 as a rational and as a signed one, which is taken but carries no decoded value.
  constexpr uint16_t kRational = 5, kSignedRational = 10;
  const uint32_t quarter = 8 + 2 + 6 * 12 + 4;
  loop.Entry(33434, kRational, 1, quarter);
  loop.Entry(37380, kSignedRational, 1, quarter);
  loop.U32(0);
  loop.U32(1), loop.U32(4);
  ASSERT_EQ(loop.Parse(&x), 0);
  EXPECT_EQ(x.orientation, 3);
  EXPECT_EQ(x.flash, 1);
  EXPECT_DOUBLE_EQ(x.exposureTime, 0.25);
  EXPECT_DOUBLE_EQ(x.exposureBias, 0);
}

}  // namespace
