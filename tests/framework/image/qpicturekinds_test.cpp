// The table of picture kinds: QImage's reader choice (first row with a hit, in the table's order,
// anywhere in the path) and the catalogue's listing (visible names holding a listed substring).
#include "framework/image/qpicturekinds.h"

#include <gtest/gtest.h>

namespace {

constexpr int kNone = -1;

TEST(QPictureKinds, NameRules) {
  const struct {
    const char* name;
    int kind;     // QPictureKind::Id QImage reads it as, kNone when it refuses the name
    bool listed;  // the catalogue lists it
  } cases[] = {
      {"IMG_0001.JPG", QPictureKind::JPEG, true}, {"DSC 0002.Jpg", QPictureKind::JPEG, true},
      {"photo.JPEG", QPictureKind::JPEG, true},
      {"x.jpe", QPictureKind::JPEG, false},  // JPEG by name, but never listed
      {"a.jpg.bak", QPictureKind::JPEG, true}, {".hidden.jpg", QPictureKind::JPEG, false},
      {"sign.PNG", QPictureKind::PNG, true}, {"\xc3\xa9t\xc3\xa9.tga", QPictureKind::TARGA, true},
      {"x.tga.d/pic.bmp", QPictureKind::TARGA, true},  // a directory's name counts
      {"pic.bmp", QPictureKind::BMP, false}, {"a.rgb", QPictureKind::SGI, false},
      {"a.rgb.jpg", QPictureKind::SGI, true},  // .RGB is tested first; .jpg lists it
      {"a.psd", QPictureKind::PSD, false}, {"a.mip", QPictureKind::MIP, false},
      {"photo.jpeg.png", QPictureKind::JPEG, true}, {"a.png.bmp", QPictureKind::PNG, true},
      {"IMG_0003.HEIC", QPictureKind::HEIF, true}, {"b.heif", QPictureKind::HEIF, true},
      {"c.Avif", QPictureKind::HEIF, true}, {"d.webp", QPictureKind::WEBP, true},
      {"e.gif.webp", QPictureKind::WEBP, true}, {"f.GIF", QPictureKind::GIF, true},
      {"scan.tiff", QPictureKind::TIFF, true}, {"scan.TIF", QPictureKind::TIFF, true},
      {"g.tif.heic", QPictureKind::HEIF, true}, {"h.gif.tif", QPictureKind::GIF, true},
      {"readme.txt", kNone, false}, {"jpg", kNone, false},
      {"", kNone, false},
  };
  for (const auto& c : cases) {
    const QPictureKind* kind = qPictureKindOf(c.name);
    EXPECT_EQ(kind ? int(kind->id) : kNone, c.kind) << c.name;
    EXPECT_EQ(qIsCataloguePictureName(c.name), c.listed) << c.name;
  }
  EXPECT_EQ(qPictureKindOf(nullptr), nullptr);
}

}  // namespace
