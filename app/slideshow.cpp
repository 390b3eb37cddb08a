// RaceManager: start-up, catalogue, keys and the main loop.
#include "app/slideshow.h"

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>

#include "app/caption.h"
#include "app/command_channel.h"
#include "app/commands.h"
#include "app/portrait_pairs.h"
#include "app/prefetcher.h"
#include "app/remote_control.h"

#include "d3/dglobal.h"
#include "d3/dmesh.h"
#include "d3/dtexture.h"
#include "framework/fullscreensettings.h"
#include "framework/qapp.h"
#include "framework/qcanvas.h"
#include "framework/qdebug.h"
#include "framework/qdir.h"
#include "framework/qevent.h"
#include "framework/qfile.h"
#include "framework/qfont.h"
#include "framework/image/qimage.h"
#include "framework/image/qpicturekinds.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qshell.h"
#include "net/global.h"

namespace {

RaceManager* g_raceManager = nullptr;
// The signal that asked the program to stop, 0 while none did; set from a signal handler.
volatile sig_atomic_t g_stopSignal = 0;

// Shortest time between two catalogue rebuilds for a watched folder's changes.
constexpr int kFollowGapMs = 250;
// The longest a start waits for a library's walk to find its first picture.
constexpr int kFirstWaitMs = 2000;
// The longest the loop sleeps while a schedule's edge is ahead.
constexpr long long kScheduleLookMs = 60000;

// `path` split at its last separator: the directory ("." when there is none) and the name.
void SplitPath(const char* path, qstring* dir, const char** name) {
  const char* last = nullptr;
  for (const char* p = path; *p; ++p)
    if (*p == '/') last = p;
  *name = last ? last + 1 : path;
  if (!last)
    *dir = ".";
  else if (last == path)
    *dir = "/";
  else
    qstring(path).GetSubstring(0, int(last - path), dir);
}

// A developer's proof of display without a broker: each screen shot replaces `path` whole
// (written beside it, then renamed), so that a reader never sees half a file.
void WriteScreenFile(const std::string& path, const std::string& jpeg) {
  const std::string temp = path + ".part";
  FILE* fp = qfopen(temp.c_str(), "wb");
  bool ok = fp && fwrite(jpeg.data(), 1, jpeg.size(), fp) == jpeg.size();
  if (fp) ok = qfclose(fp) == 0 && ok;
  if (ok && rename(temp.c_str(), path.c_str()) == 0) return;
  QWARN("RaceManager::WriteScreenFile", "RaceManager: can't write the screen shot to '%s'",
        path.c_str());
}

}  // namespace

RaceManager* QGetRaceManager() { return g_raceManager; }

// ---------------------------------------------------------------------------------------------
// Construction and destruction
// ---------------------------------------------------------------------------------------------

RaceManager::RaceManager() : catalogue(new Catalogue()) { g_raceManager = this; }

RaceManager::~RaceManager() {
  shots.reset();  // its sink may reach into what goes below
  // Then, so that no command arrives while the rest goes, and "offline" goes out at once.
  remote.reset();
  watch.reset();
  catalogue.reset();
  ini.reset();
  EndFade();
  slide.Clear();
  curFile.Clear();
  canvas.reset();
  font.reset();
  prefetcher.reset();
  commands.reset();
  if (g_raceManager == this) g_raceManager = nullptr;
}

void RaceManager::SetIni(QIni* newIni) {
  if (newIni != ini.get()) ini.reset(newIni);
}

void RaceManager::SetWindow(QShell* win) {
  canvas.reset();
  window = win;
  if (window) canvas.reset(new QCanvas(window, "glimra"));
}

void RaceManager::TextureRelease::operator()(DBitMapTexture* t) const {
  // A texture made while OpenGL was unavailable was never counted; nobody else holds it.
  if (t->GetRefCount() <= 0 || t->Detach()) delete t;
}

