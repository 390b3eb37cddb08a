// RaceManager: the slideshow's one controller. It reads "glimra.ini", makes the application and
// its window, opens the command channel and the MQTT remote control, keeps the catalogue of pictures of the working
// directory and runs the main loop: it sleeps until a key, a window event, a datagram, a change
// of the watched folder or a stop signal comes, or the automatic advance, a fade's next frame,
// an animation's next frame, a moving picture's next frame or the display schedule's next edge
// is due (at most "dev.idle_sleep_ms" when that is set); it follows the schedule and the folder,
// handles every key and every waiting command, puts a due animation frame into the texture,
// takes a due advance step (for an animation, at the end of the loop the interval ends in), then
// runs the idle cycle, which paints and presents a frame only when something changed.
//
// What stays true: the shown picture is one Slide (texture, quad, the blurred background's
// texture and strips, and the shape they were made from; with "effects.portrait_pairs" also a
// second picture beside it), replaced whole by each successful load (the one a fade leaves stays
// until it ends); a failed load leaves the picture, `curFile` and the catalogue's position as
// they were. The
// catalogue (app/catalogue.h) holds the names, each exactly as the listing (or the load) gave
// it, since pictures are opened by that name, their order and the position in it. The
// configuration is owned and stays open for the whole run, so the keys B, C and I can write
// their choice back at once. The window and the application are borrowed (the application owns
// them); everything else is owned here (the texture through its reference count).
//
// One controller per process, reachable through QGetRaceManager() by the application's
// callbacks. Main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/catalogue.h"
#include "app/pan_zoom.h"
#include "app/picture_loader.h"
#include "app/schedule.h"
#include "app/screen_shot.h"
#include "framework/qstring.h"

class Caption;
class CommandChannel;
class RemoteControl;
class QApp;
class Prefetcher;
class QAnimation;
class QBitMap;
class DBitMapTexture;
class DMesh;
class QCanvas;
class QDirWatch;
struct QEvent;
class QFont;
class QIni;
class QShell;
class QNSocket;

class RaceManager {
 public:
  // The catalogue's limit unless "app.max_pictures" sets another.
  static constexpr int MAX_IMAGES = Catalogue::DEFAULT_MAX;
  // Default of "app.rescan_minutes": how often a library too large for the kernel's watches is
  // listed again.
  static constexpr int RESCAN_MINUTES = 10;
  // `flags` bit: the information overlay is shown.
  static constexpr uint32_t SHOW_INFO = 2;
  // Default of "dev.idle_sleep_ms", the longest the main loop sleeps when nothing happens: 0
  // sleeps until something does (a key, a window event, a datagram, a folder change, a signal,
  // or what the loop itself has due), so an idle display costs no processor time.
  static constexpr int IDLE_SLEEP_MS = 0;

  // Milliseconds spent in each phase of the last successful load: reading the file, decoding,
  // reducing to the quad's size, the grey conversion (0 when black-and-white is off), the EXIF
  // parse, and making the texture and quad.
  struct LoadTimes {
    double read = 0, decode = 0, reduce = 0, colour = 0, grey = 0, exif = 0, upload = 0;
  };

  // Empty catalogue, nothing loaded; becomes the process's controller.
  RaceManager();
  // Releases the configuration, the texture (when this was its last holder), the mesh, the
  // catalogue, the font and the command channel; the window ends with the application.
  ~RaceManager();

  // The whole start: configuration, console, command socket, idle pause, application and window,
  // font, start-up directory, catalogue, first picture (or `arg`, which may be null). A font
  // that cannot be made or a command port that cannot be opened ends the program (fatal).
  void Setup(const char* arg);

  // Has the prefetcher decode the picture Setup will show first (`arg`, else what the scan will
  // list first) for a `width` x `height` window, before the window exists.
  // `app` may be null for a full-screen start, whose desktop has the window's proportions.
  void StartFirstPicture(const char* arg, QApp* app, int width, int height);

