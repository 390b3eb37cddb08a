// QPictureFacts: dates, orientations and sizes read from the heads of pictures dated by exiftool.
#include "framework/image/qpicturefacts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/command.h"
#include "support/tempdir.h"

namespace {

using e2e::Capture;

// "width x height, orientation, taken": one comparison that shows every field when it fails.
std::string Of(const QPictureFacts& f) {
  return std::to_string(f.width) + "x" + std::to_string(f.height) + " o" +
         std::to_string(f.orientation) + " " + std::to_string(f.taken);
}

class QPictureFactsTest : public TempDirTest {
 protected:
  void SetUp() override {
    if (!e2e::Have("exiftool") || !e2e::Have("convert")) GTEST_SKIP() << "exiftool, convert";
  }
  // A 40 x 30 JPEG, with exiftool's `tags` written into it when given.
  std::string Jpeg(const std::string& name, const std::string& tags = "") const {
    const std::string path = Tmp(name);
    Capture("convert -size 40x30 gradient:red-blue '" + path + "' 2>&1");
    if (!tags.empty()) Tag(path, tags);
    return path;
  }
  static void Tag(const std::string& path, const std::string& tags) {
    EXPECT_EQ(Capture("exiftool -q -n -overwrite_original " + tags + " '" + path + "' 2>&1"), "");
  }
  static std::string Facts(const std::string& path) {
    QPictureFacts f;
    EXPECT_TRUE(QReadPictureFacts(path.c_str(), &f)) << path;
    return Of(f);
  }
  static constexpr const char* kDated = "-DateTimeOriginal='2021:06:15 10:20:30'";
};

TEST_F(QPictureFactsTest, JpegGivesDateOrientationAndUnturnedSize) {
  EXPECT_EQ(Facts(Jpeg("a.jpg", std::string(kDated) + " -Orientation=6")), "40x30 o6 1623752430");
  // A comment of 8 KiB ahead: the frame header lies past the first page, within the head.
  std::vector<uint8_t> mid = ReadBytes(Tmp("a.jpg")), note(2 + 0x2000, 'c');
  note[0] = 0xFF, note[1] = 0xFE, note[2] = 0x20, note[3] = 0x00;
  mid.insert(mid.begin() + 2, note.begin(), note.end());
  ASSERT_TRUE(WriteFile(Tmp("mid.jpg"), mid));
  EXPECT_EQ(Facts(Tmp("mid.jpg")), "40x30 o6 1623752430");
  // Comments pushing the frame header past the first read: the size is read on for.
  std::vector<uint8_t> bytes = ReadBytes(Jpeg("far.jpg"));
  ASSERT_GT(bytes.size(), 2u);
  std::vector<uint8_t> comment(2 + 0xFFF0, 'c');
  comment[0] = 0xFF, comment[1] = 0xFE, comment[2] = 0xFF, comment[3] = 0xF0;
  for (int k = 0; k < 3; ++k) bytes.insert(bytes.begin() + 2, comment.begin(), comment.end());
  ASSERT_TRUE(WriteFile(Tmp("far.jpg"), bytes));
  EXPECT_EQ(Facts(Tmp("far.jpg")), "40x30 o0 0");
}

TEST_F(QPictureFactsTest, DateThatIsNoCalendarTimeGivesZero) {
  // The dated file's text overwritten in place, as cameras without a set clock write it.
  const std::vector<uint8_t> dated = ReadBytes(Jpeg("d.jpg", kDated));
  const std::string text = "2021:06:15 10:20:30";
  const auto at = std::search(dated.begin(), dated.end(), text.begin(), text.end()) - dated.begin();
  ASSERT_LT(size_t(at), dated.size());
  const auto factsWith = [&](const std::string& other) {
    std::vector<uint8_t> bytes(dated);
    std::copy(other.begin(), other.end(), bytes.begin() + at);
    QPictureFacts f;
    EXPECT_TRUE(QReadPictureFactsFromMemory(bytes.data(), bytes.size(), "d.jpg", &f));
    return Of(f);
  };
  for (const std::string& bad : std::vector<std::string>{
           "0000:00:00 00:00:00", "    :  :     :  :  ", "2021:02:29 10:20:30",
           "2021:06:15 24:00:00", "2021-06-15 10:20:30", std::string("2021:06:15 10:20\0\0\0", 19)})
    EXPECT_EQ(factsWith(bad), "40x30 o0 0") << bad;
  EXPECT_EQ(factsWith("2024:02:29 00:00:00"), "40x30 o0 1709164800");
  EXPECT_EQ(factsWith("1969:12:31 23:59:59"), "40x30 o0 -1");
}

TEST_F(QPictureFactsTest, TiffAndHeifGiveTheirExifDate) {
  // A HEIF is turned by its own transforms as it decodes: it has no orientation to apply.
  for (const auto& c : {std::make_pair("quad.tif", "64x48 o1 1623752430"),
                        std::make_pair("quad.heic", "64x48 o0 1623752430")}) {
    ASSERT_TRUE(WriteFile(Tmp(c.first), ImageFixture(c.first)));
    Tag(Tmp(c.first), kDated);
    EXPECT_EQ(Facts(Tmp(c.first)), c.second);
  }
  EXPECT_EQ(Facts(kTestImages + "quad_o6.tif"), "48x64 o6 0");
}

TEST_F(QPictureFactsTest, BrokenFilesAnswerWithinTheirBytes) {
  QPictureFacts f;
  EXPECT_FALSE(QReadPictureFacts(Tmp("missing.jpg").c_str(), &f));
  EXPECT_FALSE(QReadPictureFacts(MakeFile("a.txt", "\xFF\xD8").c_str(), &f));
  // Every cut of a dated JPEG, each in a buffer of its own size.
  const std::vector<uint8_t> dated = ReadBytes(Jpeg("d.jpg", std::string(kDated) + " -Orientation=8"));
  for (size_t n = 0; n < dated.size(); ++n) {
    const std::vector<uint8_t> head(dated.begin(), dated.begin() + std::ptrdiff_t(n));
    ASSERT_TRUE(QReadPictureFactsFromMemory(head.data(), n, "d.jpg", &f));
    EXPECT_TRUE(f.taken == 0 || f.taken == 1623752430) << n;
  }
}

}  // namespace
