// RaceManager: start-up, catalogue, keys and the main loop.
#include "app/slideshow.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/fullscreensettings.h"
#include "framework/qapp.h"
#include "framework/qcanvas.h"
#include "framework/qdebug.h"
#include "framework/qdir.h"
#include "framework/qevent.h"
#include "framework/qfont.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"
#include "net/global.h"

namespace {

RaceManager* g_raceManager = nullptr;
// The signal that asked the program to stop, 0 while none did; set from a signal handler.
volatile sig_atomic_t g_stopSignal = 0;

// Key numbers the controller answers (virtual-key codes).
constexpr int kKeyB = 'B';
constexpr int kKeyC = 'C';
constexpr int kKeyI = 'I';

// Catalogue entries: visible names holding ".jpg" or ".tga" anywhere, compared lower-cased.
bool IsPictureName(const char* name) {
  qstring lower(name);
  lower.ToLower();
  return lower.GetFirstChar() != '.' && (lower.Contains(".jpg") || lower.Contains(".tga"));
}

}  // namespace

RaceManager* QGetRaceManager() { return g_raceManager; }

// ---------------------------------------------------------------------------------------------
// Construction and destruction
// ---------------------------------------------------------------------------------------------

RaceManager::RaceManager() {
  g_raceManager = this;
  timer = new QTimer();
  timer->Start();
}

RaceManager::~RaceManager() {
  delete ini;
  ini = nullptr;
  ReleaseTexture();
  delete mesh;
  mesh = nullptr;
  delete timer;
  timer = nullptr;
  for (qstring& s : images) s.Clear();
  imageCount = 0;
  curFile.Clear();
  lastName.Clear();
  delete canvas;
  canvas = nullptr;
  if (g_raceManager == this) g_raceManager = nullptr;
}

void RaceManager::SetIni(QIni* newIni) {
  if (newIni != ini) delete ini;
  ini = newIni;
}

void RaceManager::SetWindow(QShell* win) {
  delete canvas;
  canvas = nullptr;
  window = win;
  if (window) canvas = new QCanvas(window, "glimra");
}

void RaceManager::ReleaseTexture() {
  // A texture made while OpenGL was unavailable was never counted; nobody else holds it.
  if (texture && (texture->GetRefCount() <= 0 || texture->Detach())) delete texture;
  texture = nullptr;
}

void RaceManager::SaveIni() {
  // No question about a changed file: the display runs unattended.
  if (ini) ini->Write(nullptr, false);
}

// ---------------------------------------------------------------------------------------------
// Start-up
// ---------------------------------------------------------------------------------------------

void RaceManager::Setup(const char* arg) {
  QRect rect{0, 0, 800, 600};

  // By absolute path: app.startup_directory changes the working directory below, and B, C and I
  // must still write to the file that was read.
  qstring iniName("glimra.ini");
  qstring cwd;
  if (QGetCurrentDirectory(&cwd)) iniName.Format("%s/glimra.ini", cwd.cstr());
  SetIni(new QIni(iniName.cstr()));
  // Networking first, so that a "dev.udp_out" log copy can be opened by qdbg_setup.
  qnInit();
  qdbg_setup(ini);

  if (ini->GetBool("dev.terminal", false)) QOpenDeveloperConsole();

  netPort = CommandPort(ini);
  qstring listen;
  CommandListenAddress(ini, &listen);
  OpenCommandSocket(netPort, listen.cstr());
  // A developer's knob: soak tests shorten the cycle to push thousands of commands through.
  idleSleepMs = ini->GetInt("dev.idle_sleep_ms", IDLE_SLEEP_MS);
  if (idleSleepMs < 0) idleSleepMs = 0;

  if (ini->GetBool("effects.show_info", true)) flags |= SHOW_INFO;

  rect.wid = ini->GetInt("resolution.width", 640);
  rect.hgt = ini->GetInt("resolution.height", 480);
  if (ini->GetInt("resolution.fullscreen", 0)) rect.y = 0;

  QApp* app = new QApp("glimra", "Glimra");
  app->SetWindowRect(rect.x, rect.y, rect.wid, rect.hgt);
  app->SetNoStateManager();
  if (ini->GetInt("window.manage", 0)) app->SetWindowManaged(true);
  if (ini->GetInt("resolution.fullscreen", 0)) app->SetFullScreen(true);

  QFullScreenSettings settings;
  settings.Load(ini, "resolution");
  settings.width = rect.wid;
  settings.height = rect.hgt;
  app->SetFullScreenSettings(&settings);

  // Icon resource 101 is compiled into the program; the main window puts it up when it is made.
  // A window or context that cannot be made is reported by Create; the font below then fails
  // too, which ends the program.
  app->Create();
  // Networking was started with the command socket above.

  // Off the visible screen, so that no pointer shows over the pictures.
  app->WarpPointer(10000, 500);

  font = new QFont("fonts/din14");
  if (!font->Create()) qfatal("Can't create font %d", 0);

  SetWindow(app->GetMainWindow());

  qstring startDir;
  ini->GetString("app.startup_directory", &startDir, "");
  if (!startDir.IsEmpty()) {
    // The file may have been written for a Windows display; '\' separates nothing here, so the
    // separators are turned the other way round from the Windows build's.
    startDir.ReplaceAll("\\", "/");
    QSetCurrentDirectory(startDir.cstr());
  }

  ScanDir();

  if (!arg) {
    if (imageCount < 1) return;
    qstring first(images[0]);
    LoadNewImage(first.cstr());
  } else {
    LoadNewImage(arg);
  }
}

