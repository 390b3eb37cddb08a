// QShell: the top-level window with its viewport.
#include "framework/qshell.h"

#include <GL/gl.h>

#include "framework/qwinmgr.h"

QShell::QShell(QWindowManager* manager, const char* name, int x, int y, int wid, int hgt)
    : QXWindow(nullptr, name, x, y, wid, hgt), manager_(manager) {
  SetEventCallback(&QShell::OnEvent, this);
  if (manager_) manager_->AddWindow(this);
}

QShell::~QShell() {
  if (manager_) manager_->RemoveWindow(this);
}

bool QShell::OnEvent(QWindow* /*win*/, QEvent* /*e*/, void* /*user*/) {
  // Nothing of its own: the shell leaves every event to the application's handlers.
  return false;
}

void QShell::OnResize(int wid, int hgt) {
  QXWindow::OnResize(wid, hgt);
  if (MakeCurrent()) glViewport(0, 0, wid, hgt);
}
