// The MQTT remote control's settings and state text, in-process; what it does with a broker is
// tested end to end (tests/e2e/mqtt_e2e_test.cpp).
#include "app/remote_control.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "framework/qini.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

TEST(RemoteSettingsRead, OffWithoutAHostDefaultsAndBadPortsFallBack) {
  QIni none("mem.ini", QIni::NO_READ);
  RemoteSettings s;
  s.port = 42;
  EXPECT_FALSE(ReadRemoteSettings(&none, &s));
  EXPECT_EQ(s.port, 42) << "left as it was";

  QIni ini("mem.ini", QIni::NO_READ);
  ini.SetString("mqtt.host", "broker.lan");
  ASSERT_TRUE(ReadRemoteSettings(&ini, &s));
  char host[256] = "";
  gethostname(host, sizeof(host) - 1);
  EXPECT_EQ(s.port, 1883);
  EXPECT_EQ(s.topic, std::string("glimra/") + host);
  EXPECT_FALSE(s.tls);
  EXPECT_TRUE(s.password.empty() && s.group.empty());

  for (const char* bad : {"0", "65536", "mqtt", "-5"}) {
    ini.SetString("mqtt.port", bad);
    LogCapture log;
    ASSERT_TRUE(ReadRemoteSettings(&ini, &s));
    EXPECT_EQ(s.port, 1883) << bad;
    EXPECT_TRUE(log.Seen("mqtt.port '" + std::string(bad) + "' is not a port number")) << bad;
  }
  ini.SetString("mqtt.port", "8883");
  ini.SetString("mqtt.topic", "shop/window/");
  ASSERT_TRUE(ReadRemoteSettings(&ini, &s));
  EXPECT_EQ(s.port, 8883);
  EXPECT_EQ(s.topic, "shop/window") << "no empty level at the end";
}

TEST(RemoteSettingsRead, PasswordFileReadOnceWarnedWhenOthersMayReadItNeverLogged) {
  TempDir dir;
  const std::string file = dir.Write("password", "Top-Secret-1\n");
  QIni ini("mem.ini", QIni::NO_READ);
  ini.SetString("mqtt.host", "127.0.0.1");
  ini.SetString("mqtt.password_file", file.c_str());
  RemoteSettings s;

  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  {
    LogCapture log;
    ASSERT_TRUE(ReadRemoteSettings(&ini, &s));
    EXPECT_EQ(s.password, "Top-Secret-1") << "the line end is no part of it";
    EXPECT_TRUE(log.Lines().empty());
  }
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);  // its group is enough
  {
    LogCapture log;
    ASSERT_TRUE(ReadRemoteSettings(&ini, &s));
    EXPECT_TRUE(log.Seen("mqtt.password_file '" + file + "' may be read by others"));
    EXPECT_FALSE(log.Seen("Top-Secret"));
  }
  ini.SetString("mqtt.password_file", (file + ".missing").c_str());
  {
    LogCapture log;
    ASSERT_TRUE(ReadRemoteSettings(&ini, &s));
    EXPECT_TRUE(s.password.empty());
    EXPECT_TRUE(log.Seen("Can't read mqtt.password_file '" + file + ".missing'"));
  }
}

TEST(RemoteState, JsonSurvivesNamesThatAreNotUtf8) {
  // The fields themselves are checked end to end; a Latin-1 name with quotes must not throw.
  DisplayState s;
  s.file = "pictures/caf\xe9 \"1\".jpg";
  const std::string text = StateJson(s);
  EXPECT_EQ(text.find('\n'), std::string::npos) << "one line";
  const nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
  ASSERT_FALSE(j.is_discarded()) << text;
  EXPECT_EQ(j["file"], "pictures/caf\xef\xbf\xbd \"1\".jpg");
}

}  // namespace
