// QDisplay on SDL's video system.
#include "framework/qapp_display.h"

#include <SDL.h>

#include <cstdlib>

QDisplay::~QDisplay() { Close(); }

bool QDisplay::Open() {
  if (open_) return true;
  // The framework has its own SIGTERM handling; a full-screen kiosk must not iconify when
  // another window takes the focus.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  SDL_SetHint(SDL_HINT_VIDEO_MINIMIZE_ON_FOCUS_LOSS, "0");
  // Without a session bus, the bus library would start one of its own (dbus-launch) from inside
  // the video start-up: a tenth of a second and a stray daemon per start on a kiosk. Point it at
  // no bus for the start-up only, so that programs started later see the environment as it was.
  const bool noBus = getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr;
  if (noBus) setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 0);
  const bool up = SDL_InitSubSystem(SDL_INIT_VIDEO) == 0;
  if (noBus) unsetenv("DBUS_SESSION_BUS_ADDRESS");
  if (!up) return false;
  open_ = true;
  return true;
}

void QDisplay::Close() {
  if (!open_) return;
  if (cursor_) {
    SDL_SetCursor(SDL_GetDefaultCursor());
    SDL_FreeCursor(static_cast<SDL_Cursor*>(cursor_));
    cursor_ = nullptr;
  }
  SDL_QuitSubSystem(SDL_INIT_VIDEO);
  open_ = false;
}

const char* QDisplay::GetError() const {
  const char* e = SDL_GetError();
  return e ? e : "";
}

const char* QDisplay::GetDriverName() const {
  const char* d = open_ ? SDL_GetCurrentVideoDriver() : nullptr;
  return d ? d : "";
}

bool QDisplay::GetDesktopRect(QRect* out) const {
  SDL_Rect r;
  if (!open_ || !out || SDL_GetDisplayBounds(0, &r) != 0) return false;
  *out = QRect{r.x, r.y, r.w, r.h};
  return true;
}

bool QDisplay::GetWorkArea(QRect* out) const {
  SDL_Rect r;
  if (!open_ || !out || SDL_GetDisplayUsableBounds(0, &r) != 0) return false;
  *out = QRect{r.x, r.y, r.w, r.h};
  return true;
}

void* QDisplay::CreateBlankCursor() {
  if (!open_) return nullptr;
  SDL_Surface* s = SDL_CreateRGBSurfaceWithFormat(0, 1, 1, 32, SDL_PIXELFORMAT_RGBA32);
  if (!s) return nullptr;
  SDL_FillRect(s, nullptr, 0);  // fully transparent
  SDL_Cursor* c = SDL_CreateColorCursor(s, 0, 0);
  SDL_FreeSurface(s);
  return c;
}

void QDisplay::SetCursor(void* cursor) {
  if (!open_) return;
  SDL_SetCursor(cursor ? static_cast<SDL_Cursor*>(cursor) : SDL_GetDefaultCursor());
  if (cursor) cursor_ = cursor;
}

void QDisplay::FreeCursor(void* cursor) {
  if (!open_ || !cursor) return;
  if (cursor == cursor_) {
    SDL_SetCursor(SDL_GetDefaultCursor());
    cursor_ = nullptr;
  }
  SDL_FreeCursor(static_cast<SDL_Cursor*>(cursor));
}

bool QDisplay::WarpPointer(int x, int y) { return open_ && SDL_WarpMouseGlobal(x, y) == 0; }
