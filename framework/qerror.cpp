// Platform side of error reporting: SDL message boxes, the crash, the stack text.
#include "framework/qerror.h"

#include <SDL.h>
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "framework/qapp.h"
#include "framework/qlanguage.h"
#include "framework/qmessage.h"
#include "framework/qstring.h"

namespace {
SDL_Window* g_owner = nullptr;
int g_fatalBoxSeconds = 0;
// While a box is up: the process that shows it, and how long an OK box may wait.
volatile pid_t g_boxParent = 0;
volatile int g_boxSeconds = 0;
// The stop signal that came, 0 while none did.
volatile sig_atomic_t g_stopSignal = 0;

// A page shared with the box's process: its id, written there right after the fork (the caller
// of fork never learns it), and the stop signal, so that whichever of the two comes second sees
// the other. Read and written with sequentially consistent atomics only.
struct BoxShared {
  int child;
  int stop;
};
BoxShared* g_shared = nullptr;

BoxShared* MakeShared() {
  void* p = mmap(nullptr, sizeof(BoxShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                 -1, 0);
  return p == MAP_FAILED ? nullptr : static_cast<BoxShared*>(p);
}

// SDL shows a box from a forked child (X11) or a dialog program it forks and runs (Wayland).
// That child must not outlive the program, hold its command socket or its display connection,
// or wait for a click for ever on a display nobody watches. Runs in the child right after fork:
// only async-signal-safe calls.
void BoxChildAtFork() {
  if (!g_boxParent) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != g_boxParent) _exit(0);  // the parent died before the line above
  // The parent's stop handler is no use here: a stop sent to the whole group (Ctrl+C) ends the
  // box at once, and one sent to the parent alone ends it through the shared page.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) sigaction(sig, &dfl, nullptr);
  if (g_shared) {
    __atomic_store_n(&g_shared->child, int(getpid()), __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&g_shared->stop, __ATOMIC_SEQ_CST)) _exit(0);
  }
  // Sockets only: the child talks to its parent through a pipe.
  for (int fd = 3; fd < 1024; ++fd) {
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode)) close(fd);
  }
  // The box goes with its child; the parent then goes on as after a dismissed box.
  if (g_boxSeconds > 0) alarm(unsigned(g_boxSeconds));
}

// Button words from the application's language table when one is loaded.
const char* Word(const char* key, const char* def) {
  QApp* app = QGetApp();
  QLanguage* language = app ? app->GetLanguage() : nullptr;
  return language ? language->GetString(key, def) : def;
}

// No box can be shown (no X or Wayland display, as on a KMS/DRM kiosk, or SDL refused): the
// title and text still reach standard error and the log, and the caller goes on as if the box
// had been dismissed.
bool NotShown(const char* caption, const char* text) {
  qlogwrite(QLOG_NOTE, nullptr, "Message box '%s' could not be shown: %s", caption ? caption : "",
            text ? text : "");
  return false;
}
}  // namespace

void qStopMessageBoxes(int signal) {
  g_stopSignal = signal;
  BoxShared* shared = __atomic_load_n(&g_shared, __ATOMIC_SEQ_CST);
  if (!shared) return;
  __atomic_store_n(&shared->stop, signal, __ATOMIC_SEQ_CST);
  const int child = __atomic_load_n(&shared->child, __ATOMIC_SEQ_CST);
  if (child > 0) kill(child, SIGKILL);
}

int qMessageBoxStopSignal() { return g_stopSignal; }

void qSetMessageBoxOwner(void* sdlWindow) { g_owner = static_cast<SDL_Window*>(sdlWindow); }

void qSetFatalBoxSeconds(int seconds) { g_fatalBoxSeconds = seconds > 0 ? seconds : 0; }

bool qShowMessageBox(const char* caption, const char* text, QMessageBoxKind kind) {
  const char* off = getenv("GLIMRA_NO_MESSAGEBOX");
  if (off && *off && strcmp(off, "0") != 0) return false;
  // Without any display SDL would still try to connect; failing fast is the documented path.
  if (!getenv("DISPLAY") && !getenv("WAYLAND_DISPLAY")) return NotShown(caption, text);
  SDL_MessageBoxButtonData buttons[2];
  int nbuttons = 0;
  if (kind == QMB_YESNO_QUESTION) {
    buttons[0] = {SDL_MESSAGEBOX_BUTTON_RETURNKEY_DEFAULT, 1, Word("misc.yes", "Yes")};
    buttons[1] = {SDL_MESSAGEBOX_BUTTON_ESCAPEKEY_DEFAULT, 0, Word("misc.no", "No")};
    nbuttons = 2;
  } else {
    buttons[0] = {SDL_MESSAGEBOX_BUTTON_RETURNKEY_DEFAULT | SDL_MESSAGEBOX_BUTTON_ESCAPEKEY_DEFAULT,
                  1, Word("misc.ok", "OK")};
    nbuttons = 1;
  }
  SDL_MessageBoxData data{};
  data.flags = kind == QMB_YESNO_QUESTION ? SDL_MESSAGEBOX_INFORMATION : SDL_MESSAGEBOX_WARNING;
  data.window = g_owner;
  data.title = caption ? caption : "";
  data.message = text ? text : "";
  data.numbuttons = nbuttons;
  data.buttons = buttons;
  static const bool hooked = pthread_atfork(nullptr, nullptr, &BoxChildAtFork) == 0;
  (void)hooked;
  static BoxShared* const shared = MakeShared();
  if (shared) {
    __atomic_store_n(&shared->child, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&shared->stop, int(g_stopSignal), __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_shared, shared, __ATOMIC_SEQ_CST);
  }
  // Nobody is left to answer a box once a stop came.
  if (g_stopSignal) return false;
  const int seconds = kind == QMB_OK_EXCLAMATION ? g_fatalBoxSeconds : 0;
  g_boxSeconds = seconds;
  g_boxParent = getpid();
  int hit = -1;
  const auto shownAt = std::chrono::steady_clock::now();
  const int rc = SDL_ShowMessageBox(&data, &hit);
  g_boxParent = 0;
  if (shared) __atomic_store_n(&shared->child, 0, __ATOMIC_SEQ_CST);
  if (rc == 0) return hit == 1;
  // The box's process ended without an answer: closed by a stop, by its own timer (which
  // cannot have fired before its time), or it never came up.
  if (g_stopSignal) return false;
  if (seconds > 0 && std::chrono::steady_clock::now() - shownAt >= std::chrono::seconds(seconds)) {
    qlogwrite(QLOG_NOTE, nullptr, "Message box '%s' closed itself after %d s", data.title,
              seconds);
    return false;
  }
  return NotShown(caption, text);
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
