// QWindow: preferences, geometry, event callback and texture painting.
#include "framework/qwindow.h"

#include <GL/gl.h>

#include "framework/qevent.h"
#include "framework/qmessage.h"

QWindow::QWindow(QWindow* parent, const char* name, int x, int y, int wid, int hgt)
    : QDrawable(name), parent_(parent), x_(x), y_(y), wid_(wid), hgt_(hgt) {}

QWindow::~QWindow() { QEventRemoveWindow(this); }

bool QWindow::MayChangePrefs(const char* what) const {
  if (!created_) return true;
  QERR("QWindow::Pref", "QWindow:%s() called after window was created", what);
  return false;
}

void QWindow::SetPref(int bit, bool on) { prefs_ = on ? (prefs_ | bit) : (prefs_ & ~bit); }

void QWindow::PrefFullScreen(bool on) {
  if (MayChangePrefs("PrefFullScreen")) SetPref(PREF_FULLSCREEN, on);
}
void QWindow::PrefNoResize(bool on) {
  if (MayChangePrefs("PrefNoResize")) SetPref(PREF_NORESIZE, on);
}
void QWindow::PrefWM(bool on) {
  if (MayChangePrefs("PrefWM")) SetPref(PREF_WM, on);
}
void QWindow::PrefOption(bool on) {
  if (MayChangePrefs("PrefOption")) SetPref(PREF_OPTION, on);
}
void QWindow::MakeRealX() {
  if (MayChangePrefs("MakeRealX")) SetPref(PREF_SOFT, false);
}
void QWindow::MakeSoftWindow() {
  if (MayChangePrefs("MakeSoftWindow")) SetPref(PREF_SOFT, true);
}

QWindow* QWindow::GetRealWindow() {
  for (QWindow* w = this; w; w = w->parent_)
    if (w->IsRealX()) return w;
  return nullptr;
}

bool QWindow::Create() {
  QWindow* real = parent_ ? parent_->GetRealWindow() : nullptr;
  if (!real || !real->IsCreated()) {
    QERR("QWindow::Create", "QWindow::Create() without a parent real X window");
    return false;
  }
  created_ = true;
  return true;
}

bool QWindow::Hide() {
  visible_ = false;
  return true;
}

bool QWindow::Show() {
  visible_ = true;
  return true;
}

void QWindow::Move(int x, int y) {
  x_ = x;
  y_ = y;
}

void QWindow::Size(int wid, int hgt) { OnResize(wid, hgt); }

void QWindow::OnResize(int wid, int hgt) {
  wid_ = wid;
  hgt_ = hgt;
}

void QWindow::SetEventCallback(EventCallback cb, void* user) {
  callback_ = cb;
  callbackUser_ = user;
}

bool QWindow::ProcessEvent(QEvent* e) { return callback_ && callback_(this, e, callbackUser_); }

bool QWindow::PaintTexture(unsigned int glTexture, const QRect& texGrid, int x, int y) {
  QRect dst;
  dst.x = x;
  dst.y = y;
  dst.wid = texGrid.wid;
  dst.hgt = texGrid.hgt;
  return PaintTextureStretched(glTexture, texGrid, dst);
}

bool QWindow::PaintTextureStretched(unsigned int glTexture, const QRect& texGrid,
                                    const QRect& dst) {
  if (!glTexture) {
    QERR("QWindow::PaintTexture", "QWindow:PaintTexture(); no texture");
    return false;
  }
  if (texGrid.wid == 0) {
    QERR("QWindow::PaintTexture", "QWindow:PaintTexture(); texGrid.wid=0");
    return false;
  }
  QWindow* real = GetRealWindow();
  if (!real || !real->MakeCurrent()) return false;
  // A soft window's origin is its offset inside the real window.
  int ox = 0, oy = 0;
  for (QWindow* w = this; w && w != real; w = w->parent_) {
    ox += w->x_;
    oy += w->y_;
  }
  glMatrixMode(GL_PROJECTION);
  glPushMatrix();
  glLoadIdentity();
  glOrtho(0, real->GetWidth(), real->GetHeight(), 0, -1, 1);
  glMatrixMode(GL_MODELVIEW);
  glPushMatrix();
  glLoadIdentity();
  glPushAttrib(GL_ENABLE_BIT | GL_TEXTURE_BIT);
  glEnable(GL_TEXTURE_2D);
  glDisable(GL_DEPTH_TEST);
  glBindTexture(GL_TEXTURE_2D, glTexture);
  const float x0 = float(ox + dst.x), y0 = float(oy + dst.y);
  const float x1 = x0 + float(dst.wid), y1 = y0 + float(dst.hgt);
  // Bitmaps are stored bottom-up, so texture row 0 is the picture's bottom line.
  glBegin(GL_QUADS);
  glTexCoord2f(0, 1); glVertex2f(x0, y0);
  glTexCoord2f(1, 1); glVertex2f(x1, y0);
  glTexCoord2f(1, 0); glVertex2f(x1, y1);
  glTexCoord2f(0, 0); glVertex2f(x0, y1);
  glEnd();
  glPopAttrib();
  glPopMatrix();
  glMatrixMode(GL_PROJECTION);
  glPopMatrix();
  glMatrixMode(GL_MODELVIEW);
  return true;
}