  // ---- Catalogue ----
  // Rebuilds the catalogue from the working directory; stops, with the AddToDir warning, at
  // the limit (warned once until a listing fits again). Leaves the position -1. Names in `skip`
  // are left out. A library ("app.recursive") is walked again behind the show instead, the
  // position kept.
  void ScanDir(const std::vector<std::string>& skip = {});
  // Builds the catalogue again from the scanned folder (as ScanDir, leaving out `skip`: names
  // still being written) while the picture stays on the screen: the position follows the shown
  // file to its new place; when that file has gone, it stands just before the first later
  // picture that is still there, so that Right shows that one. A shown picture from outside the
  // folder stays listed, at the end, while its file exists.
  void Rescan(const std::vector<std::string>& skip = {});
  // Appends `name` as given; false when it is already listed (debug note) or the catalogue is
  // full (warning).
  bool AddToDir(const char* name);
  // Index of the first entry equal to `name` with ASCII letters folded (qnamecmp), or -1.
  int FindImage(const char* name) const;
  // The entry a loaded `path` stands for: a file of the scanned folder (relative, absolute,
  // "./x", through a linked folder) is its listed entry; any other path is looked up as a
  // whole with FindImage. -1 when it is not listed.
  int CatalogueIndex(const char* path) const;
  // With "app.watch_directory": takes the scanned folder's changes and builds the catalogue
  // again without the pictures still being written (Rescan); when nothing is shown yet, the
  // first picture that joined is. Nothing while the folder is not watched or did not change.
  // A folder replaced under the same name is entered again (see RescanFolder).
  void FollowFolder();
  // The rescan command: the folder listed again, leaving out what is still being written
  // while it is watched. When the start-up folder was deleted or moved away and a folder of
  // that name exists again, that one is entered first, and its first picture is shown unless
  // the shown one is there too.
  void RescanFolder();
  // Step through the catalogue with wrap-around and load the new current picture; an empty
  // catalogue only sets the position to -1. From -1, PrevImage lands on the count - 2.
  void NextImage() { Step(1); }
  void PrevImage() { Step(-1); }
  // `steps` Right (negative: Left) presses, one after another, but only the picture it ends on
  // is loaded, and only when `show`.
  void Step(int steps, bool show = true);
  // Makes `path` current as its successful load would (listed at the end when it is not, if it
  // exists), without loading it: for a load that a step follows at once.
  void SelectImage(const char* path);

  // ---- Loading and painting (slideshow_load.cpp) ----
  // Loads and shows `path` and logs its phase times at debug level; a file that cannot be read
  // logs "Can't load image (%s)" and changes nothing (the phase times included).
  void LoadNewImage(const char* path);
  // Puts a loaded picture on the screen, or logs "Can't load image (%s)" for a failed one and
  // changes nothing. The picture's pixels are given to the texture and freed.
  // `prefetched` only tells the load-times line where the picture came from. `sharper` puts a
  // new decode of the shown picture in its place: no fade, and the advance goes on counting.
  // With a loaded `partner` the two are shown as a portrait pair, `picture` on the left.
  void ShowPicture(LoadedPicture* picture, bool prefetched = false, bool sharper = false,
                   LoadedPicture* partner = nullptr);
  // Follows the window's size when the desktop changed it (a window manager, a compositor, a
  // mode change): the quads of the shown and the fading picture are made again for it, one
  // frame is owed, and the neighbours are prefetched for it. When the shown picture's pixels no
  // longer cover its quad, a sharper decode is due once the size has stood for a moment.
  // Nothing while the size is the one the quads were made for.
  void FollowWindowSize();
  // The sharper decode FollowWindowSize asked for, when it is still needed.
  void Sharpen();
  // Lets the prefetcher work on the catalogue's next and previous pictures (nothing without one),
  // both of a portrait pair.
  void PrefetchNeighbours();
  // Where pictures are shown now: the window, the desktop's proportions, the texture limit.
  ScreenFit CurrentFit() const;
  // Reloads `curFile`; nothing when it is empty.
  void LoadCurImage();
  // Draws one frame into the back buffer; the caller presents it. Nothing without a window.
  void Paint();
  // Lets go of the picture a fade is leaving.
  void EndFade();
  // The shown animation's next frame into the texture, when it is due; at the end of a loop
  // the advance takes its due step instead. A frame that fails leaves the last one shown and
  // the picture still from then on.
  void NextFrame();
  // Overlay text (UTF-8) with a drop shadow at window pixel (x, y), y downward.
  void DrawText(const char* text, int x, int y);
  // The width in window pixels DrawText gives `text`.
  int TextWidth(const char* text) const;

