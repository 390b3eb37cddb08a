// System-font display lists: a code the face lacks draws its missing-glyph box, on both paths.
#include "framework/qfont_uc.h"

#include <GL/gl.h>
#include <gtest/gtest.h>

#include <vector>

#include "support/glwindow.h"

namespace {

// Lit pixels after drawing `list` in white at the lower left of a black window.
int Ink(uint32_t list) {
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glMatrixMode(GL_MODELVIEW);
  glLoadIdentity();
  glDisable(GL_TEXTURE_2D);
  glClearColor(0, 0, 0, 1);
  glClear(GL_COLOR_BUFFER_BIT);
  glColor3f(1, 1, 1);
  glRasterPos2f(-0.9f, -0.9f);
  glCallList(list);
  std::vector<unsigned char> px(200 * 200 * 4);
  glReadBuffer(GL_BACK);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, 200, 200, GL_RGBA, GL_UNSIGNED_BYTE, px.data());
  int lit = 0;
  for (size_t i = 0; i < px.size(); i += 4) lit += px[i] > 128;
  return lit;
}

}  // namespace

TEST(QFontUCLists, CodesTheFaceLacksDrawItsMissingGlyphBox) {
  if (!testgl::Window()) GTEST_SKIP() << "needs a display (run under Xvfb)";
  int error = 0;
  QFontFace* face = QFUC_OpenFace("DejaVu Sans", 24, 400, &error);
  ASSERT_NE(face, nullptr) << error;
  const uint32_t base = QFUC_GenLists(2);
  ASSERT_NE(base, 0u);
  // U+FFF0 is unassigned, so no face maps it; 'A' is mapped.
  ASSERT_EQ(QFUC_FillLists(face, 0xFFF0, 1, base, 0, false), 1);
  const int box = Ink(base);
  EXPECT_GT(box, 20);
  for (uint32_t code : {0xFFF0u, uint32_t('A')}) {
    ASSERT_EQ(QFUC_FillLists(face, code, 1, base, 1, true), 1) << code;
    const int ink = Ink(base + 1);
    if (code == 'A')
      EXPECT_TRUE(ink > 20 && ink != box) << ink;
    else
      EXPECT_EQ(ink, box);
  }
  QFUC_DeleteLists(base, 2);
  QFUC_Release(face);
}
