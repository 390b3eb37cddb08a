// QNSocket on POSIX sockets.
#include "net/socket.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "framework/qmessage.h"
#include "net/global.h"

namespace {

const sockaddr* Sys(const QNAddress* a) {
  return a ? reinterpret_cast<const sockaddr*>(a->SockAddr()) : nullptr;
}

// Handle 0 means "not open", so a socket that lands on descriptor 0 (standard input closed)
// moves to another descriptor.
int AwayFromZero(int fd) {
  if (fd != 0) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
  close(fd);
  return moved;
}

constexpr int kRefused = 10054;
constexpr int kWouldBlock = 10035;
constexpr int kNotSocket = 10038;

}  // namespace

QNSocket::QNSocket(int type, const char* name) : QObject(name), type_(type) {
  if (!qnIsInitialized()) qnInit();
  // Never read: once interrupted, a socket's waits end at once for good.
  wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

QNSocket::~QNSocket() {
  Close();
  if (wake_ >= 0) close(wake_);
}

void QNSocket::Interrupt() {
  if (wake_ < 0) return;
  const uint64_t one = 1;
  // A full counter already wakes every waiter; nothing else can fail here.
  if (write(wake_, &one, sizeof one) < 0) return;
}

void QNSocket::Close() {
  if (handle_ == 0) return;
  close(handle_);
  handle_ = 0;
}

bool QNSocket::Fail() {
  flags_ |= ERROR;
  Close();
  return false;
}

void QNSocket::SetNoBind() {
  if (IsOpen())
    QWARN("QNSocket::SetNoBind",
          "QNSocket:SetNoBind() called after opening the socket - no effect");
  flags_ |= NO_BIND;
}

bool QNSocket::Open(int port, int extraFlags, const char* host) {
  if (IsOpen()) {
    QWARN("QNSocket::Open",
          "QNSocket:Open() called after the socket was already opened (doubly open) - closing");
    Close();
  }
  port_ = port;
  if (qnGetPortOffset() > 0) {
    QINFO("QNSocket::Open", "[QNSocket:Open '%s'] Use port offset of %d", GetName(),
          qnGetPortOffset());
    port_ += qnGetPortOffset();
  }
  flags_ |= extraFlags;
  if (type_ != TCP && type_ != UDP) {
    QWARN("QNSocket::Open", "QNSocket:Open() [%s]; unknown type %d", GetName(), type_);
    flags_ |= ERROR;
    return false;
  }

  int fd = type_ == UDP ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP)
                        : socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (fd >= 0) fd = AwayFromZero(fd);
  if (fd < 0) {
    qnSaveErrno();
    qnError("QNSocket:Open() [%s]; can't create socket", GetName());
    flags_ |= ERROR;
    return false;
  }
  handle_ = fd;
  local_.Set(QNAddress::FAMILY_INET, bindAddress_, port_);
  remote_.Set(QNAddress::FAMILY_INET, INADDR_ANY, port_);
  return type_ == UDP ? OpenUdp(host) : OpenTcp(host);
}

bool QNSocket::OpenUdp(const char* host) {
  int on = 1;
  if ((flags_ & REUSE) && setsockopt(handle_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0) {
    qnSaveErrno();
    qnError("QNSocket:Open() [%s]; can't reuse the address", GetName());
    return Fail();
  }
  if (host && host[0]) {
    if (!remote_.GetByName(host)) return Fail();
  } else if (!(flags_ & NO_BIND)) {
    if (bind(handle_, Sys(&local_), sizeof(QNSockAddr)) != 0) {
      qnSaveErrno();
      qnError("QNSocket:Bind() [%s]; can't bind to address %s:%d", GetName(), local_.GetDotted(),
              port_);
      return Fail();
    }
    // A receiver learns of datagrams its peers refused, as on the original platform, where the
    // next receive answers "connection reset".
    setsockopt(handle_, IPPROTO_IP, IP_RECVERR, &on, sizeof(on));
  }
  if ((flags_ & BROADCAST) && setsockopt(handle_, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)) != 0) {
    qnSaveErrno();
    qnError("QNSocket:Open() [%s]; can't switch broadcast on", GetName());
    return Fail();
  }
  return true;
}

bool QNSocket::OpenTcp(const char* host) {
  if (!host || !remote_.GetByName(host)) {
    QWARN("QNSocket::Open", "QClientSocket::Open() [%s]; host '%s' unknown", GetName(),
          host ? host : "(null)");
    return Fail();
  }
  if (connect(handle_, Sys(&remote_), sizeof(QNSockAddr)) != 0) {
    qnSaveErrno();
    QWARN("QNSocket::Open", "QSocket::Open() [%s]; can't connect to '%s:%d'", GetName(),
          remote_.GetName(), remote_.GetPort());
    return Fail();
  }
  return true;
}

int QNSocket::SetNonBlocking(int on) {
  if (!IsOpen()) {
    QWARN("QNSocket::SetNonBlocking", "[%s] Non-blocking can only be set after creating the socket",
          GetName());
    return -1;
  }
  int fl = fcntl(handle_, F_GETFL);
  if (fl >= 0) fl = fcntl(handle_, F_SETFL, (on & 0xff) ? (fl | O_NONBLOCK) : (fl & ~O_NONBLOCK));
  if (fl < 0) {
    qnSaveErrno();
    qnError("QNSocket:SetNonBlocking() [%s]; can't set", GetName());
    flags_ |= ERROR;
    return -1;
  }
  return 0;
}

