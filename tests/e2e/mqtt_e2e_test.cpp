// glimra steered and watched through a real broker (mosquitto, accounts, TLS): every command
// changes the screen or the state, the state and status topics, a burst, and a broker that is
// missing, refuses the login, fails the TLS check or goes away and comes back.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "framework/image/qimage.h"
#include "support/broker.h"
#include "support/e2e.h"

namespace {

using namespace e2e;
using nlohmann::json;

constexpr const char* kTopic = "glimra/test";
const std::string kCmd = std::string(kTopic) + "/cmd";

json Parse(const std::string& text) { return json::parse(text, nullptr, false); }

// The colour (0xRRGGBB) at (x, y) from the top of a decoded 24- or 32-bit picture (rows bottom-up).
uint32_t RgbAt(QImage& picture, int x, int y) {
  const uint8_t* p = picture.GetAddress(x, picture.GetHeight() - 1 - y);
  return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
}

class MqttE2E : public ScreenTest<800, 600> {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    if (IsSkipped()) return;
    if (!HaveBroker()) GTEST_SKIP() << "needs mosquitto, its clients and openssl";
  }
  // A show of red a.tga, green b.tga and blue c.tga that logs in to `broker` as its user.
  void Prepare(Program* p, const Broker& broker, const std::string& passwordFile = "") {
    ASSERT_TRUE(p->Prepare());
    ASSERT_TRUE(Uniform(p->Path("a.tga"), kRed) && Uniform(p->Path("b.tga"), kGreen) &&
                Uniform(p->Path("c.tga"), kBlue));
    const std::string port = std::to_string(broker.Port());
    ASSERT_TRUE(p->SetKey("mqtt.host", "127.0.0.1") && p->SetKey("mqtt.port", port.c_str()) &&
                p->SetKey("mqtt.username", Broker::kUser) && p->SetKey("mqtt.topic", kTopic) &&
                p->SetKey("mqtt.password_file",
                          (passwordFile.empty() ? broker.PasswordFile() : passwordFile).c_str()) &&
                p->SetKey("effects.show_info", "0"));
  }
  // The broker, a listener on `filter` (none when null) and the show with `keys`, its first
  // picture up.
  void Start(const char* filter, std::initializer_list<std::pair<const char*, const char*>> keys) {
    ASSERT_TRUE(broker_.Start());
    ASSERT_NO_FATAL_FAILURE(Prepare(&p_, broker_));
    for (const auto& k : keys) ASSERT_TRUE(p_.SetKey(k.first, k.second));
    if (filter) {
      ASSERT_TRUE(Listen(filter));
    }
    ASSERT_TRUE(p_.Start() && Shows(kRed, kStartMs)) << p_.Log();
  }
  // A new listener in place of the last; true once it is subscribed.
  bool Listen(const char* filter) {
    l_ = std::make_unique<Listener>(broker_, filter);
    return l_->Ready();
  }
  // Waits until the state topic's newest JSON satisfies `ok`.
  bool State(const std::function<bool(const json&)>& ok, int ms = kStepMs) {
    return l_->WaitFor(
        std::string(kTopic) + "/state",
        [&](const std::string& t) {
          const json j = Parse(t);
          return !j.is_discarded() && ok(j);
        },
        ms);
  }
  // Waits until the status topic's newest payload is `want`.
  bool Status(const char* want, int ms = kStepMs) {
    return l_->WaitFor(
        std::string(kTopic) + "/status", [&](const std::string& s) { return s == want; }, ms);
  }
  Broker broker_;
  Program p_;
  std::unique_ptr<Listener> l_;
};