// ---------------------------------------------------------------------------------------------
// Catalogue
// ---------------------------------------------------------------------------------------------

void RaceManager::ScanDir() {
  imageCount = 0;
  QDirectory dir(".");
  char name[QDirectory::NAME_SIZE];
  while (dir.ReadNext(name)) {
    if (!IsPictureName(name)) continue;
    if (imageCount >= MAX_IMAGES) {
      QWARN("RaceManager::ScanDir", "No space for new image (%s) anymore - not registering", name);
      break;
    }
    QDBG("RaceManager::ScanDir", "- image %s\n", name);
    images[imageCount] = name;
    images[imageCount].ToLower();
    ++imageCount;
  }
  dir.Close();
  curImage = -1;
}

bool RaceManager::AddToDir(const char* name) {
  if (FindImage(name) >= 0) {
    QDBG("RaceManager::AddToDir", "Image '%s' already found - not inserting", name);
    return false;
  }
  QDBG("RaceManager::AddToDir", "Adding '%s' to dir contents", name);
  if (imageCount < MAX_IMAGES) {
    images[imageCount] = name;
    images[imageCount].ToLower();
    ++imageCount;
    return true;
  }
  QWARN("RaceManager::AddToDir", "No space for new image (%s) anymore - not registering", name);
  return false;
}

int RaceManager::FindImage(const char* name) const {
  qstring lower(name ? name : "");
  lower.ToLower();
  for (int i = 0; i < imageCount; ++i)
    if (images[i] == lower.cstr()) return i;
  return -1;
}

void RaceManager::NextImage() {
  if (imageCount < 1) {
    curImage = -1;
    return;
  }
  curImage = (curImage + 1) % imageCount;
  curFile = images[curImage];
  LoadCurImage();
}

void RaceManager::PrevImage() {
  if (imageCount < 1) {
    curImage = -1;
    return;
  }
  // C++ keeps the dividend's sign, so from -1 this lands on imageCount - 2 (wanted).
  curImage = (curImage - 1 + imageCount) % imageCount;
  curFile = images[curImage];
  LoadCurImage();
}

// ---------------------------------------------------------------------------------------------
// Keys and the main loop
// ---------------------------------------------------------------------------------------------

void RaceManager::HandleEvent(QEvent* e) {
  if (!e || e->type != QEVENT_KEYPRESS) return;
  switch (e->n) {
    case QK_ESCAPE:
      if (QGetApp()) QGetApp()->Exit(0);
      break;
    case QK_LEFT:
      PrevImage();
      break;
    case QK_RIGHT:
      NextImage();
      break;
    case kKeyB:
      if (ini) ini->SetBool("effects.black_and_white", true);
      SaveIni();
      LoadCurImage();
      break;
    case kKeyC:
      if (ini) ini->SetBool("effects.black_and_white", false);
      SaveIni();
      LoadCurImage();
      break;
    case kKeyI:
      if (ini) ini->SetBool("effects.show_info", (flags & SHOW_INFO) == 0);
      SaveIni();
      flags ^= SHOW_INFO;
      break;
    default:
      break;
  }
}

void RaceManager::Run() {
  QApp* app = QGetApp();
  if (!app) qfatal("RaceManager::Run(); no application");
  if (canvas) canvas->DrawBackBuffer();
  app->Run1();
  app->SetIdleProc(&RaceManager::IdleProc);
  app->SetExitProc(&RaceManager::ExitProc);
  for (;;) {
    while (QEventPending()) {
      QEventNext(app->GetCurrentEvent());
      HandleEvent(app->GetCurrentEvent());
    }
    IdleProc();
    if (const int sig = g_stopSignal) {
      QNOTE("RaceManager::Run", "Signal %d (%s): ending", sig, strsignal(sig));
      app->Exit(0);
    }
  }
}

void RaceManager::RequestStop(int signal) { g_stopSignal = signal; }

void RaceManager::IdleProc() {
  RaceManager* rm = g_raceManager;
  if (!rm) return;
  rm->Paint();
  if (rm->window) rm->window->Swap();
  std::this_thread::sleep_for(std::chrono::milliseconds(rm->idleSleepMs));
  NetCheck(rm->netPort);
}

void RaceManager::ExitProc() {
  QDBG("RaceManager::ExitProc", "RaceManager: exit; releasing the slideshow");
  delete g_raceManager;
  g_raceManager = nullptr;
  CloseCommandSocket();
  QDBG("RaceManager::ExitProc", "RaceManager: released");
}
