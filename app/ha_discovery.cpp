// Home Assistant discovery: the entities' JSON, built with nlohmann::json.
#include "app/ha_discovery.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

// One entity: its kind, object id and name, and what only that kind carries.
struct Entity {
  const char* component;
  const char* object;
  const char* name;
  json fields;
};

// A switch that sends `on`/`off` and reads the state's boolean `field`. The template renders
// ON or OFF itself, so the match does not hang on how the template engine prints a boolean.
json Switch(const std::string& topic, const char* on, const char* off, const char* field) {
  return {{"command_topic", topic + "/cmd"},
          {"payload_on", on},
          {"payload_off", off},
          {"state_topic", topic + "/state"},
          {"value_template", std::string("{{ 'ON' if value_json.") + field + " else 'OFF' }}"},
          {"state_on", "ON"},
          {"state_off", "OFF"}};
}

json Button(const std::string& topic, const char* press) {
  return {{"command_topic", topic + "/cmd"}, {"payload_press", press}};
}

std::vector<Entity> Entities(const std::string& topic) {
  return {
      {"button", "next", "Next", Button(topic, "next")},
      {"button", "previous", "Previous", Button(topic, "prev")},
      {"button", "rescan", "Rescan", Button(topic, "rescan")},
      {"switch", "black_and_white", "Black and white", Switch(topic, "bw 1", "bw 0", "bw")},
      {"switch", "information_line", "Information line", Switch(topic, "info 1", "info 0", "info")},
      {"switch", "advance_paused", "Advance paused", Switch(topic, "pause", "resume", "paused")},
      {"switch", "display", "Display", Switch(topic, "display on", "display off", "display")},
      {"sensor", "shown_file", "Shown file",
       {{"state_topic", topic + "/state"}, {"value_template", "{{ value_json.file }}"}}},
      {"image", "screen", "Screen",
       {{"image_topic", topic + "/screen"}, {"content_type", "image/jpeg"}}},
  };
}

std::string ConfigTopic(const Entity& e, const std::string& node) {
  return std::string("homeassistant/") + e.component + "/" + node + "/" + e.object + "/config";
}

}  // namespace

std::string HaNodeId(const std::string& text) {
  std::string id;
  bool gap = false;
  for (const char ch : text) {
    const unsigned char c = static_cast<unsigned char>(ch);
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '_' || c == '-';
    if (!allowed) {
      gap = true;
      continue;
    }
    if (gap && !id.empty()) id += '_';
    gap = false;
    id += char(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  return id.empty() ? "glimra" : id;
}

std::vector<HaMessage> HaDiscoveryMessages(const HaDevice& device) {
  const std::string node = HaNodeId(device.nodeId);
  const json dev = {{"identifiers", json::array({node})},
                    {"name", device.hostName.empty() ? node : device.hostName},
                    {"manufacturer", "glimra"},
                    {"model", "Picture slideshow"},
                    {"sw_version", device.version}};
  std::vector<HaMessage> out;
  for (const Entity& e : Entities(device.topic)) {
    json config = e.fields;
    config["name"] = e.name;
    config["unique_id"] = node + "_" + e.object;
    config["availability_topic"] = device.topic + "/status";
    config["payload_available"] = "online";
    config["payload_not_available"] = "offline";
    config["device"] = dev;
    // A host name that is not valid UTF-8 is shown with replacement characters, not refused.
    out.push_back({ConfigTopic(e, node), config.dump(-1, ' ', false,
                                                     json::error_handler_t::replace)});
  }
  return out;
}

std::vector<HaMessage> HaRemovalMessages(const HaDevice& device) {
  const std::string node = HaNodeId(device.nodeId);
  std::vector<HaMessage> out;
  for (const Entity& e : Entities(device.topic)) out.push_back({ConfigTopic(e, node), ""});
  return out;
}
