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
#include <chrono>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <vector>

#include "app/commands.h"
#include "app/ha_discovery.h"
#include "app/slideshow.h"
#include "framework/qeval.h"
#include "framework/qevent.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "net/watch.h"

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
// The longest sleep while connected: the library sends its ping once the keep-alive has passed
// without traffic, and the broker gives up after one and a half of them, so a look every third
// sends it in time.
constexpr auto kKeepAliveLook = std::chrono::seconds(kKeepAliveS / 3);
constexpr int kFirstPauseMs = 1000, kLongestPauseMs = 60000;
// A connection that has not been accepted by then is given up and tried again.
constexpr auto kConnectTimeout = std::chrono::seconds(10);
constexpr auto kStateGap = std::chrono::seconds(1);
constexpr auto kGoodbyeTime = std::chrono::milliseconds(500);
// How long the end waits for the thread beyond its goodbye; and for one held in a host-name
// lookup, which nothing can cut short, before leaving it behind.
constexpr auto kEndSlack = std::chrono::milliseconds(250);
constexpr auto kLookupWait = std::chrono::milliseconds(100);

using Clock = std::chrono::steady_clock;

// Milliseconds from now to `at`, at least 0 and at most a day (the sleep's own limit).
int MsUntil(Clock::time_point at) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(at - Clock::now()).count();
  return int(std::clamp<long long>(ms + 1, 0, 24LL * 3600 * 1000));
}

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

// A command as it came, for the main thread.
struct Message {
  std::string topic, payload;
};

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
  s.warnings = qlogWarningCount();
  return s;
}

bool DisplayState::SameAs(const DisplayState& o) const {
  return file == o.file && index == o.index && count == o.count && shown == o.shown &&
         failures == o.failures && blackAndWhite == o.blackAndWhite && info == o.info &&
         paused == o.paused && display == o.display && warnings == o.warnings;
}

void SampleDisplayState(DisplayState* s) {
  s->lastWarning = qlogLastWarning();
  s->uptimeSeconds = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::steady_clock::now() - g_started)
                         .count();
  s->rssKb = ResidentKb();
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
// The broker thread's side
// ---------------------------------------------------------------------------------------------

class RemoteControl::Link {
 public:
  explicit Link(const RemoteSettings& settings);
  // Frees the client, whichever side lets go last.
  ~Link();
  // Makes the client; false (an error says why) when the library cannot.
  bool Make();
  // The thread: connects, serves and tries again until the end, then says goodbye.
  void Run();

  // Shared with the main thread, under `mutex_`.
  std::mutex mutex_;
  std::condition_variable ended_;    // `done_` became true
  bool stop_ = false;
  bool done_ = false;                // the thread has nothing more to do
  bool lookingUp_ = false;           // in the library's connect, which may wait on a name lookup
  bool connected_ = false;           // the broker accepted the login
  std::deque<Message> queue_;        // commands for the main thread
  bool dropping_ = false;            // the queue is full: the overflow was warned about
  std::string state_;                // the newest state from the main thread
  std::string screen_;               // the newest screen JPEG
  bool screenDue_ = false;           // `screen_` has not been published yet
  // Any thread: ends the thread's sleep (new work for the broker, or the end).
  QNWatch watch_;

  const RemoteSettings settings_;

 private:
  // Begins a connection; false with the failure's words in `why` when it cannot even be begun.
  bool Connect(std::string* why);
  // Serves a begun connection until it fails or the end comes; true when it was accepted.
  bool Serve();
  // A failure `why` of the connection: logged when it is the first since the last success.
  void Failed(const std::string& why);
  // The words for the failure the library answered `rc` for (errno and its log read too).
  std::string Why(int rc) const;
  bool Stopping();
  bool Connected();
  // Publishes the state when one is due; `force` publishes the last one again at once.
  void PublishState(bool force);
  // Publishes the screen JPEG when a new one waits; `force` publishes the last one again.
  void PublishScreenNow(bool force);
  // The Home Assistant discovery messages, when "mqtt.discovery" asks for them.
  void PublishDiscovery();
  // Says "offline" and disconnects, within the goodbye's time.
  void Goodbye();
  static void OnConnect(mosquitto* m, void* self, int rc);
  static void OnMessage(mosquitto* m, void* self, const mosquitto_message* msg);
  static void OnLog(mosquitto* m, void* self, int level, const char* text);

  std::string cmdTopic_, groupTopic_, statusTopic_, stateTopic_, screenTopic_;
  std::string discoveryPattern_;  // this display's discovery topics, for their removal
  mosquitto* mosq_ = nullptr;

  std::string published_;            // the state text the broker last got
  Clock::time_point publishedAt_;
  Clock::time_point stateDueAt_ = Clock::time_point::max();  // a held-back state goes out then
  int refusal_ = 0;                  // the login's refusal code; 0 when none came
  std::string libraryError_;         // the library's last error line, for the failure text
  bool failing_ = false;             // a failure was logged and no success since
  bool addressSet_ = false;          // the library holds the broker's address
};

