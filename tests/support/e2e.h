// End-to-end harness: the real glimra on a private X server, driven from outside (datagrams,
// xdotool keys, grabs, its log and glimra.ini), each Program in a temporary folder of its own.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/tempdir.h"

namespace e2e {

// Time-outs: software GL under the sanitizers is slow to come up.
constexpr int kStartMs = 30000, kStepMs = 10000;
// The end a stop promises; the sanitizers' leak check at exit alone takes seconds.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::chrono::milliseconds kStopWithin(5000);
#else
constexpr std::chrono::milliseconds kStopWithin(1000);
#endif

// Starts the X server `exe` with `args` on a free display and points DISPLAY at it.
bool StartX(const char* exe, const std::vector<std::string>& args);
bool StartXvfb(int w, int h);
void StopX();
// True when Xvfb, xdotool and xwd are installed.
bool HaveTools();
// Asks `done` every 50 ms until it holds or `ms` pass; answers its last verdict.
bool Poll(int ms, const std::function<bool()>& done);

struct Screen {
  int width = 0;
  int height = 0;
  std::vector<uint32_t> rgb;  // 0xRRGGBB, rows from the top
  // 0 outside the screen.
  uint32_t At(int x, int y) const {
    return x >= 0 && y >= 0 && x < width && y < height ? rgb[size_t(y) * width + x] : 0;
  }
};
inline int R(uint32_t c) { return int(c >> 16) & 255; }
inline int G(uint32_t c) { return int(c >> 8) & 255; }
inline int B(uint32_t c) { return int(c) & 255; }
// True when every channel of `c` is within `tol` of those of `want` (0xRRGGBB).
bool Is(uint32_t c, uint32_t want, int tol = 24);
// Colours the end-to-end pictures use; far apart, so a tolerance of 24 tells them apart.
constexpr uint32_t kRed = 0xDC1414, kGreen = 0x14DC14, kBlue = 0x1414DC, kWhite = 0xE6E6E6;
// The whole root window of DISPLAY.
bool GrabScreen(Screen* out);
// Grabs until `ok` holds or `ms` pass; answers the last grab's verdict (the grab stays in `out`).
bool WaitForScreen(const std::function<bool(const Screen&)>& ok, int ms, Screen* out);

// A w x h picture of `color(x, y)` (y from the top): JPEG for .jpg/.jpeg, else 32-bit Targa.
bool WritePicture(const std::string& path, int w, int h,
                  const std::function<uint32_t(int x, int y)>& color);
// Photo-like: smooth colour fields with fine detail and some grain.
uint32_t Photo(int x, int y);
// A 40 x 30 picture of one colour.
bool Uniform(const std::string& path, uint32_t c);
// A w x h RGBA PNG of `depth` bits whose rows repeat the first: gigabytes in a megabyte or two.
std::string RepeatedRowsPng(int w, int h, int depth);
// Puts a minimal EXIF segment carrying only `orientation` right after a JPEG's start marker.
bool SetJpegOrientation(const std::string& path, int orientation);
// 400 x 300 JPEG, stored red/green over blue/white, that asks for `orientation`.
bool WriteQuadrants(const std::string& path, int orientation);

// Times `text` occurs in `in`.
int Count(const std::string& in, const std::string& text);
// The number after `key` ("VmRSS:", "rchar:") in /proc/<pid>/<file>; -1 when unknown.
long long ProcValue(pid_t pid, const char* file, const char* key);
// Processor time (user and system) `pid` has used so far in ms; hugely negative when unknown.
long CpuMs(pid_t pid);
// Times the threads of `pid` went to sleep so far, all together; -1 when unknown.
long Wakes(pid_t pid);
// Processes on the machine whose executable is named glimra.
int RunningCopies();
// A UDP (or, with `stream`, TCP) port of 127.0.0.1 that was free a moment ago; -1 on failure.
int FreePort(bool stream = false);
// Sends one datagram of exactly these bytes to 127.0.0.1:port, from the loopback address `from`.
bool SendUdp(int port, const std::string& bytes, const char* from = "127.0.0.1");

class Program {
 public:
  Program() = default;
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Makes the empty folder alone; false when mkdir fails.
  bool MakeDir();
  // The folder with a copy of the build's runnable folder, listening on `port`; false on failure.
  bool Prepare(int port = FreePort());
  const std::string& Dir() const { return dir_; }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  int Port() const { return port_; }
  // Sets a key of the folder's glimra.ini (before Start).
  bool SetKey(const char* key, const char* value);
  // The value of a key as the file now holds it ("" when missing).
  std::string Key(const char* key) const;
  // Waits until glimra.ini holds key=value.
  bool WaitForKey(const char* key, const std::string& value, int ms = kStepMs) const;

  // Runs the folder's glimra from "/" with the optional argument; output into "out.txt".
  bool Start(const char* arg = nullptr);
  // Runs `exe` with `args` in `cwd` (empty: the folder); false when fork fails.
  bool Run(const std::string& exe, const std::vector<std::string>& args,
           const std::string& cwd = "");
  pid_t Pid() const { return pid_; }
  // Exit status within `ms`; -1 on time-out, -2 on a signal. Leaks through our code fail the test.
  int WaitExit(int ms);
  // Expects an end with `status` through the exit path that releases the slideshow.
  void ExpectOrderlyExit(int status = 0);
  // The program's window, once it exists (within `ms`); "" otherwise.
  std::string WindowId(int ms);
  // Focuses the window and types `keys` (xdotool key names, blank-separated), `delayMs` apart.
  bool Keys(const std::string& keys, int delayMs = 150);
  // Presses Escape and answers the exit status as WaitExit does (-1 when the key was not typed).
  int Escape() { return Keys("Escape") ? WaitExit(kStartMs) : -1; }
  // Sends one datagram of exactly these bytes to the command port.
  bool Send(const std::string& bytes) const;

  std::string Log() const { return ReadFile("QLOG.txt"); }
  std::string ReadFile(const std::string& name) const;
  // Waits until QLOG.txt holds `text` at least `count` times.
  bool WaitForLog(const std::string& text, int ms, int count = 1) const;

 private:
  std::string dir_;
  int port_ = 0;
  pid_t pid_ = -1;
};

// A suite on its own W x H Xvfb; skipped without the tools, the program, or when another copy runs.
template <int W, int H>
class ScreenTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (HaveTools() && (!also_ || Have(also_))) xvfb_ = StartXvfb(W, H);
  }
  static void TearDownTestSuite() { StopX(); }
  void SetUp() override {
    if (!xvfb_)
      GTEST_SKIP() << "needs Xvfb, xdotool and xwd" << (also_ ? " and " : "") << (also_ ? also_ : "");
    if (access(GLIMRA_BUILD_DIR "/glimra", X_OK) != 0) GTEST_SKIP() << "glimra is not built";
    if (RunningCopies() > 0) GTEST_SKIP() << "another glimra is running";
  }
  // Grabs into screen_ until `ok` holds.
  bool Sees(const std::function<bool(const Screen&)>& ok, int ms = kStepMs) {
    return WaitForScreen(ok, ms, &screen_);
  }
  // Waits until the centre of the screen shows `want`.
  bool Shows(uint32_t want, int ms = kStepMs) {
    return Sees([&](const Screen& s) { return Is(s.At(W / 2, H / 2), want); }, ms);
  }
  static inline bool xvfb_ = false;
  static inline const char* also_ = nullptr;
  Screen screen_;
};

}  // namespace e2e
