// The platform side of events: SDL's messages become framework events, SDL key codes become
// Windows virtual-key numbers (so every key number of the framework stays as it always was).
#include <SDL.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "framework/qevent.h"
#include "framework/qmessage.h"
#include "framework/qwindow.h"

namespace {

constexpr int kMaxBindings = 16;
struct Binding {
  uint32_t id;
  QWindow* win;
};
Binding g_bindings[kMaxBindings] = {};

// Modifier bits of the keys held, as this pump saw them pressed and released.
int g_mods = 0;

QWindow* WindowOf(uint32_t id) {
  for (const Binding& b : g_bindings)
    if (b.win && b.id == id) return b.win;
  return nullptr;
}

QWindow* FirstWindow() {
  for (const Binding& b : g_bindings)
    if (b.win) return b.win;
  return nullptr;
}

int ModifierBit(int vk) {
  switch (vk) {
    case QK_SHIFT: return QKEY_SHIFT;
    case QK_CONTROL: return QKEY_CONTROL;
    case QK_ALT: return QKEY_ALT;
    default: return 0;
  }
}

void FillPointer(QEvent* e) {
  int gx = 0, gy = 0, wx = 0, wy = 0;
  SDL_GetGlobalMouseState(&gx, &gy);
  SDL_GetMouseState(&wx, &wy);
  e->x = wx;
  e->y = wy;
  e->xRoot = gx;
  e->yRoot = gy;
}

void PushKey(const SDL_KeyboardEvent& k, bool press) {
  QEvent e;
  e.win = WindowOf(k.windowID);
  const int vk = QEventVirtualKey(k.keysym.sym, k.keysym.scancode, k.keysym.mod);
  if (!vk) return;
  FillPointer(&e);
  const int before = g_mods;
  const int bit = ModifierBit(vk);
  if (press) {
    g_mods |= bit;
    e.type = QEVENT_KEYPRESS;
    // The dead keys are recognised with the modifiers held before this key went down, so a
    // lone modifier key arrives as plain 16, 17 or 18 and keeps a pending accent.
    e.n = QEventDeadKey(vk | before);
  } else {
    g_mods &= ~bit;
    e.type = QEVENT_KEYRELEASE;
    e.n = vk | g_mods;
  }
  QEventPush(&e);
}

void PushButton(uint32_t windowId, int type, int button, int x, int y) {
  QEvent e;
  e.win = WindowOf(windowId);
  e.type = type;
  e.n = button;
  FillPointer(&e);
  e.x = x;
  e.y = y;
  QEventPush(&e);
}

void PushWindowEvent(const SDL_WindowEvent& w) {
  QWindow* win = WindowOf(w.windowID);
  QEvent e;
  e.win = win;
  switch (w.event) {
    case SDL_WINDOWEVENT_SIZE_CHANGED: {
      // The event's size is in the desktop's units; OpenGL draws in the drawable's pixels,
      // which differ on a scaled (high-density) output.
      SDL_Window* native = SDL_GetWindowFromID(w.windowID);
      int pw = w.data1, ph = w.data2;
      if (native) SDL_GL_GetDrawableSize(native, &pw, &ph);
      if (win && pw > 0 && ph > 0) win->OnResize(pw, ph);
      return;
    }
    case SDL_WINDOWEVENT_EXPOSED:
      e.type = QEVENT_EXPOSE;
      break;
    case SDL_WINDOWEVENT_LEAVE:
      e.type = QEVENT_LEAVE;
      break;
    case SDL_WINDOWEVENT_FOCUS_LOST:
      g_mods = 0;
      e.type = QEVENT_FOCUSOUT;
      break;
    case SDL_WINDOWEVENT_CLOSE:
      e.type = QEVENT_CLOSE;
      break;
    default:
      return;
  }
  if (win) {
    e.wid = win->GetWidth();
    e.hgt = win->GetHeight();
  }
  QEventPush(&e);
}

void Translate(const SDL_Event& ev) {
  switch (ev.type) {
    case SDL_KEYDOWN: PushKey(ev.key, true); break;
    case SDL_KEYUP: PushKey(ev.key, false); break;
    case SDL_MOUSEBUTTONDOWN:
      PushButton(ev.button.windowID, QEVENT_BUTTONPRESS, ev.button.button, ev.button.x,
                 ev.button.y);
      break;
    case SDL_MOUSEBUTTONUP:
      PushButton(ev.button.windowID, QEVENT_BUTTONRELEASE, ev.button.button, ev.button.x,
                 ev.button.y);
      break;
    case SDL_MOUSEWHEEL: {
      // Wheel steps arrive as buttons 4 (up) and 5 (down), as the framework has always seen them.
      if (ev.wheel.y == 0) break;
      int button = ev.wheel.y > 0 ? 4 : 5;
      int x = 0, y = 0;
      SDL_GetMouseState(&x, &y);
      PushButton(ev.wheel.windowID, QEVENT_BUTTONPRESS, button, x, y);
      PushButton(ev.wheel.windowID, QEVENT_BUTTONRELEASE, button, x, y);
      break;
    }
    case SDL_MOUSEMOTION: {
      QEvent e;
      e.type = QEVENT_MOTION;
      e.win = WindowOf(ev.motion.windowID);
      FillPointer(&e);
      e.x = ev.motion.x;
      e.y = ev.motion.y;
      QEventPush(&e);
      break;
    }
    case SDL_WINDOWEVENT: PushWindowEvent(ev.window); break;
    case SDL_QUIT: {
      // A quit from outside the window (the session ends) is a close request to the main window.
      QEvent e;
      e.type = QEVENT_CLOSE;
      e.win = FirstWindow();
      QEventPush(&e);
      break;
    }
    default: break;
  }
}

}  // namespace

