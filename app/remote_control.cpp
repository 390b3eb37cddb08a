// The MQTT remote control: its settings, the state it reports, the broker thread and the main
// thread's side.
#include "app/remote_control.h"

#include <mosquitto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <vector>

#include "app/commands.h"
#include "app/ha_discovery.h"
#include "app/slideshow.h"
#include "framework/qeval.h"
#include "framework/qevent.h"
#include "framework/qini.h"
#include "framework/qmessage.h"

#ifndef GLIMRA_VERSION
#define GLIMRA_VERSION "unknown"
#endif

namespace {

constexpr int kDefaultPort = 1883;
// Where Home Assistant says "online" when it starts.
constexpr const char* kHaStatusTopic = "homeassistant/status";
constexpr size_t kMaxPayload = 1024;
// A flood beyond this waits in the broker's socket, not in our memory.
constexpr size_t kMaxQueued = 4096;
constexpr int kKeepAliveS = 30;
// How long the thread sleeps in the library between looks at the state and the stop flag.
constexpr int kLoopMs = 100;
constexpr int kFirstPauseMs = 1000, kLongestPauseMs = 60000;
// A connection that has not been accepted by then is given up and tried again.
constexpr auto kConnectTimeout = std::chrono::seconds(10);
constexpr auto kStateGap = std::chrono::seconds(1);
constexpr auto kGoodbyeTime = std::chrono::milliseconds(500);

const auto g_started = std::chrono::steady_clock::now();

// `text` cut to `n` bytes without splitting a UTF-8 character.
std::string Cut(const std::string& text, size_t n) {
  if (text.size() <= n) return text;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return text.substr(0, n) + "...";
}

long long ResidentKb() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, 6, "VmRSS:") == 0) return atoll(line.c_str() + 6);
  return 0;
}

std::string HostName() {
  char host[256] = "";
  if (gethostname(host, sizeof(host) - 1) != 0 || !*host) return "display";
  return host;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Settings and state
// ---------------------------------------------------------------------------------------------

bool ReadRemoteSettings(QIni* ini, RemoteSettings* out) {
  if (!ini) return false;
  RemoteSettings s;
  qstring text;
  const auto get = [&](const char* key, std::string* value) {
    ini->GetString(key, &text, "");
    *value = text.cstr();
  };
  get("mqtt.host", &s.host);
  if (s.host.empty()) return false;
  std::string port;
  get("mqtt.port", &port);
  if (!port.empty()) {
    bool complete = false;
    const int p = qeval(port.c_str(), &complete);
    if (complete && p >= 1 && p <= 65535) {
      s.port = p;
    } else {
      QERR("ReadRemoteSettings", "mqtt.port '%s' is not a port number from 1 to 65535; using %d",
           port.c_str(), kDefaultPort);
    }
  }
  s.tls = ini->GetBool("mqtt.tls", false);
  get("mqtt.ca_file", &s.caFile);
  get("mqtt.cert_file", &s.certFile);
  get("mqtt.key_file", &s.keyFile);
  get("mqtt.username", &s.username);
  std::string passwordFile;
  get("mqtt.password_file", &passwordFile);
  if (!passwordFile.empty()) {
    std::ifstream in(passwordFile, std::ios::binary);
    struct stat st {};
    if (!in || stat(passwordFile.c_str(), &st) != 0) {
      QERR("ReadRemoteSettings", "Can't read mqtt.password_file '%s'", passwordFile.c_str());
    } else {
      std::getline(in, s.password);
      if (!s.password.empty() && s.password.back() == '\r') s.password.pop_back();
      if (st.st_mode & (S_IRWXG | S_IRWXO))
        QWARN("ReadRemoteSettings",
              "mqtt.password_file '%s' may be read by others than its owner (chmod 600 it)",
              passwordFile.c_str());
    }
  }
  get("mqtt.topic", &s.topic);
  while (!s.topic.empty() && s.topic.back() == '/') s.topic.pop_back();
  if (s.topic.empty()) s.topic = "glimra/" + HostName();
  get("mqtt.group", &s.group);
  s.discovery = ini->GetBool("mqtt.discovery", false);
  *out = std::move(s);
  return true;
}

DisplayState TakeDisplayState(const RaceManager& rm) {
  DisplayState s;
  s.file = rm.GetCurFile();
  s.index = rm.GetCurImage();
  s.count = rm.GetImageCount();
  s.blackAndWhite = rm.IsBlackAndWhite();
  s.info = (rm.GetFlags() & RaceManager::SHOW_INFO) != 0;
  s.paused = rm.IsPaused();
  s.display = rm.IsDisplayOn();
  s.shown = rm.GetShownCount();
  s.failures = rm.GetFailureCount();
  s.lastWarning = qlogLastWarning();
  s.uptimeSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                        std::chrono::steady_clock::now() - g_started)
                        .count();
  s.rssKb = ResidentKb();
  return s;
}

