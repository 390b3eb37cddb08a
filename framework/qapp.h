// QApp: the one application object of a process. It owns the display connection, the root
// window, the window manager, the main window (a QShell with the OpenGL context), the language
// table, the virtual file system and a timer started at construction; it runs the main loop's
// dispatch and, at exit, the clean-up procedures.
//
// Lifecycle: construct (short name, class name) -> configure (rectangle, flags, display mode,
// full-screen settings) -> Create -> call Run1 or Run from the application's own loop, around
// its painting -> Exit, which never returns. The newest QApp is the process's current one
// (QGetApp) until it is destroyed. While it exists it gives the log its short name, owns the
// message boxes with its main window, and before any box leaves full screen and hides the main
// window, so a fatal error always gives the desktop its mode back.
//
// Headless use: with the option HEADLESS the display is never opened and Create makes only the
// window manager (as if flag 1 were set), so the tables, the centring formula, the dispatch of
// Run1 and the clean-up path can be driven without a display (tests, tools). Without it, a
// display that cannot be opened ends the process at construction: error "Can't open X11 display
// (%s)" with the class name, then the orderly exit with code 0.
//
// Tables have fixed sizes (5 keyboard handlers, 100 clean-up and 10 crash procedures); overflow
// is reported and the registration refused. Handlers, procedures and the configuration are
// borrowed. Main thread only; nothing is locked.
#pragma once

#include "framework/fullscreensettings.h"
#include "framework/qdrawable.h"
#include "framework/qevent.h"
#include "framework/qstring.h"
#include "framework/qtimer.h"
#include "framework/virtualfilesystem.h"

class QDisplay;
class QIni;
class QLanguage;
class QShell;
class QWindow;
class QWindowManager;

class QApp : public QObject {
 public:
  enum Flags : int {
    NO_MAIN_WINDOW = 1,     // only the window manager is made
    NO_STATE_MANAGER = 4,   // (this program has no state manager; kept for the flag word)
    WINDOW_MANAGED = 8,     // the desktop's window manager decorates and moves the window
    FULLSCREEN = 16,        // the main window switches the display to full screen
    RAISE_ON_CREATE = 64,   // extra mode: raise the new window and give it the keyboard focus
    WINDOW_OPTION = 128,    // the main window's on/off option: vertical sync of the swap
  };
  enum Options : int { HEADLESS = 1 };
  static constexpr int MAX_KEYBOARD_HANDLERS = 5;
  static constexpr int MAX_CLEANUP_PROCS = 100;
  static constexpr int MAX_CRASH_PROCS = 10;
  static constexpr int MAX_PATH_LEN = 260;

  // A handler gets the current event record; true when it consumed the event.
  typedef bool (*KeyboardHandler)(QEvent* e);
  typedef bool (*EventProc)(QEvent* e);
  typedef void (*Proc)();

  // `className` null gives "Tarn". See the header text for HEADLESS and the display failure.
  explicit QApp(const char* shortName, const char* className = nullptr, int options = 0);
  // Releases the windows, the display and what else it owns; clears the current pointer.
  ~QApp() override;
  const char* ClassName() const override { return "QApp"; }

  const char* GetShortName() const { return shortName_ ? shortName_ : ""; }
  const char* GetAppClassName() const { return className_.cstr(); }
  // Full path of the running program; "" when the platform cannot tell.
  const char* GetExePath() const { return exePath_; }
  bool IsHeadless() const { return (options_ & HEADLESS) != 0; }

  // ---- Configuration before Create ----
  // An x or y of -1 centres the window on the work area (kept formula: (right - width - left)
  // / 2 with the work area's right and left edges, and likewise for y).
  void SetWindowRect(int x, int y, int wid, int hgt);
  const QRect& GetWindowRect() const { return rect_; }
  void SetNoMainWindow() { flags_ |= NO_MAIN_WINDOW; }
  void SetNoStateManager() { flags_ |= NO_STATE_MANAGER; }
  void SetWindowManaged(bool on) { SetFlag(WINDOW_MANAGED, on); }
  void SetFullScreen(bool on) { SetFlag(FULLSCREEN, on); }
  void SetRaiseOnCreate() { flags_ |= RAISE_ON_CREATE; }
  void SetWindowOption(bool on) { SetFlag(WINDOW_OPTION, on); }
  int GetFlags() const { return flags_; }
  // The mode used for full screen when no settings record is given (default 640 x 480 x 32
  // at 60 Hz, scale 1).
  void SetDisplayMode(int wid, int hgt, int bits, int refreshRate, float scale = 1.0f);
  // Copies the record; the main window uses it for its mode and pixel format. Null forgets it.
  void SetFullScreenSettings(const QFullScreenSettings* s);
  // What the display reports; headless runs (and tests) may set it. Initially 0,0 1280 x 1024
  // for both.
  void SetDesktop(const QRect& desktop, const QRect& workArea);
  const QRect& GetDesktopRect() const { return desktop_; }
  const QRect& GetWorkArea() const { return workArea_; }

  // Starts the event system, makes the window manager (background 94, 94, 94) and, unless flag
  // 1 or headless, the main window with its invisible cursor. False when the main window or its
  // OpenGL context cannot be made (the reason is logged where it was found).
  bool Create();