void RaceManager::Slide::Clear() {
  pair.reset();
  for (auto& side : sides) side.reset();
  back.reset();
  mesh.reset();
  texture.reset();
  shape = LoadedPicture();
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
  qdbg_setup(ini.get());

  if (ini->GetBool("dev.terminal", false)) QOpenDeveloperConsole();

  netPort = CommandPort(ini.get());
  qstring listen;
  CommandListenAddress(ini.get(), &listen);
  commands.reset(new CommandChannel());
  qstring allow;
  ini->GetString("network.allow", &allow, "");
  commands->Allow(allow.cstr());
  commands->Open(netPort, listen.cstr());
  RemoteSettings remoteSettings;
  if (ReadRemoteSettings(ini.get(), &remoteSettings)) {
    remote.reset(new RemoteControl());
    if (!remote->Start(remoteSettings)) remote.reset();
  }
  qstring screenFile;
  ini->GetString("dev.screen_file", &screenFile, "");
  // By absolute path: the working directory changes below.
  std::string path(screenFile.cstr());
  if (!path.empty() && path[0] != '/' && !cwd.IsEmpty())
    path = std::string(cwd.cstr()) + "/" + path;
  // The screen shots go to the broker and to the developer's file; the remote control outlives
  // the shots' worker (see the destructor).
  RemoteControl* shotsTo = remote.get();
  if (shotsTo || !path.empty())
    WantScreenShots([path, shotsTo](std::string jpeg) {
      if (!path.empty()) WriteScreenFile(path, jpeg);
      if (shotsTo) shotsTo->PublishScreen(std::move(jpeg));
    });
  // A developer's knob: the longest the loop sleeps (0, the default: until something happens).
  idleSleepMs = ini->GetInt("dev.idle_sleep_ms", IDLE_SLEEP_MS);
  if (idleSleepMs < 0) idleSleepMs = 0;

  if (ini->GetBool("effects.show_info", true)) flags |= SHOW_INFO;
  qstring captionPattern, dateFormat;
  ini->GetString("effects.caption", &captionPattern, "");
  ini->GetString("effects.date_format", &dateFormat, Caption::DEFAULT_DATE_FORMAT);
  if (!captionPattern.IsEmpty())
    captions.reset(new Caption(captionPattern.cstr(), dateFormat.cstr()));
  // Signage additions, all off unless set: an advance of less than a frame would only spin.
  const double advance = ini->GetFloat("effects.advance_seconds", 0.0);
  advanceMs = advance >= 0.05 && advance <= 1e6 ? int(advance * 1000.0 + 0.5) : 0;
  const int fade = ini->GetInt("effects.fade_ms", 0);
  fadeMs = fade > 0 ? std::min(fade, 60000) : 0;
  qstring background;
  ini->GetString("effects.background", &background, "black");
  blurBackground = background == "blur";
  if (!blurBackground && background != "black")
    QWARN("RaceManager::Setup", "effects.background '%s' is neither black nor blur; black used",
          background.cstr());
  const double dim = ini->GetFloat("effects.blur_dim", 0.6);
  const double heldDim = dim > 0.0 ? std::min(dim, 1.0) : 0.0;  // a NaN as 0
  if (heldDim != dim)
    QWARN("RaceManager::Setup", "effects.blur_dim '%g' is outside 0..1; %g used", dim, heldDim);
  backgroundWeight = float(1.0 - heldDim);
  panZoom = ini->GetBool("effects.pan_zoom", false);
  // Before the first picture: outside the hours nothing is decoded, the first one included.
  qstring hours;
  ini->GetString("display.schedule", &hours, "");
  SetSchedule(hours.cstr());

  rect.wid = ini->GetInt("resolution.width", 640);
  rect.hgt = ini->GetInt("resolution.height", 480);
  if (ini->GetInt("resolution.fullscreen", 0)) rect.y = 0;

  // The first picture is decoded while the display, the window and its context are made, which
  // takes about as long. Its catalogue scan and load still come in their place below. Full
  // screen, the desktop's proportions are the window's; a window has to wait for the display.
  const bool fullScreen = ini->GetInt("resolution.fullscreen", 0) != 0;
  // A library's walk begins now, so that its first picture is found while the window is made.
  OpenCatalogue();
  prefetcher.reset(new Prefetcher());
  if (fullScreen) StartFirstPicture(arg, nullptr, rect.wid, rect.hgt);

  QApp* app = new QApp("glimra", "Glimra");
  app->SetWindowRect(rect.x, rect.y, rect.wid, rect.hgt);
  app->SetNoStateManager();
  if (ini->GetInt("window.manage", 0)) app->SetWindowManaged(true);
  if (ini->GetInt("resolution.fullscreen", 0)) app->SetFullScreen(true);

  QFullScreenSettings settings;
  settings.Load(ini.get(), "resolution");
  settings.width = rect.wid;
  settings.height = rect.hgt;
  app->SetFullScreenSettings(&settings);

  if (!fullScreen) StartFirstPicture(arg, app, rect.wid, rect.hgt);

  // Icon resource 101 is compiled into the program; the main window puts it up when it is made.
  // A window or context that cannot be made is reported by Create; the font below then fails
  // too, which ends the program.
  app->Create();
  // Networking was started with the command socket above.
  // Pictures are drawn at about one texel a pixel, where filtering in linear light changes
  // nothing; plain byte textures and framebuffer spare the software renderer a conversion each
  // way, about a third of each frame's time.
  DGlobal::SetLinearColour(true);

  // Off the visible screen, so that no pointer shows over the pictures.
  app->WarpPointer(10000, 500);

  font.reset(new QFont("fonts/din14"));
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
  // By absolute path, to find it again when the folder is replaced under its name.
  QGetCurrentDirectory(&home);

  // Followed from before the scan, so that no change after it goes unseen.
  if (ini->GetBool("app.watch_directory", false)) {
    watch.reset(new QDirWatch());
    // A flood of new files is followed in batches, each costing one listing.
    if (!watch->Open(home.IsEmpty() ? "." : home.cstr(), qIsCataloguePictureName, kFollowGapMs,
                     catalogue->GetOptions().recursive))
      watch.reset();
  }
  // A library is being walked already: what it found is taken in once the first picture is out.
  if (catalogue->GetOptions().recursive) {
    QGetRealPath(".", &folder);
  } else {
    ScanDir();
  }

  if (arg) {
    LoadNewImage(arg);
    return;
  }
  const std::string first = FirstPicture();
  if (!first.empty()) LoadNewImage(first.c_str());
}

