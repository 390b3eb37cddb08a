// QApp: construction, configuration, tables, the main loop's dispatch and the exit path.
#include "framework/qapp.h"

#include <unistd.h>

#include <cstdio>

#include "framework/qapp_display.h"
#include "framework/qbitmap.h"
#include "framework/qerror.h"
#include "framework/qfont.h"
#include "framework/qlanguage.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/qopengl.h"
#include "framework/qshell.h"
#include "framework/qwinmgr.h"

namespace {
QApp* g_app = nullptr;
}

QApp* QGetApp() { return g_app; }

// ---------------------------------------------------------------------------------------------
// Construction and configuration
// ---------------------------------------------------------------------------------------------

QApp::QApp(const char* shortName, const char* className, int options)
    : QObject("app"), options_(options) {
  g_app = this;
  shortName_ = qstrdup(shortName ? shortName : "");
  className_ = className ? className : "Tarn";
  qlogSetAppNameProvider(&QApp::LogName);
  qlogSetBoxPrepare(&QApp::PrepareForBox);

  language_ = new QLanguage();
  QSetVirtualFileSystem(&vfs_);
  timer_.Start();

  display_ = new QDisplay();
  if (!IsHeadless()) {
    if (!display_->Open()) {
      QERR("QApp::QApp", "Can't open X11 display (%s)", className_.cstr());
      qExitProcess(0);
    }
    display_->GetDesktopRect(&desktop_);
    if (!display_->GetWorkArea(&workArea_)) workArea_ = desktop_;
  }
  root_ = new QWindow(nullptr, "root");

  ssize_t n = readlink("/proc/self/exe", exePath_, MAX_PATH_LEN);
  exePath_[n > 0 ? n : 0] = 0;
}

QApp::~QApp() {
  Release();
  qfree(shortName_);
  shortName_ = nullptr;
}

void QApp::Release() {
  if (mainWin_) {
    // The fonts' display lists belong to the window's context.
    mainWin_->MakeCurrent();
    QFontReleaseSystemFonts();
    qSetMessageBoxOwner(nullptr);
    QGLSetAppContextHook(nullptr);
    QGLSetScaleHook(nullptr);
    if (display_ && cursor_) display_->FreeCursor(cursor_);
    cursor_ = nullptr;
    delete mainWin_;
    mainWin_ = nullptr;
  }
  delete winmgr_;
  winmgr_ = nullptr;
  delete root_;
  root_ = nullptr;
  delete display_;  // closes the video system after its windows are gone
  display_ = nullptr;
  delete language_;
  language_ = nullptr;
  if (QGetVirtualFileSystem() == &vfs_) QSetVirtualFileSystem(nullptr);
  if (g_app == this) {
    g_app = nullptr;
    qlogSetAppNameProvider(nullptr);
    qlogSetBoxPrepare(nullptr);
  }
}

const char* QApp::LogName() { return g_app ? g_app->GetShortName() : nullptr; }

void QApp::PrepareForBox() {
  QShell* w = g_app ? g_app->mainWin_ : nullptr;
  if (!w || !w->IsFullScreen()) return;
  w->RestoreDesktopMode();
  w->Hide();
}

bool QApp::MakeContextCurrent() {
  return g_app && g_app->mainWin_ && g_app->mainWin_->MakeCurrent();
}

void QApp::SetWindowRect(int x, int y, int wid, int hgt) {
  const int left = workArea_.x, right = workArea_.x + workArea_.wid;
  const int top = workArea_.y, bottom = workArea_.y + workArea_.hgt;
  rect_.x = x == -1 ? (right - wid - left) / 2 : x;
  rect_.y = y == -1 ? (bottom - hgt - top) / 2 : y;
  rect_.wid = wid;
  rect_.hgt = hgt;
}

void QApp::SetDisplayMode(int wid, int hgt, int bits, int refreshRate, float scale) {
  modeWid_ = wid;
  modeHgt_ = hgt;
  modeBits_ = bits;
  modeRate_ = refreshRate;
  modeScale_ = scale;
}

void QApp::SetFullScreenSettings(const QFullScreenSettings* s) {
  haveSettings_ = s != nullptr;
  settings_ = s ? *s : QFullScreenSettings();
}

void QApp::SetDesktop(const QRect& desktop, const QRect& workArea) {
  desktop_ = desktop;
  workArea_ = workArea;
}

// ---------------------------------------------------------------------------------------------
// Create
// ---------------------------------------------------------------------------------------------

