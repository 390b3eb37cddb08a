// Textures: exact sizes, pixel values in both colour paths, lifecycle, format rule, other kinds.
#define GL_GLEXT_PROTOTYPES
#include "d3/dtexture.h"

#include <GL/gl.h>
#include <GL/glext.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "d3/dglobal.h"
#include "d3/dmesh.h"
#include "framework/qbitmap.h"
#include "framework/qcanvas.h"
#include "framework/qshell.h"
#include "support/glwindow.h"
#include "support/logcapture.h"

namespace {

using testgl::Pixel;

#define NEED_WINDOW()                                         \
  QShell* win = testgl::Window();                             \
  if (!win) GTEST_SKIP() << "needs a display (run under Xvfb)"; \
  (void)win

// Vertical stripes of distinct colours, 8 columns each; mid-grey first.
const int kStripes[][3] = {{128, 128, 128}, {255, 0, 0},   {0, 255, 0}, {0, 0, 255},
                           {200, 100, 50},  {10, 20, 30},  {1, 254, 77}, {64, 192, 33}};
constexpr int kStripeWid = 8;

void FillStripes(QBitMap* bm) {
  uint8_t* p = bm->GetBuffer();
  for (int y = 0; y < bm->GetHeight(); ++y)
    for (int x = 0; x < bm->GetWidth(); ++x, p += 4) {
      const int* c = kStripes[(x / kStripeWid) % 8];
      p[0] = uint8_t(c[0]), p[1] = uint8_t(c[1]), p[2] = uint8_t(c[2]), p[3] = 255;
    }
}

// Draws the texture 1:1 with its top-left corner at window pixel (x, y) in the 2D mode.
void Draw2D(QShell* win, DTexture* tex, int x, int y) {
  QCanvas canvas(win);
  canvas.SetClearColor(0, 0, 0, 255);
  ASSERT_TRUE(canvas.Clear());
  ASSERT_TRUE(canvas.Set2D());
  DMesh mesh;
  ASSERT_TRUE(mesh.DefineFlat2D(float(tex->GetWidth()), float(tex->GetHeight())));
  mesh.SetPolygonTexture(0, tex, QRect{0, 0, tex->GetWidth(), tex->GetHeight()});
  glTranslatef(float(x + tex->GetWidth() / 2), float(y + tex->GetHeight() / 2), 0.0f);
  mesh.Paint();
}

void ExpectStripesAt(int x0, int y0, int wid, int hgt) {
  for (int x = 0; x < wid; ++x) {
    const int* c = kStripes[(x / kStripeWid) % 8];
    for (int y : {0, hgt / 2, hgt - 1}) {
      ASSERT_EQ(Pixel(x0 + x, y0 + y) >> 8, uint32_t(c[0] << 16 | c[1] << 8 | c[2]))
          << "column " << x << " row " << y;
    }
  }
}

TEST(DTextureColour, PixelValuesReachTheScreenAndTheOtherKindsUnchanged) {
  NEED_WINDOW();
  QBitMap bm(32, 64, 16);
  FillStripes(&bm);
  {
    DBitMapTexture tex(&bm, "stripes");
    ASSERT_NE(tex.GetID(), 0u);
    // The window asks for an sRGB-capable framebuffer: sRGB textures, encoding back on write.
    if (DGlobal::IsFramebufferSRGB()) {
      EXPECT_EQ(tex.GetInternalFormat(), unsigned(GL_SRGB8_ALPHA8));
      EXPECT_TRUE(DGlobal::IsFramebufferEncoding());
    }
    Draw2D(win, &tex, 100, 50);
    ExpectStripesAt(100, 50, 64, 16);
    EXPECT_TRUE(tex.Detach());
  }
  // Linear both ways gives the same values.
  DGlobal::SetLinearColour(true);
  {
    DBitMapTexture tex(&bm, "stripes-linear");
    EXPECT_EQ(tex.GetInternalFormat(), unsigned(GL_RGBA));
    EXPECT_FALSE(DGlobal::IsFramebufferEncoding());
    Draw2D(win, &tex, 300, 200);
    ExpectStripesAt(300, 200, 64, 16);
  }
  // The drawable kind copies what was drawn, the volume kind stacks its slices.
  QCanvas canvas(win);
  canvas.SetClearColor(10, 200, 30, 255);
  ASSERT_TRUE(canvas.Clear());
  DDrawableTexture drawn(4, 2, "drawn");
  ASSERT_TRUE(drawn.CopyFromScreen(5, 5));
  uint8_t px[4 * 2 * 4] = {};
  drawn.Select();
  glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_UNSIGNED_BYTE, px);
  for (int i = 0; i < 8; ++i)
    EXPECT_TRUE(px[i * 4] == 10 && px[i * 4 + 1] == 200 && px[i * 4 + 2] == 30) << "pixel " << i;