RemoteControl::Link::Link(const RemoteSettings& settings) : settings_(settings) {
  cmdTopic_ = settings.topic + "/cmd";
  statusTopic_ = settings.topic + "/status";
  stateTopic_ = settings.topic + "/state";
  screenTopic_ = settings.topic + "/screen";
  discoveryPattern_ = std::string("homeassistant/+/") + HaNodeId(settings.topic) + "/+/config";
  if (!settings.group.empty()) groupTopic_ = "glimra/group/" + settings.group + "/cmd";
}

RemoteControl::Link::~Link() {
  if (!mosq_) return;
  mosquitto_destroy(mosq_);
  mosquitto_lib_cleanup();
}

bool RemoteControl::Link::Make() {
  const RemoteSettings& settings = settings_;
  mosquitto_lib_init();
  mosq_ = mosquitto_new(nullptr, true, this);
  if (!mosq_) {
    QERR("RemoteControl::Start", "Can't make an MQTT client for '%s:%d'", settings.host.c_str(),
         settings.port);
    mosquitto_lib_cleanup();
    return false;
  }
  mosquitto_connect_callback_set(mosq_, &Link::OnConnect);
  mosquitto_message_callback_set(mosq_, &Link::OnMessage);
  mosquitto_log_callback_set(mosq_, &Link::OnLog);
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
  return true;
}

bool RemoteControl::Link::Stopping() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stop_;
}

bool RemoteControl::Link::Connected() {
  std::lock_guard<std::mutex> lock(mutex_);
  return connected_;
}

void RemoteControl::Link::OnConnect(mosquitto* m, void* arg, int rc) {
  Link* self = static_cast<Link*>(arg);
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

void RemoteControl::Link::OnMessage(mosquitto*, void* arg, const mosquitto_message* msg) {
  Link* self = static_cast<Link*>(arg);
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

void RemoteControl::Link::OnLog(mosquitto*, void* arg, int level, const char* text) {
  // Kept to explain a failure (a TLS check, say) in the one line that reports it.
  if ((level & MOSQ_LOG_ERR) && text) static_cast<Link*>(arg)->libraryError_ = text;
}

void RemoteControl::Link::Failed(const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_ = false;
  }
  if (failing_) return;
  failing_ = true;
  QWARN("RemoteControl", "MQTT broker '%s:%d': %s; trying again in the background",
        settings_.host.c_str(), settings_.port, why.c_str());
}

std::string RemoteControl::Link::Why(int rc) const {
  std::string why = refusal_                         ? mosquitto_connack_string(refusal_)
                    : rc == MOSQ_ERR_ERRNO && errno ? strerror(errno)
                                                    : mosquitto_strerror(rc);
  // The library's texts are sentences; ours goes on after them.
  if (!why.empty() && why.back() == '.') why.pop_back();
  if (!refusal_ && !libraryError_.empty()) why += " (" + libraryError_ + ")";
  return why;
}

bool RemoteControl::Link::Connect(std::string* why) {
  refusal_ = 0;
  libraryError_.clear();
  errno = 0;
  const int rc =
      addressSet_ ? mosquitto_reconnect_async(mosq_)
                  : mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port, kKeepAliveS);
  // The first call stores the address; later ones go to it again.
  if (rc != MOSQ_ERR_INVAL) addressSet_ = true;
  if (rc == MOSQ_ERR_SUCCESS) return true;
  *why = Why(rc);
  return false;
}

void RemoteControl::Link::PublishState(bool force) {
  std::string state;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!connected_) return;
    state = state_;
  }
  const auto now = Clock::now();
  stateDueAt_ = Clock::time_point::max();
  if (state.empty() || (!force && state == published_)) return;
  if (!force && now - publishedAt_ < kStateGap) {
    stateDueAt_ = publishedAt_ + kStateGap;
    return;
  }
  if (mosquitto_publish(mosq_, nullptr, stateTopic_.c_str(), int(state.size()), state.data(), 1,
                        true) != MOSQ_ERR_SUCCESS)
    return;
  published_ = std::move(state);
  publishedAt_ = now;
}