void RaceManager::OpenCatalogue() {
  Catalogue::Options options;
  options.recursive = ini->GetBool("app.recursive", false);
  options.maxPictures = ini->GetInt("app.max_pictures", MAX_IMAGES);
  if (options.maxPictures < 0) {
    QWARN("RaceManager::OpenCatalogue", "app.max_pictures '%d' is negative; %d used",
          options.maxPictures, MAX_IMAGES);
    options.maxPictures = MAX_IMAGES;
  }
  qstring order;
  ini->GetString("app.order", &order, "name");
  if (order == "date") {
    options.order = Catalogue::BY_DATE;
  } else if (order == "shuffle") {
    options.order = Catalogue::SHUFFLE;
  } else if (order != "name") {
    QWARN("RaceManager::OpenCatalogue", "app.order '%s' is none of name, date, shuffle; name used",
          order.cstr());
  }
  options.resume = ini->GetBool("app.resume", false);
  rescanMinutes = ini->GetFloat("app.rescan_minutes", RESCAN_MINUTES);
  if (!(rescanMinutes > 0.0 && rescanMinutes < 1e6)) rescanMinutes = RESCAN_MINUTES;
  // The index is kept only for what needs it, so a plain folder leaves no file behind.
  qstring cwd;
  QGetCurrentDirectory(&cwd);
  qstring file;
  ini->GetString("app.index_file", &file, "");
  if (options.recursive || options.order != Catalogue::BY_NAME || options.resume) {
    if (file.IsEmpty())
      file.Format("%s/glimra.index", cwd.cstr());
    else if (file.cstr()[0] != '/')
      file.Format("%s/%s", cwd.cstr(), qstring(file).cstr());
    options.indexFile = file.cstr();
  }
  qstring startDir, root;
  ini->GetString("app.startup_directory", &startDir, "");
  startDir.ReplaceAll("\\", "/");
  if (!QGetRealPath(startDir.IsEmpty() ? "." : startDir.cstr(), &root)) root = cwd;
  catalogue->Open(options, root.cstr());
  if (options.recursive) catalogue->Scan();
}

std::string RaceManager::FirstPicture() {
  // Where the show stood before this start, while that picture is still there.
  const std::string& resume = catalogue->ResumeName();
  if (!resume.empty() &&
      QFileExists(resume[0] == '/' ? resume.c_str() : (catalogue->Root() + "/" + resume).c_str()))
    return resume;
  if (catalogue->GetOptions().recursive) return catalogue->WaitFirst(kFirstWaitMs);
  return catalogue->Count() > 0 ? catalogue->Name(0) : std::string();
}

