// glimra-demopics: its pictures decode, carry their orientations and stand upright once turned.
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "framework/qbitmap.h"
#include "framework/image/qexif.h"
#include "framework/image/qimage.h"
#include "support/tempdir.h"

namespace {

const std::string kTool = std::string(GLIMRA_BUILD_DIR) + "/tools/glimra-demopics";

// Exit status of the tool run with `args` in `dir`; output to `log` there (a relative name).
int RunTool(const std::string& dir, const std::string& args, const char* log = "out.txt") {
  const std::string cmd = "cd '" + dir + "' && '" + kTool + "' " + args + " >'" + log + "' 2>&1";
  const int rc = system(cmd.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// Mean of blue minus red over `rows` picture rows starting at the top (fromTop) or the bottom.
double Blueness(const QBitMap& bm, int rows, bool fromTop) {
  double sum = 0;
  for (int r = 0; r < rows; ++r) {
    const int memRow = fromTop ? bm.GetHeight() - 1 - r : r;  // memory rows are bottom-up
    for (int x = 0; x < bm.GetWidth(); ++x) {
      const uint8_t* p = bm.GetAddress(x, memRow);
      sum += double(p[2]) - double(p[0]);
    }
  }
  return sum / (double(rows) * bm.GetWidth());
}

using DemoPics = TempDirTest;

struct Expected {
  const char* name;
  int width, height;  // upright
  int orientation;    // 0: no EXIF orientation
};
const Expected kSet[] = {
    {"01-harbour.jpg", 1600, 1200, 1},      {"02-lighthouse.jpg", 1200, 1600, 6},
    {"03-sunset-lake.jpg", 1600, 1200, 3},  {"04-forest-meadow.jpg", 1200, 1600, 8},
    {"05-alpine-lake.tga", 1500, 1000, 0},  {"06-coast-panorama.jpg", 3200, 800, 0},
    {"07-winter-river.jpg", 1600, 1200, 0},
};

TEST_F(DemoPics, WritesEveryPictureDecodableWithItsOrientationAndRefusesWhatItCannotDo) {
  ASSERT_EQ(RunTool(dir_, "pics"), 0) << ReadFile(Tmp("out.txt"));
  for (const Expected& e : kSet) {
    SCOPED_TRACE(e.name);
    const std::string path = Tmp("pics/") + e.name;
    QImage image(path.c_str());
    ASSERT_TRUE(image.IsRead());

    const std::vector<uint8_t> bytes = ReadBytes(path);
    QExif exif;
    const int32_t code = exif.ReadFromJpeg(bytes.data(), bytes.size());
    const bool tga = std::string(e.name).find(".tga") != std::string::npos;
    EXPECT_EQ(code, tga ? QExif::NOT_JPEG : e.orientation ? QExif::OK : QExif::NO_EXIF);
    EXPECT_EQ(exif.orientation, e.orientation);

    // Turned as the slideshow does: 3 a half turn, 6 a quarter clockwise, 8 anticlockwise.
    const int angle = e.orientation == 3 ? 180 : e.orientation == 6 ? 90 : e.orientation == 8 ? 270 : 0;
    const bool quarter = angle == 90 || angle == 270;
    EXPECT_EQ(image.GetWidth(), quarter ? e.height : e.width);
    EXPECT_EQ(image.GetHeight(), quarter ? e.width : e.height);
    if (e.orientation == 0) continue;
    QBitMap upright(32, e.width, e.height);
    ASSERT_TRUE(image.Rotate(angle, nullptr, &upright, nullptr));
    // Every turned scene has sky at the top and shore, rock or meadow at the bottom.
    const int band = e.height / 10;
    EXPECT_GT(Blueness(upright, band, true), Blueness(upright, band, false) + 20);
  }
  // It names them in its help, and refuses a folder that is a file or a wrong argument count.
  MakeFile("plain", "");
  EXPECT_EQ(RunTool(dir_, "plain"), 1);
  EXPECT_EQ(RunTool(dir_, ""), 2);
  EXPECT_EQ(RunTool(dir_, "a b"), 2);

  ASSERT_EQ(RunTool(dir_, "--help", "help.txt"), 0);
  const std::string help = ReadFile(Tmp("help.txt"));
  for (const Expected& e : kSet) EXPECT_NE(help.find(e.name), std::string::npos) << e.name;
}

}  // namespace
