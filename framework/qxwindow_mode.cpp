// QXWindow: switching the display into a full-screen mode and back.
#include <SDL.h>

#include <cstring>

#include "framework/qmessage.h"
#include "framework/qxwindow.h"

namespace {

// Applies `want` (refresh rate 0 = any) to the window in full screen. A mode is refused when the
// display lacks its exact size (the closest one would be larger and logged as the one asked
// for), or when a rate was asked and the mode of that size has another.
bool ApplyMode(SDL_Window* win, const SDL_DisplayMode& want) {
  int display = SDL_GetWindowDisplayIndex(win);
  if (display < 0) display = 0;
  SDL_DisplayMode got;
  if (!SDL_GetClosestDisplayMode(display, &want, &got)) return false;
  if (got.w != want.w || got.h != want.h) return false;
  if (want.refresh_rate > 0 && got.refresh_rate != want.refresh_rate) return false;
  if (SDL_SetWindowDisplayMode(win, &got) != 0) return false;
  return SDL_SetWindowFullscreen(win, SDL_WINDOW_FULLSCREEN) == 0;
}

// X11 (and Windows) change the monitor's mode; Wayland compositors and KMS without a desktop
// keep the output's own one, so a size other than that is only ever emulated or refused.
bool CanSwitchModes() {
  const char* driver = SDL_GetCurrentVideoDriver();
  return !driver || (strcmp(driver, "wayland") != 0 && strcmp(driver, "kmsdrm") != 0);
}

Uint32 FormatForBits(int bits, Uint32 current) {
  switch (bits) {
    case 16: return SDL_PIXELFORMAT_RGB565;
    case 24: return SDL_PIXELFORMAT_RGB888;
    case 32: return SDL_PIXELFORMAT_RGB888;
    default: return current;
  }
}

}  // namespace

bool QXWindow::SwitchToFullScreen() {
  SDL_DisplayMode desk;
  if (desktopFullScreen_ && window_ && SDL_GetDesktopDisplayMode(0, &desk) == 0) {
    // Logged as the switch would be; a display that does not tell its rate (0) takes any, as
    // SDL's mode search answers for it.
    modeSwitched_ = true;
    if (settings_.refreshRate > 0 &&
        (desk.refresh_rate == settings_.refreshRate || desk.refresh_rate == 0)) {
      QNOTE("QXWindow::SwitchToFullScreen", "QXWindow: Set fullscreen mode to %dx%dx%d@%d",
            settings_.width, settings_.height, settings_.bits, settings_.refreshRate);
    } else if (settings_.refreshRate > 0) {
      QWARN("QXWindow::SwitchToFullScreen", "QXWindow: Can't set fullscreen mode %dx%dx%d@%d",
            settings_.width, settings_.height, settings_.bits, settings_.refreshRate);
      settings_.refreshRate = 0;
    }
    return true;
  }
  SDL_DisplayMode mode;
  int display = window_ ? SDL_GetWindowDisplayIndex(window_) : 0;
  if (!window_ || SDL_GetCurrentDisplayMode(display < 0 ? 0 : display, &mode) != 0) {
    QWARN("QXWindow::SwitchToFullScreen", "QXWindow: Can't get the display settings");
    return false;
  }
  mode.w = settings_.width;
  mode.h = settings_.height;
  mode.format = FormatForBits(settings_.bits, mode.format);
  if (settings_.refreshRate > 0) {
    mode.refresh_rate = settings_.refreshRate;
    if (ApplyMode(window_, mode)) {
      modeSwitched_ = true;
      QNOTE("QXWindow::SwitchToFullScreen", "QXWindow: Set fullscreen mode to %dx%dx%d@%d",
            settings_.width, settings_.height, settings_.bits, settings_.refreshRate);
      return true;
    }
    QWARN("QXWindow::SwitchToFullScreen", "QXWindow: Can't set fullscreen mode %dx%dx%d@%d",
          settings_.width, settings_.height, settings_.bits, settings_.refreshRate);
    settings_.refreshRate = 0;
  }
  mode.refresh_rate = 0;
  if (!ApplyMode(window_, mode)) {
    QERR("QXWindow::SwitchToFullScreen",
         "QXWindow: Can't set fullscreen mode %dx%dx%d even without setting the frequency",
         settings_.width, settings_.height, settings_.bits);
    // Under Wayland and KMS the output keeps its own mode whatever a program asks; full screen
    // there is still wanted, at that mode, rather than a window in a corner.
    if (!CanSwitchModes() && SDL_SetWindowFullscreen(window_, SDL_WINDOW_FULLSCREEN_DESKTOP) == 0)
      modeSwitched_ = true;
    return false;
  }
  modeSwitched_ = true;
  return true;
}

void QXWindow::RestoreDesktopMode() {
  if (!window_ || !modeSwitched_) return;
  SDL_SetWindowFullscreen(window_, 0);
  modeSwitched_ = false;
}
