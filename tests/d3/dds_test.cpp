// DDS files made byte by byte: header checks, hostile sizes refused, the level layout.
#include "d3/dds.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "support/logcapture.h"

namespace {

void Put32(std::vector<uint8_t>* v, size_t at, uint32_t x) {
  for (int i = 0; i < 4; ++i) (*v)[at + i] = uint8_t(x >> (8 * i));
}

// "DDS " and a header; `fourcc` null means uncompressed with `bits` per pixel.
std::vector<uint8_t> Header(int w, int h, int mips, const char* fourcc, int bits = 32) {
  std::vector<uint8_t> v(128, 0);
  memcpy(v.data(), "DDS ", 4);
  Put32(&v, 4, 124);
  Put32(&v, 4 + 8, uint32_t(h));
  Put32(&v, 4 + 12, uint32_t(w));
  Put32(&v, 4 + 24, uint32_t(mips));
  Put32(&v, 4 + 72, 32);
  if (fourcc) {
    Put32(&v, 4 + 76, 4);
    memcpy(&v[4 + 80], fourcc, 4);
  } else {
    Put32(&v, 4 + 76, 0x41);
    Put32(&v, 4 + 84, uint32_t(bits));
    Put32(&v, 4 + 88, 0x00ff0000);
  }
  return v;
}

std::vector<uint8_t> WithPayload(std::vector<uint8_t> v, size_t bytes) {
  const size_t at = v.size();
  v.resize(at + bytes);
  for (size_t i = 0; i < bytes; ++i) v[at + i] = uint8_t(i * 7 + 1);
  return v;
}

bool Parse(DDDS* dds, const std::vector<uint8_t>& v) {
  return dds->Parse(v.data(), v.size(), "t.dds");
}

TEST(DDSHeader, RefusalsNameTheFault) {
  LogCapture log;
  DDDS dds;
  std::vector<uint8_t> v = WithPayload(Header(4, 4, 1, "DXT1"), 8);
  v[0] = 'X';
  EXPECT_FALSE(Parse(&dds, v));
  EXPECT_TRUE(log.Seen("DDS file 't.dds' doesn't start with the right magic number (0x20534458)"));
  EXPECT_FALSE(dds.Parse(v.data(), 2, "t.dds"));  // shorter than the magic

  v = Header(4, 4, 1, "DXT1");
  EXPECT_FALSE(dds.Parse(v.data(), 100, "t.dds"));
  EXPECT_TRUE(log.Seen("header cut short at '100' bytes"));

  EXPECT_FALSE(Parse(&dds, WithPayload(Header(4, 4, 1, "ATI2"), 16)));
  EXPECT_TRUE(log.Seen("DDDS:Load(t.dds); unknown compressed format (ATI2)"));
  EXPECT_FALSE(Parse(&dds, WithPayload(Header(4, 4, 1, nullptr, 24), 48)));
  EXPECT_TRUE(log.Seen("DDDS:Load(t.dds); unknown DDS format (rgb bitcount not 32, not DXT5)"));

  // Sizes from the file are hostile: refused before any allocation.
  EXPECT_FALSE(Parse(&dds, WithPayload(Header(0x7fffffff, 0x7fffffff, 1, "DXT5"), 16)));
  EXPECT_TRUE(log.Seen("size '2147483647x2147483647' out of range"));
  EXPECT_FALSE(Parse(&dds, WithPayload(Header(0, 4, 1, "DXT5"), 16)));
  EXPECT_FALSE(Parse(&dds, WithPayload(Header(4096, 4096, 1, nullptr), 64)));
  EXPECT_TRUE(log.Seen("file too short for mipmap level 0"));
  EXPECT_EQ(dds.GetLevelCount(), 0);
  EXPECT_EQ(dds.GetLevel(0), nullptr);
}

TEST(DDSLevels, SizesHalveAndTheCountIsBounded) {
  LogCapture log;
  DDDS dds;
  // 8 x 4 DXT1 with 3 levels: 2 blocks, then 1, then 1 (dimensions never below 1).
  ASSERT_TRUE(Parse(&dds, WithPayload(Header(8, 4, 3, "DXT1"), 16 + 8 + 8)));
  EXPECT_EQ(dds.GetLevelCount(), 3);
  EXPECT_EQ((std::vector<size_t>{dds.GetLevelSize(0), dds.GetLevelSize(1), dds.GetLevelSize(2)}),
            (std::vector<size_t>{16, 8, 8}));
  EXPECT_TRUE(dds.IsCompressed());

  ASSERT_TRUE(Parse(&dds, WithPayload(Header(4, 4, 0, "DXT5"), 16)));
  EXPECT_EQ(dds.GetLevelCount(), 1);
  EXPECT_TRUE(log.Seen("DDDS:Load: Changing dwMipMapCount to 1, was 0"));

  // 40 levels claimed: 16 kept; a file ending early leaves the later levels missing.
  ASSERT_TRUE(Parse(&dds, WithPayload(Header(4, 4, 40, "DXT3"), 16 * 3 + 5)));
  EXPECT_EQ(dds.GetLevelCount(), DDDS::MAX_LEVELS);
  EXPECT_NE(dds.GetLevel(2), nullptr);
  EXPECT_EQ(dds.GetLevel(3), nullptr);
  EXPECT_EQ(dds.GetLevel(16), nullptr);
}

}  // namespace