  // ---- Effects and remote steps (keys B, C, I and the command channel) ----
  // Black and white on or off: written to the configuration file at once, then the shown
  // picture is loaded again.
  void SetBlackAndWhite(bool on);
  // The information line on or off, written to the configuration file at once.
  void SetShowInfo(bool on);
  // Both at once, each left as it is when -1, with one write of the configuration file; the
  // shown picture is loaded again only when `reload` and black and white was given.
  void SetEffects(int blackAndWhite, int showInfo, bool reload);
  // The automatic advance stopped ("pause") or going again ("resume", counting from now); a
  // note in the log when that changes. Not kept in glimra.ini: a start always advances.
  void SetPaused(bool on);
  bool IsPaused() const { return paused; }
  // Starts the automatic advance's count again (a key or a command came).
  void RestartAdvance();
  // The automatic advance's step: the next catalogue picture that loads, trying each at most
  // once; the count then starts again whatever happened, so a catalogue of bad files is tried
  // no faster than the interval.
  void AdvanceStep();
  // How long the main loop may sleep before the next thing it has to do by itself (a frame
  // owed, a fade's next frame, an animation's next frame, a moving picture's next frame, the
  // advance, the schedule's next edge); at most the idle pause when one is set; -1 when nothing
  // is due.
  int SleepMs() const;

  // ---- Display power ("display on/off", keys, "display.schedule") ----
  // Off: one black frame, the monitor powered down where the display server can (X11 DPMS),
  // nothing decoded or prefetched, the advance and any animation held; loads and steps only move
  // the catalogue's position. On: the monitor powered up and, when `show`, the current picture
  // decoded and shown, the advance counting from it. A command's choice holds until the
  // schedule's next edge (without a schedule, until the next command). A note in the log when
  // the display changes.
  void SetDisplayOn(bool on, bool show = true);
  bool IsDisplayOn() const { return displayOn; }
  // The display is off because the schedule says so, not by a command or a key.
  bool DisplayOffBySchedule() const { return !displayOn && !displayHeld; }
  // The display's weekly hours (see app/schedule.h); a malformed text leaves it always on. The
  // display takes the schedule's state at once.
  void SetSchedule(const char* text);
  // At each wake of the loop: once an edge has passed, a command's hold ends and the display
  // follows the schedule again.
  void FollowSchedule();