void RaceManager::FollowLibrary() {
  if (!watch || !catalogue->GetOptions().recursive) return;
  using namespace std::chrono;
  const auto now = steady_clock::now();
  if (rescanMs == 0) {
    // The watch said once why it is not complete; from now on the library is looked at by time.
    if (watch->Complete()) return;
    rescanMs = std::max(1000, int(rescanMinutes * 60000.0));
    rescanAt = now + milliseconds(rescanMs);
    QNOTE("RaceManager::FollowLibrary", "Library listed again every %.1f minutes", rescanMinutes);
    return;
  }
  if (now < rescanAt) return;
  rescanAt = now + milliseconds(rescanMs);
  std::vector<std::string> writing;
  watch->Writing(&writing);
  catalogue->Scan(writing);
}

void RaceManager::TakeFound() {
  // A picture on its way to the screen goes first: a library's index is a lot to take in.
  if (newPicture) return;
  const int before = catalogue->Count();
  if (!catalogue->Merge()) return;
  if (flags & SHOW_INFO) dirty = true;  // the counts in the overlay
  prefetchDue = true;
  // A library that was empty until now: its first picture is shown.
  if (before == 0 && !slide && !g_stopSignal && catalogue->Count() > 0) {
    const std::string first = catalogue->Name(0);
    LoadNewImage(first.c_str());
  }
}

// ---------------------------------------------------------------------------------------------
// Catalogue
// ---------------------------------------------------------------------------------------------

void RaceManager::ScanDir(const std::vector<std::string>& skip) {
  // The folder is "." unless the catalogue was given its library's folder.
  if (catalogue->Root().empty()) catalogue->Open(catalogue->GetOptions(), ".");
  catalogue->Scan(skip);
  QGetRealPath(".", &folder);
}

void RaceManager::Rescan(const std::vector<std::string>& skip) {
  if (catalogue->GetOptions().recursive) {
    // Walked behind the show; the position follows its picture as the changes come in.
    catalogue->Scan(skip);
    return;
  }
  // The pictures after the shown one, in order, for when it has gone.
  const int count = catalogue->Count(), shown = catalogue->Current();
  std::vector<std::string> after;
  for (int k = 1; shown >= 0 && k < count; ++k)
    after.push_back(catalogue->Name((shown + k) % count));
  ScanDir(skip);
  if (!curFile.IsEmpty()) {
    int cur = CatalogueIndex(curFile.cstr());
    // Not listed but still there: a picture loaded from elsewhere.
    if (cur < 0 && QFileExists(curFile.cstr()) &&
        std::find(skip.begin(), skip.end(), curFile.cstr()) == skip.end() &&
        AddToDir(curFile.cstr()))
      cur = catalogue->Count() - 1;
    for (size_t k = 0; cur < 0 && k < after.size(); ++k) {
      const int i = CatalogueIndex(after[k].c_str());
      if (i >= 0) cur = i > 0 ? i - 1 : catalogue->Count() - 1;
    }
    catalogue->SetCurrent(cur);
  }
  // The counts in the overlay changed, and so may the neighbours.
  dirty = true;
  prefetchDue = true;
}

void RaceManager::StartFirstPicture(const char* arg, QApp* app, int width, int height) {
  if (!displayOn) return;
  qstring startDir;
  ini->GetString("app.startup_directory", &startDir, "");
  startDir.ReplaceAll("\\", "/");
  const std::string folder = startDir.IsEmpty() ? "." : startDir.cstr();
  std::string path;
  if (arg) {
    path = arg;
  } else if (catalogue->GetOptions().recursive || !catalogue->ResumeName().empty()) {
    path = FirstPicture();
  } else if (catalogue->GetOptions().order == Catalogue::BY_NAME) {
    // What ScanDir will list first, found without a word in the log.
    QDirectory dir(folder.c_str());
    char name[QDirectory::NAME_SIZE];
    while (path.empty() && dir.ReadNext(name))
      if (qIsCataloguePictureName(name)) path = name;
  }
  if (path.empty()) return;
  const std::string file = path[0] == '/' ? path : folder + "/" + path;
  ScreenFit fit;
  fit.windowWidth = width;
  fit.windowHeight = height;
  const QRect desk = app ? app->GetDesktopRect() : QRect{0, 0, width, height};
  if (desk.wid > 0 && desk.hgt > 0) fit.desktopAspect = double(desk.wid) / desk.hgt;
  fit.maxTexture = QImage::MAX_SIZE;
  fit.background = blurBackground;
  fit.zoom = CurrentFit().zoom;  // as the show will ask for it
  prefetcher->WantFile(path, file, fit, ini->GetBool("effects.black_and_white", false));
}

