// The overlay font drawn on a real window: ink where the measured width says, and text upright
// in the canvas's 2D mode.
#include <gtest/gtest.h>

#include <GL/gl.h>

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

// Red channel of a block of the back buffer, rows from the top of the window.
struct Shot {
  int x0, y0, w, h;
  std::vector<unsigned char> red;
  Shot(QShell* win, int x, int y, int wid, int hgt) : x0(x), y0(y), w(wid), h(hgt) {
    std::vector<unsigned char> rgba(size_t(w) * h * 4);
    glReadBuffer(GL_BACK);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(x, win->GetHeight() - y - h, w, h, GL_RGBA, GL_UNSIGNED_BYTE, rgba.data());
    red.resize(size_t(w) * h);
    for (int r = 0; r < h; ++r)  // OpenGL's rows come bottom first
      for (int c = 0; c < w; ++c) red[size_t(r) * w + c] = rgba[(size_t(h - 1 - r) * w + c) * 4];
  }
  bool Ink(int x, int y) const { return red[size_t(y - y0) * w + (x - x0)] > 96; }
  int InkInRow(int y) const {
    int n = 0;
    for (int x = x0; x < x0 + w; ++x) n += Ink(x, y);
    return n;
  }
};

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

TEST_F(DTexFontGui, InkSpansTheMeasuredWidth) {
  const char* text = "File 12 of 34";
  const float width = font_->GetWidth(text);
  ASSERT_GT(width, 60.0f);
  EXPECT_EQ(canvas_->Text(10, 10, text), int(10.0f + width));

  const int height = font_->GetHeight();
  Shot shot(win_, 0, 0, 400, 60);
  int minX = 400, maxX = -1, minY = 60, maxY = -1;
  for (int y = 0; y < 60; ++y)
    for (int x = 0; x < 400; ++x)
      if (shot.Ink(x, y)) {
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
}

TEST_F(DTexFontGui, TextIsUprightInTheDownwardMode) {
  canvas_->Text(10, 10, "T");
  Shot shot(win_, 0, 0, 40, 40);
  int top = -1, bottom = -1;
  for (int y = 0; y < 40; ++y) {
    if (!shot.InkInRow(y)) continue;
    if (top < 0) top = y;
    bottom = y;
  }
  ASSERT_GE(top, 0) << "nothing drawn";
  // The bar is the top ink row, near the top of the quad; the stem is narrow below it.
  EXPECT_LT(top, 10 + 6);
  EXPECT_GE(shot.InkInRow(top), 6);
  EXPECT_LE(shot.InkInRow(bottom), 3);
  EXPECT_GT(bottom - top, 6);

  // A coloured 16-bit text lands in the same place, with the colour applied.
  canvas_->Clear();
  DTexFont* tf = font_->GetTexFont();
  tf->SetColor(QColor(255, 0, 0, 255));
  const uint16_t wide[] = {'T', 0};
  EXPECT_EQ(tf->Paint(wide, 10.0f, 10.0f), int(10.0f + tf->GetStringWidth(wide)));
  Shot red(win_, 0, 0, 40, 40);
  ASSERT_GE(red.InkInRow(top), 6);
  int x = 0;
  while (!red.Ink(x, top)) ++x;
  EXPECT_LT(testgl::G(testgl::Pixel(x, top)), 40);
}

}  // namespace
