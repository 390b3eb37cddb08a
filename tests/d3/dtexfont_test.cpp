// Texture font descriptions read without OpenGL: key quirks, runs and their lookup, measuring.
#include <gtest/gtest.h>

#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "d3/dtexfont.h"
#include "framework/qbitmap.h"
#include "framework/qfont.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

// One entry of a description: code, rectangle, optional advance/bearing.
std::string Entry(const std::string& key, int x, int y, int w, int h, const char* extra = "") {
  std::ostringstream s;
  s << "  " << key << "\n  {\n    x=" << x << "\n    y=" << y << "\n    wid=" << w
    << "\n    hgt=" << h << "\n" << extra << "  }\n";
  return s.str();
}

class DTexFontTest : public TempDirTest {
 protected:
  // Writes "<dir>/f.dtf" with the general keys and the chars, and a sheet of 64 x 32.
  std::string Write(const std::string& general, const std::string& chars, bool sheet = true) {
    const std::string base = dir_ + "/f";
    EXPECT_TRUE(
        WriteFile(base + ".dtf", "general\n{\n" + general + "}\nchars\n{\n" + chars + "}\n"));
    if (sheet) {
      QBitMap bm(32, 64, 32);
      bm.Fill(nullptr, QColor(255, 255, 255, 0));
      EXPECT_TRUE(bm.Write((base + ".tga").c_str(), 1));
    }
    return base;
  }
  // Codes first..last as consecutive entries, each 4 wide and 10 high at x = code.
  static std::string Run(int first, int last) {
    std::string s;
    for (int c = first; c <= last; ++c) s += Entry("char" + std::to_string(c), c, 0, 4, 10);
    return s;
  }

  DTexFont font_;
};

TEST_F(DTexFontTest, AdvanceAndBearingDefaultToWidthPlusOneAndRectanglesCountFromTheBottom) {
  const char* keys = "    advance=9\n    bearingx=2\n";
  std::string chars = Entry("char65", 8, 4, 8, 16, keys) + Entry("char66", 8, 0, 5, 12);
  ASSERT_TRUE(font_.Load(Write("", chars).c_str(), false));  // version 2 by default
  const DTexFontGlyph* g = font_.FindGlyph(65);
  ASSERT_NE(g, nullptr);
  EXPECT_FLOAT_EQ(g->advance, 9.0f);
  EXPECT_FLOAT_EQ(g->bearingX, 2.0f);
  EXPECT_FLOAT_EQ(font_.FindGlyph(66)->advance, 6.0f);  // missing key: width + 1
  EXPECT_EQ((std::vector<float>{g->uLeft, g->uRight, g->vLow, g->vHigh}),
            (std::vector<float>{0.125f, 0.25f, 1.0f - 20.0f / 32.0f, 1.0f - 4.0f / 32.0f}));
}

TEST_F(DTexFontTest, RunsTheGapLookupAndExtremeCodes) {
  ASSERT_TRUE(font_.Load(Write("", Run(32, 126) + Run(160, 255)).c_str(), false));
  ASSERT_EQ(font_.GetRangeCount(), 2);
  EXPECT_EQ(font_.GetRangeBase(0), 0);
  EXPECT_EQ(font_.GetRangeBase(1), 95);
  EXPECT_EQ(font_.FindGlyph(160), font_.GetGlyph(95));
  // 150 lies in the gap below the second run and still maps into the first one.
  ASSERT_NE(font_.FindGlyph(150), nullptr);
  EXPECT_EQ(font_.FindGlyph(150), font_.GetGlyph(85));
  EXPECT_EQ(font_.FindGlyph(150)->code, 117);
  EXPECT_EQ(font_.FindGlyph(300), nullptr);
  EXPECT_EQ(font_.FindGlyph(31), nullptr);  // negative index
  EXPECT_EQ(font_.FindGlyph(65, true), nullptr);  // no outline sheet

  // Repeated or falling codes open runs; the sixth is fatal.
  std::string five = Run(65, 66) + Run(66, 66) + Run(10, 11) + Run(300, 300) + Run(1600, 1600);
  ASSERT_TRUE(font_.Load(Write("", five).c_str(), false));
  EXPECT_EQ(font_.GetRangeCount(), 5);
  EXPECT_EQ(font_.GetRangeBase(4), 6);
  EXPECT_NE(font_.GetFlags() & DTexFont::HAS_UNICODE, 0u);

  const std::string six = Write("", five + Run(5, 5));
  EXPECT_DEATH(DTexFont().Load(six.c_str(), false), "DTexFont \\(.*/f\\) has too many ranges");

  // Extreme codes and sizes stay in bounds.
  std::string chars = Entry("char2147483647", -5, 99999, -3, 2000000000) +
                      Entry("char99999999999", 0, 0, 1, 1) + Entry("char-2147483648", 0, 0, 1, 1);
  ASSERT_TRUE(font_.Load(Write("  minchar=-2147483648\n  maxchar=2147483647\n", chars).c_str(),
                         false));
  EXPECT_EQ(font_.GetRangeCount(), 3);  // huge numbers are held to the int range
  EXPECT_EQ(font_.FindGlyph(2147483647), font_.GetGlyph(0));
  EXPECT_EQ(font_.FindGlyph(-2147483647 - 1), nullptr);  // the first run answers: negative
}

