// Full-screen settings: keys under the group, defaults for missing keys, the depth-bits advice.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "framework/fullscreensettings.h"
#include "framework/qini.h"
#include "framework/qmessage.h"

namespace {

std::vector<std::string> g_warnings;
void Collect(const char*, const char* text) { g_warnings.push_back(text ? text : ""); }

struct Loaded {
  QFullScreenSettings s;
  std::vector<std::string> warnings;
  explicit Loaded(const char* text, const char* group = "resolution") {
    QMessageHandler old = qSetWarnHandler(Collect);
    g_warnings.clear();
    QIni ini("mem.ini", QIni::NO_READ);
    ini.ReadFromMemory(text, strlen(text));
    s.width = -5;  // Load must set every field, not keep what was there
    s.Load(&ini, group);
    warnings = g_warnings;
    qSetWarnHandler(old);
  }
};

TEST(QFullScreenSettingsLoad, MissingKeysGiveTheDefaults) {
  Loaded l("other\n{\n  width=1\n}\n");
  EXPECT_EQ(l.s.flags, 0u);
  EXPECT_EQ(l.s.x, 0);
  EXPECT_EQ(l.s.y, 0);
  EXPECT_EQ(l.s.width, 640);
  EXPECT_EQ(l.s.height, 480);
  EXPECT_EQ(l.s.bits, 32);
  EXPECT_EQ(l.s.stencilBits, 8);
  EXPECT_EQ(l.s.alphaBits, 0);
  EXPECT_EQ(l.s.depthBits, 0);
  EXPECT_EQ(l.s.refreshRate, 60);
  EXPECT_FLOAT_EQ(l.s.gamma, 1.0f);
  EXPECT_TRUE(l.warnings.empty());
}

TEST(QFullScreenSettingsLoad, EveryKeyIsReadUnderItsGroup) {
  Loaded l(
      "screen\n{\n  near_fullscreen=1\n  no_border=0\n  stereo\n  {\n    quad_buffered=1\n  }\n"
      "  x=10\n  y=-20\n  width=1920\n  height=1080\n  bits=16\n  stencil_bits=0\n"
      "  alpha_bits=8\n  frequency=75\n  gamma=1.8\n}\n",
      "screen");
  EXPECT_EQ(l.s.flags, QFullScreenSettings::NEAR_FULLSCREEN | QFullScreenSettings::QUAD_BUFFERED);
  EXPECT_EQ(l.s.x, 10);
  EXPECT_EQ(l.s.y, -20);
  EXPECT_EQ(l.s.width, 1920);
  EXPECT_EQ(l.s.height, 1080);
  EXPECT_EQ(l.s.bits, 16);
  EXPECT_EQ(l.s.stencilBits, 0);
  EXPECT_EQ(l.s.alphaBits, 8);
  EXPECT_EQ(l.s.refreshRate, 75);
  EXPECT_FLOAT_EQ(l.s.gamma, 1.8f);
}

TEST(QFullScreenSettingsLoad, DepthBitsWarnButAreKept) {
  Loaded l("resolution\n{\n  z_bits=24\n  no_border=1\n}\n");
  EXPECT_EQ(l.s.depthBits, 24);
  EXPECT_EQ(l.s.flags, QFullScreenSettings::NO_BORDER);
  ASSERT_EQ(l.warnings.size(), 1u);
  EXPECT_NE(l.warnings[0].find("resolution.z_bits=24, but normally you don't need depthbuffer "
                               "bits anymore; consider setting it to 0"),
            std::string::npos);
  Loaded zero("resolution\n{\n  z_bits=0\n}\n");
  EXPECT_TRUE(zero.warnings.empty());
}

}  // namespace
