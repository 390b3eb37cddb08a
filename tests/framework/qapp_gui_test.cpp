// The framework's window as glimra-wintest opens it on a private Xvfb (keys reach no other window).
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "support/e2e.h"

namespace {

// What a window manager sends when the user closes a window: WM_DELETE_WINDOW.
const char* kCloseScript = R"PY(
import ctypes as c, sys
x = c.cdll.LoadLibrary("libX11.so.6")
x.XOpenDisplay.restype = c.c_void_p; x.XOpenDisplay.argtypes = [c.c_char_p]
x.XInternAtom.restype = c.c_ulong; x.XInternAtom.argtypes = [c.c_void_p, c.c_char_p, c.c_int]
x.XSendEvent.argtypes = [c.c_void_p, c.c_ulong, c.c_int, c.c_long, c.c_void_p]
x.XFlush.argtypes = [c.c_void_p]; x.XCloseDisplay.argtypes = [c.c_void_p]
class Ev(c.Structure):
    _fields_ = [("type", c.c_int), ("serial", c.c_ulong), ("send_event", c.c_int),
                ("display", c.c_void_p), ("window", c.c_ulong), ("message_type", c.c_ulong),
                ("format", c.c_int), ("l", c.c_long * 5), ("pad", c.c_long * 24)]
d = x.XOpenDisplay(None)
ev = Ev(); ev.type = 33; ev.window = int(sys.argv[1]); ev.format = 32
ev.message_type = x.XInternAtom(d, b"WM_PROTOCOLS", 0)
ev.l[0] = x.XInternAtom(d, b"WM_DELETE_WINDOW", 0)
x.XSendEvent(d, ev.window, 0, 0, c.byref(ev)); x.XFlush(d); x.XCloseDisplay(d)
)PY";

using Lines = std::vector<std::string>;

class WinTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!e2e::HaveTools() || !e2e::Have("xwininfo") || !e2e::StartXvfb(1280, 1024)) return;
    xvfb_ = true;
    // Xvfb takes control+alt+F1..F12 as console switches; the framework needs the keys.
    (void)system("setxkbmap -option srvrkeys:none >/dev/null 2>&1");
  }
  static void TearDownTestSuite() { e2e::StopX(); }

  void SetUp() override {
    if (!xvfb_) GTEST_SKIP() << "needs Xvfb, xdotool, xwd and xwininfo";
    if (access(tool_.c_str(), X_OK) != 0) GTEST_SKIP() << "glimra-wintest is not built";
    ASSERT_TRUE(p_.MakeDir());
  }

  // Starts the tool and answers its first three lines once the frame is reported.
  Lines Start(int w, int h, bool full) {
    EXPECT_TRUE(p_.Run(tool_, {p_.Dir(), std::to_string(w), std::to_string(h),
                               full ? "fullscreen" : "windowed"}));
    seen_ = 3;
    return Wait(3);
  }
  // The tool's report lines after the first `skip`, once there are `count` of them (or 10 s).
  Lines Wait(size_t count, size_t skip = 0) {
    Lines got;
    for (int i = 0; i < 200 && got.size() < count; ++i, usleep(50 * 1000)) {
      got.clear();
      std::istringstream in(p_.ReadFile("out.txt"));
      size_t n = 0;
      // The driver may write to the same file; only the tool's own lines count.
      for (std::string l; std::getline(in, l);)
        if (l.rfind("key ", 0) == 0 || l.rfind("viewport ", 0) == 0 ||
            l.rfind("window ", 0) == 0 || l.rfind("pixel ", 0) == 0 || l == "ready")
          if (n++ >= skip) got.push_back(l);
    }
    return got;
  }
  // Types `keys` and answers the `count` report lines that follow.
  Lines Keys(const std::string& keys, size_t count) {
    EXPECT_TRUE(p_.Keys(keys));
    const Lines got = Wait(count, seen_);
    seen_ += got.size();
    return got;
  }
  int Geometry(const std::string& wid, const char* field) {
    std::istringstream in(e2e::Capture("xwininfo -id " + wid));
    for (std::string line; std::getline(in, line);) {
      const size_t at = line.find(field);
      if (at != std::string::npos) return atoi(line.c_str() + at + strlen(field));
    }
    return -99999;
  }
  // Sends the window manager's close request and answers the tool's exit status.
  int CloseAndWait(const std::string& wid) {
    const std::string script = p_.Path("close.py");
    if (!WriteFile(script, kCloseScript) || system(("python3 " + script + " " + wid).c_str()) != 0)
      return -3;
    return p_.WaitExit(10000);
  }

  static bool xvfb_;
  const std::string tool_ = GLIMRA_BUILD_DIR "/tools/glimra-wintest";
  e2e::Program p_;
  size_t seen_ = 0;
};
bool WinTest::xvfb_ = false;

