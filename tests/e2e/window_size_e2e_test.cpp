// glimra in a window whose size the desktop decides (X11 resized from outside, a Wayland kiosk):
// the picture fills the window's new height, centred, with the information line top-left.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "support/e2e.h"

namespace {

using namespace e2e;

// Blue over red, 4:3: its top and bottom show whether it fills the height.
bool WriteBlueOverRed(const std::string& path, int w = 400) {
  return WritePicture(path, w, w * 3 / 4, [w](int, int y) { return y < w * 3 / 8 ? kBlue : kRed; });
}

// The window at (x, y) of w x h, and the picture's width in it.
struct Expected {
  int x, y, w, h;
  int quad;  // the picture's width on the screen
};

// True when `s` shows the picture filling the window's height, centred, with black beside it
// and the information line's white text in the top-left corner.
bool ShowsFitted(const Screen& s, const Expected& e) {
  const int cx = e.x + e.w / 2, left = cx - e.quad / 2, right = cx + e.quad / 2;
  const bool filled = Is(s.At(cx, e.y + 2), kBlue) && Is(s.At(cx, e.y + e.h - 3), kRed) &&
                      Is(s.At(left + 4, e.y + e.h / 4), kBlue) &&
                      Is(s.At(right - 5, e.y + 3 * e.h / 4), kRed) &&
                      Is(s.At(left - 5, e.y + e.h / 2), 0) && Is(s.At(right + 4, e.y + e.h / 2), 0);
  bool text = false;
  for (int y = e.y + 10; y < e.y + 24 && !text; ++y)
    for (int x = e.x + 10; x < e.x + 60 && !text; ++x) text = Is(s.At(x, y), 0xFFFFFF, 40);
  return filled && text;
}

using WindowSizeX11E2E = ScreenTest<1280, 720>;

// "x y w h" of window `id` as the X server has it.
bool Geometry(const std::string& id, Expected* e) {
  std::istringstream in(Capture("xwininfo -id " + id + " 2>/dev/null"));
  std::string line;
  int found = 0;
  while (std::getline(in, line)) {
    found += sscanf(line.c_str(), "  Absolute upper-left X: %d", &e->x) == 1;
    found += sscanf(line.c_str(), "  Absolute upper-left Y: %d", &e->y) == 1;
    found += sscanf(line.c_str(), "  Width: %d", &e->w) == 1;
    found += sscanf(line.c_str(), "  Height: %d", &e->h) == 1;
  }
  // 4:3 at the 16:9 desktop's proportions: three quarters of the window's width.
  e->quad = e->w * 3 / 4;
  return found == 4;
}

TEST_F(WindowSizeX11E2E, ThePictureFillsTheWindowsNewHeightWithAndWithoutAWindowManager) {
  for (const bool managed : {false, true}) {
    SCOPED_TRACE(managed ? "openbox" : "no window manager");
    pid_t wm = -1;
    if (managed) {
      if (!Have("openbox")) {
        ADD_FAILURE() << "openbox is not installed (scripts/deps.sh installs it)";
        continue;
      }
      wm = Spawn({"openbox", "--sm-disable"}, "/dev/null");
      // Managing once the root window names its window manager.
      Poll(10000, [] {
        return Capture("xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null").find("window id") !=
               std::string::npos;
      });
    }
    Program p;
    // Larger than every window below, so that it is decoded at the window's size.
    ASSERT_TRUE(p.Prepare() && p.SetKey("resolution.width", "640") &&
                p.SetKey("resolution.height", "480") && WriteBlueOverRed(p.Path("a.jpg"), 1600) &&
                p.Start("a.jpg"));
    const std::string id = p.WindowId(kStartMs);
    ASSERT_FALSE(id.empty()) << p.Log();
    Expected e{};
    ASSERT_TRUE(Sees([&](const Screen& s) { return Geometry(id, &e) && ShowsFitted(s, e); }))
        << p.Log();
    for (const char* size : {"1280 720", "480 360"}) {
      SCOPED_TRACE(size);
      ASSERT_EQ(system(("xdotool windowmove " + id + " 0 0 windowsize " + id + " " + size +
                        " >/dev/null 2>&1").c_str()),
                0);
      int w = 0, h = 0;
      sscanf(size, "%d %d", &w, &h);
      EXPECT_TRUE(Sees([&](const Screen& s) {
        return Geometry(id, &e) && e.w == w && e.h == h && ShowsFitted(s, e);
      })) << "window " << e.x << "," << e.y << " " << e.w << "x" << e.h << "\n" << p.Log();
      // Decoded again for the larger window, once; the smaller one makes do with those pixels.
      EXPECT_TRUE(p.WaitForLog("Load times (a.jpg)", kStepMs, 2)) << p.Log();
    }
    EXPECT_EQ(Count(p.Log(), "Load times (a.jpg)"), 2) << p.Log();
    // The size it was asked for stays the one in glimra.ini.
    EXPECT_EQ(p.Key("resolution.width"), "640");
    EXPECT_EQ(p.Escape(), 0);
    if (wm > 0) kill(wm, SIGTERM), waitpid(wm, nullptr, 0);
  }
}

// The compositor's user: the test's own, or a system user made for it under root (which the
// compositor refuses). False when there is none.
bool CompositorUser(uid_t* uid, gid_t* gid, std::string* why) {
  if (getuid() != 0) return *uid = getuid(), *gid = getgid(), true;
  const char* name = "glimra-e2e";
  if (!getpwnam(name) &&
      system(("useradd --system --no-create-home --shell /usr/sbin/nologin " + std::string(name) +
              " >/dev/null 2>&1").c_str()) != 0) {
    *why = "can't make the user glimra-e2e that the compositor runs as";
    return false;
  }
  const passwd* pw = getpwnam(name);
  if (!pw) return *why = "no user glimra-e2e", false;
  *uid = pw->pw_uid, *gid = pw->pw_gid;
  return true;
}

// Runs `argv` as `uid` in `dir` with `env` added, output to `out`; the child's pid or -1.
pid_t RunAs(uid_t uid, gid_t gid, const std::string& dir, const std::vector<std::string>& env,
            const std::vector<std::string>& argv, const std::string& out) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd >= 0) dup2(fd, 1), dup2(fd, 2);
  if (getuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0))
    _exit(126);
  if (chdir(dir.c_str()) != 0) _exit(126);
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  for (const std::string& kv : env) putenv(strdup(kv.c_str()));
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