std::string StateJson(const DisplayState& s) {
  nlohmann::json j;
  j["file"] = s.file;
  j["index"] = s.index;
  j["count"] = s.count;
  j["bw"] = s.blackAndWhite;
  j["info"] = s.info;
  j["paused"] = s.paused;
  j["display"] = s.display;
  j["version"] = GLIMRA_VERSION;
  j["uptime_s"] = s.uptimeSeconds;
  j["shown"] = s.shown;
  j["failures"] = s.failures;
  j["rss_kb"] = s.rssKb;
  j["last_warning"] = s.lastWarning;
  // A file name need not be UTF-8; JSON must be.
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// ---------------------------------------------------------------------------------------------
// Main thread
// ---------------------------------------------------------------------------------------------

RemoteControl::RemoteControl() = default;

RemoteControl::~RemoteControl() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  if (mosq_) {
    mosquitto_destroy(mosq_);
    mosquitto_lib_cleanup();
  }
}

bool RemoteControl::Start(const RemoteSettings& settings) {
  settings_ = settings;
  cmdTopic_ = settings.topic + "/cmd";
  statusTopic_ = settings.topic + "/status";
  stateTopic_ = settings.topic + "/state";
  screenTopic_ = settings.topic + "/screen";
  discoveryPattern_ = std::string("homeassistant/+/") + HaNodeId(settings.topic) + "/+/config";
  if (!settings.group.empty()) groupTopic_ = "glimra/group/" + settings.group + "/cmd";
  mosquitto_lib_init();
  mosq_ = mosquitto_new(nullptr, true, this);
  if (!mosq_) {
    QERR("RemoteControl::Start", "Can't make an MQTT client for '%s:%d'", settings.host.c_str(),
         settings.port);
    mosquitto_lib_cleanup();
    return false;
  }
  mosquitto_connect_callback_set(mosq_, &RemoteControl::OnConnect);
  mosquitto_message_callback_set(mosq_, &RemoteControl::OnMessage);
  mosquitto_log_callback_set(mosq_, &RemoteControl::OnLog);
  if (!settings.username.empty() || !settings.password.empty())
    mosquitto_username_pw_set(mosq_, settings.username.empty() ? nullptr : settings.username.c_str(),
                              settings.password.empty() ? nullptr : settings.password.c_str());
  mosquitto_will_set(mosq_, statusTopic_.c_str(), 7, "offline", 1, true);
  if (settings.tls) {
    // Without a CA file the system's authorities vouch for the broker.
    const char* ca = settings.caFile.empty() ? nullptr : settings.caFile.c_str();
    const int rc = mosquitto_tls_set(mosq_, ca, ca ? nullptr : "/etc/ssl/certs",
                                     settings.certFile.empty() ? nullptr : settings.certFile.c_str(),
                                     settings.keyFile.empty() ? nullptr : settings.keyFile.c_str(),
                                     nullptr);
    if (rc != MOSQ_ERR_SUCCESS) {
      // The connection then fails the TLS check, which is logged once like any other failure.
      QERR("RemoteControl::Start", "MQTT TLS files '%s', '%s', '%s' not usable: %s",
           settings.caFile.c_str(), settings.certFile.c_str(), settings.keyFile.c_str(),
           mosquitto_strerror(rc));
    }
  }
  try {
    thread_ = std::thread(&RemoteControl::Run, this);
  } catch (const std::exception& e) {
    QERR("RemoteControl::Start", "Can't start the MQTT thread: %s", e.what());
    mosquitto_destroy(mosq_);
    mosq_ = nullptr;
    mosquitto_lib_cleanup();
    return false;
  }
  return true;
}

int RemoteControl::Drain() {
  std::deque<Message> taken;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    taken.swap(queue_);
    dropping_ = false;
  }
  if (taken.empty()) return 0;
  std::vector<Command> batch;
  for (const Message& m : taken) {
    // A zero inside would make a different command of the text than the sender meant.
    Command c = m.payload.find('\0') == std::string::npos ? ParseCommand(m.payload.c_str())
                                                          : Command();
    if (c.kind == Command::NONE)
      QWARN("RemoteControl::Drain", "Not a command on '%s': '%s'", m.topic.c_str(),
            Cut(m.payload, 80).c_str());
    else
      batch.push_back(std::move(c));
  }
  if (RaceManager* rm = QGetRaceManager()) RunCommands(batch, rm);
  return int(taken.size());
}