// Refusals queue up as reports beside the data; read them away so they never crowd out
// datagrams. Bounded, in case reports arrive as fast as they are read.
void QNSocket::DrainRefusals() {
  char scratch[64];
  char control[512];
  for (int i = 0; i < 256; ++i) {
    iovec iov{scratch, sizeof(scratch)};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    if (recvmsg(handle_, &msg, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) break;
  }
}

int QNSocket::Read(void* buffer, int size, QNAddress* from) {
  if (type_ == UDP) return ReadUdp(buffer, size, from);
  if (type_ != TCP) {
    QWARN("QNSocket::Read", "Unknown type, cannot receive data");
    return -1;
  }
  if (from)
    QWARN("QNSocket::Read",
          "Socket '%s' is a TCP connection, cannot receive from a specific address", GetName());
  if (!buffer || size < 0) size = 0;
  if (!IsOpen()) qnSetLastError(kNotSocket);
  ssize_t n = IsOpen() ? recv(handle_, buffer, static_cast<size_t>(size), 0) : -1;
  if (n >= 0) return static_cast<int>(n);
  int err = IsOpen() ? qnSaveErrno() : kNotSocket;
  flags_ |= ERROR;
  if (err == kWouldBlock || err == kRefused) return 0;
  QDBG("QNSocket::Read", "Error: %d", err);
  qnError("QNSocket:Read() [%s] failed (%s:%d) err %d", GetName(), remote_.GetDotted(),
          remote_.GetPort(), err);
  return -1;
}

int QNSocket::ReadUdp(void* buffer, int size, QNAddress* from) {
  int accept = size < BUFFER_SIZE ? size : BUFFER_SIZE;
  if (accept < 0 || !buffer) accept = 0;
  QNAddress sender;
  socklen_t fromLen = sizeof(QNSockAddr);
  ssize_t n = -1;
  int err;
  if (!IsOpen()) {
    qnSetLastError(kNotSocket);
    err = kNotSocket;
  } else {
    n = recvfrom(handle_, buffer_, sizeof(buffer_), MSG_TRUNC,
                 reinterpret_cast<sockaddr*>(sender.SockAddr()), &fromLen);
    err = n < 0 ? qnSaveErrno() : 0;
  }
  if (n < 0) {
    flags_ |= ERROR;
    if (err == kRefused) DrainRefusals();
    if (err == kWouldBlock || err == kRefused) return 0;
    QDBG("QNSocket::Read", "Error: %d", err);
    qnError("QNSocket:Read() [%s] failed (%s:%d) err %d", GetName(), sender.GetDotted(),
            sender.GetPort(), err);
    return -1;
  }
  if (from) *from->SockAddr() = *sender.SockAddr();
  if (n > accept) {
    char local[32];
    snprintf(local, sizeof(local), "%s", local_.GetDotted());
    // The local port goes out as a pointer: the message has always printed it that way.
    QWARN("QNSocket::Read",
          "Incoming packet of size %d cannot be stored in buffer of %d bytes (~WSAEMSGSIZE) - "
          "ignoring packet (local=%s:%p, remote=%s,%d)",
          static_cast<int>(n), accept, local,
          reinterpret_cast<void*>(static_cast<uintptr_t>(local_.GetPort())), sender.GetDotted(),
          sender.GetPort());
    return -1;
  }
  memcpy(buffer, buffer_, static_cast<size_t>(n));
  int loss = qnGetPacketLoss();
  if (loss > 0 && rand() % 100 < loss) return 0;
  return static_cast<int>(n);
}

int QNSocket::Write(const void* data, int length, const QNAddress* to) {
  if (length < 0 || !data) length = 0;
  if (type_ == TCP) {
    ssize_t n = IsOpen() ? send(handle_, data, static_cast<size_t>(length), MSG_NOSIGNAL) : -1;
    if (n >= 0) return static_cast<int>(n);
    if (IsOpen()) qnSaveErrno(); else qnSetLastError(kNotSocket);
    flags_ |= ERROR;
    qnError("QNSocket:Write(); [%s] failed (%s:%d)", GetName(), remote_.GetDotted(),
            remote_.GetPort());
    return -1;
  }

  QNAddress broadcast;
  const QNAddress* dest = to;
  if (flags_ & BROADCAST) {
    broadcast = local_;
    broadcast.SetAddress(INADDR_BROADCAST);
    dest = &broadcast;
  } else if (!to) {
    QWARN("QNSocket::Write", "QNSocket:Write() [%s]; 'addr'=0", GetName());
    return 0;
  }
  ssize_t n = -1;
  if (IsOpen()) {
    n = sendto(handle_, data, static_cast<size_t>(length), MSG_NOSIGNAL, Sys(dest),
               sizeof(QNSockAddr));
    // A refusal of an earlier datagram is pending; the original platform reports those only
    // to a receive, so clear it and send again.
    if (n < 0 && qnMapErrno(errno) == kRefused) {
      DrainRefusals();
      n = sendto(handle_, data, static_cast<size_t>(length), MSG_NOSIGNAL, Sys(dest),
                 sizeof(QNSockAddr));
    }
    if (n < 0) qnSaveErrno();
  } else {
    qnSetLastError(kNotSocket);
  }
  if (n < 0) {
    flags_ |= ERROR;
    qnError("QNSocket:Write(); [%s] failed (%s:%d)", GetName(),
            dest ? dest->GetDotted() : "<no_addr>", dest ? dest->GetPort() : 0);
  }
  return static_cast<int>(n);
}

bool QNSocket::WaitReadable(int timeoutMs) const {
  if (handle_ == 0) return false;
  pollfd p[2] = {{handle_, POLLIN, 0}, {wake_, POLLIN, 0}};
  int n;
  do {
    n = poll(p, wake_ >= 0 ? 2 : 1, timeoutMs < 0 ? -1 : timeoutMs);
  } while (n < 0 && errno == EINTR);
  if (n <= 0 || (wake_ >= 0 && (p[1].revents & POLLIN))) return false;
  return true;
}
