// CommandChannel: the slideshow's UDP command port. One plain-text command per datagram (the
// command set of app/commands.h), no reply. Anything else is logged on arrival and ignored.
// Commands must stay below 1024 bytes: a datagram of 1024 bytes ends the program at once, once
// the commands that came before it are done. With an allow list ("network.allow"), datagrams
// from other senders are read and dropped, whatever their size, with at most one warning a
// minute per sender.
//
// Commands that wait together are taken together, and those a later one makes pointless are
// skipped before their work starts (RunCommands), so a burst costs about one command's work and
// the screen ends showing what the last one asked for.
//
// A watcher thread sleeps on the socket and wakes the main loop (QEventWake) when a datagram
// arrives, so that the loop can sleep while nothing happens and still take a command at once.
// The datagrams themselves are read and handled on the main thread, in arrival order, by
// Drain. The watcher then waits for that Drain before it looks again, so a datagram left in the
// queue never makes it spin. Owned by the controller; the destructor stops the watcher and
// closes the socket.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/commands.h"
#include "net/allowlist.h"

class QIni;
class QNSocket;
class QThread;
class RaceManager;
class qstring;
class QNAddress;

// "network.port" when it is a number from 1 to 65535; otherwise (an error names the value) and
// when it is missing, 5000.
int CommandPort(QIni* ini);
// "network.listen" into `address`: false and empty when unset (every address of the machine). A
// value that is not a dotted IPv4 address logs an error and answers 127.0.0.1.
bool CommandListenAddress(QIni* ini, qstring* address);

class CommandChannel {
 public:
  CommandChannel();
  ~CommandChannel();
  CommandChannel(const CommandChannel&) = delete;
  CommandChannel& operator=(const CommandChannel&) = delete;

  // Opens the UDP socket "glimra_commands" on `port` of the address `listen` (null or empty:
  // every local address), non-blocking, and starts the watcher. A port that cannot be opened is
  // fatal: "Can't open UDP socket at port %d\n".
  void Open(int port, const char* listen = nullptr);
  // Takes commands only from the senders `allow` lists ("network.allow"; see net/allowlist.h):
  // bad entries are errors and left out. Empty or null: from everyone.
  void Allow(const char* allow);
  // Takes one waiting datagram and handles it; false when none was waiting. A datagram of 1024
  // bytes or more ends the program: one error line naming the size and the sender, then the
  // exit procedure with status 1.
  bool NetCheck();
  // Takes the waiting datagrams (a few thousand at most) and carries them out together
  // (RunCommands), then lets the watcher look again. Answers how many were taken. A stop
  // request ends the taking and the work.
  int Drain();
  // Carries out one command on the controller (see above); anything else is ignored.
  static void HandleCommand(const char* text);
  bool IsOpen() const { return socket_ != nullptr; }

 private:
  static void Watch(void* self);
  // Reads one datagram into `buf` (kept below 1024 bytes and ended with a zero): its length, 0
  // for one with nothing to handle, -1 when none is waiting. One of 1024 bytes or more answers
  // its length and leaves `buf` empty.
  int Receive(char* buf, QNAddress* from);
  // The end a datagram of `size` bytes from `from` brings.
  [[noreturn]] static void TooLong(int size, const QNAddress& from);
  // Whether `from` may send; a sender that may not is warned about once a minute.
  bool Allowed(const QNAddress& from);

  std::unique_ptr<QNSocket> socket_;
  std::unique_ptr<QThread> watcher_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool drained_ = true;   // the main loop has read what the watcher saw
  bool stop_ = false;     // the watcher is to end
  bool running_ = false;  // the watcher's loop has not ended yet
  QNAllowList allow_;
  // When each refused sender (host order) was last warned about; pruned, so a flood from many
  // addresses cannot make it grow without end.
  std::map<uint32_t, std::chrono::steady_clock::time_point> refusedAt_;
};
