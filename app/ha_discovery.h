// Home Assistant discovery: the retained messages that make one display appear in Home Assistant
// as one device with its controls, so that nobody has to configure it there by hand.
//
// Each entity is published under "homeassistant/<component>/<node id>/<object id>/config" and
// speaks the display's own command words on "<topic>/cmd" (the words ParseCommand takes), reads
// its state from the JSON on "<topic>/state" (fields "bw", "info", "paused", "display": booleans;
// "file": the shown file's name) and is available while "<topic>/status" says "online":
//   buttons  next, previous, rescan            ("next", "prev", "rescan")
//   switches black and white, information line ("bw 1"/"bw 0", "info 1"/"info 0"),
//            advance paused, display           ("pause"/"resume", "display on"/"display off")
//   sensor   shown file
//   image    screen, the JPEG on "<topic>/screen"
// All of them carry the same device block, so Home Assistant groups them.
//
// Pure functions: nothing is sent here. The sender publishes every message retained, again when
// Home Assistant announces its start ("online" on "homeassistant/status"), and the removal
// messages when discovery is switched off.
#pragma once

#include <string>
#include <vector>

// One message to publish retained.
struct HaMessage {
  std::string topic;
  std::string payload;  // JSON; empty in a removal
};

// What the messages describe.
struct HaDevice {
  std::string topic;     // the display's base topic, "glimra/<host>"
  std::string nodeId;    // unique per display; made safe with HaNodeId whatever it holds
  std::string version;   // the program's version
  std::string hostName;  // shown as the device's name; any UTF-8
};

// `text` in the characters Home Assistant allows in ids ([a-zA-Z0-9_-]), lower case: every run of
// other bytes (dots, blanks, UTF-8 sequences) becomes one '_', none at either end; "glimra" when
// nothing is left. Never fails.
std::string HaNodeId(const std::string& text);

// The discovery messages of every entity, in the order listed above. Never fails.
std::vector<HaMessage> HaDiscoveryMessages(const HaDevice& device);

// The same topics with empty payloads: Home Assistant forgets the entities. Never fails.
std::vector<HaMessage> HaRemovalMessages(const HaDevice& device);
