// Error reporting without a window: the crash, the stack text, and the way to the message box
// that the window layer installs (qerror_box.cpp).
#include "framework/qerror.h"

#include <execinfo.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>

#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {
// Set before main by the window layer's box, when it is linked in; constant-initialised, so
// its installer never finds it overwritten.
const QMessageBoxPlatform* g_platform = nullptr;
int g_fatalBoxSeconds = 0;
// The stop signal that came, 0 while none did.
volatile sig_atomic_t g_stopSignal = 0;

// No box can be shown (no X or Wayland display, as on a KMS/DRM kiosk, no box in this program,
// or SDL refused): the title and text still reach standard error and the log, and the caller
// goes on as if the box had been dismissed.
bool NotShown(const char* caption, const char* text) {
  qlogwrite(QLOG_NOTE, nullptr, "Message box '%s' could not be shown: %s", caption ? caption : "",
            text ? text : "");
  return false;
}
}  // namespace

void qSetMessageBoxPlatform(const QMessageBoxPlatform* platform) { g_platform = platform; }

void qStopMessageBoxes(int signal) {
  g_stopSignal = signal;
  if (g_platform && g_platform->stop) g_platform->stop(signal);
}

int qMessageBoxStopSignal() { return g_stopSignal; }

void qSetFatalBoxSeconds(int seconds) { g_fatalBoxSeconds = seconds > 0 ? seconds : 0; }

int qFatalBoxSeconds() { return g_fatalBoxSeconds; }

bool qShowMessageBox(const char* caption, const char* text, QMessageBoxKind kind) {
  const char* off = getenv("GLIMRA_NO_MESSAGEBOX");
  if (off && *off && strcmp(off, "0") != 0) return false;
  // Without any display SDL would still try to connect; failing fast is the documented path.
  if (!g_platform || (!getenv("DISPLAY") && !getenv("WAYLAND_DISPLAY")))
    return NotShown(caption, text);
  const int shown = g_platform->show(caption, text, kind);
  return shown < 0 ? NotShown(caption, text) : shown == 1;
}

void QCrash(const char* reason) {
  qinfo("qerror.cpp", "QCrash", __LINE__, "Going to crash, reason: %s", reason ? reason : "");
  // Deliberate: the platform's crash handling (core dump, watchdog restart) takes over.
  volatile int* volatile zero = nullptr;
  *zero = 12345;
}

void qGetStackText(qstring* out) {
  if (!out) return;
  void* frames[64];
  int n = backtrace(frames, 64);
  char** symbols = backtrace_symbols(frames, n);
  out->Clear();
  for (int i = 1; i < n; ++i) {
    if (out->Length() > 100000 - 512) break;
    *out += symbols ? symbols[i] : "?";
    *out += "\n";
  }
  free(symbols);
}

void qstacktrace(const char* title) {
  qstring text;
  qGetStackText(&text);
  qinfo("qerror.cpp", "qstacktrace", __LINE__, "Stacktrace [%s]:\n%s", title ? title : "",
        text.cstr());
}