void RemoteControl::Link::PublishScreenNow(bool force) {
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

void RemoteControl::Link::PublishDiscovery() {
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

bool RemoteControl::Link::Serve() {
  const auto begun = Clock::now();
  bool accepted = false;
  while (!Stopping()) {
    if (accepted) {
      PublishState(false);
      PublishScreenNow(false);
    }
    // Sleeps until the broker or the main thread has something, a held-back state is due, the
    // keep-alive wants a look, or an unanswered connection is to be given up.
    auto until = accepted ? std::min(Clock::now() + kKeepAliveLook, stateDueAt_)
                          : begun + kConnectTimeout;
    watch_.Wait(mosquitto_socket(mosq_), mosquitto_want_write(mosq_), MsUntil(until));
    errno = 0;
    // The library's own loop without its sleep: its parts one by one (read, write, misc) cannot
    // go on with a TLS handshake that waited for the socket, this can.
    const int rc = mosquitto_loop(mosq_, 0, 1);
    accepted = Connected();
    if (rc != MOSQ_ERR_SUCCESS || refusal_ != 0) {
      Failed(Why(rc));
      break;
    }
    if (!accepted && Clock::now() - begun > kConnectTimeout) {
      Failed("no answer");
      break;
    }
  }
  return accepted;
}

void RemoteControl::Link::Run() {
  int pauseMs = kFirstPauseMs;
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stop_) break;
      lookingUp_ = true;
    }
    std::string why;
    const bool begun = Connect(&why);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      lookingUp_ = false;
      // The end may have left without waiting for the lookup: nothing more is logged then.
      if (stop_) break;
    }
    if (!begun) Failed(why);
    if (begun && Serve()) pauseMs = kFirstPauseMs;
    // Growing pauses: a broker that is down is not hammered, and one that is back is found.
    const auto until = Clock::now() + std::chrono::milliseconds(pauseMs);
    while (!Stopping() && Clock::now() < until) watch_.Wait(-1, false, MsUntil(until));
    pauseMs = std::min(pauseMs * 2, kLongestPauseMs);
  }
  Goodbye();
  std::lock_guard<std::mutex> lock(mutex_);
  done_ = true;
  ended_.notify_all();
}

void RemoteControl::Link::Goodbye() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const bool wasConnected = connected_;
    connected_ = false;
    if (!wasConnected) return;
  }
  // An orderly end says so at once, rather than when the broker misses the keep-alive.
  mosquitto_publish(mosq_, nullptr, statusTopic_.c_str(), 7, "offline", 1, true);
  mosquitto_disconnect(mosq_);
  const auto until = Clock::now() + kGoodbyeTime;
  // The library closes the socket once the disconnection is written.
  while (mosquitto_socket(mosq_) >= 0 && Clock::now() < until) {
    watch_.Wait(mosquitto_socket(mosq_), mosquitto_want_write(mosq_), MsUntil(until));
    if (mosquitto_loop(mosq_, 0, 1) != MOSQ_ERR_SUCCESS) break;
  }
}

// ---------------------------------------------------------------------------------------------
// Main thread
// ---------------------------------------------------------------------------------------------

RemoteControl::RemoteControl() = default;

RemoteControl::~RemoteControl() {
  if (!link_) return;
  std::unique_lock<std::mutex> lock(link_->mutex_);
  link_->stop_ = true;
  link_->watch_.Wake();
  // Only a name lookup holds the thread beyond its goodbye; it is left to finish on its own, with
  // the link it shares, rather than keeping the end (the process's, as a rule) waiting.
  const bool ended = link_->ended_.wait_for(
      lock, link_->lookingUp_ ? kLookupWait : kGoodbyeTime + kEndSlack,
      [this] { return link_->done_; });
  lock.unlock();
  if (ended) {
    thread_.join();
  } else {
    QNOTE("RemoteControl", "MQTT broker '%s:%d': the connection under way is left behind",
          link_->settings_.host.c_str(), link_->settings_.port);
    thread_.detach();
  }
}

bool RemoteControl::Start(const RemoteSettings& settings) {
  std::shared_ptr<Link> link = std::make_shared<Link>(settings);
  if (!link->Make()) return false;
  try {
    thread_ = std::thread([link] { link->Run(); });
  } catch (const std::exception& e) {
    QERR("RemoteControl::Start", "Can't start the MQTT thread: %s", e.what());
    return false;
  }
  link_ = std::move(link);
  return true;
}

int RemoteControl::Drain() {
  if (!link_) return 0;
  std::deque<Message> taken;
  {
    std::lock_guard<std::mutex> lock(link_->mutex_);
    taken.swap(link_->queue_);
    link_->dropping_ = false;
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
  if (!link_) return;
  // Asked on every pass of the main loop: compared field by field, nothing published unless it
  // changed. Uptime and memory change all the time; they ride along with the changes that count.
  DisplayState now = TakeDisplayState(rm);
  if (seenValid_ && now.SameAs(seen_)) return;
  SampleDisplayState(&now);
  std::string json = StateJson(now);
  seen_ = std::move(now);
  seenValid_ = true;
  std::lock_guard<std::mutex> lock(link_->mutex_);
  link_->state_ = std::move(json);
  // A client that is not connected publishes the newest state when it is.
  if (link_->connected_) link_->watch_.Wake();
}

void RemoteControl::PublishScreen(std::string jpeg) {
  if (!link_) return;
  std::lock_guard<std::mutex> lock(link_->mutex_);
  link_->screen_ = std::move(jpeg);
  link_->screenDue_ = true;
  if (link_->connected_) link_->watch_.Wake();
}

bool RemoteControl::Connected() const {
  if (!link_) return false;
  std::lock_guard<std::mutex> lock(link_->mutex_);
  return link_->connected_;
}
