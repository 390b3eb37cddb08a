// The texture cache: one texture per picture name, shared, and the listing of what is held.
#include "d3/dtexturemgr.h"

#include <GL/gl.h>
#include <gtest/gtest.h>

#include <string>

#include "d3/dglobal.h"
#include "d3/dtexture.h"
#include "framework/qbitmap.h"
#include "support/glwindow.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

class DTextureManagerTest : public TempDirTest {
 protected:
  void TearDown() override { DGlobal::Settings() = DGraphicsSettings(); }
  const bool gl_ = testgl::Window() != nullptr;
};

TEST_F(DTextureManagerTest, OnePictureOneSharedTexture) {
  QBitMap bm(32, 30, 20);
  memset(bm.GetBuffer(), 200, size_t(bm.GetSize()));
  const std::string pic = Tmp("pic.tga");
  ASSERT_TRUE(bm.Write(pic.c_str(), 1));

  DTextureManager mgr;
  const int ref = mgr.FindOrMakeReference(pic.c_str());
  ASSERT_EQ(ref, 1);
  EXPECT_EQ(mgr.FindOrMakeReference(pic.c_str()), ref);
  DTexture* tex = mgr.GetTexture(ref);
  ASSERT_NE(tex, nullptr);
  EXPECT_STREQ(tex->GetName(), pic.c_str());
  EXPECT_TRUE(tex->GetFlags() & DTexture::MIPMAP);
  unsigned id = tex->GetID();
  if (gl_) {
    EXPECT_EQ(tex->GetWidth(), 30);
    EXPECT_EQ(tex->GetHeight(), 20);
    EXPECT_TRUE(glIsTexture(id));
  }

  LogCapture log;
  mgr.DbgPrint();
  EXPECT_TRUE(log.Seen("DTextureManager (TextureManager)"));
  EXPECT_TRUE(log.Seen("  tex[1]="));
  EXPECT_TRUE(log.Seen("DTextureManager:DbgPrint(); 1 textures NOT RELEASED, total number of "
                       "references 2"));
  for (int r : {ref, ref}) mgr.Release(&r);
  EXPECT_EQ(mgr.GetObject(ref), nullptr);
  EXPECT_FALSE(gl_ && glIsTexture(id));
  mgr.DbgPrint();
  EXPECT_TRUE(log.Seen("DTextureManager:DbgPrint(); all textures released"));
  EXPECT_FALSE(log.Seen("refCount<0"));
}

}  // namespace
