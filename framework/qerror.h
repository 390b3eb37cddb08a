// Message boxes, the deliberate crash and the call-stack text: the platform side of error
// reporting. Boxes go through SDL, which can show them before (and without) its video start.
// Without a display a box fails at once and the caller goes on as if it had been answered
// "no"/dismissed; its title and text are then written to standard error and the log (as a note),
// so that a fatal error on a kiosk without X or Wayland still leaves its reason. Button words come
// from the application's language table ("misc.yes", "misc.no", "misc.ok") when one is loaded.
// The environment variable GLIMRA_NO_MESSAGEBOX=1 makes every box fail silently that way (tests
// and unattended runs that must never wait for a click). A stop signal closes the box that is
// up, as if dismissed, and keeps any later one from showing.
#pragma once

class qstring;

enum QMessageBoxKind {
  QMB_OK_EXCLAMATION = 0,  // one OK button, exclamation icon
  QMB_YESNO_QUESTION = 1,  // Yes / No
};

// The platform's box, installed by the window layer (qerror_box.cpp) before main wherever it is
// linked in; without one, every box is "could not be shown". `show` answers 1 for OK or Yes, 0
// for a dismissed or closed box, -1 when none could be shown; `stop` closes the box that is up
// with async-signal-safe calls only.
struct QMessageBoxPlatform {
  int (*show)(const char* caption, const char* text, QMessageBoxKind kind);
  void (*stop)(int signal);
};
void qSetMessageBoxPlatform(const QMessageBoxPlatform* platform);

// Shows a task-modal box; true when it was shown and answered OK or Yes.
bool qShowMessageBox(const char* caption, const char* text, QMessageBoxKind kind);
// The window that owns the boxes (an SDL_Window*), or null.
void qSetMessageBoxOwner(void* sdlWindow);
// An OK box (the fatal error's) closes itself after this many seconds, as if dismissed; 0, the
// default, waits for the click. Whatever process shows a box dies with the program, holds none
// of its sockets, and is never counted as a running copy.
void qSetFatalBoxSeconds(int seconds);
int qFatalBoxSeconds();
// A stop signal: closes the box that is up as if dismissed, and no box is shown after it. Only
// async-signal-safe calls, for the stop-signal handler.
void qStopMessageBoxes(int signal);
// The signal given to qStopMessageBoxes; 0 while none came.
int qMessageBoxStopSignal();

// Logs "Going to crash, reason: %s" and writes 12345 to address zero.
void QCrash(const char* reason);
// The calling thread's stack as text (at most 100000 characters).
void qGetStackText(qstring* out);
// Logs "Stacktrace [%s]:\n%s" with the current call stack.
void qstacktrace(const char* title);