  // ---- Main loop ----
  // Key presses: Escape exits; Left/Right step, B/C switch black-and-white (written to the
  // configuration file), I toggles the overlay (likewise), each as its command (KeyCommand).
  // Everything else is ignored. While the display is off, any key but Escape only wakes it
  // (as "display on" does).
  void HandleEvent(QEvent* e);
  // The main loop; never returns (Escape ends the process through QApp::Exit, and so does a
  // stop request, with status 0, at the end of the cycle it arrives in).
  [[noreturn]] void Run();
  // Asks the main loop to end the program; `signal` names the reason in the log. Only stores a
  // number and asks decodes under way to give up (QBitMap::RequestStop), so a signal handler may
  // call it.
  static void RequestStop(int signal);
  // A stop was asked for: long work gives way.
  static bool StopRequested();
  // The application's callbacks: one idle cycle (paint and present when something changed), and
  // the exit that destroys the controller.
  static void IdleProc();
  static void ExitProc();
  // ---- Proof of display ----
  // From now on what the window shows is read back and handed, reduced and as a JPEG, to `sink`
  // (see app/screen_shot.h: called on a worker thread, only for a JPEG that differs from the
  // last). A frame is read once the screen has stood still SHOT_SETTLE_MS after it (a burst of
  // steps costs one read, taken while the loop has nothing else to do), or SHOT_INTERVAL_MS after
  // the first frame not yet read while the screen keeps changing (an animation); a fade only
  // once it has ended. A null `sink` stops it. "dev.screen_file" sets a sink that writes each
  // JPEG to that file.
  void WantScreenShots(ScreenShot::Sink sink);
  // The last JPEG handed over; "" when none was or nobody asked.
  std::string LatestScreenShot() const { return shots ? shots->Latest() : std::string(); }
  static constexpr int SHOT_SETTLE_MS = 300;
  static constexpr int SHOT_INTERVAL_MS = 1000;

  // Asks for a new frame at the next idle cycle.
  void Invalidate() { dirty = true; }
  bool NeedsPaint() const { return dirty; }

  // ---- State, for the overlay and for tests ----
  int GetImageCount() const { return catalogue->Count(); }
  int GetCurImage() const { return catalogue->Current(); }
  const char* GetImage(int i) const { return catalogue->Name(i); }
  Catalogue* GetCatalogue() { return catalogue.get(); }
  const char* GetCurFile() const { return curFile.cstr(); }
  uint32_t GetFlags() const { return flags; }
  int GetNetPort() const { return netPort; }
  const DBitMapTexture* GetTexture() const { return slide.texture.get(); }
  const DMesh* GetMesh() const { return slide.mesh.get(); }
  const LoadTimes& GetLoadTimes() const { return loadTimes; }
  // Pictures put on the screen so far: a load that changed nothing leaves it.
  int GetShownCount() const { return shownCount; }
  // Loads that failed so far (a load given up for a stop is no failure).
  int GetFailureCount() const { return failureCount; }
  // What "effects.black_and_white" says now.
  bool IsBlackAndWhite() const;
  // Attach a configuration (owned from then on) and the window to draw into (borrowed) without
  // the rest of the start-up; Setup uses them, and so can tests and tools that drive the
  // catalogue and the loader. Without a window nothing is painted and no quad is made.
  void SetIni(QIni* newIni);
  void SetWindow(QShell* win);

 private:
  // Lets go of a texture: deleted when this was its last holder (or it never got a GL name).
  struct TextureRelease {
    void operator()(DBitMapTexture* t) const;
  };
  // What is shown together: one picture's texture and the quad showing it, replaced together,
  // and what the quad was made from (size and orientation, no pixels), so that a new window size
  // can make the quad again; for a portrait pair the right-hand picture is `pair`, so that a
  // fade takes both. Empty: no texture and no quad.
  struct Slide {
    std::unique_ptr<DBitMapTexture, TextureRelease> texture;  // shared by reference count
    std::unique_ptr<DMesh> mesh;  // null without a window
    // "effects.background=blur": the small blurred copy, and the strips left and right of the
    // quad that show it (null where the quad leaves nothing free).
    std::unique_ptr<DBitMapTexture, TextureRelease> back;
    std::unique_ptr<DMesh> sides[2];
    LoadedPicture shape;
    std::unique_ptr<Slide> pair;  // null for a picture shown alone
    explicit operator bool() const { return texture != nullptr; }
    // Lets go of all of it (and of the pair), the quads first: they draw the textures.
    void Clear();
  };

