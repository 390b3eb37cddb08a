// QXWindow: the native window, its life and the operations this platform does not offer.
#include "framework/qxwindow.h"

#include <SDL.h>
#include <SDL_syswm.h>
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/dpms.h>

#include <GL/gl.h>
#include <cstring>

#include "framework/qapp_display.h"
#include "framework/qbitmap.h"
#include "framework/qevent.h"
#include "framework/qmessage.h"

QXWindow::QXWindow(QWindow* parent, const char* name, int x, int y, int wid, int hgt)
    : QWindow(parent, name, x, y, wid, hgt) {
  // A top-level window paints from its own state, so pending motion only needs its latest spot.
  compressMotion_ = true;
}

QXWindow::~QXWindow() { DestroyNative(); }

void QXWindow::SetFullScreenSettings(const QFullScreenSettings* s) {
  settings_ = s ? *s : QFullScreenSettings();
}

namespace {

// Under X11, a window whose full-screen state is set before it is mapped is put up full screen by
// the window manager at once. SDL's own switch, made after mapping, waits up to 100 ms for the
// window to change, and one that already covers the desktop never does. False when the window is
// not an X11 one.
bool AskFullScreenBeforeMap(SDL_Window* window) {
  if (strcmp(SDL_GetCurrentVideoDriver() ? SDL_GetCurrentVideoDriver() : "", "x11") != 0)
    return false;
  SDL_SysWMinfo info;
  SDL_VERSION(&info.version);
  if (!SDL_GetWindowWMInfo(window, &info) || info.subsystem != SDL_SYSWM_X11) return false;
  Display* display = info.info.x11.display;
  Atom state = XInternAtom(display, "_NET_WM_STATE", False);
  Atom fullScreen = XInternAtom(display, "_NET_WM_STATE_FULLSCREEN", False);
  XChangeProperty(display, info.info.x11.window, state, XA_ATOM, 32, PropModeReplace,
                  reinterpret_cast<unsigned char*>(&fullScreen), 1);
  return true;
}

}  // namespace

bool QXWindow::CreateNative() {
  Uint32 flags = SDL_WINDOW_OPENGL;
  if (!(prefs_ & PREF_NORESIZE) && !IsFullScreen()) flags |= SDL_WINDOW_RESIZABLE;
  const bool near = (settings_.flags & QFullScreenSettings::NEAR_FULLSCREEN) != 0;
  if (!(prefs_ & PREF_WM) || near || (settings_.flags & QFullScreenSettings::NO_BORDER))
    flags |= SDL_WINDOW_BORDERLESS;
  int x = x_, y = y_, w = wid_ > 0 ? wid_ : 640, h = hgt_ > 0 ? hgt_ : 480;
  SDL_Rect desk;
  if (near && SDL_GetDisplayBounds(0, &desk) == 0) {
    x = desk.x;
    y = desk.y;
    w = desk.w;
    h = desk.h;
  }
  // A full-screen mode that is the desktop's own needs no mode switch: the window is made
  // covering the desktop from the start, which saves a resize and the wait for it. A display
  // that does not tell its rate (0) is taken at its size alone.
  SDL_DisplayMode current;
  desktopFullScreen_ = IsFullScreen() && SDL_GetDesktopDisplayMode(0, &current) == 0 &&
                       current.w == settings_.width && current.h == settings_.height &&
                       (settings_.refreshRate <= 0 || current.refresh_rate == 0 ||
                        current.refresh_rate == settings_.refreshRate);
  if (desktopFullScreen_) {
    // Made hidden, covering the desktop, and shown once it is marked full screen.
    flags |= SDL_WINDOW_HIDDEN;
    if (SDL_GetDisplayBounds(0, &desk) == 0) x = desk.x, y = desk.y;
    w = current.w;
    h = current.h;
  }
  window_ = SDL_CreateWindow(GetName()[0] ? GetName() : "glimra", x, y, w, h, flags);
  if (!window_) return false;
  if (desktopFullScreen_) {
    if (!AskFullScreenBeforeMap(window_))
      SDL_SetWindowFullscreen(window_, SDL_WINDOW_FULLSCREEN_DESKTOP);
    SDL_ShowWindow(window_);
  }
  nativeId_ = SDL_GetWindowID(window_);
  x_ = x;
  y_ = y;
  wid_ = w;
  hgt_ = h;
  return true;
}

void QXWindow::DestroyNative() {
  RestoreDesktopMode();
  if (monitorDown_) SetMonitorPower(true);
  if (context_) {
    if (SDL_GL_GetCurrentContext() == context_) SDL_GL_MakeCurrent(window_, nullptr);
    SDL_GL_DeleteContext(static_cast<SDL_GLContext>(context_));
    context_ = nullptr;
  }
  if (window_) {
    QEventBindWindow(nativeId_, nullptr);
    SDL_DestroyWindow(window_);
    window_ = nullptr;
    nativeId_ = 0;
  }
}

bool QXWindow::Create() {
  if (created_) return true;
  if (!EnableOpenGL()) return false;
  SetIcon(101);
  QEventBindWindow(nativeId_, this);
  created_ = true;
  if (IsFullScreen()) SwitchToFullScreen();
  if (prefs_ & PREF_OPTION) SDL_GL_SetSwapInterval(1);
  int w = 0, h = 0;
  SDL_GL_GetDrawableSize(window_, &w, &h);
  OnResize(w, h);
  return true;
}

