// CommandChannel: the slideshow's UDP command port. One plain-text command per datagram, no
// reply: "load <path>" shows <path> (everything after the blank, as it stands); "next" and
// "prev" step like Right and Left; "bw 1" and "bw 0" do what B and C do, "info 1" and "info 0"
// show or hide the information line (both written to glimra.ini, as the keys do); "rescan"
// builds the catalogue again. These words may end in one line end. Anything else is logged on
// arrival and ignored. Commands must stay below 1024 bytes: a datagram of 1024 bytes
// ends the program at once.
//
// A watcher thread sleeps on the socket and wakes the main loop (QEventWake) when a datagram
// arrives, so that the loop can sleep while nothing happens and still take a command at once.
// The datagrams themselves are read and handled on the main thread, in arrival order, by
// Drain. The watcher then waits for that Drain before it looks again, so a datagram left in the
// queue never makes it spin. Owned by the controller; the destructor stops the watcher and
// closes the socket.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

class QIni;
class QNSocket;
class QThread;
class RaceManager;
class qstring;

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
  // Takes one waiting datagram and handles it; false when none was waiting. A datagram of 1024
  // bytes or more ends the program: one error line naming the size and the sender, then the
  // exit procedure with status 1.
  bool NetCheck();
  // Handles every waiting datagram in arrival order, then lets the watcher look again. Answers
  // how many were taken.
  int Drain();
  // Carries out one command on the controller (see above); anything else is ignored.
  static void HandleCommand(const char* text);
  bool IsOpen() const { return socket_ != nullptr; }

 private:
  static void Watch(void* self);

  std::unique_ptr<QNSocket> socket_;
  std::unique_ptr<QThread> watcher_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool drained_ = true;   // the main loop has read what the watcher saw
  bool stop_ = false;     // the watcher is to end
  bool running_ = false;  // the watcher's loop has not ended yet
};