TEST_F(MqttE2E, EveryCommandChangesTheScreenOrTheStateAndTheStateTellsWhatIsShown) {
  ASSERT_NO_FATAL_FAILURE(Start("glimra/test/#", {{"mqtt.group", "hall"}}));
  ASSERT_TRUE(Status("online")) << p_.Log();
  ASSERT_TRUE(State([](const json& j) { return j["file"] == "a.tga"; }))
      << l_->Last("glimra/test/state");
  {
    const json j = Parse(l_->Last("glimra/test/state"));
    for (const char* field : {"file", "index", "count", "bw", "info", "paused", "version",
                              "uptime_s", "shown", "failures", "rss_kb", "last_warning"})
      EXPECT_TRUE(j.contains(field)) << field;
    EXPECT_EQ(j["index"], 0);
    EXPECT_EQ(j["count"], 3);
    EXPECT_EQ(j["shown"], 1);
    EXPECT_EQ(j["failures"], 0);
    EXPECT_GT(j["rss_kb"].get<long long>(), 1000);
  }

  const auto screen = [&](const std::string& topic, const char* text, uint32_t want) {
    return broker_.Publish(topic, text) && Shows(want);
  };
  EXPECT_TRUE(screen(kCmd, "next", kGreen)) << p_.Log();
  EXPECT_TRUE(State([](const json& j) { return j["file"] == "b.tga" && j["index"] == 1; }));
  EXPECT_TRUE(screen(kCmd, "prev", kRed));
  EXPECT_TRUE(screen(kCmd, "load c.tga", kBlue));
  EXPECT_TRUE(screen("glimra/group/hall/cmd", "next", kRed)) << "the group's topic";

  const auto state = [&](const char* text, const char* field, const json& want) {
    return broker_.Publish(kCmd, text) && State([&](const json& j) { return j[field] == want; });
  };
  EXPECT_TRUE(state("bw 1", "bw", true));
  EXPECT_TRUE(p_.WaitForKey("effects.black_and_white", "1"));
  EXPECT_TRUE(state("bw 0", "bw", false));
  EXPECT_TRUE(state("info 1", "info", true));
  EXPECT_TRUE(state("pause", "paused", true));
  EXPECT_TRUE(state("resume", "paused", false));
  ASSERT_TRUE(Uniform(p_.Path("d.tga"), kWhite));
  EXPECT_TRUE(state("rescan", "count", 4));
  EXPECT_TRUE(state("load missing.tga", "failures", 1));
  EXPECT_TRUE(State([](const json& j) {
    return j["last_warning"].get<std::string>().find("missing.tga") != std::string::npos;
  }));

  // Neither a text that is no command nor one over 1 KB does anything; the first is named.
  const std::string chatter = "hello " + std::string(200, 'x');
  ASSERT_TRUE(broker_.Publish(kCmd, chatter));
  EXPECT_TRUE(p_.WaitForLog(
      "Not a command on 'glimra/test/cmd': 'hello " + std::string(74, 'x') + "...'", kStepMs))
      << p_.Log();
  EXPECT_TRUE(State([](const json& j) {
    return j["last_warning"].get<std::string>().find("Not a command") != std::string::npos;
  })) << "a warning alone is a change";
  std::string longLoad = "load ";
  while (longLoad.size() < 1100) longLoad += "./";
  longLoad += "c.tga";
  ASSERT_TRUE(broker_.Publish(kCmd, longLoad));
  ASSERT_TRUE(p_.WaitForLog(
      "Ignored a payload of " + std::to_string(longLoad.size()) + " bytes on 'glimra/test/cmd'",
      kStepMs))
      << p_.Log();
  EXPECT_TRUE(screen(kCmd, "next", kGreen)) << "still red before; not blue";

  EXPECT_EQ(p_.Escape(), 0);
  EXPECT_TRUE(Status("offline"));
  EXPECT_EQ(p_.Log().find(Broker::kPassword), std::string::npos);
  EXPECT_EQ(p_.ReadFile("out.txt").find(Broker::kPassword), std::string::npos);
}

