// Full-screen settings: keys under the group, defaults for missing keys, the depth-bits advice.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "framework/fullscreensettings.h"
#include "framework/qini.h"
#include "support/logcapture.h"

namespace {

struct Loaded {
  QFullScreenSettings s;
  std::vector<std::string> warnings;
  explicit Loaded(const char* text, const char* group = "resolution") {
    LogCapture log;
    QIni ini("mem.ini", QIni::NO_READ);
    ini.ReadFromMemory(text, strlen(text));
    s.width = -5;  // Load must set every field, not keep what was there
    s.Load(&ini, group);
    warnings = log.Lines();
  }
  // Every field but the gamma, in declaration order.
  std::vector<long> Fields() const {
    return {long(s.flags), s.x, s.y, s.width, s.height, s.bits, s.stencilBits, s.alphaBits,
            s.depthBits, s.refreshRate};
  }
};

TEST(QFullScreenSettingsLoad, MissingKeysGiveTheDefaultsEveryKeyIsReadUnderItsGroupAndDepthBitsWarn) {
  Loaded none("other\n{\n  width=1\n}\n");
  EXPECT_EQ(none.Fields(), (std::vector<long>{0, 0, 0, 640, 480, 32, 8, 0, 0, 60}));
  EXPECT_FLOAT_EQ(none.s.gamma, 1.0f);
  EXPECT_TRUE(none.warnings.empty());

  Loaded all(
      "screen\n{\n  near_fullscreen=1\n  no_border=0\n  stereo\n  {\n    quad_buffered=1\n  }\n"
      "  x=10\n  y=-20\n  width=1920\n  height=1080\n  bits=16\n  stencil_bits=0\n"
      "  alpha_bits=8\n  frequency=75\n  gamma=1.8\n}\n",
      "screen");
  const long flags = QFullScreenSettings::NEAR_FULLSCREEN | QFullScreenSettings::QUAD_BUFFERED;
  EXPECT_EQ(all.Fields(), (std::vector<long>{flags, 10, -20, 1920, 1080, 16, 0, 8, 0, 75}));
  EXPECT_FLOAT_EQ(all.s.gamma, 1.8f);

  // Depth bits warn but are kept.
  Loaded l("resolution\n{\n  z_bits=24\n  no_border=1\n}\n");
  EXPECT_EQ(l.s.depthBits, 24);
  EXPECT_EQ(l.s.flags, QFullScreenSettings::NO_BORDER);
  ASSERT_EQ(l.warnings.size(), 1u);
  EXPECT_NE(l.warnings[0].find("resolution.z_bits=24, but normally you don't need depthbuffer "
                               "bits anymore; consider setting it to 0"),
            std::string::npos);
  EXPECT_TRUE(Loaded("resolution\n{\n  z_bits=0\n}\n").warnings.empty());
}

}  // namespace
