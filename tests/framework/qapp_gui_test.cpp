// The framework's window on a real X server: glimra-wintest opens it, and these tests check the
// window's size, a frame read back, keys injected with xdotool as the current-event record sees
// them, the control+alt+F11 screenshot, full screen, and a close request from outside ending the
// program through its exit and clean-up procedures. They start their own Xvfb (so injected keys
// never reach another program's window) and are skipped when Xvfb, xdotool or xwininfo is missing.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

bool Have(const char* tool) {
  return system((std::string("command -v ") + tool + " >/dev/null 2>&1").c_str()) == 0;
}

std::string Capture(const std::string& cmd) {
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return out;
  char buf[512];
  while (fgets(buf, sizeof(buf), p)) out += buf;
  pclose(p);
  return out;
}

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

pid_t g_xvfb = -1;
int g_displayFd = -1;

class WinTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!Have("Xvfb") || !Have("xdotool") || !Have("xwininfo")) return;
    int fds[2];
    if (pipe(fds) != 0) return;
    g_xvfb = fork();
    if (g_xvfb == 0) {
      close(fds[0]);
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      std::string fd = std::to_string(fds[1]);
      execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1280x1024x24",
             "-nolisten", "tcp", "-noreset", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    // Xvfb writes the number and the newline apart; the pipe stays open for it until the end,
    // since a write into a closed pipe would end the server.
    g_displayFd = fds[0];
    char buf[32] = {};
    size_t n = 0;
    pollfd p{fds[0], POLLIN, 0};
    while (n < sizeof(buf) - 1 && !memchr(buf, '\n', n) && poll(&p, 1, 10000) > 0) {
      ssize_t got = read(fds[0], buf + n, sizeof(buf) - 1 - n);
      if (got <= 0) break;
      n += size_t(got);
    }
    if (!memchr(buf, '\n', n)) {
      kill(g_xvfb, SIGTERM);
      waitpid(g_xvfb, nullptr, 0);
      g_xvfb = -1;
      return;
    }
    setenv("DISPLAY", (":" + std::to_string(atoi(buf))).c_str(), 1);
    // Xvfb takes control+alt+F1..F12 as console switches; the framework needs the keys.
    (void)system("setxkbmap -option srvrkeys:none >/dev/null 2>&1");
  }
  static void TearDownTestSuite() {
    if (g_displayFd >= 0) close(g_displayFd);
    g_displayFd = -1;
    if (g_xvfb > 0) {
      kill(g_xvfb, SIGTERM);
      waitpid(g_xvfb, nullptr, 0);
      g_xvfb = -1;
    }
  }

  void SetUp() override {
    if (g_xvfb <= 0) GTEST_SKIP() << "needs Xvfb, xdotool and xwininfo";
    tool_ = std::string(GLIMRA_BUILD_DIR) + "/tools/glimra-wintest";
    if (access(tool_.c_str(), X_OK) != 0) GTEST_SKIP() << "glimra-wintest is not built";
    char tmpl[] = "/tmp/glimra-gui-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
    if (!dir_.empty()) (void)system(("rm -rf " + dir_).c_str());
  }

  void Start(int w, int h, bool full) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 2);
      // The GL driver and D-Bus keep a few blocks to the end; they are not the program's leaks.
      const char* asan = getenv("ASAN_OPTIONS");
      setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":detect_leaks=0").c_str(), 1);
      std::string ws = std::to_string(w), hs = std::to_string(h);
      execl(tool_.c_str(), tool_.c_str(), dir_.c_str(), ws.c_str(), hs.c_str(),
            full ? "fullscreen" : "windowed", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    out_ = fds[0];
  }

  // The next line of the tool's output, or "" after `ms` milliseconds.
  std::string Line(int ms = 10000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
      size_t nl = buf_.find('\n');
      if (nl != std::string::npos) {
        std::string line = buf_.substr(0, nl);
        buf_.erase(0, nl + 1);
        return line;
      }
      int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(
                         end - std::chrono::steady_clock::now()).count());
      pollfd p{out_, POLLIN, 0};
      if (left <= 0 || poll(&p, 1, left) <= 0) return "";
      char chunk[256];
      ssize_t n = read(out_, chunk, sizeof(chunk));
      if (n <= 0) return "";
      buf_.append(chunk, size_t(n));
    }
  }

  std::vector<std::string> Keys(const std::string& xdotoolArgs, size_t count) {
    (void)system(("xdotool " + xdotoolArgs).c_str());
    std::vector<std::string> got;
    while (got.size() < count) {
      std::string l = Line(5000);
      if (l.empty()) break;
      got.push_back(l);
    }
    return got;
  }

  std::string WindowId() {
    std::istringstream in(Capture("xdotool search --sync --pid " + std::to_string(pid_)));
    std::string id;
    in >> id;
    return id;
  }

  int Geometry(const std::string& wid, const char* field) {
    std::istringstream in(Capture("xwininfo -id " + wid));
    std::string line;
    while (std::getline(in, line)) {
      size_t at = line.find(field);
      if (at != std::string::npos) return atoi(line.c_str() + at + strlen(field));
    }
    return -99999;
  }

  // Sends the window manager's close request and answers the tool's exit status.
  int CloseAndWait(const std::string& wid) {
    std::string script = dir_ + "/close.py";
    std::ofstream(script) << kCloseScript;
    if (system(("python3 " + script + " " + wid).c_str()) != 0) return -1;
    for (int i = 0; i < 100; ++i) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
      }
      usleep(100 * 1000);
    }
    return -3;
  }

  std::string ReadFile(const std::string& name) {
    std::ifstream f(dir_ + "/" + name, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
  }

  std::string tool_, dir_, buf_;
  pid_t pid_ = -1;
  int out_ = -1;
};