bool QApp::Create() {
  QEventInit();
  if (!winmgr_) {
    winmgr_ = new QWindowManager();
    winmgr_->SetBackground(QColor(94, 94, 94, 255));
  }
  if (!(flags_ & NO_MAIN_WINDOW) && !IsHeadless() && !mainWin_ && !CreateMainWindow())
    return false;
  // A state manager (flag 4 off) would be made here on the main window at 45, 634, 150 x 40;
  // this program has none.
  return true;
}

bool QApp::CreateMainWindow() {
  mainWin_ = new QShell(winmgr_, GetShortName(), rect_.x, rect_.y, rect_.wid, rect_.hgt);
  mainWin_->PrefWM((flags_ & WINDOW_MANAGED) != 0);
  mainWin_->PrefFullScreen((flags_ & FULLSCREEN) != 0);
  mainWin_->PrefOption((flags_ & WINDOW_OPTION) != 0);
  if (haveSettings_) {
    mainWin_->SetFullScreenSettings(&settings_);
  } else {
    QFullScreenSettings mode;
    mode.width = modeWid_;
    mode.height = modeHgt_;
    mode.bits = modeBits_;
    mode.refreshRate = modeRate_;
    mainWin_->SetFullScreenSettings(&mode);
  }
  if (!mainWin_->Create()) {
    delete mainWin_;
    mainWin_ = nullptr;
    return false;
  }
  // In a switched mode the desktop is the mode: pictures are sized by its proportions.
  if (mainWin_->IsModeSwitched()) {
    display_->GetDesktopRect(&desktop_);
    if (!display_->GetWorkArea(&workArea_)) workArea_ = desktop_;
  }
  cursor_ = display_->CreateBlankCursor();
  if (cursor_) display_->SetCursor(cursor_);
  if (flags_ & RAISE_ON_CREATE) mainWin_->Raise();
  qSetMessageBoxOwner(mainWin_->GetNativeWindow());
  QGLSetAppContextHook(&QApp::MakeContextCurrent);
  QGLSetScaleHook(&QGLGluScaleImage);

  // ---- System fonts ----
  QFontCreateSystemFonts();

  centreX_ = mainWin_->GetWidth() / 2;
  centreY_ = mainWin_->GetHeight() / 2;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Tables
// ---------------------------------------------------------------------------------------------

bool QApp::AddKeyboardHandler(KeyboardHandler h) {
  for (KeyboardHandler& slot : handlers_) {
    if (!slot) {
      slot = h;
      return true;
    }
  }
  QWARN("QApp::AddKeyboardHandler", "QApp::AddKeyboardHandler(); out of handlers");
  return false;
}

bool QApp::RemoveKeyboardHandler(KeyboardHandler h) {
  for (KeyboardHandler& slot : handlers_) {
    if (h && slot == h) {
      slot = nullptr;
      return true;
    }
  }
  QWARN("QApp::RemoveKeyboardHandler", "QApp::RemoveKeyboardHandler(); can't find handler (%p)",
        reinterpret_cast<void*>(h));
  return false;
}

bool QApp::AddCleanupProc(Proc p) {
  if (cleanupCount_ >= MAX_CLEANUP_PROCS) {
    QERR("QApp::AddCleanupProc", "QApp::AddCleanupProc(); out of space - memory leaks WILL occur!");
    return false;
  }
  cleanup_[cleanupCount_++] = p;
  return true;
}

bool QApp::AddCrashProc(Proc p) {
  if (!p) {
    QERR("QApp::AddCrashProc", "QApp:AddCrashProc(); func=0");
    return false;
  }
  if (crashCount_ >= MAX_CRASH_PROCS) {
    QERR("QApp::AddCrashProc", "QApp::AddCrashProc(); out of space");
    return false;
  }
  crash_[crashCount_++] = p;
  return true;
}

void QApp::RunCrashProcs() {
  for (int i = 0; i < crashCount_; ++i) crash_[i]();
}

int QApp::AddTimer(int /*milliseconds*/, Proc /*p*/) {
  QERR("QApp::AddTimer", "QApp:AddTimer() not supported on Win32/Linux");
  return 0;
}

int QApp::GetEventFD() {
  QERR("QApp::GetEventFD", "QApp:GetEventFD() not supported on this platform.");
  return -1;
}

int QApp::GetVTraceCount() {
  QERR("QApp::GetVTraceCount", "QApp:GetVTraceCount() no longer supported");
  return 0;
}

bool QApp::SetIni(QIni* ini) {
  if (ini_) {
    QERR("QApp::SetIni", "ini is already open; call CloseIni() first");
    return false;
  }
  ini_ = ini;
  return true;
}

bool QApp::WarpPointer(int x, int y) { return display_ && display_->WarpPointer(x, y); }

// ---------------------------------------------------------------------------------------------
// Main loop
// ---------------------------------------------------------------------------------------------

namespace {
int ModifierBitOf(int code) {
  switch (code) {
    case QK_SHIFT: return QKEY_SHIFT;
    case QK_CONTROL: return QKEY_CONTROL;
    case QK_ALT: return QKEY_ALT;
    default: return 0;
  }
}
}  // namespace

void QApp::HandleKeyPress() {
  const int code = event_.n & 0xFFFF;
  modifiers_ |= ModifierBitOf(code);
  event_.n = code | modifiers_;
  if (event_.n == QK_F11) {
    // "bc" belongs to a subsystem this program does not carry.
    QERR("QApp::Run1", "No BC");
  } else if (event_.n == (QK_F11 | QKEY_CONTROL | QKEY_ALT)) {
    qstring name;
    SaveScreenshot("ui", &name);
  }
}

int QApp::Run1() {
  if (!QEventPending()) {
    if (idleProc_) idleProc_();
    return 2;
  }
  QEventNext(&event_);
  switch (event_.type) {
    case QEVENT_KEYPRESS:
      HandleKeyPress();
      break;
    case QEVENT_KEYRELEASE: {
      const int code = event_.n & 0xFFFF;
      modifiers_ &= ~ModifierBitOf(code);
      event_.n = code | modifiers_;
      break;
    }
    case QEVENT_MOTION:
      mouseX_ = event_.x;
      mouseY_ = event_.y;
      mouseInside_ = true;
      break;
    case QEVENT_BUTTONPRESS:
      buttons_ |= 1u << (unsigned(event_.n) & 31);
      break;
    case QEVENT_BUTTONRELEASE:
      buttons_ &= ~(1u << (unsigned(event_.n) & 31));
      break;
    case QEVENT_FOCUSOUT:
      modifiers_ = 0;
      break;
    case QEVENT_LEAVE:
      mouseInside_ = false;
      break;
    default:
      break;
  }
  if (event_.type == QEVENT_KEYPRESS || event_.type == QEVENT_KEYRELEASE) {
    for (KeyboardHandler h : handlers_)
      if (h && h(&event_)) return 0;
  }
  if (winmgr_ && winmgr_->ProcessEvent(&event_)) return 0;
  if (eventProc_ && eventProc_(&event_)) return 0;
  if (event_.type == QEVENT_CLOSE &&
      (!mainWin_ || event_.win == static_cast<QWindow*>(mainWin_)))
    Exit(0);
  return 1;
}

bool QApp::Run(QWindow* /*win*/, int /*flags*/) {
  while (QEventPending()) {
    if (Run1() == 2) break;
  }
  return false;
}

void QApp::Exit(int code) {
  exiting_ = true;
  if (exitProc_) exitProc_();
  flags_ &= ~NO_MAIN_WINDOW;
  for (int i = cleanupCount_ - 1; i >= 0; --i) {
    QDBG("QApp::Exit", "QApp: calling cleanup proc %d...\n", i);
    if (cleanup_[i]) cleanup_[i]();
    QDBG("QApp::Exit", "  cleanup %d returned.\n", i);
  }
  Release();
  qExitProcess(code);
}

// ---------------------------------------------------------------------------------------------
// Screenshots
// ---------------------------------------------------------------------------------------------

bool QApp::SaveScreenshot(const char* base, qstring* name) {
  if (!mainWin_) {
    qmessage("> No UI present.\n");
    return false;
  }
  qstring file;
  for (int i = 0; i < 10000; ++i) {
    file.Format("%s%04d.tga", base, i);
    if (access(file.cstr(), F_OK) != 0) break;
  }
  if (name) *name = file;
  qmessage("> Saving screenshot of UI in '%s'\n", file.cstr());
  QBitMap shot;
  // The back buffer still holds the last frame drawn; the front buffer of a window reads back
  // empty on many X servers and compositors.
  if (!mainWin_->ReadPixels(&shot, false)) return false;
  return shot.Write(file.cstr(), 1, 0);
}
