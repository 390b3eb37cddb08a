// The UDP command channel: a watcher thread that wakes the main loop, and the main thread's
// reading and handling of each datagram.
#include "app/command_channel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/slideshow.h"
#include "framework/qapp.h"
#include "framework/qeval.h"
#include "framework/qevent.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "framework/qthread.h"
#include "net/addr.h"
#include "net/global.h"
#include "net/socket.h"

namespace {

constexpr int kBufferSize = 1024;
constexpr int kDefaultPort = 5000;
// A flood is taken in slices, so that keys and painting go on between them.
constexpr int kMaxPerDrain = 4096;
// One warning a minute per refused sender, remembered for this many senders at most.
constexpr std::chrono::seconds kRefusedWarnGap(60);
constexpr size_t kMaxRefused = 1024;

}  // namespace

CommandChannel::CommandChannel() = default;

CommandChannel::~CommandChannel() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    stop_ = true;
    changed_.notify_all();
    if (socket_) socket_->Interrupt();
    // The watcher must be gone before the socket closes.
    changed_.wait(lock, [this] { return !running_; });
  }
  watcher_.reset();
  socket_.reset();
}

int CommandPort(QIni* ini) {
  char raw[QIni::MAX_TEXT];
  if (!ini || !ini->GetString("network.port", raw)) return kDefaultPort;
  bool complete = false;
  const int port = qeval(raw, &complete);
  if (complete && port >= 1 && port <= 65535) return port;
  // Port 0 would be any free port: nobody could reach the display.
  QERR("CommandPort", "network.port '%s' is not a port number from 1 to 65535; using %d", raw,
       kDefaultPort);
  return kDefaultPort;
}

bool CommandListenAddress(QIni* ini, qstring* address) {
  address->Clear();
  if (!ini) return false;
  ini->GetString("network.listen", address, "");
  if (address->IsEmpty()) return false;
  // A dotted address of this machine, not a name: a name would need a look-up at every start.
  unsigned b[4];
  char extra;
  if (sscanf(address->cstr(), "%3u.%3u.%3u.%3u%c", &b[0], &b[1], &b[2], &b[3], &extra) == 4 &&
      b[0] < 256 && b[1] < 256 && b[2] < 256 && b[3] < 256)
    return true;
  // Better deaf to the network than open to all of it by a typing mistake.
  QERR("CommandListenAddress", "network.listen '%s' is not an address; listening on 127.0.0.1",
       address->cstr());
  *address = "127.0.0.1";
  return true;
}

void CommandChannel::Open(int port, const char* listen) {
  qnInit();
  std::unique_ptr<QNSocket> s(new QNSocket(QNSocket::UDP, "glimra_commands"));
  if (listen && *listen) {
    QNAddress a;
    a.GetByName(listen);
    s->SetBindAddress(a.GetAddress());
  }
  if (!s->Open(port)) qfatal("Can't open UDP socket at port %d\n", port);
  s->SetNonBlocking(1);
  socket_ = std::move(s);
  running_ = true;
  watcher_.reset(new QThread(&CommandChannel::Watch, this, "glimra_commands"));
  if (!watcher_->Create()) {
    // Commands are then taken only when something else wakes the loop.
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
  }
}

void CommandChannel::Allow(const char* allow) { allow_.Parse(allow); }

bool CommandChannel::Allowed(const QNAddress& from) {
  if (allow_.Allows(from.GetAddress())) return true;
  const auto now = std::chrono::steady_clock::now();
  auto it = refusedAt_.find(from.GetAddress());
  if (it != refusedAt_.end() && now - it->second < kRefusedWarnGap) return false;
  if (it == refusedAt_.end() && refusedAt_.size() >= kMaxRefused) {
    for (auto old = refusedAt_.begin(); old != refusedAt_.end();)
      old = now - old->second >= kRefusedWarnGap ? refusedAt_.erase(old) : std::next(old);
    // Still full: a flood from many addresses; it is warned about as it comes, not remembered.
    if (refusedAt_.size() >= kMaxRefused) refusedAt_.clear();
  }
  refusedAt_[from.GetAddress()] = now;
  QWARN("NetCheck", "Datagram from %s dropped: the sender is not in network.allow",
        from.GetDotted());
  return false;
}

void CommandChannel::Watch(void* arg) {
  CommandChannel* self = static_cast<CommandChannel*>(arg);
  std::unique_lock<std::mutex> lock(self->mutex_);
  while (!self->stop_) {
    lock.unlock();
    const bool readable = self->socket_->WaitReadable(-1);
    lock.lock();
    if (!readable || self->stop_) continue;
    self->drained_ = false;
    QEventWake();
    self->changed_.wait(lock, [self] { return self->drained_ || self->stop_; });
  }
  self->running_ = false;
  self->changed_.notify_all();
}

int CommandChannel::Receive(char* buf, QNAddress* from) {
  buf[0] = 0;
  if (!socket_ || !socket_->WaitReadable(0)) return -1;
  from->Set(QNAddress::FAMILY_INET, 0, socket_->GetPort());
  const int n = socket_->Read(buf, kBufferSize, from);
  // Nothing to handle (a refusal report, an oversized datagram), but a datagram was taken.
  if (n <= 0) return 0;
  // Read and dropped: a stranger neither commands nor ends anything.
  if (!Allowed(*from)) {
    buf[0] = 0;
    return 0;
  }
  if (n >= kBufferSize) {
    buf[0] = 0;
    return n;
  }
  buf[n] = 0;
  QDBG("NetCheck", "in %d bytes (%s)\n", n, buf);
  return n;
}

void CommandChannel::TooLong(int size, const QNAddress& from) {
  // The terminating zero would not fit: a hard limit of the channel, not a recoverable fault.
  // The program still leaves through its exit procedure, so the screen and the log end well.
  QERR("NetCheck", "Command of %d bytes from %s:%d is too long (at most %d); ending", size,
       from.GetDotted(), from.GetPort(), kBufferSize - 1);
  if (QGetApp()) QGetApp()->Exit(1);
  qExitProcess(1);
}

bool CommandChannel::NetCheck() {
  QNAddress from;
  char buf[kBufferSize];
  const int n = Receive(buf, &from);
  if (n < 0) return false;
  if (n >= kBufferSize) TooLong(n, from);
  if (n > 0) HandleCommand(buf);
  return true;
}

int CommandChannel::Drain() {
  std::vector<Command> batch;
  int taken = 0;
  QNAddress from;
  char buf[kBufferSize];
  int n = -1;
  while (taken < kMaxPerDrain && !RaceManager::StopRequested() && (n = Receive(buf, &from)) >= 0) {
    ++taken;
    if (n >= kBufferSize) break;
    Command c = ParseCommand(buf);
    if (c.kind != Command::NONE) batch.push_back(std::move(c));
  }
  RaceManager* rm = QGetRaceManager();
  const bool done = !rm || RunCommands(batch, rm);
  // In arrival order: what came before it is done first.
  if (n >= kBufferSize && done) TooLong(n, from);
  std::lock_guard<std::mutex> lock(mutex_);
  drained_ = true;
  changed_.notify_all();
  return taken;
}

void CommandChannel::HandleCommand(const char* text) {
  RaceManager* rm = QGetRaceManager();
  if (!text || !rm) return;
  Command c = ParseCommand(text);
  if (c.kind != Command::NONE) RunCommands({c}, rm);
}