TEST_F(MqttE2E, TheScreenTheDisplayAndHomeAssistantsEntitiesTravelThroughTheBroker) {
  ASSERT_NO_FATAL_FAILURE(Start("#", {{"mqtt.discovery", "1"}}));

  // The screen: a JPEG at most 480 wide of what is shown, again when that changes.
  const std::string screenTopic = std::string(kTopic) + "/screen";
  const auto shotShows = [&](uint32_t want) {
    return l_->WaitFor(
        screenTopic,
        [&](const std::string& bytes) {
          QImage shot;
          return !bytes.empty() &&
                 shot.ReadJPG(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
                              "shot") &&
                 shot.GetWidth() == 480 && shot.GetHeight() == 360 &&
                 Is(RgbAt(shot, 240, 180), want, 6);
        },
        kStepMs);
  };
  EXPECT_TRUE(shotShows(kRed)) << l_->Last(screenTopic).size() << " bytes\n" << p_.Log();
  ASSERT_TRUE(broker_.Publish(kCmd, "next") && Shows(kGreen));
  EXPECT_TRUE(shotShows(kGreen));

  // Off: black on the wall, in the shot and in the state; on again: the picture.
  ASSERT_TRUE(broker_.Publish(kCmd, "display off"));
  EXPECT_TRUE(State([](const json& j) { return j["display"] == false; }));
  EXPECT_TRUE(Shows(0x000000, kStepMs));
  EXPECT_TRUE(shotShows(0x000000));
  ASSERT_TRUE(broker_.Publish(kCmd, "display on"));
  EXPECT_TRUE(State([](const json& j) { return j["display"] == true; }));
  EXPECT_TRUE(Shows(kGreen));

  // Discovery: one retained config per entity, each JSON naming its topics on this display.
  const auto configs = [&] {
    std::map<std::string, std::string> last;
    for (const Listener::Message& m : l_->Messages())
      if (m.topic.rfind("homeassistant/", 0) == 0 && m.topic != "homeassistant/status")
        last[m.topic] = m.payload;
    return last;
  };
  ASSERT_TRUE(Poll(kStepMs, [&] { return configs().size() == 9; })) << configs().size();
  for (const auto& c : configs()) {
    const json j = Parse(c.second);
    ASSERT_TRUE(j.is_object()) << c.first;
    EXPECT_TRUE(j.contains("unique_id") && j.contains("device")) << c.first;
    EXPECT_EQ(j.value("availability_topic", ""), std::string(kTopic) + "/status") << c.first;
  }
  // Home Assistant's restart asks for them again.
  const size_t before = l_->Messages().size();
  ASSERT_TRUE(broker_.Publish("homeassistant/status", "online"));
  EXPECT_TRUE(Poll(kStepMs, [&] {
    size_t again = 0;
    const auto all = l_->Messages();
    for (size_t i = before; i < all.size(); ++i)
      again +=
          all[i].topic.rfind("homeassistant/", 0) == 0 && all[i].topic != "homeassistant/status";
    return again == 9;
  }));
  EXPECT_EQ(p_.Escape(), 0);

  // Switched off, the display takes its entities away again.
  ASSERT_TRUE(p_.SetKey("mqtt.discovery", "0") && p_.Start() && Shows(kRed, kStartMs));
  EXPECT_TRUE(Poll(kStepMs, [&] {
    const auto now = configs();
    return now.size() == 9 &&
           std::all_of(now.begin(), now.end(), [](const auto& c) { return c.second.empty(); });
  }));
  EXPECT_EQ(p_.Escape(), 0);
}

TEST_F(MqttE2E, ABurstEndsOnTheLastWithFlatMemoryAndABrokerBackGetsStatusAndStateWithinTheBackOff) {
  ASSERT_NO_FATAL_FAILURE(Start("glimra/test/#", {}));
  ASSERT_TRUE(State([](const json& j) { return j["file"] == "a.tga"; })) << p_.Log();
  ASSERT_TRUE(p_.WaitForLog("connected as 'glimra/test'", kStepMs)) << p_.Log();
  // Connected and at rest, nothing wakes the program (a look every 100 ms would make 20).
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const long wakes = Wakes(p_.Pid());
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_LE(Wakes(p_.Pid()) - wakes, 3);

  // Ten steps, each its own message and picture: the state follows at most once a second, and
  // its last word is the last picture.
  const auto stateCount = [&] {
    size_t n = 0;
    for (const Listener::Message& m : l_->Messages()) n += m.topic == "glimra/test/state";
    return n;
  };
  const size_t states = stateCount();
  const auto first = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(broker_.Publish(kCmd, "next"));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - first).count();
  EXPECT_TRUE(Shows(kGreen));
  EXPECT_TRUE(State([](const json& j) { return j["file"] == "b.tga"; }, 3000));
  EXPECT_LE(stateCount() - states, size_t(seconds) + 2) << seconds << " s";
  const auto burst = [&](const char* last) {
    std::vector<std::string> lines;
    for (int i = 0; i < 999; ++i)
      lines.push_back(i % 3 == 0 ? "next" : i % 3 == 1 ? "load b.tga" : "info 1");
    lines.push_back(last);
    return broker_.PublishLines(kCmd, lines);
  };
  ASSERT_TRUE(burst("load c.tga") && Shows(kBlue)) << p_.Log();
  const long long before = ProcValue(p_.Pid(), "status", "VmRSS:");
  ASSERT_TRUE(burst("load a.tga") && Shows(kRed)) << p_.Log();
  // Everything was taken: one more command is the next thing done.
  ASSERT_TRUE(broker_.Publish(kCmd, "load b.tga") && Shows(kGreen));
  const long long after = ProcValue(p_.Pid(), "status", "VmRSS:");
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer holds freed memory back in its quarantine for a while; leaks it finds at exit.
  constexpr long long kGrowthKb = 32 * 1024;
