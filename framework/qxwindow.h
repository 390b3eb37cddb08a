// QXWindow: a top-level window with a native window of its own and a compatibility-profile
// OpenGL context (fixed function, immediate mode and display lists available).
//
// Create makes the native window at the window's rectangle with the preferences fixed so far,
// gives it the OpenGL context, and switches the display to full screen when asked. The context
// comes from the first method (32 colour bits, 16 depth bits, double buffer, sRGB-capable); when
// the platform refuses that window or context, the old method retries with the full-screen
// settings' depth, alpha, stencil and stereo bits. Without any context the program cannot draw:
// the window ends it with its own fatal error (the failed step of the old method).
//
// Full screen covers the whole screen without a border; leaving it (RestoreDesktopMode, the
// destructor) gives the desktop its own mode back. The window owns its native window and its
// context; the settings record is copied. Window styles: full screen or ".near_fullscreen" have no
// border; a window not managed by the window manager (PrefWM off) or with ".no_border" has none
// either; PrefNoResize drops the resize frame. Main thread only.
#pragma once

#include <cstdint>

#include "framework/fullscreensettings.h"
#include "framework/qwindow.h"

class QBitMap;
struct SDL_Window;

class QXWindow : public QWindow {
 public:
  explicit QXWindow(QWindow* parent = nullptr, const char* name = nullptr, int x = 0, int y = 0,
                    int wid = 0, int hgt = 0);
  // Leaves full screen, deletes the context and the native window.
  ~QXWindow() override;
  const char* ClassName() const override { return "QXWindow"; }

  // Copies the settings used by the full-screen switch and the old context method; null
  // forgets them (defaults apply).
  void SetFullScreenSettings(const QFullScreenSettings* s);
  const QFullScreenSettings& GetFullScreenSettings() const { return settings_; }

  // Native window, context, full screen. No OpenGL context by either method is fatal.
  bool Create() override;
  // Changes the display mode to the settings' size, depth and refresh rate, retrying without
  // the rate when it is refused. False, staying in the desktop mode, when neither works; a size
  // the display lacks is refused, never replaced by another. Under Wayland and KMS, which keep
  // the output's own mode, the window then still covers the output at that mode.
  bool SwitchToFullScreen();
  // Back to the desktop's mode; nothing when not in full screen.
  void RestoreDesktopMode();
  bool IsModeSwitched() const { return modeSwitched_; }

  // The two context methods; each logs its failures and answers false (EnableOpenGL ends the
  // program when the old method fails too).
  bool EnableOpenGL();
  bool EnableOpenGLOld();

  bool MakeCurrent() override;
  void Swap() override;
  int GetDepth() const override { return 32; }
  bool Hide() override;
  bool Show() override;
  void Move(int x, int y) override;
  void Size(int wid, int hgt) override;
  // Brings the window to the front with the keyboard focus.
  void Raise();
  // Powers the monitor down (false) or up (true) through the X server's DPMS extension; DPMS is
  // switched on for the time the monitor is down and left as it was found afterwards, and the
  // destructor powers up a monitor it left down. False where the display server has no such
  // control (Wayland, KMS/DRM, an X server without DPMS; noted once) or the server refuses the
  // switch (a warning): the window's black frame is then all.
  bool SetMonitorPower(bool on);
  // Sets icon resource `resource` (101 is the application's); false for an unknown one.
  bool SetIcon(int resource);
  // Copies the front (what is shown) or back buffer into `out` (32-bit, bottom-up rows, the
  // window's size). False with a warning when the window has no context or `out` cannot hold it.
  bool ReadPixels(QBitMap* out, bool front);

  // Not offered by this platform: each reports "<name> nyi/..." and does nothing.
  void FocusKeys();
  void Lower();
  void Map();
  void Unmap();
  void SetIconName(const char* name);
  void Destroy();

  SDL_Window* GetNativeWindow() const { return window_; }
  uint32_t GetNativeId() const { return nativeId_; }
  // The pixel format number noted in "Pixfmt %d": the driver's id of the context's framebuffer
  // configuration (GLX FBConfig or EGL config), 0 when the driver does not tell.
  int GetPixelFormat() const { return pixfmt_; }
  // True when GL_RENDERER named a software rasteriser.
  bool IsSoftwareRendering() const { return software_; }

 private:
  bool CreateNative();
  void DestroyNative();
  // Logs the "Pixfmt" note and the software warning; returns whether stereo was granted.
  bool DescribePixelFormat();

  QFullScreenSettings settings_;
  SDL_Window* window_ = nullptr;
  void* context_ = nullptr;  // SDL_GLContext
  uint32_t nativeId_ = 0;
  int pixfmt_ = 0;
  bool software_ = false;
  bool modeSwitched_ = false;
  bool monitorDown_ = false;  // DPMS was forced off by SetMonitorPower
  bool dpmsWasOn_ = false;    // DPMS was enabled before that
  bool powerNoted_ = false;   // the lack of a power control was noted
  // Made full screen at the desktop's own mode from the start: nothing to switch.
  bool desktopFullScreen_ = false;
};
