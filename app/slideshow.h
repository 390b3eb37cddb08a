// RaceManager: the slideshow's one controller. It reads "glimra.ini", makes the application and
// its window, opens the command socket, keeps the catalogue of pictures of the working
// directory and runs the main loop: keys, then one idle cycle (paint, swap, 100 ms sleep, one
// command datagram). The sleep is "dev.idle_sleep_ms", 100 ms unless a test shortens it.
//
// What stays true: at most one texture and one mesh exist, both owned here and replaced together
// by each successful load; a failed load leaves the picture, `curFile` and `curImage` as they
// were. The catalogue holds at most MAX_IMAGES lower-cased names; `curImage` is -1 or an index
// below `imageCount`. The configuration is owned and stays open for the whole run, so the keys
// B, C and I can write their choice back at once. The window and the application are borrowed
// (the application owns them); the font is owned but, like the window, lives to the end of the
// process.
//
// One controller per process, reachable through QGetRaceManager() by the application's
// callbacks. Main thread only.
#pragma once

#include <cstdint>

#include "framework/qstring.h"
#include "framework/qtimer.h"

class DBitMapTexture;
class DMesh;
class QCanvas;
struct QEvent;
class QFont;
class QIni;
class QShell;
class QNSocket;

class RaceManager {
 public:
  static constexpr int MAX_IMAGES = 2000;
  // `flags` bit: the information overlay is shown.
  static constexpr uint32_t SHOW_INFO = 2;
  // Default pause of an idle cycle ("dev.idle_sleep_ms"), which paces frames and commands.
  static constexpr int IDLE_SLEEP_MS = 100;

  // Milliseconds spent in each phase of the last successful load: reading the file, the grey
  // conversion (0 when black-and-white is off), the EXIF parse, turning upright, and making
  // the texture and quad.
  struct LoadTimes {
    double read = 0, grey = 0, exif = 0, turn = 0, upload = 0;
  };

  // Empty catalogue, nothing loaded; becomes the process's controller.
  RaceManager();
  // Releases the configuration, the texture (when this was its last holder), the mesh, the
  // timer and the catalogue; the font and the window end with the process.
  ~RaceManager();

  // The whole start: configuration, console, command socket, idle pause, application and window,
  // font, start-up directory, catalogue, first picture (or `arg`, which may be null). A font
  // that cannot be made or a command port that cannot be opened ends the program (fatal).
  void Setup(const char* arg);

  // ---- Catalogue ----
  // Rebuilds the catalogue from the working directory; stops, with the AddToDir warning, at
  // MAX_IMAGES. Leaves `curImage` -1.
  void ScanDir();
  // Appends `name` lower-cased; false when it is already listed (debug note) or the catalogue
  // is full (warning).
  bool AddToDir(const char* name);
  // Index of `name` (compared lower-cased, byte for byte), or -1.
  int FindImage(const char* name) const;
  // Step through the catalogue with wrap-around and load the new current picture; an empty
  // catalogue only sets `curImage` to -1. From -1, PrevImage lands on imageCount - 2.
  void NextImage();
  void PrevImage();

  // ---- Loading and painting (slideshow_load.cpp) ----
  // Loads and shows `path` and logs its phase times at debug level; a file that cannot be read
  // logs "Can't load image (%s)" and changes nothing (the phase times included).
  void LoadNewImage(const char* path);
  // Reloads `curFile`; nothing when it is empty.
  void LoadCurImage();
  // Draws one frame into the back buffer; the caller presents it. Nothing without a window.
  void Paint();
  // Overlay text with a drop shadow at window pixel (x, y), y downward.
  void DrawText(const char* text, int x, int y);

  // ---- Main loop ----
  // Key presses: Escape exits, Left/Right step, B/C switch black-and-white (written to the
  // configuration file), I toggles the overlay (likewise). Everything else is ignored.
  void HandleEvent(QEvent* e);
  // The main loop; never returns (Escape ends the process through QApp::Exit, and so does a
  // stop request, with status 0, at the end of the cycle it arrives in).
  [[noreturn]] void Run();
  // Asks the main loop to end the program; `signal` names the reason in the log. Only stores a
  // number, so a signal handler may call it.
  static void RequestStop(int signal);
  // The application's callbacks: one idle cycle, and the exit that destroys the controller.
  static void IdleProc();
  static void ExitProc();

  // ---- State, for the overlay and for tests ----
  int GetImageCount() const { return imageCount; }
  int GetCurImage() const { return curImage; }
  const char* GetImage(int i) const { return i >= 0 && i < imageCount ? images[i].cstr() : ""; }
  const char* GetCurFile() const { return curFile.cstr(); }
  uint32_t GetFlags() const { return flags; }
  int GetNetPort() const { return netPort; }
  const DBitMapTexture* GetTexture() const { return texture; }
  const DMesh* GetMesh() const { return mesh; }
  const LoadTimes& GetLoadTimes() const { return loadTimes; }
  int GetIdleSleepMs() const { return idleSleepMs; }
  // Attach a configuration (owned from then on) and the window to draw into (borrowed) without
  // the rest of the start-up; Setup uses them, and so can tests and tools that drive the
  // catalogue and the loader. Without a window nothing is painted and no quad is made.
  void SetIni(QIni* newIni);
  void SetWindow(QShell* win);

 private:
  // Writes a changed key to the configuration file at once, without asking.
  void SaveIni();
  // Lets go of the texture: deleted when this was its last holder (or it never got a GL name).
  void ReleaseTexture();

  // Field order follows the controller's record layout; see the header text for ownership.
  QIni* ini = nullptr;
  uint32_t flags = 0;
  qstring lastName;
  QTimer* timer = nullptr;
  int32_t netPort = 0;
  QShell* window = nullptr;
  qstring curFile;
  DBitMapTexture* texture = nullptr;
  DMesh* mesh = nullptr;
  QFont* font = nullptr;
  qstring images[MAX_IMAGES];
  int32_t imageCount = 0;
  int32_t curImage = -1;

  QCanvas* canvas = nullptr;  // the window canvas, made with the window
  LoadTimes loadTimes;
  int idleSleepMs = IDLE_SLEEP_MS;  // read once by Setup; never negative
};

// The process's controller; null before construction and after ExitProc.
RaceManager* QGetRaceManager();

// ---- Command channel (commands.cpp) ----
// "network.port" when it is a number from 1 to 65535; otherwise (an error names the value) and
// when it is missing, 5000.
int CommandPort(QIni* ini);
// "network.listen" into `address`: false and empty when unset (every address of the machine). A
// value that is not a dotted IPv4 address logs an error and answers 127.0.0.1.
bool CommandListenAddress(QIni* ini, qstring* address);
// Opens the UDP socket "glimra_commands" on `port` of the address `listen` (null or empty: every
// local address), non-blocking. A port that cannot be opened is fatal: "Can't open UDP socket
// at port %d\n".
void OpenCommandSocket(int port, const char* listen = nullptr);
// Takes at most one waiting datagram and handles it. A datagram of 1024 bytes or more ends the
// program (commands must stay below 1024 bytes): one error line naming the size and the sender,
// then the application's exit with status 1.
void NetCheck(int port);
// "load <path>" loads <path> (everything after the blank, as it stands); anything else is
// ignored.
void HandleCommand(const char* text);
// Closes and destroys the command socket (at exit).
void CloseCommandSocket();