bool RaceManager::AddToDir(const char* name) { return catalogue->Add(name); }

int RaceManager::FindImage(const char* name) const { return catalogue->Find(name); }

int RaceManager::CatalogueIndex(const char* path) const {
  if (!path) return -1;
  qstring dir, realDir;
  const char* name = nullptr;
  SplitPath(path, &dir, &name);
  // A file of the scanned folder, however the path reaches it, is its listed entry: the exact
  // name first, since two names may differ only in case.
  if (*name && !folder.IsEmpty() && QGetRealPath(dir.cstr(), &realDir)) {
    std::string listed;
    if (realDir == folder.cstr())
      listed = name;
    else if (catalogue->GetOptions().recursive && realDir.Length() > folder.Length() &&
             strncmp(realDir.cstr(), folder.cstr(), size_t(folder.Length())) == 0 &&
             realDir.cstr()[folder.Length()] == '/')
      listed = std::string(realDir.cstr() + folder.Length() + 1) + "/" + name;  // a subfolder's
    // The exact name first, since two names may differ only in case.
    if (!listed.empty()) {
      int i = catalogue->FindExact(listed);
      if (i < 0) i = catalogue->Find(listed.c_str());
      if (i >= 0) return i;
    }
  }
  return FindImage(path);
}

void RaceManager::Step(int steps, bool show) {
  if (steps == 0 && catalogue->Count() > 0) return;
  bool pairNext = true;
  if (PairsWanted()) {
    pairNext = StepSlides(catalogue.get(), steps, slide.pair != nullptr, [this](int i) {
      return Portrait(catalogue->Name(i)) == 1;
    });
  } else {
    catalogue->Step(steps);
  }
  const int cur = catalogue->Current();
  if (cur < 0) return;
  curFile = catalogue->Name(cur);
  if (!show) return;
  QDBG("RaceManager::Step", "Load image %d\n", cur);
  mayPair = pairNext;
  const std::string path(curFile.cstr());
  LoadNewImage(path.c_str());
}

void RaceManager::SelectImage(const char* path) {
  if (!path) return;
  const std::string p(path);  // may point into the catalogue
  const int i = CatalogueIndex(p.c_str());
  if (i >= 0) {
    catalogue->SetCurrent(i);
  } else if (!QFileExists(p.c_str()) || !AddToDir(p.c_str())) {
    return;  // as a failed load: nothing changes
  } else {
    catalogue->SetCurrent(catalogue->Count() - 1);
  }
  curFile = p.c_str();
}

// ---------------------------------------------------------------------------------------------
// Keys and the main loop
// ---------------------------------------------------------------------------------------------

void RaceManager::HandleEvent(QEvent* e) {
  if (!e || e->type != QEVENT_KEYPRESS) return;
  RestartAdvance();
  if (e->n == QK_ESCAPE) {
    if (QGetApp()) QGetApp()->Exit(0);
    return;
  }
  // Someone at the dark screen wants to see it: the press wakes it and does nothing else.
  if (!displayOn) {
    HoldDisplay(true, "key", true);
    return;
  }
  // Each key does what its command does, through the same code.
  const Command c = KeyCommand(e->n, (flags & SHOW_INFO) != 0);
  if (c.kind != Command::NONE) RunCommands({c}, this);
}

void RaceManager::SetBlackAndWhite(bool on) { SetEffects(on, -1, true); }

void RaceManager::SetShowInfo(bool on) { SetEffects(-1, on, false); }

void RaceManager::SetEffects(int blackAndWhite, int showInfo, bool reload) {
  if (ini && blackAndWhite >= 0) ini->SetBool("effects.black_and_white", blackAndWhite != 0);
  if (ini && showInfo >= 0) ini->SetBool("effects.show_info", showInfo != 0);
  if (blackAndWhite < 0 && showInfo < 0) return;
  SaveIni();
  if (showInfo >= 0) {
    flags = showInfo ? flags | SHOW_INFO : flags & ~SHOW_INFO;
    dirty = true;
  }
  if (reload && blackAndWhite >= 0) LoadCurImage();
}

