// QDisplay: the application's connection to the display (SDL's video system), with the desktop
// rectangle, the work area, the pointer and the cursor, and the window icons compiled into the
// library.
//
// SDL picks its video driver itself (X11, Wayland, KMS/DRM; SDL_VIDEODRIVER overrides it), so
// the same program runs on a desktop and on a kiosk without one. One QDisplay is open at a time;
// closing it shuts the video system down. Cursors made here are freed by FreeCursor or Close.
// Main thread only.
#pragma once

#include <cstdint>

#include "framework/qdrawable.h"

class QDisplay : public QObject {
 public:
  QDisplay() : QObject("display") {}
  ~QDisplay() override;
  const char* ClassName() const override { return "QDisplay"; }

  // Starts the video system; false when no display can be reached (the reason in GetError).
  // Reports nothing itself: the application decides what a missing display means.
  bool Open();
  void Close();
  bool IsOpen() const { return open_; }
  // SDL's last error text; never null.
  const char* GetError() const;
  // Name of the video driver in use ("x11", "wayland", "kmsdrm", ...), "" when closed.
  const char* GetDriverName() const;

  // The first screen's full rectangle and the part not covered by task bars; false (and the
  // rectangle untouched) when closed or the platform cannot tell.
  bool GetDesktopRect(QRect* out) const;
  bool GetWorkArea(QRect* out) const;

  // An invisible 1-by-1 cursor; null when it cannot be made. Freed by FreeCursor.
  void* CreateBlankCursor();
  // Installs a cursor made here; null brings back the system's arrow.
  void SetCursor(void* cursor);
  void FreeCursor(void* cursor);
  // Puts the pointer at desktop position (x, y); false when the platform refuses.
  bool WarpPointer(int x, int y);

 private:
  bool open_ = false;
  void* cursor_ = nullptr;  // the one this display made last, freed on Close
};

// The picture of icon resource `resource` (101: the application icon), 4 bytes per pixel red,
// green, blue, alpha, rows top-down. False for an unknown resource.
bool qGetIconResource(int resource, const uint8_t** rgba, int* width, int* height);
