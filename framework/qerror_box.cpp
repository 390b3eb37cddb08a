// The message box through SDL: the platform half of qerror.h, installed before main wherever
// the window layer is linked in.
#include <SDL.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "framework/qapp.h"
#include "framework/qerror.h"
#include "framework/qlanguage.h"
#include "framework/qmessage.h"

namespace {
SDL_Window* g_owner = nullptr;
// While a box is up: the process that shows it, and how long an OK box may wait.
volatile pid_t g_boxParent = 0;
volatile int g_boxSeconds = 0;

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

// A stop signal: the box that is up goes. Async-signal-safe calls only.
void StopBox(int signal) {
  BoxShared* shared = __atomic_load_n(&g_shared, __ATOMIC_SEQ_CST);
  if (!shared) return;
  __atomic_store_n(&shared->stop, signal, __ATOMIC_SEQ_CST);
  const int child = __atomic_load_n(&shared->child, __ATOMIC_SEQ_CST);
  if (child > 0) kill(child, SIGKILL);
}

// 1 for OK or Yes, 0 for a box dismissed or closed by a stop or its timer, -1 when it could not
// be shown.
int ShowBox(const char* caption, const char* text, QMessageBoxKind kind) {
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
    __atomic_store_n(&shared->stop, qMessageBoxStopSignal(), __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_shared, shared, __ATOMIC_SEQ_CST);
  }
  // Nobody is left to answer a box once a stop came.
  if (qMessageBoxStopSignal()) return 0;
  const int seconds = kind == QMB_OK_EXCLAMATION ? qFatalBoxSeconds() : 0;
  g_boxSeconds = seconds;
  g_boxParent = getpid();
  int hit = -1;
  const auto shownAt = std::chrono::steady_clock::now();
  const int rc = SDL_ShowMessageBox(&data, &hit);
  g_boxParent = 0;
  if (shared) __atomic_store_n(&shared->child, 0, __ATOMIC_SEQ_CST);
  if (rc == 0) return hit == 1 ? 1 : 0;
  // The box's process ended without an answer: closed by a stop, by its own timer (which
  // cannot have fired before its time), or it never came up.
  if (qMessageBoxStopSignal()) return 0;
  if (seconds > 0 && std::chrono::steady_clock::now() - shownAt >= std::chrono::seconds(seconds)) {
    qlogwrite(QLOG_NOTE, nullptr, "Message box '%s' closed itself after %d s", data.title,
              seconds);
    return 0;
  }
  return -1;
}

const QMessageBoxPlatform kSdlBox = {ShowBox, StopBox};
// Before main, so that a fatal error at any time finds the box.
[[maybe_unused]] const bool g_installed = (qSetMessageBoxPlatform(&kSdlBox), true);

}  // namespace

void qSetMessageBoxOwner(void* sdlWindow) { g_owner = static_cast<SDL_Window*>(sdlWindow); }