  // The quad for `picture`'s shape with its texture on it, filling the window's height as it is
  // now (which it records), or its half for `half`; null without a window or texture.
  std::unique_ptr<DMesh> MakeQuad(const Slide& picture, bool half = false);
  // The strips of `picture`'s background beside its quad (or its pair's two), for the window as
  // it is now: the picture scaled to cover the window, turned as the quad is. None without a
  // background.
  void MakeSides(Slide* picture);
  // Draws `picture`'s background strips darkened by "effects.blur_dim", at `weight` of a fade.
  void PaintSides(const Slide& picture, float weight, bool add) const;
  // The quads of `s` for the window as it is now: one centred, or a pair side by side.
  void PlaceQuads(Slide* s);
  // "effects.portrait_pairs" is on and the window is wider than high.
  bool PairsWanted() const;
  // Whether the picture `path` is portrait: 1 or 0 from the prefetcher's decode or the file's
  // head, -1 when neither tells.
  int Portrait(const std::string& path);
  // The catalogue's picture after `first` (loaded for `fit`) when both are portrait and may
  // pair: decoded for its half into `partner`, and `first` shrunk to its own half. False
  // (nothing changed) when they do not pair; a partner that fails to load is warned about.
  bool LoadPartner(LoadedPicture* first, const ScreenFit& fit, bool grey, LoadedPicture* partner);
  // The prefetched `path` for `fit`, else loaded now; true when it came from the prefetcher.
  bool Fetch(const std::string& path, const ScreenFit& fit, bool grey, LoadedPicture* out);
  // Pan and zoom is on and the advance runs: the shown still picture has a motion.
  bool HasMotion() const;
  // The shown picture is on its way (not held, not at its end): frames are due.
  bool Moving() const;
  // How far the shown picture's motion has come, 0 to 1.
  double MotionProgress() const;
  // Writes a changed key to the configuration file at once, without asking.
  void SaveIni();
  // The catalogue's options from the configuration and the library's folder, and the index opened.
  void OpenCatalogue();
  // What the library's walk found joins the catalogue; the first picture is shown when nothing is.
  void TakeFound();
  // A library the kernel could not watch whole is listed again every "app.rescan_minutes".
  void FollowLibrary();
  // The picture a start shows without an argument: the one it resumes at while it exists, else
  // the library's first found (waiting a moment for the walk) or the folder's first; empty when
  // there is none.
  std::string FirstPicture();
  // The display on or off for `why` ("schedule", "command", "key"); see SetDisplayOn.
  void ApplyDisplay(bool on, const char* why, bool show);
  // As ApplyDisplay, held against the schedule until its next edge.
  void HoldDisplay(bool on, const char* why, bool show);
  // A frame was presented: a screen shot is owed (see WantScreenShots for when).
  void OweScreenShot();
  // Reads the frame presented last for the screen shots when one is owed and due; it costs the
  // main loop the frame drawn again and read.
  void TakeScreenShot();
  // Enters `home` again when it was replaced (QReenterDirectory); true when it did.
  bool ReturnHome();
  // Once the folder entered again lists pictures: the shown name read again from it, else its
  // first picture shown.
  void ShowReturned();

  // Field order follows the controller's record layout; see the header text for ownership.
  std::unique_ptr<QIni> ini;
  uint32_t flags = 0;
  int32_t netPort = 0;
  QShell* window = nullptr;
  qstring curFile;
  Slide slide;  // the shown picture
  // The next load may show its picture paired with the next one (a step back that found no pair
  // before shows the picture alone).
  bool mayPair = true;
  std::unique_ptr<QFont> font;
  std::unique_ptr<Catalogue> catalogue;  // the names, their order and the position
  qstring folder;  // the scanned folder's real path, empty before a scan
  qstring home;    // the start-up folder's absolute path, entered again when replaced
  // A library the kernel could not watch whole is listed again at `rescanAt`
  // ("app.rescan_minutes").
  int rescanMs = 0;  // 0 while every folder is watched
  double rescanMinutes = RESCAN_MINUTES;
  std::chrono::steady_clock::time_point rescanAt;
  bool returned = false;   // `home` was entered again and nothing of it is shown yet