  QBitMap a(32, 2, 1), b(32, 2, 1), odd(32, 1, 2);
  for (int i = 0; i < 8; ++i) a.GetBuffer()[i] = uint8_t(i + 1), b.GetBuffer()[i] = uint8_t(100 + i);
  DTexture3D volume("volume");
  LogCapture log;
  QBitMap* mixed[] = {&a, &odd};
  EXPECT_FALSE(volume.FromBitMaps(mixed, 2));
  EXPECT_TRUE(log.Seen("DTexture3D:FromBitMaps(); slice 1 is not 2x1 (volume)"));
  QBitMap* slices[] = {&a, &b};
  ASSERT_TRUE(volume.FromBitMaps(slices, 2));
  uint8_t got[16] = {};
  volume.Select();
  glGetTexImage(GL_TEXTURE_3D, 0, GL_RGBA, GL_UNSIGNED_BYTE, got);
  EXPECT_EQ(std::string(got, got + 8), std::string(a.GetBuffer(), a.GetBuffer() + 8));
  EXPECT_EQ(std::string(got + 8, got + 16), std::string(b.GetBuffer(), b.GetBuffer() + 8));
  DGlobal::FollowFramebuffer();
  EXPECT_EQ(DGlobal::IsFramebufferEncoding(), DGlobal::IsFramebufferSRGB());
  // The name table keeps 200 characters of a name.
  DTextureSetLastKnownTextureName(199, std::string(300, 'x').c_str());
  EXPECT_EQ(std::string(DTextureGetLastKnownTextureName(199)), std::string(200, 'x'));
}

TEST(DTextureLifecycle, ExactSizeMipmapsFixedAtCreationDetachOnceAndTheNameGoesWithIt) {
  NEED_WINDOW();
  QBitMap bm(32, 1000, 750), small(32, 10, 10);
  memset(bm.GetBuffer(), 90, size_t(bm.GetSize()));
  GLuint id = 0;
  GLint got[4] = {};
  {
    DBitMapTexture tex(&bm, "big");
    id = tex.GetID();
    ASSERT_TRUE(glIsTexture(id));
    LogCapture log;
    tex.EnableMipmap(false);
    EXPECT_TRUE(log.Seen("DTexture:EnableMipmap() called after creation (big)"));
    EXPECT_TRUE(tex.GetFlags() & DTexture::MIPMAP);
    // Its exact size, and the mipmap chain down to its last level.
    tex.Select();
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &got[0]);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &got[1]);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 9, GL_TEXTURE_WIDTH, &got[2]);
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &got[3]);
    EXPECT_EQ(std::vector<GLint>(got, got + 4),
              std::vector<GLint>({1000, 750, 1, GL_LINEAR_MIPMAP_LINEAR}));
    // A bitmap smaller than the texture is refused, not read past its end.
    EXPECT_FALSE(tex.FromBitMap(&small));
    EXPECT_TRUE(log.Seen("doesn't fill texture 1000x750"));
    EXPECT_TRUE(tex.Detach());
    EXPECT_FALSE(log.Seen("refCount<0"));
    EXPECT_FALSE(tex.Detach());
    EXPECT_TRUE(log.Seen("DTexture:Detach(); refCount<0 (refCount=-1); too many Detach() calls"));
  }
  EXPECT_FALSE(glIsTexture(id));
  glGetIntegerv(GL_TEXTURE_BINDING_2D, &got[0]);
  EXPECT_EQ(got[0], 0);

  // Before creation the choice holds, with the kept nearest/linear pairing.
  DBitMapTexture plain;
  plain.EnableMipmap(false);
  ASSERT_TRUE(plain.FromBitMap(&small));
  glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &got[0]);
  glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, &got[1]);
  EXPECT_EQ(std::vector<GLint>(got, got + 2), std::vector<GLint>({GL_NEAREST, GL_LINEAR}));
}

TEST(DTextureFormat, InternalFormatRule) {
  // format, compressed, linear colour -> internal format
  const unsigned rule[][4] = {
      {GL_RGBA, 0, 1, GL_RGBA},           {GL_RGB, 0, 1, GL_RGB},
      {GL_COMPRESSED_RGB, 0, 1, GL_RGB},  {GL_ALPHA, 0, 1, GL_RGBA},
      {GL_RGB, 0, 0, GL_SRGB8_ALPHA8},    {GL_RGB, 1, 1, GL_COMPRESSED_RGB},
      {GL_RGBA, 1, 0, GL_COMPRESSED_SRGB_ALPHA}, {GL_ALPHA, 1, 0, GL_ALPHA}};
  for (const auto& r : rule)
    EXPECT_EQ(DTexture::ChooseInternalFormat(r[0], r[1], r[2]), r[3]) << r[0] << r[1] << r[2];
}

}  // namespace
