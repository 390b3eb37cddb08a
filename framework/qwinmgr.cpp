// QWindowManager: window list and event hand-off.
#include "framework/qwinmgr.h"

#include <GL/gl.h>

#include "framework/qevent.h"
#include "framework/qmessage.h"
#include "framework/qwindow.h"

bool QWindowManager::AddWindow(QWindow* win) {
  if (!win) return false;
  for (int i = 0; i < count_; ++i)
    if (windows_[i] == win) return true;
  if (count_ >= MAX_WINDOWS) {
    QERR("QWindowManager::AddWindow", "QWindowManager::AddWindow(); out of space ('%s')",
         win->GetName());
    return false;
  }
  windows_[count_++] = win;
  return true;
}

bool QWindowManager::RemoveWindow(QWindow* win) {
  for (int i = 0; i < count_; ++i) {
    if (windows_[i] != win) continue;
    for (int j = i + 1; j < count_; ++j) windows_[j - 1] = windows_[j];
    windows_[--count_] = nullptr;
    return true;
  }
  return false;
}

bool QWindowManager::ProcessEvent(QEvent* e) {
  if (!e || !e->win) return false;
  for (int i = 0; i < count_; ++i)
    if (windows_[i] == e->win) return windows_[i]->ProcessEvent(e);
  return false;
}

void QWindowManager::ClearBackground() const {
  glClearColor(background_.GetR() / 255.0f, background_.GetG() / 255.0f,
               background_.GetB() / 255.0f, background_.GetA() / 255.0f);
  glClear(GL_COLOR_BUFFER_BIT);
}
