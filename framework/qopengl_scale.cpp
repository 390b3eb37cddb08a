// The bitmap scaler of the window layer: GLU's, which runs in the application's context.
#include <GL/gl.h>
#include <GL/glu.h>

#include "framework/qopengl.h"

namespace {

struct GLPixelStore {
  GLint packRow, packSkipPixels, packSkipRows, packAlign;
  GLint unpackRow, unpackSkipPixels, unpackSkipRows, unpackAlign;
};

}  // namespace

const char* QGLGluScaleImage(int w, int h, const void* src, int tw, int th, void* dst) {
  // GLU reads and writes through the pixel-store state; set it for tight rows, then give the
  // texture code back what it had.
  GLPixelStore saved;
  glGetIntegerv(GL_PACK_ROW_LENGTH, &saved.packRow);
  glGetIntegerv(GL_PACK_SKIP_PIXELS, &saved.packSkipPixels);
  glGetIntegerv(GL_PACK_SKIP_ROWS, &saved.packSkipRows);
  glGetIntegerv(GL_PACK_ALIGNMENT, &saved.packAlign);
  glGetIntegerv(GL_UNPACK_ROW_LENGTH, &saved.unpackRow);
  glGetIntegerv(GL_UNPACK_SKIP_PIXELS, &saved.unpackSkipPixels);
  glGetIntegerv(GL_UNPACK_SKIP_ROWS, &saved.unpackSkipRows);
  glGetIntegerv(GL_UNPACK_ALIGNMENT, &saved.unpackAlign);
  glPixelStorei(GL_PACK_ROW_LENGTH, tw);
  glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_PACK_SKIP_ROWS, 0);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, w);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  const GLint rc =
      gluScaleImage(GL_RGBA, w, h, GL_UNSIGNED_BYTE, src, tw, th, GL_UNSIGNED_BYTE, dst);
  glPixelStorei(GL_PACK_ROW_LENGTH, saved.packRow);
  glPixelStorei(GL_PACK_SKIP_PIXELS, saved.packSkipPixels);
  glPixelStorei(GL_PACK_SKIP_ROWS, saved.packSkipRows);
  glPixelStorei(GL_PACK_ALIGNMENT, saved.packAlign);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, saved.unpackRow);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, saved.unpackSkipPixels);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, saved.unpackSkipRows);
  glPixelStorei(GL_UNPACK_ALIGNMENT, saved.unpackAlign);
  if (rc == 0) return nullptr;
  const GLubyte* text = gluErrorString(GLenum(rc));
  return text ? reinterpret_cast<const char*>(text) : "gluScaleImage failed";
}