bool QEventHavePlatform() { return SDL_WasInit(SDL_INIT_VIDEO) != 0; }

namespace {

// The event a QEventWake posts: it only ends a wait.
uint32_t WakeEventType() {
  static const uint32_t type = SDL_RegisterEvents(1);
  return type;
}

// Without a platform, waits and wakes meet here.
std::mutex g_wakeMutex;
std::condition_variable g_wakeCondition;
bool g_woken = false;

}  // namespace

void QEventPump() {
  if (!QEventHavePlatform()) return;
  SDL_Event ev;
  while (SDL_PollEvent(&ev))
    if (ev.type != WakeEventType()) Translate(ev);
}

bool QEventWait(int timeoutMs) {
  if (QEventCount() > 0) return true;
  if (QEventHavePlatform()) {
    SDL_Event ev;
    const int got = timeoutMs < 0 ? SDL_WaitEvent(&ev) : SDL_WaitEventTimeout(&ev, timeoutMs);
    if (got && ev.type != WakeEventType()) Translate(ev);
    QEventPump();
    return QEventCount() > 0;
  }
  std::unique_lock<std::mutex> lock(g_wakeMutex);
  if (timeoutMs < 0)
    g_wakeCondition.wait(lock, [] { return g_woken; });
  else
    g_wakeCondition.wait_for(lock, std::chrono::milliseconds(timeoutMs), [] { return g_woken; });
  g_woken = false;
  return QEventCount() > 0;
}

void QEventWake() {
  if (QEventHavePlatform()) {
    SDL_Event ev;
    SDL_zero(ev);
    ev.type = WakeEventType();
    // A full platform queue already wakes the waiter.
    SDL_PushEvent(&ev);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(g_wakeMutex);
    g_woken = true;
  }
  g_wakeCondition.notify_all();
}

bool QEventBindWindow(uint32_t nativeId, QWindow* win) {
  for (Binding& b : g_bindings) {
    if (b.win && b.id == nativeId) {
      b.win = win;
      return true;
    }
  }
  if (!win) return true;
  for (Binding& b : g_bindings) {
    if (!b.win) {
      b = Binding{nativeId, win};
      return true;
    }
  }
  QERR("QEventBindWindow", "QEventBindWindow(); out of space for window '%s'", win->GetName());
  return false;
}