TEST_F(WinTest, WindowFrameKeysScreenshotAndCloseRequest) {
  ASSERT_EQ(Start(320, 240, false), (Lines{"window 320 240 fullscreen 0", "pixel 51 102 153", "ready"}));
  const std::string wid = p_.WindowId(5000);
  ASSERT_FALSE(wid.empty());
  EXPECT_EQ(Geometry(wid, "Width:"), 320);
  EXPECT_EQ(Geometry(wid, "Height:"), 240);
  // Centred on the 1280 x 1024 screen by the -1 rectangle.
  EXPECT_EQ(Geometry(wid, "Absolute upper-left X:"), (1280 - 320) / 2);

  // Shift+F11 is no screenshot key; alt+grave is a dead grave (E composes to 0x107); V resizes.
  const std::pair<const char*, Lines> keys[] = {
      {"shift+F11", {"key 65552", "key 65658"}},
      {"alt+grave e e", {"key 524306", "key 524480", "key 263", "key 69"}},
      {"alt+comma a", {"key 524306", "key 524476", "key 65"}},
      {"Escape Left Return", {"key 27", "key 37", "key 13"}},
      {"v", {"key 86", "viewport 0 0 400 300"}},
      {"ctrl+alt+F11", {"key 262161", "key 786450", "key 786554"}},
  };
  for (const auto& k : keys) EXPECT_EQ(Keys(k.first, k.second.size()), k.second) << k.first;
  EXPECT_EQ(Geometry(wid, "Width:"), 400);
  std::string shot;
  for (int i = 0; i < 50 && shot.size() < 18 + 400 * 300 * 4; ++i, usleep(100 * 1000))
    shot = p_.ReadFile("ui0000.tga");
  ASSERT_GE(shot.size(), 18u + 400 * 300 * 4) << shot.size();
  EXPECT_EQ(shot[2], 2);  // uncompressed true colour
  EXPECT_EQ(shot.substr(18, 3), "\x99\x66\x33");  // blue, green, red of the cleared frame

  if (!e2e::Have("python3")) GTEST_SKIP() << "close request needs python3";
  EXPECT_EQ(CloseAndWait(wid), 0);
  const std::string log = p_.Log();
  size_t at = 0;
  for (const char* text : {"wintest: exit proc", "QApp: calling cleanup proc 2...",
                           "wintest: cleanup C", "  cleanup 2 returned.", "wintest: cleanup B",
                           "QApp: calling cleanup proc 0...", "wintest: cleanup A",
                           "  cleanup 0 returned."}) {
    at = log.find(text, at);
    ASSERT_NE(at, std::string::npos) << text << "\n" << log;
  }
  // The context's format is a note with the driver's small format number, not a layout constant.
  const size_t pixfmt = log.find("Pixfmt ");
  ASSERT_NE(pixfmt, std::string::npos) << log;
  const size_t start = log.rfind('\n', pixfmt) + 1;  // npos + 1 is 0: the first line
  EXPECT_NE(log.substr(start, pixfmt - start).find("(NOTE ): "), std::string::npos) << log;
  const long number = strtol(log.c_str() + pixfmt + 7, nullptr, 10);
  EXPECT_TRUE(number > 0 && number < 0x10000) << number;
}

TEST_F(WinTest, FullScreenCoversTheWholeScreen) {
  ASSERT_EQ(Start(1280, 1024, true),
            (Lines{"window 1280 1024 fullscreen 1", "pixel 51 102 153", "ready"}));
  const std::string wid = p_.WindowId(5000);
  ASSERT_FALSE(wid.empty());
  const std::pair<const char*, int> geometry[] = {{"Absolute upper-left X:", 0},
      {"Absolute upper-left Y:", 0}, {"Width:", 1280}, {"Height:", 1024}, {"Border width:", 0}};
  for (const auto& g : geometry) EXPECT_EQ(Geometry(wid, g.first), g.second) << g.first;
  if (!e2e::Have("python3")) GTEST_SKIP() << "close request needs python3";
  EXPECT_EQ(CloseAndWait(wid), 0);
}

TEST_F(WinTest, AModeTheScreenLacksKeepsTheDesktopModeWithAWarningAndAnError) {
  // The screen has only 1280 x 1024; the closest larger mode must not stand in for 640 x 480.
  EXPECT_TRUE(p_.Run(tool_, {p_.Dir(), "640", "480", "fullscreen", "75"}));
  ASSERT_EQ(Wait(3), (Lines{"window 640 480 fullscreen 0", "pixel 51 102 153", "ready"}));
  EXPECT_NE(p_.ReadFile("out.txt").find("desktop 1280 1024"), std::string::npos);
  const std::string log = p_.Log();
  const size_t warn = log.find("QXWindow: Can't set fullscreen mode 640x480x32@75");
  EXPECT_NE(warn, std::string::npos) << log;
  EXPECT_NE(log.find("QXWindow: Can't set fullscreen mode 640x480x32 even without setting the "
                     "frequency", warn),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("Set fullscreen mode"), std::string::npos) << log;
  EXPECT_NE(e2e::Capture("xwininfo -root").find("Width: 1280"), std::string::npos);
}

}  // namespace
