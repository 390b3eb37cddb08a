// glimra-wintest: opens the framework's main window at a given size, draws frames cleared to
// 51, 102, 153 and reports on standard output what the GUI tests check: the window's size, the
// first frame's centre pixel read back, and every key press as the application's current event
// record holds it (V also resizes the window to 400 x 300 and reports the viewport), and the
// application's desktop size. A close request ends it through QApp::Exit; its exit and clean-up
// procedures log "wintest: exit proc" and "wintest: cleanup A/B/C" into QLOG.txt of the given
// directory. RATE is the full-screen refresh rate asked for (default 0: any).
//   glimra-wintest DIR WIDTH HEIGHT [fullscreen [RATE]]
#include <unistd.h>

#include <GL/gl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "framework/qapp.h"
#include "framework/qdebug.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"

namespace {

bool g_reported = false;

void Frame() {
  QApp* app = QGetApp();
  QShell* win = app ? app->GetMainWindow() : nullptr;
  if (!win || !win->MakeCurrent()) return;
  glClearColor(0.2f, 0.4f, 0.6f, 1.0f);
  glClear(GL_COLOR_BUFFER_BIT);
  if (!g_reported) {
    unsigned char px[4] = {};
    glReadBuffer(GL_BACK);
    glReadPixels(win->GetWidth() / 2, win->GetHeight() / 2, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, px);
    printf("window %d %d fullscreen %d\n", win->GetWidth(), win->GetHeight(),
           win->IsModeSwitched() ? 1 : 0);
    printf("pixel %d %d %d\n", px[0], px[1], px[2]);
    printf("desktop %d %d\n", app->GetDesktopRect().wid, app->GetDesktopRect().hgt);
    printf("ready\n");
    g_reported = true;
  }
  win->Swap();
}

bool OnKey(QEvent* e) {
  if (e->type != QEVENT_KEYPRESS) return false;
  printf("key %d\n", e->n);
  QShell* win = QGetApp()->GetMainWindow();
  if (e->n == 'V' && win) {  // resize to 400 x 300 and report the viewport that follows
    win->Size(400, 300);
    GLint vp[4] = {};
    glGetIntegerv(GL_VIEWPORT, vp);
    printf("viewport %d %d %d %d\n", vp[0], vp[1], vp[2], vp[3]);
  }
  return false;
}

void OnExit() { QINFO("wintest", "wintest: exit proc"); }
void CleanupA() { QINFO("wintest", "wintest: cleanup A"); }
void CleanupB() { QINFO("wintest", "wintest: cleanup B"); }
void CleanupC() { QINFO("wintest", "wintest: cleanup C"); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: glimra-wintest DIR WIDTH HEIGHT [fullscreen [RATE]]\n");
    return 2;
  }
  if (chdir(argv[1]) != 0) return 2;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  std::string log = std::string(argv[1]) + "/QLOG.txt";
  qlogSetFileName(log.c_str());
  qdbgSetFlags(qdbgGetFlags() | QDEBUG_QDBG_TO_QLOG);
  const int w = atoi(argv[2]), h = atoi(argv[3]);
  const bool full = argc > 4 && strcmp(argv[4], "fullscreen") == 0;

  QApp* app = new QApp("wintest", "WinTest");
  app->SetNoStateManager();
  app->SetWindowManaged(true);
  app->SetFullScreen(full);
  QFullScreenSettings s;
  s.width = w;
  s.height = h;
  s.refreshRate = argc > 5 ? atoi(argv[5]) : 0;
  app->SetFullScreenSettings(&s);
  app->SetWindowRect(-1, -1, w, h);
  if (!app->Create()) return 1;
  app->AddKeyboardHandler(&OnKey);
  app->AddCleanupProc(&CleanupA);
  app->AddCleanupProc(&CleanupB);
  app->AddCleanupProc(&CleanupC);
  app->SetExitProc(&OnExit);
  app->SetIdleProc(&Frame);
  // Never outlive a test that lost track of it.
  for (int i = 0; i < 60 * 200; ++i) {
    if (app->Run1() == 2) usleep(5000);
  }
  app->Exit(3);
}