// A binary PPM (what grim writes with -t ppm) into `out`.
bool ParsePpm(const std::string& d, Screen* out) {
  int w = 0, h = 0, max = 0, used = 0;
  if (sscanf(d.c_str(), "P6 %d %d %d%n", &w, &h, &max, &used) != 3 || max != 255 || w <= 0 ||
      h <= 0 || d.size() < size_t(used) + 1 + size_t(w) * h * 3)
    return false;
  const auto* p = reinterpret_cast<const unsigned char*>(d.data()) + used + 1;
  out->width = w, out->height = h;
  out->rgb.resize(size_t(w) * h);
  for (size_t i = 0; i < out->rgb.size(); ++i, p += 3)
    out->rgb[i] = uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
  return true;
}

// Processes named glimra that run as `uid`.
std::vector<pid_t> GlimraOf(uid_t uid) {
  std::vector<pid_t> found;
  for (const auto& e : std::filesystem::directory_iterator("/proc")) {
    const pid_t pid = atoi(e.path().filename().c_str());
    struct stat st;
    if (pid <= 0 || stat(e.path().c_str(), &st) != 0 || st.st_uid != uid) continue;
    std::string comm = ReadFile(e.path().string() + "/comm");
    if (comm == "glimra\n") found.push_back(pid);
  }
  return found;
}