#else
  constexpr long long kGrowthKb = 8 * 1024;
#endif
  EXPECT_LT(after - before, kGrowthKb) << before << " kB, then " << after << " kB";
  EXPECT_EQ(p_.Key("effects.show_info"), "1");

  // The broker dies after publishing b's state; nothing retained survives its restart, so only a
  // new publication brings status and state back.
  ASSERT_TRUE(State([](const json& j) { return j["file"] == "b.tga"; }));
  broker_.Kill();
  ASSERT_TRUE(p_.WaitForLog("trying again in the background", kStepMs)) << p_.Log();
  std::this_thread::sleep_for(std::chrono::milliseconds(2000));
  ASSERT_TRUE(broker_.Start() && Listen("glimra/test/#"));
  // The pauses so far were 1 and 2 s; the next attempt comes within 4 s.
  EXPECT_TRUE(Status("online", 6000)) << p_.Log();
  EXPECT_TRUE(State([](const json& j) { return j["file"] == "b.tga"; }, 2000));
  EXPECT_EQ(Count(p_.Log(), "connected again"), 1);
  EXPECT_EQ(Count(p_.Log(), "trying again in the background"), 1);
  ASSERT_TRUE(broker_.Publish(kCmd, "next") && Shows(kBlue));
  // Killed, it cannot say goodbye: the broker tells of it with the last will.
  kill(p_.Pid(), SIGKILL);
  EXPECT_TRUE(Status("offline")) << "the last will";
}

TEST_F(MqttE2E, MissingBrokerWrongPasswordAndWrongCaAreLoggedOnceWhileTheShowGoesOn) {
  Broker tls(true);
  ASSERT_TRUE(broker_.Start() && tls.Start());
  TempDir keys;
  const std::string wrong = keys.Write("wrong", "not-the-password\n");
  ASSERT_EQ(chmod(wrong.c_str(), 0600), 0);
  struct Case {
    const char* name;
    std::function<void(Program*)> setup;
    const char* why;
  } cases[] = {
      {"missing broker",
       [&](Program* p) {
         Prepare(p, broker_);
         p->SetKey("mqtt.port", "1");  // nothing listens there
       },
       "Connection refused"},
      {"wrong password", [&](Program* p) { Prepare(p, broker_, wrong); }, "not authori"},
      {"wrong CA",
       [&](Program* p) {
         Prepare(p, tls);
         p->SetKey("mqtt.tls", "1");
         p->SetKey("mqtt.ca_file", tls.OtherCaFile().c_str());
       },
       "certificate verify failed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Program p;
    ASSERT_NO_FATAL_FAILURE(c.setup(&p));
    ASSERT_TRUE(p.Start() && Shows(kRed, kStartMs)) << p.Log();
    ASSERT_TRUE(p.WaitForLog("trying again in the background", kStepMs)) << p.Log();
    // Attempts after 1 and 2 more seconds have failed as well by now: still one line.
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    const std::string log = p.Log();
    EXPECT_EQ(Count(log, "trying again in the background"), 1) << log;
    EXPECT_NE(log.find(c.why), std::string::npos) << log;
    ASSERT_TRUE(p.Send("next") && Shows(kGreen)) << "the show goes on";
    EXPECT_EQ(p.Escape(), 0);
  }
}

}  // namespace
