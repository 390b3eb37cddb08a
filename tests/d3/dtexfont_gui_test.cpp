// The overlay font on a real window: ink where the measured width says, upright in the 2D mode;
// other scripts from the atlas, boxes for what no font has.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "d3/dtexfont.h"
#include "framework/qcanvas.h"
#include "framework/qfont.h"
#include "framework/qshell.h"
#include "support/glwindow.h"

namespace {

// Ink: a bright red channel in the back buffer, y from the top of the window.
bool Ink(int x, int y) { return testgl::R(testgl::Pixel(x, y)) > 96; }
int InkInRow(int y, int width) {
  int n = 0;
  for (int x = 0; x < width; ++x) n += Ink(x, y);
  return n;
}

class DTexFontGui : public ::testing::Test {
 protected:
  void SetUp() override {
    win_ = testgl::Window();
    if (!win_) GTEST_SKIP() << "no display";
    font_.reset(new QFont((std::string(GLIMRA_BUILD_DIR) + "/fonts/din14").c_str()));
    ASSERT_TRUE(font_->Create());
    canvas_.reset(new QCanvas(win_));
    canvas_->SetClearColor(0, 0, 0, 255);
    ASSERT_TRUE(canvas_->Clear());
    ASSERT_TRUE(canvas_->Set2D());
    canvas_->SetFont(font_.get());
    canvas_->SetColor(255, 255, 255, 255);
  }
  QShell* win_ = nullptr;
  std::unique_ptr<QFont> font_;
  std::unique_ptr<QCanvas> canvas_;
};

TEST_F(DTexFontGui, InkSpansTheMeasuredWidthUpright) {
  const char* text = "File 12 of 34";
  const float width = font_->GetWidth(text);
  ASSERT_GT(width, 60.0f);
  EXPECT_EQ(canvas_->Text(10, 10, text), int(10.0f + width));

  const int height = font_->GetHeight();
  int minX = 400, maxX = -1, minY = 60, maxY = -1;
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 400; ++x)
      if (Ink(x, y)) {
        minX = std::min(minX, x), maxX = std::max(maxX, x);
        minY = std::min(minY, y), maxY = std::max(maxY, y);
      }
  ASSERT_GE(maxX, 0) << "nothing drawn";
  EXPECT_GE(minX, 10);
  EXPECT_LE(minX, 12);  // "F" starts at its bearing
  EXPECT_LE(maxX, 10 + int(width) + 1);
  EXPECT_GE(maxX, 10 + int(width) - 4);  // the "4" ends near the pen
  EXPECT_GE(minY, 10);
  EXPECT_LT(maxY, 10 + height);

  ASSERT_TRUE(canvas_->Clear());
  canvas_->Text(10, 10, "T");
  int top = -1, bottom = -1;
  for (int y = 0; y < 40; ++y) {
    if (!InkInRow(y, 40)) continue;
    if (top < 0) top = y;
    bottom = y;
  }
  ASSERT_GE(top, 0) << "nothing drawn";
  // The bar is the top ink row, near the top of the quad; the stem is narrow below it.
  EXPECT_LT(top, 10 + 6);
  EXPECT_GE(InkInRow(top, 40), 6);
  EXPECT_LE(InkInRow(bottom, 40), 3);
  EXPECT_GT(bottom - top, 6);

  // A coloured 16-bit text lands in the same place, with the colour applied.
  canvas_->Clear();
  DTexFont* tf = font_->GetTexFont();
  tf->SetColor(QColor(255, 0, 0, 255));
  const uint16_t wide[] = {'T', 0};
  EXPECT_EQ(tf->Paint(wide, 10.0f, 10.0f), int(10.0f + tf->GetStringWidth(wide)));
  ASSERT_GE(InkInRow(top, 40), 6);
  int x = 0;
  while (!Ink(x, top)) ++x;
  EXPECT_LT(testgl::G(testgl::Pixel(x, top)), 40);
}


// The ink of `text` drawn alone at (10, 10), as rows of a 40 x 24 cell; empty when none.
std::string InkPattern(QCanvas* canvas, const char* text, int len = -1) {
  canvas->Clear();
  canvas->Text(10, 10, text, len);
  std::string cell;
  bool any = false;
  for (int y = 6; y < 30; ++y)
    for (int x = 6; x < 46; ++x) {
      cell += Ink(x, y) ? '#' : '.';
      any = any || Ink(x, y);
    }
  return any ? cell : std::string();
}

TEST_F(DTexFontGui, OtherScriptsDrawTheirOwnGlyphsAndWhatNoFontHasOrBadBytesDrawBoxes) {
  const char* cyrillic = "\xD0\x96\xD0\xB8\xD0\xB7\xD0\xBD\xD1\x8C";  // Жизнь
  const char* greek = "\xCE\x9B\xCF\x8C\xCE\xB3\xCE\xBF\xCF\x82";     // Λόγος
  const char* unknown = "\xF4\x8F\xBF\xBD";  // U+10FFFD: private use, in no font
  const std::string box = InkPattern(canvas_.get(), unknown);
  ASSERT_FALSE(box.empty()) << "the box draws";
  // An outline: the middle of its ink is empty, its top and bottom rows are solid.
  int top = 24, bottom = -1, left = 40, right = -1;
  for (int i = 0; i < int(box.size()); ++i)
    if (box[size_t(i)] == '#') {
      top = std::min(top, i / 40), bottom = std::max(bottom, i / 40);
      left = std::min(left, i % 40), right = std::max(right, i % 40);
    }
  EXPECT_GE(bottom - top, 6);
  EXPECT_GE(right - left, 4);
  EXPECT_EQ(box[size_t((top + bottom) / 2 * 40 + (left + right) / 2)], '.');
  for (int x = left; x <= right; ++x)
    EXPECT_EQ(box[size_t(top * 40 + x)], '#') << x;
  EXPECT_NE(box, InkPattern(canvas_.get(), "?"));

  // Which glyphs they draw is checked against a reference rendering end to end.
  for (const char* text : {cyrillic, greek}) {
    EXPECT_NE(InkPattern(canvas_.get(), text, 2), box) << text;
    const float width = font_->GetWidth(text);
    EXPECT_GT(width, 30.0f) << text;
    canvas_->Clear();
    EXPECT_EQ(canvas_->Text(10, 10, text), int(10.0f + width)) << text;
  }

  // A stray byte, a sequence cut short by the length and an overlong form: one box a byte.
  const float boxWidth = font_->GetWidth(unknown);
  const std::vector<char> cut = {'A', '\xE2', '\x82'};
  EXPECT_FLOAT_EQ(font_->GetWidth(cut.data(), 3), font_->GetWidth("A") + 2 * boxWidth);
  EXPECT_FLOAT_EQ(font_->GetWidth("\xFF\xC0\xAF"), 3 * boxWidth);
  EXPECT_EQ(InkPattern(canvas_.get(), "\xFF"), box);
  canvas_->Clear();
  EXPECT_EQ(canvas_->Text(10, 10, cut.data(), 3), int(10.0f + font_->GetWidth(cut.data(), 3)));
}

}  // namespace