TEST(WindowSizeWaylandE2E, UnderAKioskCompositorThePictureFillsTheOutputAndAStopEndsWithZero) {
  if (!Have("cage") || !Have("grim"))
    GTEST_SKIP() << "needs cage and grim (scripts/deps.sh installs them)";
  if (access(GLIMRA_BUILD_DIR "/glimra", X_OK) != 0) GTEST_SKIP() << "glimra is not built";
  uid_t uid = 0;
  gid_t gid = 0;
  std::string why;
  if (!CompositorUser(&uid, &gid, &why)) GTEST_SKIP() << why;
  if (!GlimraOf(uid).empty()) GTEST_SKIP() << "another glimra runs as the compositor's user";

  for (const char* fullScreen : {"0", "1"}) {
    SCOPED_TRACE(std::string("fullscreen=") + fullScreen);
    Program p;
    ASSERT_TRUE(p.Prepare() && p.SetKey("resolution.width", "640") &&
                p.SetKey("resolution.height", "480") &&
                p.SetKey("resolution.fullscreen", fullScreen) &&
                WriteBlueOverRed(p.Path("a.jpg")) && mkdir(p.Path("xdg").c_str(), 0700) == 0);
    ASSERT_EQ(system(("chown -R " + std::to_string(uid) + ":" + std::to_string(gid) + " " +
                      p.Dir()).c_str()),
              0);
    const std::string xdg = "XDG_RUNTIME_DIR=" + p.Path("xdg");
    // Two headless outputs, 2560 x 720 in all: a window covering one output exactly goes to
    // direct scan-out, which Debian 12's compositor library never presents after the first frame.
    const pid_t cage = RunAs(
        uid, gid, p.Dir(),
        {xdg, "WLR_BACKENDS=headless", "WLR_RENDERER=pixman", "WLR_LIBINPUT_NO_DEVICES=1",
         "WLR_HEADLESS_OUTPUTS=2", "SDL_VIDEODRIVER=wayland", "HOME=" + p.Dir(),
         "LSAN_OPTIONS=exitcode=0"},
        {"cage", "--", "sh", "-c", "./glimra a.jpg; echo $? > status"}, p.Path("cage.txt"));
    ASSERT_GT(cage, 0);
    Screen s;
    // 4:3 at a 16:9 output's proportions: three quarters of the window's width.
    const Expected e{0, 0, 2560, 720, 1920};
    const bool shown = Poll(kStartMs, [&] {
      unlink(p.Path("shot.ppm").c_str());
      const pid_t grim = RunAs(uid, gid, p.Dir(), {xdg, "WAYLAND_DISPLAY=wayland-0"},
                               {"grim", "-t", "ppm", p.Path("shot.ppm")}, p.Path("grim.txt"));
      if (grim > 0) waitpid(grim, nullptr, 0);
      return ParsePpm(ReadFile(p.Path("shot.ppm")), &s) && s.width == e.w && s.height == e.h &&
             ShowsFitted(s, e);
    });
    EXPECT_TRUE(shown) << "screen " << s.width << "x" << s.height << "\n"
                       << p.ReadFile("cage.txt").substr(0, 4000);
    // A stop signal ends it through the normal exit, and the compositor with it.
    for (pid_t g : GlimraOf(uid)) kill(g, SIGTERM);
    int status = -1;
    if (!Poll(10000, [&] { return waitpid(cage, &status, WNOHANG) == cage; })) {
      ADD_FAILURE() << "the compositor did not end with glimra";
      kill(cage, SIGKILL), waitpid(cage, &status, 0);
    }
    EXPECT_EQ(p.ReadFile("status"), "0\n") << p.ReadFile("cage.txt").substr(0, 4000);
    for (pid_t g : GlimraOf(uid)) kill(g, SIGKILL);
    EXPECT_TRUE(fullScreen[0] == '0' ||
                p.Log().find("Can't set fullscreen mode 640x480x32 even without") != p.Log().npos);
  }
}

}  // namespace
