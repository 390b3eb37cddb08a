// RemoteControl: the slideshow steered and watched through an MQTT broker. Off unless
// "mqtt.host" names a broker: then nothing of it runs, not even the library's start.
//
// Topics, under "mqtt.topic" (default "glimra/<host name>"): commands arrive on "<topic>/cmd" and,
// with "mqtt.group", on "glimra/group/<group>/cmd" too, as the texts of app/commands.h. A payload
// over 1024 bytes is ignored; one that is no command is ignored with a warning naming the topic
// and the payload (cut to 80 characters). "<topic>/status" is "online" (retained) while
// connected and "offline" (retained: the broker's last will, and published on an orderly end).
// "<topic>/state" is a retained JSON object describing what is shown, published on every change
// and at most once a second: a change within the second is published at its end, the last one
// winning. "<topic>/screen" is a small JPEG of what the screen shows (retained), published when
// it changes. With "mqtt.discovery=1" the Home Assistant discovery messages (app/ha_discovery.h)
// are published retained on each connection and again whenever Home Assistant says "online" on
// "homeassistant/status". With it off, discovery messages this display left on the broker
// earlier are removed.
//
// One thread of its own talks to the broker; the main loop never waits on the network. The thread
// sleeps until the broker or the main thread has something for it, a held-back state is due, or
// the keep-alive wants a look (every 10 s): nothing ticks at rest. A broker that is absent, goes
// away, refuses the login or fails the TLS check is tried again after 1 s, then 2, 4, ... up to
// 60 s; the first failure and the recovery are logged once each, not every attempt. On each
// connection the status and the last state are published again.
//
// Commands are queued by that thread and carried out on the main thread by Drain, those that
// wait together as one batch (RunCommands), with a wake of the main loop (QEventWake) when the
// queue was empty. The state is built on the main thread (Update) and handed over. Owned by the
// controller; the destructor says "offline" (at most half a second) and ends the thread. A thread
// held in the host-name lookup of a connection (which nothing can cut short) is waited for 0.1 s
// only, then left to end on its own: what it touches lives on with it (a note says so).
#pragma once

#include <memory>
#include <string>
#include <thread>

class QIni;
class RaceManager;

// What the "mqtt.*" keys say.
struct RemoteSettings {
  std::string host;
  int port = 1883;
  bool tls = false;
  std::string caFile, certFile, keyFile;  // certFile and keyFile: optional client certificate
  std::string username;
  std::string password;  // read from "mqtt.password_file"; never logged
  std::string topic;     // without a trailing '/'
  std::string group;
  bool discovery = false;
};

// Reads the "mqtt.*" keys; false (and `out` unchanged) when "mqtt.host" is empty. A port that is
// no number from 1 to 65535 is an error naming it, and the default is used. The password file is
// read once: an unreadable one is an error naming the file (the login then goes without a
// password and is refused); one that its group or others may read is a warning naming the file.
bool ReadRemoteSettings(QIni* ini, RemoteSettings* out);

// What the state topic tells, taken on the main thread.
struct DisplayState {
  std::string file;  // as shown; empty before the first picture
  int index = -1, count = 0;
  bool blackAndWhite = false, info = false, paused = false;
  bool display = true;  // lit (not off by the schedule or a command)
  int shown = 0, failures = 0;
  unsigned long warnings = 0;  // the log's count so far: a new one changes `lastWarning`
  // Sampled when the state is published; no change of these alone is published.
  std::string lastWarning;
  long long uptimeSeconds = 0, rssKb = 0;
  // Whether a state topic made of `other` would say something else (the samples left out).
  bool SameAs(const DisplayState& other) const;
};
// The state of `rm` now, without the samples (see SampleDisplayState).
DisplayState TakeDisplayState(const RaceManager& rm);
// Fills in the last warning, the process's uptime and its resident memory.
void SampleDisplayState(DisplayState* state);
// The state topic's JSON text (one line). Names that are not UTF-8 are carried with their odd
// bytes replaced, never as an error.
std::string StateJson(const DisplayState& state);

class RemoteControl {
 public:
  RemoteControl();
  ~RemoteControl();
  RemoteControl(const RemoteControl&) = delete;
  RemoteControl& operator=(const RemoteControl&) = delete;

  // Starts the library and the thread that connects to the broker of `settings`; false (an
  // error says why) when the library or the thread cannot be made. A broker that cannot be
  // reached is no failure here: the thread keeps trying.
  bool Start(const RemoteSettings& settings);
  // Main thread: carries out the commands that arrived, as one batch; answers how many payloads
  // were taken. A stop request ends the work.
  int Drain();
  // Main thread: hands `rm`'s state to the broker thread when it changed.
  void Update(const RaceManager& rm);
  // Any thread: a new screen JPEG, published (retained) at once when connected, else on the
  // next connection.
  void PublishScreen(std::string jpeg);
  // True while the broker has accepted the login.
  bool Connected() const;

 private:
  // The broker thread's side: the client, its queues and what it keeps. Shared with the thread,
  // so that an end which leaves a host-name lookup behind frees nothing the lookup comes back to.
  class Link;

  std::shared_ptr<Link> link_;
  std::thread thread_;

  // Main thread: the last state handed over (valid once one was).
  DisplayState seen_;
  bool seenValid_ = false;
};
