// QShell: the application's top-level window, inside which all OpenGL drawing happens. It is the
// real window that owns the native window and the context (a QXWindow); whenever its size
// changes it sets the OpenGL viewport to its whole client area, (0, 0, width, height). It
// announces itself to the window manager it is given and leaves it when destroyed; its event
// callback hands events on to the window base. The manager is borrowed.
//
// Also here: the developer console (qshell_console.cpp), which makes standard output and error
// visible beside the graphics.
#pragma once

#include "framework/qxwindow.h"

class QWindowManager;

class QShell : public QXWindow {
 public:
  // `manager` may be null (no announcement).
  QShell(QWindowManager* manager, const char* name, int x, int y, int wid, int hgt);
  ~QShell() override;
  const char* ClassName() const override { return "QShell"; }

  // Records the size and sets the viewport when the context can be made current.
  void OnResize(int wid, int hgt) override;

 private:
  static bool OnEvent(QWindow* win, QEvent* e, void* user);
  QWindowManager* manager_ = nullptr;
};

// Opens the developer console: standard output and error become unbuffered, and when they are
// not a terminal, a terminal window (x-terminal-emulator, else xterm) is opened that shows
// everything written to them from then on. Reports nothing, also when no terminal can be opened
// (the streams then stay where they were). A second call only re-applies the buffering.
void QOpenDeveloperConsole();