  // ---- Tables ----
  // False with "QApp::AddKeyboardHandler(); out of handlers" when all 5 slots are taken.
  bool AddKeyboardHandler(KeyboardHandler h);
  // False with "QApp::RemoveKeyboardHandler(); can't find handler (%p)" for an unknown one.
  bool RemoveKeyboardHandler(KeyboardHandler h);
  // False with "QApp::AddCleanupProc(); out of space - memory leaks WILL occur!" beyond 100.
  bool AddCleanupProc(Proc p);
  // False with "QApp::AddCrashProc(); out of space" beyond 10, "QApp:AddCrashProc(); func=0"
  // for null.
  bool AddCrashProc(Proc p);
  // Calls the crash procedures, first registered first (for the platform's crash handling).
  void RunCrashProcs();
  void SetIdleProc(Proc p) { idleProc_ = p; }
  void SetEventProc(EventProc p) { eventProc_ = p; }
  void SetExitProc(Proc p) { exitProc_ = p; }

  // Refused on this platform: each reports its error and answers 0 (GetEventFD: -1).
  int AddTimer(int milliseconds, Proc p);
  int GetEventFD();
  int GetVTraceCount();

  // Attaches the configuration (borrowed). False with "ini is already open; call CloseIni()
  // first" when one is attached.
  bool SetIni(QIni* ini);
  QIni* GetIni() const { return ini_; }
  // Detaches the configuration; the caller still owns it.
  void CloseIni() { ini_ = nullptr; }

  // ---- Main loop ----
  // One step: 2 when no event was pending (the idle procedure ran once), 0 when a handler,
  // the window manager or the event procedure consumed the event, 1 otherwise.
  int Run1();
  // Dispatches every pending event as Run1 would and answers false once none is left (at
  // once when none was waiting). Does not block; `win` and `flags` are for a state manager.
  bool Run(QWindow* win = nullptr, int flags = 0);
  // Exit procedure, then the clean-up procedures last-registered first (each between the
  // debug lines "QApp: calling cleanup proc %d..." and "  cleanup %d returned."), then releases
  // what the application owns and ends the process through the orderly exit path. The object's
  // own memory is left to the ending process.
  [[noreturn]] void Exit(int code);
  bool IsExiting() const { return exiting_; }

  // ---- State the loop keeps ----
  QEvent* GetCurrentEvent() { return &event_; }
  // Modifier bits of the keys held (QKEY_SHIFT, QKEY_CONTROL, QKEY_ALT).
  int GetModifiers() const { return modifiers_; }
  int GetMouseX() const { return mouseX_; }
  int GetMouseY() const { return mouseY_; }
  bool IsMouseInside() const { return mouseInside_; }
  // One bit per button number (modulo 32).
  uint32_t GetButtons() const { return buttons_; }
  int GetCentreX() const { return centreX_; }
  int GetCentreY() const { return centreY_; }

  QDisplay* GetDisplay() const { return display_; }
  QWindow* GetRootWindow() const { return root_; }
  QWindowManager* GetWindowManager() const { return winmgr_; }
  // The main window, null before Create, with flag 1 or headless.
  QShell* GetMainWindow() const { return mainWin_; }
  QLanguage* GetLanguage() const { return language_; }
  QTimer* GetTimer() { return &timer_; }
  QVirtualFileSystem* GetVirtualFileSystem() { return &vfs_; }

  // Puts the pointer at desktop position (x, y); false without a display.
  bool WarpPointer(int x, int y);
  // Writes the main window's pixels to "<base>NNNN.tga" (the first free number) and puts that
  // name into `name`. False with "> No UI present." when there is no main window.
  bool SaveScreenshot(const char* base, qstring* name);
  // Gives a full-screen main window's monitor back its desktop mode and hides the window (before
  // a message box, and on a crash); nothing otherwise.
  static void PrepareForBox();

 private:
  void SetFlag(int bit, bool on) { flags_ = on ? (flags_ | bit) : (flags_ & ~bit); }
  bool CreateMainWindow();
  void HandleKeyPress();
  void Release();
  static const char* LogName();
  static bool MakeContextCurrent();

  char* shortName_ = nullptr;  // qstrdup copy
  qstring className_;
  char exePath_[MAX_PATH_LEN + 1] = {};
  int options_ = 0;
  int flags_ = 0;
  QRect rect_;
  int modeWid_ = 640, modeHgt_ = 480, modeBits_ = 32, modeRate_ = 60;
  float modeScale_ = 1.0f;
  QFullScreenSettings settings_;
  bool haveSettings_ = false;
  QRect desktop_{0, 0, 1280, 1024};
  QRect workArea_{0, 0, 1280, 1024};

  QDisplay* display_ = nullptr;
  QWindow* root_ = nullptr;
  QWindowManager* winmgr_ = nullptr;
  QShell* mainWin_ = nullptr;
  void* cursor_ = nullptr;
  QLanguage* language_ = nullptr;
  QTimer timer_;
  QVirtualFileSystem vfs_;
  QIni* ini_ = nullptr;

  QEvent event_;
  int modifiers_ = 0;
  int mouseX_ = 0, mouseY_ = 0;
  bool mouseInside_ = false;
  uint32_t buttons_ = 0;
  int centreX_ = 0, centreY_ = 0;

  KeyboardHandler handlers_[MAX_KEYBOARD_HANDLERS] = {};
  Proc cleanup_[MAX_CLEANUP_PROCS] = {};
  int cleanupCount_ = 0;
  Proc crash_[MAX_CRASH_PROCS] = {};
  int crashCount_ = 0;
  Proc idleProc_ = nullptr;
  EventProc eventProc_ = nullptr;
  Proc exitProc_ = nullptr;
  bool exiting_ = false;
};

// The process's current application; null when none exists.
QApp* QGetApp();
