// The event ring, its motion compression and the dead-key composition.
#include "framework/qevent.h"

#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/qwindow.h"

namespace {

// 3,072 is not a power of two; the mask wraps over the next power (4,096) and the count keeps
// the ring at 3,072 live records, so a masked index never leaves the allocation.
constexpr int kSlots = 4096;
constexpr int kMask = kSlots - 1;
static_assert(QEVENT_RING_SIZE <= kSlots, "ring must fit the masked slots");

QEvent* g_ring = nullptr;
int g_head = 0;
int g_count = 0;
int g_accent = 0;

QEvent& Slot(int i) { return g_ring[(g_head + i) & kMask]; }

// Composed codes by accent (1..8) and letter A C E I N O U Y; 0 = not listed.
constexpr char kLetters[8] = {'A', 'C', 'E', 'I', 'N', 'O', 'U', 'Y'};
constexpr int kComposed[8][8] = {
    {0x104, 0, 0x10A, 0x10E, 0, 0x113, 0x119, 0x11B},  // diaeresis
    {0x100, 0, 0x107, 0x10B, 0, 0x110, 0x116, 0},      // grave
    {0x101, 0, 0x108, 0x10C, 0, 0x111, 0x117, 0x11A},  // acute
    {0x102, 0, 0x109, 0x10D, 0, 0x112, 0x118, 0},      // circumflex
    {0x103, 0, 0, 0, 0x10F, 0x114, 0, 0},              // tilde
    {0x105, 0, 0, 0, 0, 0, 0, 0},                      // ring
    {0, 0x106, 0, 0, 0, 0, 0, 0},                      // cedilla
    {0, 0, 0, 0, 0, 0x115, 0, 0},                      // stroke
};

int AccentOf(int code) {
  switch (code) {
    case QKEY_ALT | 0xBA: return 1;
    case QKEY_ALT | 0xC0: return 2;
    case QKEY_ALT | 0xDE: return 3;
    case QKEY_ALT | QKEY_SHIFT | 0x36: return 4;
    case QKEY_ALT | QKEY_SHIFT | 0xC0: return 5;
    case QKEY_ALT | 0xBE: return 6;
    case QKEY_ALT | 0xBC: return 7;
    case QKEY_ALT | 0xBF: return 8;
    default: return 0;
  }
}

}  // namespace

void QEvent::DbgPrint(const char* title) const {
  QDBG("QEvent::DbgPrint", "Event [%s]:\n", title ? title : "");
  QDBG("QEvent::DbgPrint",
       "  type %d, x %d, y %d, wid %d hgt %d, n %d, x/yRoot %d/%d, p %p, win %p\n", type, x, y,
       wid, hgt, n, xRoot, yRoot, p, static_cast<void*>(win));
}

void QEventInit() {
  if (g_ring) return;
  g_ring = static_cast<QEvent*>(qcalloc(sizeof(QEvent) * kSlots));
  if (!g_ring) {
    QERR("QEventInit", "No memory for Q event buffer\n");
    qExitProcess(0);
  }
  g_head = g_count = 0;
}

void QEventPush(const QEvent* e) {
  if (!e || e->type == QEVENT_EXPOSE) return;
  QEventInit();
  if (e->type == QEVENT_MOTION && e->win && e->win->CompressesMotion()) {
    for (int i = 0; i < g_count; ++i) {
      QEvent& q = Slot(i);
      if (q.type == QEVENT_MOTION && q.win == e->win) {
        q.x = e->x;
        q.y = e->y;
        return;
      }
    }
  }
  if (g_count >= QEVENT_RING_SIZE) {
    QWARN("QEventPush", "QEventPush(); out of space");
    return;
  }
  Slot(g_count) = *e;
  ++g_count;
}

bool QEventPending() {
  QEventPump();
  return g_count > 0;
}

bool QEventNext(QEvent* out) {
  if (!out) return false;
  while (g_count == 0) {
    if (!QEventHavePlatform()) {
      *out = QEvent();
      return false;
    }
    QEventPump();
  }
  *out = Slot(0);
  g_head = (g_head + 1) & kMask;
  --g_count;
  return true;
}

void QEventPeek(QEvent* out) {
  if (!out) return;
  *out = g_count > 0 ? Slot(0) : QEvent();
}

void QEventRemoveWindow(const QWindow* win) {
  for (int i = 0; i < g_count; ++i) {
    QEvent& q = Slot(i);
    if (q.win == win) {
      q.type = QEVENT_CANCELLED;
      q.win = nullptr;
    }
  }
}

int QEventCount() { return g_count; }

void QEventFlush() { g_head = g_count = 0; }

int QEventDeadKey(int code) {
  if (code == QK_SHIFT || code == QK_CONTROL || code == QK_ALT) return code;
  int accent = AccentOf(code);
  if (accent) {
    g_accent = accent;
    return code;
  }
  int pending = g_accent;
  g_accent = 0;
  if (!pending) return code;
  int key = code & 0xFFFF;
  for (int i = 0; i < 8; ++i) {
    if (kLetters[i] == key && kComposed[pending - 1][i])
      return (code & ~0xFFFF) | kComposed[pending - 1][i];
  }
  return code;
}

void QEventResetDeadKey() { g_accent = 0; }
