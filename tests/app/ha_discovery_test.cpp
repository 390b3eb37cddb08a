// Home Assistant discovery: what each message needs, and every button and switch sends commands.
#include "app/ha_discovery.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <regex>
#include <set>

#include "app/commands.h"

namespace {

using nlohmann::json;

const std::regex kId("[a-zA-Z0-9_-]+");
const std::regex kTopic("homeassistant/(button|switch|sensor|image)/([^/]+)/([^/]+)/config");

HaDevice Kiosk(const std::string& host = "lobby") {
  return {"glimra/" + host, HaNodeId("glimra " + host), "1.2.3", host};
}

TEST(HaDiscovery, EveryMessageHasWhatHomeAssistantRequiresForItsKind) {
  const HaDevice d = Kiosk();
  const auto messages = HaDiscoveryMessages(d);
  std::map<std::string, int> kinds;
  std::set<std::string> ids;
  json device;
  for (const HaMessage& m : messages) {
    SCOPED_TRACE(m.topic);
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(m.topic, parts, kTopic));
    EXPECT_EQ(parts[2], "glimra_lobby");
    EXPECT_TRUE(std::regex_match(parts[3].str(), kId));
    const json c = json::parse(m.payload);  // throws, failing the test, on a broken payload
    const std::string kind = parts[1];
    ++kinds[kind];
    const bool commands = kind == "button" || kind == "switch";
    const bool states = kind == "switch" || kind == "sensor";
    EXPECT_EQ(c.value("command_topic", ""), commands ? "glimra/lobby/cmd" : "");
    EXPECT_EQ(c.value("state_topic", ""), states ? "glimra/lobby/state" : "");
    if (kind == "image") {
      EXPECT_EQ(c.at("image_topic"), "glimra/lobby/screen");
      EXPECT_EQ(c.at("content_type"), "image/jpeg");
    }
    EXPECT_TRUE(ids.insert(c.at("unique_id").get<std::string>()).second) << "unique_id repeats";
    EXPECT_TRUE(std::regex_match(c.at("unique_id").get<std::string>(), kId));
    EXPECT_FALSE(c.at("name").get<std::string>().empty());
    EXPECT_EQ(c.at("availability_topic"), "glimra/lobby/status");
    // One device for all of them, which needs identifiers.
    if (device.is_null()) device = c.at("device");
    EXPECT_EQ(c.at("device"), device);
  }
  EXPECT_EQ(kinds, (std::map<std::string, int>{{"button", 3}, {"switch", 4}, {"sensor", 1},
                                               {"image", 1}}));
  ASSERT_TRUE(device.at("identifiers").is_array() && !device.at("identifiers").empty());
  EXPECT_EQ(device.at("manufacturer"), "glimra");
  EXPECT_EQ(device.at("sw_version"), "1.2.3");
}

TEST(HaDiscovery, ButtonsAndSwitchesSendCommandsTheDisplayObeys) {
  // Which word means what is the command parser's own test; here each must be one.
  int checked = 0;
  for (const HaMessage& m : HaDiscoveryMessages(Kiosk())) {
    SCOPED_TRACE(m.topic);
    const json c = json::parse(m.payload);
    for (const char* key : {"payload_press", "payload_on", "payload_off"}) {
      if (!c.contains(key)) continue;
      const std::string word = c.at(key);
      const Command cmd = ParseCommand(word.c_str());
      ASSERT_NE(cmd.kind, Command::NONE) << "not a command: '" << word << "'";
      if (cmd.kind == Command::BLACK_AND_WHITE || cmd.kind == Command::INFO ||
          cmd.kind == Command::DISPLAY) {
        EXPECT_EQ(cmd.on, std::string(key) == "payload_on") << word;
      }
      ++checked;
    }
    // A switch's template reads its field of the state and renders its state_on or state_off.
    const std::map<std::string, std::string> fields = {
        {"black_and_white", "bw"}, {"information_line", "info"}, {"advance_paused", "paused"},
        {"display", "display"}};
    const std::string object = m.topic.substr(0, m.topic.rfind('/'));
    const auto field = fields.find(object.substr(object.rfind('/') + 1));
    if (c.contains("payload_on") && field != fields.end()) {
      const std::string t = c.at("value_template");
      EXPECT_NE(t.find("value_json." + field->second + " "), std::string::npos) << t;
      EXPECT_NE(t.find("'" + c.at("state_on").get<std::string>() + "'"), std::string::npos) << t;
      EXPECT_NE(t.find("'" + c.at("state_off").get<std::string>() + "'"), std::string::npos) << t;
    } else {
      EXPECT_FALSE(c.contains("payload_on")) << "a switch without its state field";
    }
  }
  EXPECT_EQ(checked, 11);
}

TEST(HaDiscovery, AnyHostNameGivesValidIdsAndTopics) {
  for (const std::string host : {"kiosk.example.org", "Lobby Screen 2", "caf\xC3\xA9-\xE2\x98\x95",
                                 "...", "", "bad\xFF\xFEname"}) {
    SCOPED_TRACE(host);
    const std::string node = HaNodeId(host);
    EXPECT_TRUE(std::regex_match(node, kId)) << node;
    EXPECT_NE(node.front(), '_');
    EXPECT_NE(node.back(), '_');
    // The raw name given as node id is made safe too; the device keeps its name readable.
    const HaDevice d{"glimra/x", host, "1", host};
    for (const HaMessage& m : HaDiscoveryMessages(d)) {
      std::smatch parts;
      ASSERT_TRUE(std::regex_match(m.topic, parts, kTopic)) << m.topic;
      EXPECT_EQ(parts[2], node);
      const json c = json::parse(m.payload);
      EXPECT_TRUE(std::regex_match(c.at("unique_id").get<std::string>(), kId));
      EXPECT_TRUE(host != "Lobby Screen 2" || c.at("device").at("name") == host);
    }
  }
  EXPECT_EQ(HaNodeId("kiosk.example.org"), "kiosk_example_org");
  EXPECT_EQ(HaNodeId("Lobby  Screen"), "lobby_screen");
  EXPECT_EQ(HaNodeId("caf\xC3\xA9-\xE2\x98\x95"), "caf_-");
  EXPECT_EQ(HaNodeId(""), "glimra");
}

}  // namespace
