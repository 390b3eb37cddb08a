#include "support/broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "support/command.h"
#include "support/e2e.h"

namespace e2e {

namespace {

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

bool Shell(const std::string& cmd) { return system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

bool Accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
  close(fd);
  return ok;
}

void End(pid_t* pid, int sig) {
  if (*pid <= 0) return;
  kill(*pid, sig);
  waitpid(*pid, nullptr, 0);
  *pid = -1;
}

}  // namespace

bool HaveBroker() {
  return Have("mosquitto") && Have("mosquitto_pub") && Have("mosquitto_sub") &&
         Have("mosquitto_passwd") && Have("openssl");
}

Broker::Broker(bool tls) : dir_("glimra_broker"), tls_(tls) { ready_ = Setup(); }

Broker::~Broker() { End(&pid_, SIGTERM); }

bool Broker::Setup() {
  const std::string d = Quote(dir_.Path());
  if (!WriteFile(PasswordFile(), kPassword) || chmod(PasswordFile().c_str(), 0600) != 0 ||
      !Shell("mosquitto_passwd -c -b " + d + "/passwd " + kUser + " " + kPassword))
    return false;
  if (!tls_) return true;
  // Elliptic keys: made in milliseconds, where RSA would take a good part of a second.
  const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2";
  WriteFile(dir_.File("san.ext"), "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
  return Shell("openssl req -x509" + key + " -subj /CN=glimra-test-ca -keyout " + d +
               "/ca.key -out " + d + "/ca.crt") &&
         Shell("openssl req -x509" + key + " -subj /CN=glimra-other-ca -keyout " + d +
               "/other-ca.key -out " + d + "/other-ca.crt") &&
         Shell("openssl req" + key + " -subj /CN=127.0.0.1 -keyout " + d + "/server.key -out " + d +
               "/server.csr") &&
         Shell("openssl x509 -req -days 2 -in " + d + "/server.csr -CA " + d + "/ca.crt -CAkey " +
               d + "/ca.key -CAcreateserial -extfile " + d + "/san.ext -out " + d + "/server.crt");
}

bool Broker::Start() {
  if (!ready_ || pid_ > 0) return ready_ && pid_ > 0;
  if (port_ <= 0) port_ = FreePort(true);
  std::ostringstream conf;
  conf << "listener " << port_ << " 127.0.0.1\n"
       << "allow_anonymous false\n"
       << "password_file " << dir_.File("passwd") << "\n"
       << "persistence false\n"
       << "log_dest stderr\n"
       << "log_type error\nlog_type warning\nlog_type notice\n"
       // A burst of commands must not be cut short by the broker's queue limit.
       << "max_queued_messages 0\n";
  // The broker leaves root for its own account unless told to stay; the files here are ours.
  if (geteuid() == 0) conf << "user root\n";
  if (tls_)
    conf << "cafile " << CaFile() << "\ncertfile " << dir_.File("server.crt") << "\nkeyfile "
         << dir_.File("server.key") << "\n";
  if (!WriteFile(dir_.File("mosquitto.conf"), conf.str())) return false;
  pid_ = Spawn({"mosquitto", "-c", dir_.File("mosquitto.conf")}, dir_.File("broker.log"));
  if (pid_ < 0) return false;
  const bool up = Poll(10000, [&] {
    // A broker that could not start has ended by now.
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) return pid_ = -1, true;
    return Accepts(port_);
  });
  return up && pid_ > 0;
}

void Broker::Kill() { End(&pid_, SIGKILL); }

std::string Broker::ClientOptions() const {
  std::string o = "-h 127.0.0.1 -p " + std::to_string(port_) + " -u " + kUser + " -P " + kPassword;
  if (tls_) o += " --cafile " + Quote(CaFile());
  return o;
}

bool Broker::Publish(const std::string& topic, const std::string& payload) const {
  return Shell("mosquitto_pub " + ClientOptions() + " -t " + Quote(topic) + " -m " +
               Quote(payload));
}

bool Broker::PublishLines(const std::string& topic, const std::vector<std::string>& lines) const {
  std::string text;
  for (const std::string& l : lines) text += l + "\n";
  const std::string file = dir_.File("lines.txt");
  return WriteFile(file, text) && Shell("mosquitto_pub " + ClientOptions() + " -t " +
                                        Quote(topic) + " -l < " + Quote(file));
}

Listener::Listener(const Broker& broker, const std::string& filter) {
  out_ = broker.Dir() + "/listener-" + std::to_string(reinterpret_cast<uintptr_t>(this)) + ".txt";
  std::vector<std::string> args{"stdbuf", "-oL", "mosquitto_sub", "-d",  "-h",  "127.0.0.1",
                                "-p",     std::to_string(broker.Port()), "-u", Broker::kUser,
                                "-P",     Broker::kPassword, "-t", filter, "-F", "MSG %t %x"};
  if (broker.Tls()) args.insert(args.end(), {"--cafile", broker.CaFile()});
  pid_ = Spawn(args, out_);
}

Listener::~Listener() {
  End(&pid_, SIGTERM);
  unlink(out_.c_str());
}

bool Listener::Ready(int ms) {
  return Poll(ms, [&] { return ReadFile(out_).find("SUBACK") != std::string::npos; });
}

std::vector<Listener::Message> Listener::Messages() const {
  std::vector<Message> all;
  std::istringstream in(ReadFile(out_));
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 4, "MSG ") != 0) continue;
    // The payload comes in hexadecimal, so that any bytes (a JPEG, line ends) survive the line.
    const size_t blank = line.find(' ', 4);
    Message m{line.substr(4, blank == std::string::npos ? std::string::npos : blank - 4), ""};
    for (size_t i = blank == std::string::npos ? line.size() : blank + 1; i + 1 < line.size();
         i += 2)
      m.payload += char(strtol(line.substr(i, 2).c_str(), nullptr, 16));
    all.push_back(std::move(m));
  }
  return all;
}

std::string Listener::Last(const std::string& topic) const {
  std::string last;
  for (const Message& m : Messages())
    if (m.topic == topic) last = m.payload;
  return last;
}

bool Listener::WaitFor(const std::string& topic, const std::function<bool(const std::string&)>& ok,
                       int ms) const {
  return Poll(ms, [&] { return ok(Last(topic)); });
}

}  // namespace e2e
