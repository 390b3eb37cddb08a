// QWindowManager: the list of the application's windows and the background colour behind them.
// The main loop offers every event to it first; it hands the event to the window the event is
// addressed to. Windows are borrowed: each window's owner adds and removes it. At most
// MAX_WINDOWS are held; more are refused with an error. Main thread only.
#pragma once

#include "framework/qcolor.h"
#include "framework/qobject.h"

struct QEvent;
class QWindow;

class QWindowManager : public QObject {
 public:
  static constexpr int MAX_WINDOWS = 32;

  QWindowManager() : QObject("winmgr") {}
  const char* ClassName() const override { return "QWindowManager"; }

  void SetBackground(QColor c) { background_ = c; }
  QColor GetBackground() const { return background_; }

  // False with "QWindowManager::AddWindow(); out of space" when full; a second add is ignored.
  bool AddWindow(QWindow* win);
  // False when the window is not held.
  bool RemoveWindow(QWindow* win);
  int GetWindowCount() const { return count_; }

  // Offers the event to the held window it is addressed to; true when that window consumed it.
  bool ProcessEvent(QEvent* e);
  // Clears the current GL context's colour buffer to the background colour.
  void ClearBackground() const;

 private:
  QColor background_{94, 94, 94, 255};
  QWindow* windows_[MAX_WINDOWS] = {};
  int count_ = 0;
};