  std::unique_ptr<QCanvas> canvas;  // the window canvas, made with the window
  LoadTimes loadTimes;
  int idleSleepMs = IDLE_SLEEP_MS;  // read once by Setup; never negative, 0 for no limit
  std::unique_ptr<CommandChannel> commands;
  std::unique_ptr<RemoteControl> remote;  // null unless "mqtt.host" is set
  std::unique_ptr<Prefetcher> prefetcher;  // made by Setup; tests and tools load directly
  // Automatic advance ("effects.advance_seconds"; 0: off): the next step is due at
  // `advanceAt`, counted from when the shown picture reached the screen.
  int advanceMs = 0;
  std::chrono::steady_clock::time_point advanceAt;
  bool paused = false;  // the "pause" command holds the advance
  // Power: the display's state, whether a command or key holds it against the schedule until
  // the edge `edgeAt` (-1: none known), when that edge was worked out (the wall clock may be set
  // back), and whether the monitor was powered down after the black frame.
  Schedule schedule;
  bool displayOn = true;
  bool displayHeld = false;
  time_t edgeAt = -1;
  time_t edgeFrom = 0;
  bool monitorOff = false;
  bool newPicture = false;  // a picture was shown whose first frame is not out yet
  bool firstFrameOut = false;  // the start's first frame was drawn (a library's walk waits for it)
  int shownCount = 0;       // pictures shown so far, to tell a step that failed
  int failureCount = 0;     // loads that failed so far
  // Pan and zoom ("effects.pan_zoom", only with the advance): the shown still picture moves
  // through `motion` over the advance's interval from its first frame (`motionStart`); a pause
  // holds it from `motionHeldAt` and moves the start on by the time held. A fading picture
  // stands where it was.
  bool panZoom = false;
  PanZoom motion;
  std::chrono::steady_clock::time_point motionStart, motionHeldAt;
  // Fade ("effects.fade_ms"; 0: a cut): while it runs, the previous picture is kept and drawn
  // under the new one.
  int fadeMs = 0;
  Slide fadeSlide;
  // "effects.background=blur" and what its colours are multiplied by (1 - "effects.blur_dim").
  bool blurBackground = false;
  float backgroundWeight = 1.0f;
  std::chrono::steady_clock::time_point fadeStart;
  bool fadeStarted = false;  // its first frame is out: `fadeStart` holds
  std::chrono::steady_clock::time_point frameAt;  // when the last frame was begun
  std::unique_ptr<QDirWatch> watch;  // the scanned folder's changes; null unless watched
  bool dirty = true;  // the screen no longer shows the current state
  bool prefetchDue = false;  // the neighbours are to be prefetched once the frame is out
  int shownWidth = 0, shownHeight = 0;  // the shown picture's own size, turned upright
  // "effects.caption": null without a pattern; the shown picture's line, "" when it has none.
  std::unique_ptr<Caption> captions;
  std::string caption;
  // The window size the quads were made for.
  int quadWindowWidth = 0, quadWindowHeight = 0;
  bool sharpenDue = false;  // FollowWindowSize found the shown picture's pixels too few
  std::chrono::steady_clock::time_point sharpenAt;
  // The shown picture's animation (null for a still), the bitmap its frames are reduced into,
  // whether they are made grey, and when the next one is due.
  std::unique_ptr<QAnimation> animation;
  std::unique_ptr<QBitMap> animFrame;
  bool animGrey = false;
  int animDelayMs = 0;  // the shown frame's
  std::chrono::steady_clock::time_point animNextAt;
  // Proof of display: null unless asked for; a frame was presented that is not read yet; it is
  // read at `shotAt`, which never passes `shotLatest`.
  std::unique_ptr<ScreenShot> shots;
  bool shotOwed = false;
  std::chrono::steady_clock::time_point shotAt, shotLatest;
};

// The process's controller; null before construction and after ExitProc.
RaceManager* QGetRaceManager();
