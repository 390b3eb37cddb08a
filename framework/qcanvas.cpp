// QCanvas: clears, projections and text on a window's OpenGL context.
#include "framework/qcanvas.h"

#include <GL/gl.h>
#include <GL/glext.h>

#include <cmath>
#include <utility>

#include "d3/dglobal.h"
#include "d3/dtexfont.h"
#include "framework/qbitmap.h"
#include "framework/qdrawable.h"
#include "framework/qfont.h"
#include "framework/qmessage.h"

namespace {

// The linear value that an encoding framebuffer writes back as byte `c`.
float Linear(int c) {
  const double v = c / 255.0;
  return float(v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4));
}

// Untextured colours are screen values: encoding them again would brighten them.
class ScreenValues {
 public:
  ScreenValues() : was_(DGlobal::IsFramebufferEncoding()) {
    if (was_) glDisable(GL_FRAMEBUFFER_SRGB);
  }
  ~ScreenValues() {
    if (was_) glEnable(GL_FRAMEBUFFER_SRGB);
  }
  ScreenValues(const ScreenValues&) = delete;
  ScreenValues& operator=(const ScreenValues&) = delete;

 private:
  bool was_;
};

}  // namespace

QCanvas::QCanvas(QDrawable* drawable, const char* name) : QObject(name), drawable_(drawable) {}

int QCanvas::GetWidth() const { return drawable_ ? drawable_->GetWidth() : 0; }
int QCanvas::GetHeight() const { return drawable_ ? drawable_->GetHeight() : 0; }

bool QCanvas::Current() const {
  if (!drawable_ || !drawable_->MakeCurrent()) return false;
  DGlobal::IsOpenGLAvailable();  // prepares a new context's colour handling
  return true;
}

void QCanvas::SetClearColor(int r, int g, int b, int a) { clearColor_ = QColor(r, g, b, a); }

bool QCanvas::Clear(int what) {
  if (!Current()) return false;
  GLbitfield bits = 0;
  if (what & CLEAR_COLOR) bits |= GL_COLOR_BUFFER_BIT;
  if (what & CLEAR_DEPTH) bits |= GL_DEPTH_BUFFER_BIT;
  ScreenValues screen;
  glClearColor(clearColor_.GetR() / 255.0f, clearColor_.GetG() / 255.0f,
               clearColor_.GetB() / 255.0f, clearColor_.GetA() / 255.0f);
  glClearDepth(1.0);
  glClear(bits);
  return true;
}

bool QCanvas::DrawBackBuffer() {
  if (!Current()) return false;
  glDrawBuffer(GL_BACK);
  return true;
}

bool QCanvas::Set3D(float d) {
  if (!(d > 0.0f)) {
    QWARN("QCanvas::Set3D", "QCanvas(%s): viewing distance '%g' must be positive", GetName(),
          double(d));
    return false;
  }
  if (!Current()) return false;
  const double w = GetWidth(), h = GetHeight();
  glViewport(0, 0, GLsizei(w) / shrink_, GLsizei(h) / shrink_);
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glFrustum(-w / (2.0 * d), w / (2.0 * d), -h / (2.0 * d), h / (2.0 * d), NEAR_PLANE, FAR_PLANE);
  glMatrixMode(GL_MODELVIEW);
  glLoadIdentity();
  glTranslatef(0.0f, 0.0f, -d);
  glEnable(GL_DEPTH_TEST);
  glDepthFunc(GL_LEQUAL);
  mode_ = MODE_3D;
  return true;
}

bool QCanvas::Set2D() {
  if (!Current()) return false;
  const int w = GetWidth(), h = GetHeight();
  glViewport(0, 0, w / shrink_, h / shrink_);
  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  glOrtho(0.0, w, h, 0.0, -1.0, 1.0);
  glMatrixMode(GL_MODELVIEW);
  glLoadIdentity();
  glDisable(GL_DEPTH_TEST);
  mode_ = MODE_2D;
  return true;
}

void QCanvas::SetColor(int r, int g, int b, int a) {
  color_ = QColor(r, g, b, a);
  if (!DGlobal::IsOpenGLAvailable()) return;
  if (DGlobal::IsFramebufferEncoding())
    glColor4f(Linear(color_.GetR()), Linear(color_.GetG()), Linear(color_.GetB()),
              color_.GetA() / 255.0f);
  else
    glColor4ub(GLubyte(color_.GetR()), GLubyte(color_.GetG()), GLubyte(color_.GetB()),
               GLubyte(color_.GetA()));
}

int QCanvas::Text(int x, int y, const char* text, int len) {
  DTexFont* tf = font_ ? font_->GetTexFont() : nullptr;
  if (!tf || !text || !Current()) return x;
  tf->SetColor(color_);
  const uint32_t keep = tf->GetFlags() & DTexFont::HAS_UNICODE;
  tf->SetFlags(keep | (uint32_t(drawFlag_) & (DTexFont::PREMULTIPLIED | DTexFont::BOLD)));
  ScreenValues screen;
  return tf->Paint(text, float(x), float(y), len);
}

bool QCanvas::ReadPixels(QBitMap* out) {
  out->Free();
  const int w = GetWidth() / shrink_, h = GetHeight() / shrink_;
  if (w <= 0 || h <= 0 || !Current()) return false;
  if (!out->Alloc(32, w, h)) return false;
  // Stored bytes, as the screen gets them; no pack settings of anybody else apply.
  ScreenValues screen;
  glPushClientAttrib(GL_CLIENT_PIXEL_STORE_BIT);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glPixelStorei(GL_PACK_ROW_LENGTH, 0);
  glPixelStorei(GL_PACK_SKIP_ROWS, 0);
  glPixelStorei(GL_PACK_SKIP_PIXELS, 0);
  glReadBuffer(GL_BACK);
  // In the order framebuffers keep, which most drivers copy as it stands: asking for RGBA makes
  // a software renderer convert each pixel, several times slower than the swap below.
  glReadPixels(0, 0, w, h, GL_BGRA, GL_UNSIGNED_BYTE, out->GetBuffer());
  glPopClientAttrib();
  uint8_t* p = out->GetBuffer();
  for (const uint8_t* end = p + size_t(w) * h * 4; p < end; p += 4) std::swap(p[0], p[2]);
  return true;
}