void RemoteControl::Update(const RaceManager& rm) {
  // Uptime and memory change all the time; they ride along with the changes that count.
  const std::string key = std::string(rm.GetCurFile()) + '\n' + std::to_string(rm.GetCurImage()) +
                          ' ' + std::to_string(rm.GetImageCount()) + ' ' +
                          std::to_string(rm.IsBlackAndWhite()) +
                          std::to_string((rm.GetFlags() & RaceManager::SHOW_INFO) != 0) +
                          std::to_string(rm.IsPaused()) + std::to_string(rm.IsDisplayOn()) + ' ' +
                          std::to_string(rm.GetShownCount()) +
                          ' ' + std::to_string(rm.GetFailureCount()) + '\n' + qlogLastWarning();
  if (key == changeKey_) return;
  changeKey_ = key;
  std::string json = StateJson(TakeDisplayState(rm));
  std::lock_guard<std::mutex> lock(mutex_);
  state_ = std::move(json);
}

void RemoteControl::PublishScreen(std::string jpeg) {
  std::lock_guard<std::mutex> lock(mutex_);
  screen_ = std::move(jpeg);
  screenDue_ = true;
}

bool RemoteControl::Connected() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connected_;
}

// ---------------------------------------------------------------------------------------------
// Broker thread
// ---------------------------------------------------------------------------------------------

void RemoteControl::OnConnect(mosquitto* m, void* arg, int rc) {
  RemoteControl* self = static_cast<RemoteControl*>(arg);
  if (rc != 0) {
    self->refusal_ = rc;
    return;
  }
  mosquitto_subscribe(m, nullptr, self->cmdTopic_.c_str(), 1);
  if (!self->groupTopic_.empty()) mosquitto_subscribe(m, nullptr, self->groupTopic_.c_str(), 1);
  mosquitto_publish(m, nullptr, self->statusTopic_.c_str(), 6, "online", 1, true);
  {
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->connected_ = true;
  }
  if (self->failing_)
    QNOTE("RemoteControl", "MQTT broker '%s:%d': connected again", self->settings_.host.c_str(),
          self->settings_.port);
  else
    QNOTE("RemoteControl", "MQTT broker '%s:%d': connected as '%s'", self->settings_.host.c_str(),
          self->settings_.port, self->settings_.topic.c_str());
  self->failing_ = false;
  self->PublishState(true);
  self->PublishScreenNow(true);
  if (self->settings_.discovery) {
    // Home Assistant announces its own start there; it forgets what it was told before.
    mosquitto_subscribe(m, nullptr, kHaStatusTopic, 1);
    self->PublishDiscovery();
  } else {
    // Entities of an earlier run with discovery on come back as retained messages: removed then.
    mosquitto_subscribe(m, nullptr, self->discoveryPattern_.c_str(), 1);
  }
}

void RemoteControl::OnMessage(mosquitto*, void* arg, const mosquitto_message* msg) {
  RemoteControl* self = static_cast<RemoteControl*>(arg);
  if (self->settings_.discovery && msg->topic && strcmp(msg->topic, kHaStatusTopic) == 0) {
    if (msg->payloadlen == 6 && memcmp(msg->payload, "online", 6) == 0) self->PublishDiscovery();
    return;
  }
  if (!self->settings_.discovery && msg->topic && msg->topic != self->cmdTopic_ &&
      msg->topic != self->groupTopic_) {
    // One of this display's discovery messages while discovery is off: empty it (the empty
    // message that comes back is left alone).
    if (msg->payloadlen > 0) mosquitto_publish(self->mosq_, nullptr, msg->topic, 0, "", 1, true);
    return;
  }
  if (msg->payloadlen < 0 || size_t(msg->payloadlen) > kMaxPayload) {
    QWARN("RemoteControl", "Ignored a payload of %d bytes on '%s' (at most %zu)", msg->payloadlen,
          msg->topic, kMaxPayload);
    return;
  }
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(self->mutex_);
    if (self->queue_.size() >= kMaxQueued) {
      if (!self->dropping_)
        QWARN("RemoteControl", "Commands on '%s' come faster than they are carried out; some are "
              "dropped", msg->topic);
      self->dropping_ = true;
      return;
    }
    wake = self->queue_.empty();
    self->queue_.push_back(
        {msg->topic, std::string(static_cast<const char*>(msg->payload), size_t(msg->payloadlen))});
  }
  if (wake) QEventWake();
}

void RemoteControl::OnLog(mosquitto*, void* arg, int level, const char* text) {
  // Kept to explain a failure (a TLS check, say) in the one line that reports it.
  if ((level & MOSQ_LOG_ERR) && text) static_cast<RemoteControl*>(arg)->libraryError_ = text;
}