TEST_F(WinTest, WindowFrameKeysScreenshotAndCloseRequest) {
  Start(320, 240, false);
  EXPECT_EQ(Line(), "window 320 240 fullscreen 0");
  EXPECT_EQ(Line(), "pixel 51 102 153");
  ASSERT_EQ(Line(), "ready");
  std::string wid = WindowId();
  ASSERT_FALSE(wid.empty());
  EXPECT_EQ(Geometry(wid, "Width:"), 320);
  EXPECT_EQ(Geometry(wid, "Height:"), 240);
  // Centred on the 1280 x 1024 screen by the -1 rectangle.
  EXPECT_EQ(Geometry(wid, "Absolute upper-left X:"), (1280 - 320) / 2);
  (void)system(("xdotool windowfocus --sync " + wid).c_str());

  // Shift + F11 carries the shift bit and is therefore no screenshot key.
  EXPECT_EQ(Keys("key shift+F11", 2),
            (std::vector<std::string>{"key 65552", "key 65658"}));
  // Alt + back-quote is a dead grave: the next E composes to 0x107, the one after stays E.
  EXPECT_EQ(Keys("key alt+grave e e", 4),
            (std::vector<std::string>{"key 524306", "key 524480", "key 263", "key 69"}));
  EXPECT_EQ(Keys("key alt+comma a", 3),
            (std::vector<std::string>{"key 524306", "key 524476", "key 65"}));
  EXPECT_EQ(Keys("key Escape Left Return", 3),
            (std::vector<std::string>{"key 27", "key 37", "key 13"}));
  // The shell's viewport follows a resize.
  EXPECT_EQ(Keys("key v", 2), (std::vector<std::string>{"key 86", "viewport 0 0 400 300"}));
  EXPECT_EQ(Geometry(wid, "Width:"), 400);
  EXPECT_EQ(Keys("key ctrl+alt+F11", 3),
            (std::vector<std::string>{"key 262161", "key 786450", "key 786554"}));
  std::string shot;
  for (int i = 0; i < 50 && shot.size() < 18 + 400 * 300 * 4; ++i) {
    usleep(100 * 1000);
    shot = ReadFile("ui0000.tga");
  }
  ASSERT_GE(shot.size(), 18u + 400 * 300 * 4) << shot.size();
  EXPECT_EQ(shot[2], 2);  // uncompressed true colour
  EXPECT_EQ((unsigned char)shot[18], 153);  // blue, green, red of the cleared frame
  EXPECT_EQ((unsigned char)shot[19], 102);
  EXPECT_EQ((unsigned char)shot[20], 51);

  if (!Have("python3")) GTEST_SKIP() << "close request needs python3";
  EXPECT_EQ(CloseAndWait(wid), 0);
  std::string log = ReadFile("QLOG.txt");
  const char* order[] = {"wintest: exit proc",   "QApp: calling cleanup proc 2...",
                         "wintest: cleanup C",   "  cleanup 2 returned.",
                         "wintest: cleanup B",   "QApp: calling cleanup proc 0...",
                         "wintest: cleanup A",   "  cleanup 0 returned."};
  size_t at = 0;
  for (const char* text : order) {
    size_t found = log.find(text, at);
    ASSERT_NE(found, std::string::npos) << text << "\n" << log;
    at = found;
  }
}

TEST_F(WinTest, FullScreenCoversTheWholeScreen) {
  Start(1280, 1024, true);
  EXPECT_EQ(Line(), "window 1280 1024 fullscreen 1");
  EXPECT_EQ(Line(), "pixel 51 102 153");
  ASSERT_EQ(Line(), "ready");
  std::string wid = WindowId();
  ASSERT_FALSE(wid.empty());
  EXPECT_EQ(Geometry(wid, "Absolute upper-left X:"), 0);
  EXPECT_EQ(Geometry(wid, "Absolute upper-left Y:"), 0);
  EXPECT_EQ(Geometry(wid, "Width:"), 1280);
  EXPECT_EQ(Geometry(wid, "Height:"), 1024);
  EXPECT_EQ(Geometry(wid, "Border width:"), 0);
  if (!Have("python3")) GTEST_SKIP() << "close request needs python3";
  EXPECT_EQ(CloseAndWait(wid), 0);
}

}  // namespace