bool RaceManager::IsBlackAndWhite() const {
  return ini && ini->GetBool("effects.black_and_white", false);
}

void RaceManager::SetPaused(bool on) {
  if (paused == on) return;
  paused = on;
  // The motion goes on from where the pause held it.
  const auto now = std::chrono::steady_clock::now();
  if (on) motionHeldAt = now;
  else motionStart += now - motionHeldAt;
  QNOTE("RaceManager::SetPaused", on ? "Advance paused" : "Advance resumed");
  RestartAdvance();
}

void RaceManager::RestartAdvance() {
  if (advanceMs > 0)
    advanceAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(advanceMs);
}

void RaceManager::AdvanceStep() {
  const int before = shownCount;
  for (int tries = 0; tries < catalogue->Count() && shownCount == before; ++tries) NextImage();
  RestartAdvance();
}

int RaceManager::SleepMs() const {
  using namespace std::chrono;
  if (dirty && !fadeStarted) return 0;
  // What the library's walk found while a picture went to the screen is taken in now.
  if (!newPicture && catalogue->HasFound()) return 0;
  // Without a limit (-1) the loop sleeps until something wakes it.
  long long ms = idleSleepMs > 0 ? idleSleepMs : -1;
  const auto atMost = [&ms](long long due) { ms = ms < 0 ? due : std::min(ms, due); };
  // A fade draws a frame every 16 ms at the most; where the swap waits for the display's
  // refresh, that wait counts towards it.
  const auto now = steady_clock::now();
  if (fadeStarted || Moving())
    atMost(std::max<long long>(0, 16 - duration_cast<milliseconds>(now - frameAt).count()));
  // An animation's advance waits for the end of its loop, which a frame's time brings.
  if (advanceMs > 0 && !paused && displayOn && !newPicture && !animation)
    atMost(std::max<long long>(0, duration_cast<milliseconds>(advanceAt - now).count() + 1));
  if (animation && !newPicture)
    atMost(std::max<long long>(0, duration_cast<milliseconds>(animNextAt - now).count()));
  if (sharpenDue)
    atMost(std::max<long long>(0, duration_cast<milliseconds>(sharpenAt - now).count() + 1));
  if (shotOwed && !dirty)
    atMost(std::max<long long>(0, duration_cast<milliseconds>(shotAt - now).count() + 1));
  if (rescanMs > 0)
    atMost(std::max<long long>(0, duration_cast<milliseconds>(rescanAt - now).count() + 1));
  // The next edge of the schedule, looked at again at least once a minute: the wall clock may
  // be set while the loop sleeps on the steady one.
  if (edgeAt >= 0) {
    const long long toEdge =
        duration_cast<milliseconds>(system_clock::from_time_t(edgeAt) - Schedule::Now()).count();
    atMost(std::min<long long>(std::max<long long>(0, toEdge + 1), kScheduleLookMs));
  }
  return int(ms);
}

void RaceManager::Run() {
  QApp* app = QGetApp();
  if (!app) qfatal("RaceManager::Run(); no application");
  if (canvas) canvas->DrawBackBuffer();
  app->Run1();
  app->SetIdleProc(&RaceManager::IdleProc);
  app->SetExitProc(&RaceManager::ExitProc);
  for (;;) {
    // Asleep until a key, a window event, a datagram or a folder change comes, or until what the
    // loop does by itself (a frame owed, a fade's or an animation's next frame, the advance) is
    // due.
    QEventWait(SleepMs());
    FollowSchedule();
    // Before the keys, so that a step goes to the folder as it now is.
    FollowFolder();
    TakeFound();
    FollowLibrary();
    while (QEventPending()) {
      QEvent* e = app->GetCurrentEvent();
      QEventNext(e);
      // A window event (expose, resize, focus) may have spoilt what is shown; keys and the
      // pointer change nothing by themselves (what a key does asks for its own frame).
      if (e->type != QEVENT_KEYPRESS && e->type != QEVENT_KEYRELEASE && e->type != QEVENT_MOTION)
        dirty = true;
      HandleEvent(e);
    }
    // The desktop may have given the window another size (the events above carried it).
    FollowWindowSize();
    if (sharpenDue && std::chrono::steady_clock::now() >= sharpenAt) Sharpen();
    if (commands) commands->Drain();
    if (remote) remote->Drain();
    if (animation && !g_stopSignal && !newPicture && std::chrono::steady_clock::now() >= animNextAt)
      NextFrame();
    if (advanceMs > 0 && !paused && displayOn && !g_stopSignal && !newPicture && !animation &&
        std::chrono::steady_clock::now() >= advanceAt)
      AdvanceStep();
    // A moving picture's next frame, at the fade's pace.
    if (Moving() && std::chrono::steady_clock::now() - frameAt >= std::chrono::milliseconds(16))
      dirty = true;
    IdleProc();
    if (remote) remote->Update(*this);
    if (const int sig = g_stopSignal) {
      QNOTE("RaceManager::Run", "Signal %d (%s): ending", sig, strsignal(sig));
      app->Exit(0);
    }
  }
}

