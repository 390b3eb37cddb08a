// The window canvas: 3D at 1000 is a pixel per unit about the centre, 2D pixels from the top-left.
#include "framework/qcanvas.h"

#include <GL/gl.h>
#include <gtest/gtest.h>

#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/qbitmap.h"
#include "framework/qshell.h"
#include "support/glwindow.h"

namespace {

using testgl::Pixel;

class QCanvasTest : public ::testing::Test {
 protected:
  void SetUp() override {
    win_ = testgl::Window(800, 600);
    if (!win_) GTEST_SKIP() << "needs a display (run under Xvfb)";
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
  for (int y : {0, 300, 599})
    EXPECT_TRUE(!(Pixel(174, y) >> 8) && Pixel(175, y) >> 8 && Pixel(624, y) >> 8 &&
                !(Pixel(625, y) >> 8)) << "row " << y;
  // The bitmap's bottom rows (60 pixels high here) land at the screen's bottom.
  EXPECT_EQ(Pixel(400, 580) >> 8, 0xFF0000u);
  EXPECT_EQ(Pixel(400, 300) >> 8, 0x0000FFu);
  EXPECT_TRUE(tex.Detach());
}

TEST_F(QCanvasTest, TwoDModeAndColours) {
  QCanvas canvas(win_);
  canvas.SetClearColor(128, 64, 200, 255);
  ASSERT_TRUE(canvas.Clear(QCanvas::CLEAR_COLOR));
  EXPECT_EQ(Pixel(5, 5) >> 8, 0x8040C8u);
  ASSERT_TRUE(canvas.Set2D());
  canvas.SetColor(128, 30, 250, 255);
  glBegin(GL_QUADS);
  glVertex2f(10, 10), glVertex2f(12, 10), glVertex2f(12, 11), glVertex2f(10, 11);
  glEnd();
  const int in[][2] = {{10, 10}, {11, 10}}, out[][2] = {{12, 10}, {10, 11}, {10, 9}, {10, 589}};
  for (const auto& p : in) EXPECT_EQ(Pixel(p[0], p[1]) >> 8, 0x801EFAu) << p[0] << "," << p[1];
  for (const auto& p : out) EXPECT_EQ(Pixel(p[0], p[1]) >> 8, 0x8040C8u) << p[0] << "," << p[1];
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
