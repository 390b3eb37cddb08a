// Colour profiles: Display P3 pictures come out as ImageMagick converts them to sRGB.
#include "framework/image/qimage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pixels(const QImage& img) { return Bytes(img.GetBuffer(), img.GetBuffer() + img.GetSize()); }

// Largest difference of any byte (alpha included) from the same-sized picture in `refName`.
int MaxDifference(const QImage& img, const std::string& refName) {
  QImage ref;
  if (!ref.Read((kTestImages + refName).c_str()) || ref.GetWidth() != img.GetWidth() ||
      ref.GetHeight() != img.GetHeight())
    return 1000;
  int most = 0;
  for (int i = 0; i < img.GetSize(); ++i)
    most = std::max(most, std::abs(int(img.GetBuffer()[i]) - int(ref.GetBuffer()[i])));
  return most;
}

struct QImageColourTest : ::testing::Test { LogCapture log_; };

TEST_F(QImageColourTest, EmbeddedProfilesConvertAsImageMagickDoesAndProfileFreeBytesStay) {
  const struct {
    const char *file, *ref, *plain;  // plain: the same file without its profile, or null
  } cases[] = {{"p3.jpg", "p3_jpg_ref.png", "p3_plain.jpg"},
               {"p3.png", "p3_png_ref.png", "p3_plain.png"},
               {"p3.tif", "p3_tif_ref.png", nullptr},
               {"p3.webp", "p3_webp_ref.png", nullptr},
               {"p3.heic", "p3_heic_ref.png", nullptr}};
  for (const auto& c : cases) {
    QImage img;
    ASSERT_TRUE(img.Read((kTestImages + c.file).c_str())) << c.file;
    EXPECT_GT(img.ColourProfile().size(), 128u) << c.file;
    const Bytes decoded = Pixels(img);
    ASSERT_TRUE(img.ConvertToSRGB()) << c.file;
    EXPECT_LE(MaxDifference(img, c.ref), 4) << c.file;
    if (!c.plain) continue;
    QImage plain;
    ASSERT_TRUE(plain.Read((kTestImages + c.plain).c_str())) << c.plain;
    EXPECT_TRUE(plain.ColourProfile().empty()) << c.plain;
    ASSERT_TRUE(plain.ConvertToSRGB()) << c.plain;
    EXPECT_EQ(Pixels(plain), decoded) << c.plain;
  }
  EXPECT_FALSE(log_.Seen("colour profile"));
}

TEST_F(QImageColourTest, AProfileThatCantBeUsedIsAWarningAndLeavesThePixels) {
  QImage p3;
  ASSERT_TRUE(p3.Read((kTestImages + "p3.png").c_str()));
  const Bytes good = p3.ColourProfile();
  ASSERT_GT(good.size(), 132u);
  Bytes garbled = good, grey = good;
  for (size_t i = 128; i < garbled.size(); ++i) garbled[i] = uint8_t(0xA5 ^ i);
  grey[16] = 'G', grey[17] = 'R', grey[18] = 'A', grey[19] = 'Y';
  const struct {
    const char* what;
    Bytes profile;
    bool kept;          // SetColourProfile takes it; lcms2 then refuses it
    std::string words;  // in the one warning
  } cases[] = {{"cut", Bytes(good.begin(), good.begin() + good.size() / 2), false,
                "claims '" + std::to_string(good.size()) + "' bytes"},
               {"oversized", Bytes(QImage::MAX_PROFILE_BYTES + 1, 0), false, "'4194305' bytes"},
               {"garbled", garbled, true, "lcms2 can't open it"},
               {"grey", grey, true, "for 'GRAY' pixels, not RGB"}};
  for (const auto& c : cases) {
    log_.Clear();
    QImage img;
    ASSERT_TRUE(img.Read((kTestImages + "p3_plain.png").c_str()));
    img.SetName("shown.png");
    const Bytes before = Pixels(img);
    EXPECT_EQ(img.SetColourProfile(c.profile.data(), c.profile.size(), "shown.png"), c.kept)
        << c.what;
    EXPECT_EQ(img.ConvertToSRGB(), !c.kept) << c.what;
    EXPECT_EQ(Pixels(img), before) << c.what;
    ASSERT_EQ(log_.Lines().size(), 1u) << c.what;
    EXPECT_TRUE(log_.Seen("shown.png") && log_.Seen(c.words)) << c.what << ": " << log_.Lines()[0];
  }

  // A JPEG whose profile chunks come to more than the limit still shows, without a profile.
  log_.Clear();
  const Bytes jpeg = ReadBytes(kTestImages + "p3_plain.jpg");
  Bytes big(jpeg.begin(), jpeg.begin() + 2);
  const std::string tag("ICC_PROFILE", 12);
  for (int i = 1; i <= 65; ++i) {
    big.insert(big.end(), {0xFF, 0xE2, 0xFF, 0xFF});
    big.insert(big.end(), tag.begin(), tag.end());
    big.insert(big.end(), {uint8_t(i), 65});
    big.resize(big.size() + 65535 - 16, 0);
  }
  big.insert(big.end(), jpeg.begin() + 2, jpeg.end());
  QImage img;
  ASSERT_TRUE(img.ReadJPG(big.data(), big.size(), "big.jpg"));
  EXPECT_TRUE(img.ColourProfile().empty());
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_TRUE(log_.Seen("big.jpg") && log_.Seen("colour profile")) << log_.Lines()[0];
}

}  // namespace