void RemoteControl::Failed(const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_ = false;
  }
  if (failing_) return;
  failing_ = true;
  QWARN("RemoteControl", "MQTT broker '%s:%d': %s; trying again in the background",
        settings_.host.c_str(), settings_.port, why.c_str());
}

std::string RemoteControl::Why(int rc) const {
  std::string why = refusal_                         ? mosquitto_connack_string(refusal_)
                    : rc == MOSQ_ERR_ERRNO && errno ? strerror(errno)
                                                    : mosquitto_strerror(rc);
  // The library's texts are sentences; ours goes on after them.
  if (!why.empty() && why.back() == '.') why.pop_back();
  if (!refusal_ && !libraryError_.empty()) why += " (" + libraryError_ + ")";
  return why;
}

bool RemoteControl::Connect() {
  refusal_ = 0;
  libraryError_.clear();
  errno = 0;
  const int rc =
      addressSet_ ? mosquitto_reconnect_async(mosq_)
                  : mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port, kKeepAliveS);
  // The first call stores the address; later ones go to it again.
  if (rc != MOSQ_ERR_INVAL) addressSet_ = true;
  if (rc == MOSQ_ERR_SUCCESS) return true;
  Failed(Why(rc));
  return false;
}

void RemoteControl::PublishState(bool force) {
  std::string state;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!connected_) return;
    state = state_;
  }
  const auto now = std::chrono::steady_clock::now();
  if (state.empty() || (!force && (state == published_ || now - publishedAt < kStateGap))) return;
  if (mosquitto_publish(mosq_, nullptr, stateTopic_.c_str(), int(state.size()), state.data(), 1,
                        true) != MOSQ_ERR_SUCCESS)
    return;
  published_ = std::move(state);
  publishedAt = now;
}

void RemoteControl::PublishScreenNow(bool force) {
  std::string jpeg;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!connected_ || screen_.empty() || !(screenDue_ || force)) return;
    jpeg = screen_;
    screenDue_ = false;
  }
  // Retained, so that a viewer that comes later sees the wall at once.
  mosquitto_publish(mosq_, nullptr, screenTopic_.c_str(), int(jpeg.size()), jpeg.data(), 0, true);
}

void RemoteControl::PublishDiscovery() {
  HaDevice device;
  device.topic = settings_.topic;
  // The topic is what tells displays apart; the host name is only what people read.
  device.nodeId = HaNodeId(settings_.topic);  // as in discoveryPattern_
  device.version = GLIMRA_VERSION;
  device.hostName = HostName();
  for (const HaMessage& m : HaDiscoveryMessages(device))
    mosquitto_publish(mosq_, nullptr, m.topic.c_str(), int(m.payload.size()), m.payload.data(), 1,
                      true);
}

void RemoteControl::Run() {
  int pauseMs = kFirstPauseMs;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    lock.unlock();
    bool up = Connect();
    const auto begun = std::chrono::steady_clock::now();
    while (up) {
      lock.lock();
      const bool stopping = stop_;
      lock.unlock();
      if (stopping) break;
      errno = 0;
      const int rc = mosquitto_loop(mosq_, kLoopMs, 1);
      const bool accepted = Connected();
      if (rc != MOSQ_ERR_SUCCESS || refusal_ != 0) {
        Failed(Why(rc));
        up = false;
      } else if (!accepted && std::chrono::steady_clock::now() - begun > kConnectTimeout) {
        Failed("no answer");
        up = false;
      } else if (accepted) {
        pauseMs = kFirstPauseMs;
        PublishState(false);
        PublishScreenNow(false);
      }
    }
    lock.lock();
    if (stop_) break;
    // Growing pauses: a broker that is down is not hammered, and one that is back is found.
    wake_.wait_for(lock, std::chrono::milliseconds(pauseMs), [this] { return stop_; });
    pauseMs = std::min(pauseMs * 2, kLongestPauseMs);
  }
  const bool wasConnected = connected_;
  connected_ = false;
  lock.unlock();
  if (!wasConnected) return;
  // An orderly end says so at once, rather than when the broker misses the keep-alive.
  mosquitto_publish(mosq_, nullptr, statusTopic_.c_str(), 7, "offline", 1, true);
  mosquitto_disconnect(mosq_);
  const auto until = std::chrono::steady_clock::now() + kGoodbyeTime;
  while (std::chrono::steady_clock::now() < until &&
         mosquitto_loop(mosq_, 50, 1) == MOSQ_ERR_SUCCESS) {
  }
}
