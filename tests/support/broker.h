// A real MQTT broker for the tests: the system's mosquitto on a free loopback port, in a
// temporary folder of its own, with accounts (a password file made by mosquitto_passwd, no
// anonymous clients) and optionally TLS (a CA, a server certificate for 127.0.0.1 and localhost,
// and a second, unrelated CA, all made by openssl when the broker is made). It can be stopped
// and started again on the same port. Publishing goes through mosquitto_pub, listening through
// mosquitto_sub, as any other client of the display would.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/tempdir.h"

namespace e2e {

// True when mosquitto, mosquitto_pub, mosquitto_sub, mosquitto_passwd and openssl are installed.
bool HaveBroker();

class Broker {
 public:
  static constexpr const char* kUser = "display";
  static constexpr const char* kPassword = "s3cret-Pass";

  // Makes the folder, the accounts and (with `tls`) the certificates; Start runs the broker.
  explicit Broker(bool tls = false);
  // Stops the broker.
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  // Starts the broker (on the port of the last start, if any) and waits until it accepts
  // connections; false when it does not within 10 s.
  bool Start();
  // Ends the broker at once (SIGKILL: no goodbye to its clients) and waits for it.
  void Kill();
  int Port() const { return port_; }
  bool Tls() const { return tls_; }
  // The CA that signed the broker's certificate, and one that did not.
  std::string CaFile() const { return dir_.File("ca.crt"); }
  std::string OtherCaFile() const { return dir_.File("other-ca.crt"); }
  // A file holding the password, readable by its owner alone.
  std::string PasswordFile() const { return dir_.File("password"); }
  std::string Dir() const { return dir_.Path(); }

  // mosquitto_pub/mosquitto_sub options that reach this broker as kUser.
  std::string ClientOptions() const;
  // Publishes `payload` to `topic`; false when mosquitto_pub fails.
  bool Publish(const std::string& topic, const std::string& payload) const;
  // Publishes each of `lines` as one message, in order, over one connection.
  bool PublishLines(const std::string& topic, const std::vector<std::string>& lines) const;

 private:
  bool Setup();

  TempDir dir_;
  bool tls_;
  bool ready_ = false;
  int port_ = 0;
  pid_t pid_ = -1;
};

// A mosquitto_sub on `filter` for the life of the object, printing "topic payload" lines.
class Listener {
 public:
  struct Message {
    std::string topic, payload;
  };
  Listener(const Broker& broker, const std::string& filter);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // True once the subscription is in place (mosquitto_sub has got its acknowledgement).
  bool Ready(int ms = 5000);
  // Every message so far, in order of arrival.
  std::vector<Message> Messages() const;
  // The last payload on `topic`; empty when none came.
  std::string Last(const std::string& topic) const;
  // Waits until the last payload on `topic` satisfies `ok`.
  bool WaitFor(const std::string& topic, const std::function<bool(const std::string&)>& ok,
               int ms) const;

 private:
  std::string out_;
  pid_t pid_ = -1;
};

}  // namespace e2e
