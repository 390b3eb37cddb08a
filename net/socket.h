// QNSocket: a UDP or TCP socket with a name that every message shows.
//
// A socket is created closed (handle 0) and opened by Open; destroying it closes the handle.
// After Open the local address is (2, the bind address (any unless set), port) and the remote
// address is the same or the host given to Open; `port` is the port asked for plus the
// process-wide port offset. Any failed call sets the ERROR flag, which stays set. UDP reads go
// through an internal 4096-byte buffer, so a datagram that does not fit the caller's buffer is
// refused whole rather than cut.
// A bound UDP socket hears about datagrams refused by their receiver (the next Read answers 0),
// as the framework's original platform does. Not thread-safe: one thread per socket.
#pragma once

#include <cstdint>

#include "framework/qobject.h"
#include "net/addr.h"

class QNSocket : public QObject {
 public:
  enum Type : int { TCP = 0, UDP = 1 };
  enum Flags : int {
    BROADCAST = 1,  // Write sends to all hosts (255.255.255.255) on the socket's port
    REUSE = 4,      // the local address may be reused
    NO_BIND = 32,   // a UDP socket that only sends: never bound
    ERROR = 64,     // a call failed
  };
  enum : int { BUFFER_SIZE = 4096 };

  // Closed; starts networking (qnInit) when that has not happened yet.
  QNSocket(int type, const char* name);
  ~QNSocket() override;
  const char* ClassName() const override { return "QNSocket"; }

  // Marks a UDP socket as send-only. On an open socket it is reported as having no effect
  // (the flag is still set).
  void SetNoBind();
  // Opens the socket on `port` (plus the port offset) with `extraFlags` added to the flags.
  // UDP: `host` (null or empty for none) is the remote address, else the socket is bound
  // unless NO_BIND. TCP: connects to `host`. False, reported, when the type is unknown, the
  // socket cannot be made, an option cannot be set, the host is unknown, or the bind or the
  // connection fails; the socket is then closed. An open socket is closed and opened again.
  bool Open(int port, int extraFlags = 0, const char* host = nullptr);
  // The local address (host order) a later Open binds a receiving UDP socket to; 0, the
  // default, is every address of the machine.
  void SetBindAddress(uint32_t address) { bindAddress_ = address; }
  // Switches non-blocking mode (the low byte of `on`). -1 with a warning on a closed socket,
  // -1 reported through qnError when the system refuses; 0 otherwise.
  int SetNonBlocking(int on);
  // Closes the handle; does nothing on a closed socket.
  void Close();

  // Receives one datagram (UDP; its sender into `from` when given) or what the connection has
  // (TCP) into `buffer`. Answers its length; 0 when nothing was waiting, the peer refused an
  // earlier datagram, or the datagram was dropped by the simulated loss; -1 for a datagram
  // longer than `size` (or 4096; refused with a warning) and for any other failure (reported).
  int Read(void* buffer, int size, QNAddress* from = nullptr);
  // Sends `length` bytes to `to` (UDP; ignored with BROADCAST) or on the connection (TCP).
  // Answers the system's count; 0 for a null address, -1 reported on failure.
  int Write(const void* data, int length, const QNAddress* to);

  // True when a datagram (or data, or an error to report) waits, within `timeoutMs` (0: now;
  // negative: no limit). False at once for a closed socket, and when Interrupt was called.
  bool WaitReadable(int timeoutMs) const;
  // Ends a WaitReadable that another thread is in, or the next one, with false: the one call
  // that may come from another thread, so a watcher can sleep without a limit and still be
  // told to end.
  void Interrupt();

  bool IsOpen() const { return handle_ != 0; }
  int GetFlags() const { return flags_; }
  int GetType() const { return type_; }
  int GetPort() const { return port_; }
  const QNAddress& GetLocalAddress() const { return local_; }
  const QNAddress& GetRemoteAddress() const { return remote_; }

 private:
  bool OpenUdp(const char* host);
  bool OpenTcp(const char* host);
  bool Fail();
  void DrainRefusals();
  int ReadUdp(void* buffer, int size, QNAddress* from);

  int handle_ = 0;
  // Readable once Interrupt was called (an eventfd; -1 where it could not be made).
  int wake_ = -1;
  int flags_ = 0;
  uint32_t bindAddress_ = 0;
  int type_;
  QNAddress local_;
  QNAddress remote_;
  int port_ = 0;
  char buffer_[BUFFER_SIZE];
};