TEST_F(DTexFontTest, EntryWithoutXEndsTheListAndMissingFilesLeaveAnEmptyFont) {
  LogCapture log;
  std::string chars = Run(65, 66) + "  char67\n  {\n    y=1\n  }\n" + Run(68, 68);
  const std::string base = Write("", chars);
  ASSERT_TRUE(font_.Load(base.c_str(), false));
  EXPECT_TRUE(log.Seen("No X defined for texfont " + base + ", entry 2"));
  EXPECT_EQ(font_.GetGlyphCount(), 4);
  EXPECT_EQ(font_.GetGlyphsRead(), 2);
  EXPECT_EQ(font_.FindGlyph(68), nullptr);

  ASSERT_TRUE(font_.Load(Write("", Run(65, 70)).c_str(), false));
  EXPECT_FALSE(font_.Load((dir_ + "/none").c_str(), false));
  EXPECT_TRUE(log.Seen("DTexFont:Load(" + dir_ + "/none) failed"));
  EXPECT_EQ(font_.FindGlyph(65), nullptr);

  unlink((dir_ + "/f.tga").c_str());
  EXPECT_FALSE(font_.Load(Write("", Run(65, 70), false).c_str(), false));
  EXPECT_EQ(font_.GetGlyphsRead(), 0);
  EXPECT_EQ(font_.GetHeight(), 0.0f);
  EXPECT_EQ(font_.Paint("A", 10.7f, 0.0f), 10);  // no texture: x back, truncated
}

TEST_F(DTexFontTest, MeasuringByTheThreePaths) {
  std::string chars = Entry("char32", 0, 0, 3, 12) + Run(33, 126) + Run(160, 255);
  ASSERT_TRUE(font_.Load(Write("  minchar=32\n  maxchar=255\n", chars).c_str(), false));
  font_.SetScale(2.0f, 1.5f);
  font_.SetSpacing(1.0f);
  EXPECT_FLOAT_EQ(font_.GetHeight(), 18.0f);  // first entry's height, not the others' 10
  EXPECT_FLOAT_EQ(font_.GetCharWidth('A'), 2.0f * 5.0f + 1.0f);
  EXPECT_FLOAT_EQ(font_.GetCharWidth(char(200)), 0.0f);  // a negative signed byte
  EXPECT_FLOAT_EQ(font_.GetStringWidth("\xc3\x88"), 11.0f);  // the same code as UTF-8
  EXPECT_FLOAT_EQ(font_.GetStringWidth("AAAA", 2), 22.0f);
  const uint16_t wide[] = {65, 150, 300, 0};  // 150 maps through the gap, 300 is above max
  EXPECT_FLOAT_EQ(font_.GetStringWidth(wide), 22.0f);

  QFont qf("unused");
  EXPECT_EQ(qf.GetWidth("AB"), 0.0f);  // nothing before Create
}

}  // namespace