namespace {

// The key's code from its place on the keyboard (its US-layout meaning): letters, digits and the
// OEM punctuation keys, for layouts whose symbols have no key number of their own (ü, ö, é, +).
int VirtualKeyOfPlace(int scancode) {
  if (scancode >= SDL_SCANCODE_A && scancode <= SDL_SCANCODE_Z)
    return 'A' + (scancode - SDL_SCANCODE_A);
  if (scancode >= SDL_SCANCODE_1 && scancode <= SDL_SCANCODE_9)
    return '1' + (scancode - SDL_SCANCODE_1);
  switch (scancode) {
    case SDL_SCANCODE_0: return '0';
    case SDL_SCANCODE_SEMICOLON: return 0xBA;
    case SDL_SCANCODE_EQUALS: return 0xBB;
    case SDL_SCANCODE_COMMA: return 0xBC;
    case SDL_SCANCODE_MINUS: return 0xBD;
    case SDL_SCANCODE_PERIOD: return 0xBE;
    case SDL_SCANCODE_SLASH: return 0xBF;
    case SDL_SCANCODE_GRAVE: return 0xC0;
    case SDL_SCANCODE_LEFTBRACKET: return 0xDB;
    case SDL_SCANCODE_BACKSLASH: case SDL_SCANCODE_NONUSHASH: return 0xDC;
    case SDL_SCANCODE_RIGHTBRACKET: return 0xDD;
    case SDL_SCANCODE_APOSTROPHE: return 0xDE;
    case SDL_SCANCODE_NONUSBACKSLASH: return 0xE2;
    default: return 0;
  }
}

// Keypad digits and point: with NumLock on the keypad codes, with it off the arrow and editing
// keys printed on them. -1 for any other key.
int KeypadKey(int scancode, bool numLock) {
  static const int kOff[] = {35, 40, 34, 37, 12, 39, 36, 38, 33, 45};  // 1..9, then 0
  if (scancode >= SDL_SCANCODE_KP_1 && scancode <= SDL_SCANCODE_KP_0) {
    const int i = scancode - SDL_SCANCODE_KP_1;  // 0..8 for 1..9, 9 for 0
    if (numLock) return i == 9 ? 96 : 97 + i;
    return kOff[i];
  }
  if (scancode == SDL_SCANCODE_KP_PERIOD) return numLock ? 110 : 46;
  return -1;
}

// The key number for the key code alone; 0 when the code has none.
int VirtualKeyOfCode(int sym) {
  if (sym >= SDLK_a && sym <= SDLK_z) return 'A' + (sym - SDLK_a);
  if (sym >= SDLK_0 && sym <= SDLK_9) return '0' + (sym - SDLK_0);
  if (sym >= SDLK_F1 && sym <= SDLK_F12) return QK_F1 + (sym - SDLK_F1);
  if (sym >= SDLK_F13 && sym <= SDLK_F24) return 124 + (sym - SDLK_F13);
  if (sym >= SDLK_KP_1 && sym <= SDLK_KP_9) return 97 + (sym - SDLK_KP_1);
  switch (sym) {
    case SDLK_BACKSPACE: return QK_BACK;
    case SDLK_TAB: return QK_TAB;
    case SDLK_RETURN: case SDLK_KP_ENTER: return QK_RETURN;
    case SDLK_LSHIFT: case SDLK_RSHIFT: return QK_SHIFT;
    case SDLK_LCTRL: case SDLK_RCTRL: return QK_CONTROL;
    case SDLK_LALT: case SDLK_RALT: return QK_ALT;
    case SDLK_PAUSE: return 19;
    case SDLK_CAPSLOCK: return 20;
    case SDLK_ESCAPE: return QK_ESCAPE;
    case SDLK_SPACE: return QK_SPACE;
    case SDLK_PAGEUP: return 33;
    case SDLK_PAGEDOWN: return 34;
    case SDLK_END: return 35;
    case SDLK_HOME: return 36;
    case SDLK_LEFT: return QK_LEFT;
    case SDLK_UP: return QK_UP;
    case SDLK_RIGHT: return QK_RIGHT;
    case SDLK_DOWN: return QK_DOWN;
    case SDLK_PRINTSCREEN: return 44;
    case SDLK_INSERT: return 45;
    case SDLK_DELETE: return 46;
    case SDLK_LGUI: return 91;
    case SDLK_RGUI: return 92;
    case SDLK_APPLICATION: return 93;
    case SDLK_KP_0: return 96;
    case SDLK_KP_MULTIPLY: return 106;
    case SDLK_KP_PLUS: return 107;
    case SDLK_KP_MINUS: return 109;
    case SDLK_KP_PERIOD: return 110;
    case SDLK_KP_DIVIDE: return 111;
    case SDLK_NUMLOCKCLEAR: return 144;
    case SDLK_SCROLLLOCK: return 145;
    case SDLK_SEMICOLON: return 0xBA;
    case SDLK_EQUALS: return 0xBB;
    case SDLK_COMMA: return 0xBC;
    case SDLK_MINUS: return 0xBD;
    case SDLK_PERIOD: return 0xBE;
    case SDLK_SLASH: return 0xBF;
    case SDLK_BACKQUOTE: return 0xC0;
    case SDLK_LEFTBRACKET: return 0xDB;
    case SDLK_BACKSLASH: return 0xDC;
    case SDLK_RIGHTBRACKET: return 0xDD;
    case SDLK_QUOTE: return 0xDE;
    case SDLK_LESS: return 0xE2;
    default: return 0;
  }
}

}  // namespace

int QEventVirtualKey(int sym, int scancode, int mods) {
  const int keypad = KeypadKey(scancode, (mods & KMOD_NUM) != 0);
  if (keypad >= 0) return keypad;
  const int vk = VirtualKeyOfCode(sym);
  if (vk) return vk;
  // X maps control + alt + F1..F12 to console-switch symbols; the physical key still counts.
  const int placed = VirtualKeyOfCode(SDL_SCANCODE_TO_KEYCODE(scancode));
  return placed ? placed : VirtualKeyOfPlace(scancode);
}