bool QXWindow::Hide() {
  if (!window_) {
    QERR("QXWindow::Hide", "Can't hide X QWindow");
    return false;
  }
  SDL_HideWindow(window_);
  visible_ = false;
  return true;
}

bool QXWindow::Show() {
  if (window_) SDL_ShowWindow(window_);
  visible_ = true;
  return window_ != nullptr;
}

void QXWindow::Move(int x, int y) {
  QWindow::Move(x, y);
  if (window_) SDL_SetWindowPosition(window_, x, y);
}

void QXWindow::Size(int wid, int hgt) {
  if (window_) SDL_SetWindowSize(window_, wid, hgt);
  OnResize(wid, hgt);
}

void QXWindow::Raise() {
  if (window_) SDL_RaiseWindow(window_);
}

bool QXWindow::SetIcon(int resource) {
  const uint8_t* rgba = nullptr;
  int w = 0, h = 0;
  if (!window_ || !qGetIconResource(resource, &rgba, &w, &h)) return false;
  SDL_Surface* s = SDL_CreateRGBSurfaceWithFormatFrom(const_cast<uint8_t*>(rgba), w, h, 32, w * 4,
                                                      SDL_PIXELFORMAT_RGBA32);
  if (!s) return false;
  SDL_SetWindowIcon(window_, s);
  SDL_FreeSurface(s);
  return true;
}

bool QXWindow::ReadPixels(QBitMap* out, bool front) {
  if (!out || !MakeCurrent()) {
    QWARN("QXWindow::ReadPixels", "QXWindow(%s): no context to read pixels from", GetName());
    return false;
  }
  int w = 0, h = 0;
  SDL_GL_GetDrawableSize(window_, &w, &h);
  if (w <= 0 || h <= 0) return false;
  if (out->GetWidth() != w || out->GetHeight() != h || out->GetDepth() != 32 ||
      !out->GetBuffer()) {
    if (!out->Alloc(32, w, h)) return false;
  }
  if (out->GetSize() < w * h * 4) {
    QWARN("QXWindow::ReadPixels", "QXWindow(%s): bitmap of '%d' bytes too small", GetName(),
          out->GetSize());
    return false;
  }
  glReadBuffer(front ? GL_FRONT : GL_BACK);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  // OpenGL's rows run bottom-up, as the bitmap's do.
  glReadPixels(0, 0, w, h, GL_RGBA, GL_UNSIGNED_BYTE, out->GetBuffer());
  return glGetError() == GL_NO_ERROR;
}

void QXWindow::FocusKeys() { QERR("QXWindow::FocusKeys", "QXWindow::FocusKeys() nyi/win32"); }
void QXWindow::Lower() { QERR("QXWindow::Lower", "QXWindow::Lower() nyi/win32"); }
void QXWindow::Map() { QERR("QXWindow::Map", "QXWindow::Map() nyi/win32"); }
void QXWindow::Unmap() { QERR("QXWindow::Unmap", "QXWindow::Unmap() nyi/win32"); }
void QXWindow::SetIconName(const char* /*name*/) {
  QERR("QXWindow::SetIconName", "QXWindow::SetIconName() nyi/win32/Mac");
}
void QXWindow::Destroy() { QERR("QXWindow::Destroy", "QXWindow:Destroy NYI"); }

namespace {

// An X error while the power is switched (a server that claims DPMS and then refuses a level)
// must not end the program through Xlib's default handler: the black frame still stands.
int g_powerErrors = 0;
int CountPowerError(Display*, XErrorEvent*) {
  ++g_powerErrors;
  return 0;
}

}  // namespace

bool QXWindow::SetMonitorPower(bool on) {
  if (!window_) return false;
  SDL_SysWMinfo info;
  SDL_VERSION(&info.version);
  Display* display = nullptr;
  if (SDL_GetWindowWMInfo(window_, &info) && info.subsystem == SDL_SYSWM_X11)
    display = info.info.x11.display;
  int event = 0, error = 0;
  if (!display || !DPMSQueryExtension(display, &event, &error) || !DPMSCapable(display)) {
    if (!powerNoted_)
      QNOTE("QXWindow::SetMonitorPower",
            "No monitor power control on '%s': the screen is only black",
            SDL_GetCurrentVideoDriver() ? SDL_GetCurrentVideoDriver() : "");
    powerNoted_ = true;
    return false;
  }
  g_powerErrors = 0;
  XSync(display, False);
  XErrorHandler previous = XSetErrorHandler(&CountPowerError);
  if (!on) {
    CARD16 level = 0;
    BOOL enabled = False;
    DPMSInfo(display, &level, &enabled);
    if (!monitorDown_) dpmsWasOn_ = enabled;
    // SDL keeps the screen saver away by resetting it now and then, which wakes the monitor.
    SDL_EnableScreenSaver();
    // Forcing a level needs DPMS enabled.
    if (!enabled) DPMSEnable(display);
    DPMSForceLevel(display, DPMSModeOff);
    monitorDown_ = true;
  } else {
    DPMSForceLevel(display, DPMSModeOn);
    // Left enabled, the server's own time-outs would darken a display that is meant to be on.
    if (monitorDown_ && !dpmsWasOn_) DPMSDisable(display);
    SDL_DisableScreenSaver();
    monitorDown_ = false;
  }
  XSync(display, False);
  XSetErrorHandler(previous);
  if (g_powerErrors) {
    QWARN("QXWindow::SetMonitorPower", "The X server refused to power the monitor %s (%d errors)",
          on ? "up" : "down", g_powerErrors);
    return false;
  }
  return true;
}