void RaceManager::RequestStop(int signal) {
  g_stopSignal = signal;
  QBitMap::RequestStop();  // a decode under way gives up, so the loop ends within a second
}

bool RaceManager::StopRequested() { return g_stopSignal != 0; }

void RaceManager::IdleProc() {
  RaceManager* rm = g_raceManager;
  if (rm && !rm->dirty && rm->prefetchDue) {
    rm->prefetchDue = false;
    rm->PrefetchNeighbours();
  }
  // Only while no frame is owed: a fade's frames are on their way to the picture it ends on,
  // which is what counts.
  if (rm && !rm->dirty) rm->TakeScreenShot();
  if (!rm || !rm->dirty) return;
  rm->dirty = false;
  rm->frameAt = std::chrono::steady_clock::now();
  rm->Paint();
  if (rm->window) rm->window->Swap();
  if (!rm->firstFrameOut) {
    rm->firstFrameOut = true;
    rm->catalogue->FirstShown();
  }
  // The black frame is out: the monitor may sleep now.
  if (!rm->displayOn && !rm->monitorOff && rm->window) {
    rm->window->SetMonitorPower(false);
    rm->monitorOff = true;
  }
  if (rm->shots) rm->OweScreenShot();
  if (rm->newPicture) {
    // On the screen now: the advance and the first frame's time count from here.
    rm->newPicture = false;
    rm->RestartAdvance();
    rm->motionStart = rm->motionHeldAt = std::chrono::steady_clock::now();
    rm->animNextAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(rm->animDelayMs);
  }
  if (rm->prefetchDue) {
    rm->prefetchDue = false;
    rm->PrefetchNeighbours();
  }
}

void RaceManager::WantScreenShots(ScreenShot::Sink sink) {
  shots.reset();
  shotOwed = false;
  if (!sink) return;
  shots.reset(new ScreenShot(std::move(sink)));
  // What is on the screen now is the first.
  OweScreenShot();
}

void RaceManager::OweScreenShot() {
  const auto now = std::chrono::steady_clock::now();
  if (!shotOwed) shotLatest = now + std::chrono::milliseconds(SHOT_INTERVAL_MS);
  shotOwed = true;
  shotAt = std::min(now + std::chrono::milliseconds(SHOT_SETTLE_MS), shotLatest);
}

void RaceManager::TakeScreenShot() {
  if (!shots || !shotOwed || !canvas) return;
  const auto start = std::chrono::steady_clock::now();
  if (start < shotAt) return;
  shotOwed = false;
  // The frame is drawn again and read from the back buffer: after a swap the back buffer's
  // contents are undefined, and the front buffer cannot be read everywhere (EGL, a flipping
  // driver). The next frame clears it anyway. It is drawn smaller, down to twice the shot's
  // width (the worker's average then still has whole pixels to take): at 1920 pixels a quarter
  // of the painting and the reading.
  canvas->SetShrink(canvas->GetWidth() / (2 * ScreenShot::MAX_WIDTH));
  Paint();
  std::unique_ptr<QBitMap> frame(new QBitMap());
  const bool read = canvas->ReadPixels(frame.get());
  canvas->SetShrink(1);
  if (!read) return;
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  QDBG("RaceManager::TakeScreenShot", "Screen shot %dx%d read in %.2f ms\n", frame->GetWidth(),
       frame->GetHeight(), ms);
  shots->Take(std::move(frame));
}

void RaceManager::ExitProc() {
  QDBG("RaceManager::ExitProc", "RaceManager: exit; releasing the slideshow");
  delete g_raceManager;
  g_raceManager = nullptr;
  QDBG("RaceManager::ExitProc", "RaceManager: released");
}
