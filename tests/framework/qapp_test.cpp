// QApp without a display: tables, centring, the dispatch of one loop step and the exit code.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/qapp.h"
#include "framework/qini.h"
#include "framework/qwindow.h"
#include "framework/qwinmgr.h"
#include "support/logcapture.h"

namespace {

struct App : ::testing::Test {
  LogCapture log;
  QApp* app = nullptr;
  void SetUp() override {
    QEventInit();
    QEventFlush();
    app = new QApp("unit", nullptr, QApp::HEADLESS);
  }
  void TearDown() override {
    delete app;
    QEventFlush();
  }
  int Seen(const std::string& text) const { return log.Count(text); }
  static void Push(int type, int n = 0, QWindow* win = nullptr) {
    QEvent e;
    e.type = type, e.n = n, e.win = win;
    QEventPush(&e);
  }
};

using QAppExitDeathTest = App;

template <int N>
bool H(QEvent*) { return false; }

TEST_F(App, SixthKeyboardHandlerAndSecondConfigurationAreRefusedUntilASlotIsFree) {
  for (auto h : {H<1>, H<2>, H<3>, H<4>, H<5>}) EXPECT_TRUE(app->AddKeyboardHandler(h));
  EXPECT_FALSE(app->AddKeyboardHandler(H<6>));
  EXPECT_EQ(Seen("QApp::AddKeyboardHandler(); out of handlers"), 1);
  EXPECT_TRUE(app->RemoveKeyboardHandler(H<3>));
  EXPECT_TRUE(app->AddKeyboardHandler(H<6>));
  EXPECT_FALSE(app->RemoveKeyboardHandler(H<3>));
  EXPECT_EQ(Seen("QApp::RemoveKeyboardHandler(); can't find handler (0x"), 1);

  // A second configuration needs the first closed.
  QIni a("a.ini", QIni::NO_READ), b("b.ini", QIni::NO_READ);
  EXPECT_TRUE(app->SetIni(&a));
  EXPECT_FALSE(app->SetIni(&b));
  EXPECT_EQ(Seen("ini is already open; call CloseIni() first"), 1);
  EXPECT_EQ(app->GetIni(), &a);
  app->CloseIni();
  EXPECT_TRUE(app->SetIni(&b));
}

TEST_F(App, MinusOneCentresOnTheWorkAreaWithTheKeptFormula) {
  app->SetDesktop(QRect{0, 0, 1280, 1024}, QRect{100, 50, 1180, 974});
  app->SetWindowRect(-1, -1, 300, 200);
  // (right - width - left) / 2: the left edge is subtracted, not added back.
  EXPECT_EQ(app->GetWindowRect().x, (1280 - 300 - 100) / 2);
  EXPECT_EQ(app->GetWindowRect().y, (1024 - 200 - 50) / 2);
  app->SetDesktop(QRect{0, 0, 101, 101}, QRect{0, 0, 101, 101});
  app->SetWindowRect(-1, -2, 200, 60);
  EXPECT_EQ(app->GetWindowRect().x, -49);  // -99 / 2 rounds toward zero
  EXPECT_EQ(app->GetWindowRect().y, -2);   // only exactly -1 centres
}

TEST_F(App, ModifierBitsMergeIntoKeysAndShiftF11IsNoScreenshot) {
  static std::vector<int> seen;
  seen.clear();
  ASSERT_TRUE(app->Create());
  app->AddKeyboardHandler([](QEvent* e) {
    seen.push_back(e->n);
    return false;
  });
  const int events[][2] = {{QEVENT_KEYPRESS, QK_SHIFT},   {QEVENT_KEYPRESS, QK_F11},
                           {QEVENT_KEYRELEASE, QK_SHIFT}, {QEVENT_KEYPRESS, QK_F11},
                           {QEVENT_KEYPRESS, QK_CONTROL}, {QEVENT_KEYPRESS, QK_ALT},
                           {QEVENT_KEYPRESS, QK_F11},     {QEVENT_FOCUSOUT, 0},
                           {QEVENT_KEYPRESS, 'A'}};
  for (const auto& e : events) Push(e[0], e[1]);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(app->Run1(), 1);
  const std::vector<int> want = {QK_SHIFT | QKEY_SHIFT, QK_F11 | QKEY_SHIFT, QK_SHIFT, QK_F11,
                                 QK_CONTROL | QKEY_CONTROL, QK_ALT | QKEY_CONTROL | QKEY_ALT,
                                 QK_F11 | QKEY_CONTROL | QKEY_ALT, 'A'};
  EXPECT_EQ(seen, want);
  EXPECT_EQ(Seen("No BC"), 1);  // only the plain F11
  EXPECT_EQ(Seen("> No UI present."), 1);
  EXPECT_EQ(app->GetModifiers(), 0);
}

TEST_F(App, IdleRunsOncePerEmptyStepConsumersInOrderAndPointerState) {
  static int procCalls, idles;
  procCalls = idles = 0;
  app->SetIdleProc([] { ++idles; });
  EXPECT_EQ(app->Run1(), 2);
  EXPECT_EQ(idles, 1);
  EXPECT_FALSE(app->Run());
  EXPECT_EQ(idles, 1);  // Run returns at once and is not an idle step

  ASSERT_TRUE(app->Create());
  EXPECT_EQ(app->GetWindowManager()->GetBackground(), QColor(94, 94, 94, 255));
  QWindow win(nullptr, "target");
  win.SetEventCallback([](QWindow*, QEvent* e, void*) { return e->type == QEVENT_BUTTONPRESS; });
  app->GetWindowManager()->AddWindow(&win);
  app->SetEventProc([](QEvent*) { return ++procCalls, false; });
  app->AddKeyboardHandler([](QEvent* e) { return e->n == 'Q'; });

  Push(QEVENT_KEYPRESS, 'Q', &win);
  EXPECT_EQ(app->Run1(), 0);  // a keyboard handler took it
  EXPECT_EQ(procCalls, 0);
  Push(QEVENT_BUTTONPRESS, 33, &win);  // button numbers wrap at 32
  EXPECT_EQ(app->Run1(), 0);           // the window manager's window took it
  EXPECT_EQ(procCalls, 0);
  EXPECT_EQ(app->GetButtons(), 2u);
  QEvent move;
  move.type = QEVENT_MOTION, move.x = 12, move.y = 34;
  QEventPush(&move);
  EXPECT_EQ(app->Run1(), 1);
  EXPECT_EQ(procCalls, 1);
  EXPECT_TRUE(app->IsMouseInside());
  EXPECT_EQ(app->GetMouseX(), 12);
  Push(QEVENT_BUTTONRELEASE, 1);
  Push(QEVENT_LEAVE);
  EXPECT_FALSE(app->Run());  // dispatches both
  EXPECT_EQ(app->GetButtons(), 0u);
  EXPECT_FALSE(app->IsMouseInside());
  EXPECT_EQ(idles, 1);
  app->GetWindowManager()->RemoveWindow(&win);
}

// The close request's exit and clean-up order is checked on a real window (qapp_gui_test).
TEST_F(QAppExitDeathTest, ExitCodeIsPassedOn) {
  EXPECT_EXIT(app->Exit(7), ::testing::ExitedWithCode(7), "");
}

}  // namespace
