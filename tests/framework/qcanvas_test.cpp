// The window canvas on the framework's window (skipped without a display): the 3D mode at
// distance 1000 maps one unit to one pixel around the window centre, the 2D mode is in window
// pixels from the top-left, and clear and drawing colours reach the screen as given.
#include "framework/qcanvas.h"

#include <GL/gl.h>
#include <gtest/gtest.h>

#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/qbitmap.h"
#include "framework/qshell.h"
#include "support/glwindow.h"

namespace {

using testgl::B;
using testgl::G;
using testgl::Pixel;
using testgl::R;

class QCanvasTest : public ::testing::Test {
 protected:
  void SetUp() override {
    win_ = testgl::Window(800, 600);
    if (!win_) GTEST_SKIP() << "needs a display (run under Xvfb)";
    ASSERT_EQ(win_->GetWidth(), 800);
    ASSERT_EQ(win_->GetHeight(), 600);
  }
  QShell* win_ = nullptr;
};

TEST_F(QCanvasTest, FlatQuadIn3DFillsItsPixelsCentred) {
  // Bottom six rows red, everything above blue: shows which way up the picture lands.
  QBitMap bm(32, 45, 60);
  uint8_t* p = bm.GetBuffer();
  for (int i = 0; i < 45 * 60; ++i, p += 4) {
    const bool bottom = i < 45 * 6;
    p[0] = bottom ? 255 : 0, p[1] = 0, p[2] = bottom ? 0 : 255, p[3] = 255;
  }
  DBitMapTexture tex(&bm, "quad");
  DMesh mesh;
  ASSERT_TRUE(mesh.DefineFlat2D(450.0f, 600.0f));
  ASSERT_TRUE(mesh.SetPolygonTexture(0, &tex, QRect{0, 0, 45, 60}));

  QCanvas canvas(win_);
  canvas.SetClearColor(0, 0, 0, 0);
  ASSERT_TRUE(canvas.Clear());
  ASSERT_TRUE(canvas.Set3D(1000.0f));
  mesh.Paint();

  // Lit: any colour (edge texels are filtered with the wrapped row, so not exactly blue).
  auto lit = [](uint32_t px) { return (px >> 8) != 0; };
  for (int y : {0, 300, 599}) {
    EXPECT_FALSE(lit(Pixel(174, y))) << "row " << y;
    EXPECT_TRUE(lit(Pixel(175, y))) << "row " << y;
    EXPECT_TRUE(lit(Pixel(624, y))) << "row " << y;
    EXPECT_FALSE(lit(Pixel(625, y))) << "row " << y;
  }
  // The bitmap's bottom rows (60 pixels high here) land at the screen's bottom.
  EXPECT_EQ(R(Pixel(400, 580)), 255);
  EXPECT_EQ(B(Pixel(400, 580)), 0);
  EXPECT_EQ(B(Pixel(400, 300)), 255);
  EXPECT_EQ(R(Pixel(400, 300)), 0);
  EXPECT_TRUE(tex.Detach());
}

TEST_F(QCanvasTest, TwoDModeIsInPixelsFromTheTopLeft) {
  QCanvas canvas(win_);
  canvas.SetClearColor(0, 0, 0, 255);
  ASSERT_TRUE(canvas.Clear());
  ASSERT_TRUE(canvas.Set2D());
  canvas.SetColor(255, 255, 255, 255);
  glBegin(GL_QUADS);
  glVertex2f(10, 10), glVertex2f(12, 10), glVertex2f(12, 11), glVertex2f(10, 11);
  glEnd();
  EXPECT_EQ(R(Pixel(10, 10)), 255);
  EXPECT_EQ(R(Pixel(11, 10)), 255);
  EXPECT_EQ(R(Pixel(12, 10)), 0);
  EXPECT_EQ(R(Pixel(10, 11)), 0);
  EXPECT_EQ(R(Pixel(10, 9)), 0);
  EXPECT_EQ(R(Pixel(10, 589)), 0);
}

TEST_F(QCanvasTest, ClearAndDrawingColoursAreScreenValues) {
  QCanvas canvas(win_);
  canvas.SetClearColor(128, 64, 200, 255);
  ASSERT_TRUE(canvas.Clear(QCanvas::CLEAR_COLOR));
  uint32_t p = Pixel(5, 5);
  EXPECT_EQ(R(p), 128);
  EXPECT_EQ(G(p), 64);
  EXPECT_EQ(B(p), 200);

  ASSERT_TRUE(canvas.Set2D());
  canvas.SetColor(128, 30, 250, 255);
  glBegin(GL_QUADS);
  glVertex2f(100, 100), glVertex2f(120, 100), glVertex2f(120, 120), glVertex2f(100, 120);
  glEnd();
  p = Pixel(110, 110);
  EXPECT_EQ(R(p), 128);
  EXPECT_EQ(G(p), 30);
  EXPECT_EQ(B(p), 250);
}

TEST_F(QCanvasTest, TextWithoutFontLeavesThePen) {
  QCanvas canvas(win_);
  ASSERT_TRUE(canvas.Set2D());
  EXPECT_EQ(canvas.Text(10, 10, "File 1 of 2"), 10);
}

TEST(QCanvasNoContext, RefusesWithoutAContext) {
  QBitMap bm(32, 4, 4);
  QCanvas canvas(&bm);
  EXPECT_FALSE(canvas.Clear());
  EXPECT_FALSE(canvas.Set2D());
  EXPECT_FALSE(canvas.Set3D(0.0f));
  EXPECT_EQ(canvas.GetMode(), QCanvas::MODE_NONE);
}

}  // namespace
