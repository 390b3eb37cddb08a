// A 4:3 full-screen mode on a 16:9 screen, on Xorg's dummy driver (Xvfb has one mode only).
#include <signal.h>

#include <cstdio>

#include "support/e2e.h"

namespace {

using namespace e2e;

const char kConfig[] = R"(Section "Device"
  Identifier "card"
  Driver "dummy"
  VideoRam 64000
EndSection
Section "Monitor"
  Identifier "monitor"
  HorizSync 5.0-1000.0
  VertRefresh 5.0-200.0
  Modeline "1600x900" 118.25 1600 1696 1856 2112 900 903 908 934 -hsync +vsync
  Modeline "1200x900" 89.00 1200 1272 1392 1584 900 903 907 937 -hsync +vsync
EndSection
Section "Screen"
  Identifier "screen"
  Device "card"
  Monitor "monitor"
  DefaultDepth 24
  SubSection "Display"
    Depth 24
    Modes "1600x900" "1200x900"
    Virtual 1600 900
  EndSubSection
EndSection
Section "ServerFlags"
  Option "AutoAddDevices" "false"
EndSection
)";

class DisplayModesE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!HaveTools() || access("/usr/lib/xorg/modules/drivers/dummy_drv.so", R_OK) != 0)
      return;
    dir_ = new TempDir("glimra_modes");
    const std::string conf = dir_->Write("dummy.conf", kConfig);
    const bool started =
        StartX("Xorg", {"-config", conf, "-configdir", dir_->Path(), "-noreset", "-nolisten",
                             "tcp", "-novtswitch", "-logfile", dir_->File("x.log")});
    // A server that announced itself may still never answer under load: skipped, not failed.
    Screen s;
    up_ = started && WaitForScreen([](const Screen& g) { return g.width == 1600; }, kStartMs, &s);
    if (!up_)
      fprintf(stderr, "dummy X server: no 1600-wide screen (%dx%d)\n%s\n", s.width, s.height,
              ReadFile(dir_->File("x.log")).c_str());
  }
  static void TearDownTestSuite() {
    StopX();
    delete dir_;
  }

  void SetUp() override {
    if (!up_) GTEST_SKIP() << "needs a working Xorg with the dummy video driver, xdotool and xwd";
    if (access(GLIMRA_BUILD_DIR "/glimra", X_OK) != 0) GTEST_SKIP() << "glimra is not built";
    if (RunningCopies() > 0) GTEST_SKIP() << "another glimra is running";
  }

  static inline TempDir* dir_ = nullptr;
  static inline bool up_ = false;
};

TEST_F(DisplayModesE2E, AFourToThreeModeOnASixteenToNineScreenShowsThePictureUnsquashed) {
  Program p;
  ASSERT_TRUE(p.Prepare() && p.SetKey("resolution.width", "1200") &&
              p.SetKey("resolution.height", "900") && p.SetKey("resolution.fullscreen", "1"));
  // 400 x 300, as shaped as the mode: blue over red, so upright shows too.
  ASSERT_TRUE(
      WritePicture(p.Path("a.tga"), 400, 300, [](int, int y) { return y < 150 ? kBlue : kRed; }));
  ASSERT_TRUE(p.Start());
  // The mode's whole screen is the picture: the corners too, not only a 900-wide middle.
  Screen s;
  const auto filled = [](const Screen& g) {
    return g.width == 1200 && g.height == 900 && Is(g.At(5, 5), kBlue) &&
           Is(g.At(1194, 5), kBlue) && Is(g.At(5, 894), kRed) && Is(g.At(1194, 894), kRed);
  };
  EXPECT_TRUE(WaitForScreen(filled, kStartMs, &s))
      << s.width << "x" << s.height << " " << std::hex << s.At(5, 5) << " " << s.At(1194, 450)
      << "\n" << p.Log();
  EXPECT_NE(p.Log().find("QXWindow: Set fullscreen mode to 1200x900x32@60"), std::string::npos);

  // A stop gives the monitor its own mode back.
  ASSERT_EQ(kill(p.Pid(), SIGTERM), 0);
  EXPECT_EQ(p.WaitExit(10000), 0);
  EXPECT_TRUE(WaitForScreen([](const Screen& g) { return g.width == 1600; }, 10000, &s));
}

}  // namespace
