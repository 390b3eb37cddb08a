// QPictureFacts: dates, orientations and sizes of pictures written by ImageMagick and dated by
// exiftool, read from their heads; broken files answer without reading outside them.
#include "framework/image/qpicturefacts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/tempdir.h"

namespace {

using e2e::Capture;

constexpr int64_t k20210615_102030 = 1623752430;

class QPictureFactsTest : public TempDirTest {
 protected:
  void SetUp() override {
    if (!e2e::Have("exiftool") || !e2e::Have("convert")) GTEST_SKIP() << "exiftool, convert";
  }
  // A 40 x 30 JPEG, with exiftool's `tags` written into it when given.
  std::string Jpeg(const std::string& name, const std::string& tags) const {
    const std::string path = Tmp(name);
    Capture("convert -size 40x30 gradient:red-blue '" + path + "' 2>&1");
    if (!tags.empty()) Tag(path, tags);
    return path;
  }
  static void Tag(const std::string& path, const std::string& tags) {
    EXPECT_EQ(Capture("exiftool -q -n -overwrite_original " + tags + " '" + path + "' 2>&1"), "");
  }
  static QPictureFacts Facts(const std::string& path) {
    QPictureFacts f;
    EXPECT_TRUE(QReadPictureFacts(path.c_str(), &f)) << path;
    return f;
  }
};

TEST_F(QPictureFactsTest, JpegGivesDateOrientationAndUnturnedSize) {
  QPictureFacts f = Facts(Jpeg("a.jpg", "-DateTimeOriginal='2021:06:15 10:20:30' -Orientation=6"));
  EXPECT_EQ(f.taken, k20210615_102030);
  EXPECT_EQ(f.orientation, 6);
  EXPECT_EQ(f.width, 40);
  EXPECT_EQ(f.height, 30);

  f = Facts(Jpeg("plain.jpg", ""));
  EXPECT_EQ(f.taken, 0);
  EXPECT_EQ(f.orientation, 0);
  EXPECT_EQ(f.width, 40);
  EXPECT_EQ(f.height, 30);

  // Comments pushing the frame header past the first read: the size is read on for.
  std::vector<uint8_t> bytes = ReadBytes(Jpeg("far.jpg", ""));
  ASSERT_GT(bytes.size(), 2u);
  const std::vector<uint8_t> comment = {0xFF, 0xFE, 0xFF, 0xF0};  // 65520 bytes with the length
  for (int k = 0; k < 3; ++k) {
    std::vector<uint8_t> segment(comment);
    segment.resize(2 + 0xFFF0, 'c');
    bytes.insert(bytes.end() - (bytes.size() - 2), segment.begin(), segment.end());
  }
  ASSERT_TRUE(WriteFile(Tmp("far.jpg"), bytes));
  f = Facts(Tmp("far.jpg"));
  EXPECT_EQ(f.width, 40);
  EXPECT_EQ(f.height, 30);
}

TEST_F(QPictureFactsTest, DateThatIsNoCalendarTimeGivesZero) {
  // The dated file's text overwritten in place, as cameras without a set clock write it.
  const std::vector<uint8_t> dated = ReadBytes(Jpeg("d.jpg", "-DateTimeOriginal='2021:06:15 10:20:30'"));
  const std::string text = "2021:06:15 10:20:30";
  const auto at = std::search(dated.begin(), dated.end(), text.begin(), text.end()) - dated.begin();
  ASSERT_LT(size_t(at), dated.size());
  const auto takenWith = [&](const std::string& other) {
    std::vector<uint8_t> bytes(dated);
    std::copy(other.begin(), other.end(), bytes.begin() + at);
    QPictureFacts f;
    EXPECT_TRUE(QReadPictureFactsFromMemory(bytes.data(), bytes.size(), "d.jpg", &f));
    EXPECT_EQ(f.width, 40) << other;
    return f.taken;
  };
  for (const std::string& bad : std::vector<std::string>{"0000:00:00 00:00:00", "    :  :     :  :  ", "2021:02:29 10:20:30",
                                "2021:06:15 24:00:00", "2021-06-15 10:20:30",
                                std::string("2021:06:15 10:20\0\0\0", 19)})
    EXPECT_EQ(takenWith(bad), 0) << bad;
  EXPECT_EQ(takenWith("2024:02:29 00:00:00"), 1709164800);
  EXPECT_EQ(takenWith("1969:12:31 23:59:59"), -1);
}

TEST_F(QPictureFactsTest, TiffAndHeifGiveTheirExifDate) {
  for (const char* name : {"quad.tif", "quad.heic"}) {
    ASSERT_TRUE(WriteFile(Tmp(name), ImageFixture(name)));
    Tag(Tmp(name), "-DateTimeOriginal='2021:06:15 10:20:30'");
    const QPictureFacts f = Facts(Tmp(name));
    EXPECT_EQ(f.taken, k20210615_102030) << name;
    EXPECT_EQ(f.width, 64) << name;
    EXPECT_EQ(f.height, 48) << name;
  }
  EXPECT_EQ(Facts(kTestImages + "quad_o6.tif").orientation, 6);
}

TEST_F(QPictureFactsTest, BrokenFilesAnswerWithinTheirBytes) {
  QPictureFacts f;
  EXPECT_FALSE(QReadPictureFacts(Tmp("missing.jpg").c_str(), &f));
  EXPECT_FALSE(QReadPictureFacts(MakeFile("a.txt", "\xFF\xD8").c_str(), &f));
  EXPECT_FALSE(QReadPictureFactsFromMemory(nullptr, 0, "a.txt", &f));
  // Every cut of a dated JPEG: a short head gives no size, and nothing beyond it is read.
  const std::vector<uint8_t> dated =
      ReadBytes(Jpeg("d.jpg", "-DateTimeOriginal='2021:06:15 10:20:30' -Orientation=8"));
  for (size_t n = 0; n < dated.size(); ++n) {
    const std::vector<uint8_t> head(dated.begin(), dated.begin() + std::ptrdiff_t(n));
    ASSERT_TRUE(QReadPictureFactsFromMemory(head.data(), n, "d.jpg", &f));
    EXPECT_TRUE(f.taken == 0 || f.taken == k20210615_102030) << n;
  }
  std::mt19937 random(7);
  std::vector<uint8_t> junk(4096);
  for (int round = 0; round < 200; ++round) {
    for (uint8_t& b : junk) b = uint8_t(random());
    for (const char* name : {"x.jpg", "x.heic", "x.tif", "x.png", "x.webp"})
      QReadPictureFactsFromMemory(junk.data(), junk.size(), name, &f);
  }
}

}  // namespace
