// Events: the records the window procedure produces and the one process-wide queue the main loop
// takes them from.
//
// The queue is a ring of QEVENT_RING_SIZE records (a power of two, indices wrap with a mask),
// allocated once by QEventInit from the counted allocator and kept until the process ends. A
// push into a full ring is refused and the event dropped. A window that asks for motion
// compression has at most one motion event queued: a newer one only moves the queued one.
//
// The platform side (qevent_sdl.cpp) pumps SDL's messages: key presses and releases with SDL key
// codes turned into Windows virtual-key numbers, mouse buttons, motion, leave, focus loss and
// close requests. Key presses are pushed with the modifier bits of the keys held before them,
// after the dead-key composition. Without an initialised video system the pump has nothing to
// poll, so the queue can be driven by hand (tests, headless runs).
//
// Main thread only: nothing here is locked.
#pragma once

#include <cstdint>

class QWindow;

// Event types the main loop knows.
enum QEventType : int {
  QEVENT_NONE = 0,
  QEVENT_CANCELLED = 1,  // the event of a removed window
  QEVENT_KEYPRESS = 2,
  QEVENT_KEYRELEASE = 3,
  QEVENT_BUTTONPRESS = 4,
  QEVENT_BUTTONRELEASE = 5,
  QEVENT_MOTION = 6,
  QEVENT_LEAVE = 8,
  QEVENT_EXPOSE = 12,  // never queued: a push of this type is ignored
  QEVENT_FOCUSOUT = 31,
  QEVENT_CLOSE = 105,
};

// Modifier bits merged into key codes.
enum QKeyModifier : int {
  QKEY_SHIFT = 0x10000,
  QKEY_CONTROL = 0x40000,
  QKEY_ALT = 0x80000,
};

// Virtual-key numbers the framework itself tests.
enum QKeyCode : int {
  QK_BACK = 8,
  QK_TAB = 9,
  QK_RETURN = 13,
  QK_SHIFT = 16,
  QK_CONTROL = 17,
  QK_ALT = 18,
  QK_ESCAPE = 27,
  QK_SPACE = 32,
  QK_LEFT = 37,
  QK_UP = 38,
  QK_RIGHT = 39,
  QK_DOWN = 40,
  QK_F1 = 112,
  QK_F11 = 122,
  QK_F12 = 123,
};

constexpr int QEVENT_RING_SIZE = 3072;

// One event. The ten fields keep their order; the last two are pointer-sized on 64-bit builds.
struct QEvent {
  int type = QEVENT_NONE;
  int x = 0;
  int y = 0;
  int wid = 0;
  int hgt = 0;
  int n = 0;  // key code (with modifier bits) or button number
  int xRoot = 0;
  int yRoot = 0;
  void* p = nullptr;
  QWindow* win = nullptr;

  // Logs "Event [%s]:" and the fields at debug level.
  void DbgPrint(const char* title) const;
};

// Allocates the ring; a second call does nothing. Out of memory: error "No memory for Q event
// buffer" and the process exits with code 0.
void QEventInit();
// Appends a copy (see above); full ring: "QEventPush(); out of space" and the event is dropped.
// Before QEventInit the ring is made on the spot.
void QEventPush(const QEvent* e);
// Pumps every waiting platform message, then answers whether the ring holds an event.
bool QEventPending();
// Pumps until the ring holds an event and moves the head record into `out`. False (and an
// event of type 0) only when the ring is empty and there is no platform source to wait for.
bool QEventNext(QEvent* out);
// Copies the head record without removing it; an empty ring gives type 0.
void QEventPeek(QEvent* out);
// Every queued event of `win` becomes type 1 with no window.
void QEventRemoveWindow(const QWindow* win);
// Number of queued records (cancelled ones included).
int QEventCount();
// Drops every queued event (tests, and a window system that restarts).
void QEventFlush();

// Dead-key composition of a key press carrying its modifier bits: an accent key with alt sets a
// pending accent; the next key is composed with it when the pair is listed (0x100..0x11B, bits
// above 16 kept) and clears it. Cannot fail; unlisted keys pass unchanged.
int QEventDeadKey(int code);
// Forgets a pending accent.
void QEventResetDeadKey();

// ---- Platform side (qevent_sdl.cpp) ----
// Reads every waiting platform message into events; nothing when the video system is down.
void QEventPump();
// Sleeps until an event is queued, a platform message arrives, QEventWake is called or
// `timeoutMs` pass (negative: no limit), then pumps. True when the ring holds an event. This is
// what lets a main loop use no processor time while nothing happens.
bool QEventWait(int timeoutMs);
// Ends a QEventWait at once; callable from any thread (a datagram or a finished job arrived).
void QEventWake();
// True when a platform source of events exists (the video system is up).
bool QEventHavePlatform();
// Platform virtual-key number of a key from SDL's key code, scan code and modifier state
// (SDL_Keycode, SDL_Scancode, SDL_Keymod); 0 for a key without one. Keypad digits follow
// NumLock: on, the keypad codes 96-105 and 110; off, the arrow and editing keys they carry.
// Symbols of other layouts (ü, +, #) take the code of the US key in their place (0xBA-0xE2).
int QEventVirtualKey(int sdlKeyCode, int sdlScanCode = 0, int sdlMods = 0);
// Binds a native window id to its framework window, so the pump addresses events to it;
// a null window unbinds. At most 16 bindings; more are refused with an error.
bool QEventBindWindow(uint32_t nativeId, QWindow* win);
