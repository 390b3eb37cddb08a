// Event ring, cancelled events, dead keys and the key-code translation.
#include <gtest/gtest.h>

#include "framework/qevent.h"
#include "framework/qwindow.h"
#include "support/logcapture.h"

namespace {

// The ring starts empty, without an accent waiting.
struct Ring : ::testing::Test {
  LogCapture log;
  void SetUp() override {
    QEventInit();
    QEventFlush();
    QEventResetDeadKey();
  }
  void TearDown() override { QEventFlush(); }
  static void Push(int type, QWindow* win, int n = 0, int x = 0, int y = 0) {
    QEvent e;
    e.type = type, e.win = win, e.n = n, e.x = x, e.y = y;
    QEventPush(&e);
  }
};

TEST_F(Ring, KeepsOrderAcrossTheWrapAndRefusesTheEventPastCapacity) {
  // Move the head so the full ring wraps over the end of its slots.
  for (int i = 0; i < 1500; ++i) Push(QEVENT_KEYPRESS, nullptr, i);
  QEvent e;
  for (int i = 0; i < 1500; ++i) ASSERT_TRUE(QEventNext(&e));
  for (int i = 0; i < QEVENT_RING_SIZE; ++i) Push(QEVENT_KEYPRESS, nullptr, i);
  Push(QEVENT_KEYPRESS, nullptr, 99999);
  EXPECT_EQ(log.Count("QEventPush(); out of space"), 1);
  EXPECT_EQ(QEventCount(), QEVENT_RING_SIZE);
  for (int i = 0; i < QEVENT_RING_SIZE; ++i) {
    ASSERT_TRUE(QEventNext(&e));
    ASSERT_EQ(e.n, i);
  }
  // Empty again: peek and get answer type 0 without a platform to wait for.
  QEventPeek(&e);
  EXPECT_EQ(e.type, QEVENT_NONE);
  EXPECT_FALSE(QEventNext(&e));
  EXPECT_FALSE(QEventPending());

  // Expose is never queued, and peek leaves the head.
  Push(QEVENT_EXPOSE, nullptr);
  EXPECT_EQ(QEventCount(), 0);
  Push(QEVENT_BUTTONPRESS, nullptr, 3);
  QEventPeek(&e);
  EXPECT_EQ(e.type, QEVENT_BUTTONPRESS);
  EXPECT_EQ(QEventCount(), 1);
}

TEST_F(Ring, RemovedWindowLeavesCancelledEventsInPlace) {
  QWindow keep(nullptr, "keep");
  {
    QWindow gone(nullptr, "gone");
    Push(QEVENT_KEYPRESS, &gone, 1);
    Push(QEVENT_KEYPRESS, &keep, 2);
    Push(QEVENT_BUTTONPRESS, &gone, 3);
    QEventRemoveWindow(&gone);
    Push(QEVENT_KEYRELEASE, &gone, 4);
  }  // the destructor cancels what was queued after the explicit removal
  QEvent e;
  const int expectType[] = {QEVENT_CANCELLED, QEVENT_KEYPRESS, QEVENT_CANCELLED, QEVENT_CANCELLED};
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(QEventNext(&e));
    EXPECT_EQ(e.type, expectType[i]) << i;
    EXPECT_EQ(e.n, i + 1);
    EXPECT_EQ(e.win, e.type == QEVENT_CANCELLED ? nullptr : &keep);
  }
}

TEST_F(Ring, ComposeOnceUnlistedPairsClearTheAccentAndLoneModifiersKeepIt) {
  EXPECT_EQ(QEventDeadKey(QKEY_ALT | 0xC0), QKEY_ALT | 0xC0);  // grave
  EXPECT_EQ(QEventDeadKey('E'), 0x107);
  EXPECT_EQ(QEventDeadKey('E'), 'E');
  QEventDeadKey(QKEY_ALT | 0xBC);  // cedilla
  EXPECT_EQ(QEventDeadKey('A'), 'A');
  EXPECT_EQ(QEventDeadKey('C'), 'C');  // the accent is gone: no cedilla C either

  // A lone modifier keeps the accent, and the modifier bits survive.
  QEventDeadKey(QKEY_ALT | 0xDE);  // acute
  EXPECT_EQ(QEventDeadKey(QK_SHIFT), QK_SHIFT);
  EXPECT_EQ(QEventDeadKey(QKEY_SHIFT | 'E'), QKEY_SHIFT | 0x108);
  QEventDeadKey(QKEY_ALT | QKEY_SHIFT | 0x36);  // circumflex
  EXPECT_EQ(QEventDeadKey('O'), 0x112);
  QEventDeadKey(QKEY_ALT | QKEY_SHIFT | 0xC0);  // tilde, not grave
  EXPECT_EQ(QEventDeadKey('N'), 0x10F);
  QEventDeadKey(QKEY_ALT | 0xBF);  // stroke
  // A modifier key that already carries a bit is an ordinary key: it clears the accent.
  EXPECT_EQ(QEventDeadKey(QKEY_SHIFT | QK_SHIFT), QKEY_SHIFT | QK_SHIFT);
  EXPECT_EQ(QEventDeadKey('O'), 'O');
}

TEST(QEventKeys, PlatformKeyCodesBecomeVirtualKeys) {
  // SDL key codes: printable keys are their character, the others carry bit 30.
  constexpr int S = 1 << 30;
  const int pairs[][2] = {{'a', 65},         {'z', 90},          {'7', 55},
                          {27, QK_ESCAPE},   {'\r', QK_RETURN},  {'`', 0xC0},
                          {',', 0xBC},       {'\'', 0xDE},       {S | 58, QK_F1},
                          {S | 68, QK_F11},  {S | 69, QK_F12},    {S | 80, QK_LEFT},
                          {S | 82, QK_UP},   {S | 225, QK_SHIFT}, {S | 228, QK_CONTROL},
                          {S | 226, QK_ALT}, {S | 300, 0}};
  for (const auto& p : pairs) EXPECT_EQ(QEventVirtualKey(p[0]), p[1]) << (p[0] & ~S);

  // Keypad keys (SDL scan codes 89-99: 1..9, 0, point) follow NumLock (SDL's modifier 0x1000):
  // off, the arrows and editing keys; on, the keypad codes.
  constexpr int kNum = 0x1000;
  const int keypad[][2] = {{92, QK_LEFT}, {94, QK_RIGHT}, {96, QK_UP}, {90, QK_DOWN}, {95, 36},
                           {89, 35}, {97, 33}, {91, 34}, {98, 45}, {99, 46}, {93, 12}};
  for (const auto& k : keypad) {
    EXPECT_EQ(QEventVirtualKey(S | k[0], k[0], 0), k[1]) << k[0];
    const int on = k[0] == 99 ? 110 : k[0] == 98 ? 96 : 97 + (k[0] - 89);
    EXPECT_EQ(QEventVirtualKey(S | k[0], k[0], kNum), on) << k[0];
  }
  // Symbols of other layouts take the code of the key in their place (scan codes: '[' 47,
  // ';' 51, '=' 46, the key beside left shift 100, 'q' 20, '1' 30); known codes win.
  const int placed[][3] = {{0xFC, 47, 0xDB}, {0xF6, 51, 0xBA}, {'+', 46, 0xBB},
                           {'<', 100, 0xE2}, {0x439, 20, 'Q'}, {'&', 30, '1'},
                           {'a', 20, 'A'},   {0xE9, 0, 0}};
  for (const auto& k : placed) EXPECT_EQ(QEventVirtualKey(k[0], k[1], 0), k[2]) << k[0];
}

}  // namespace
