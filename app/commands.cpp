// The UDP command channel: one plain-text command per datagram, polled once per idle cycle.
#include <cstdlib>
#include <cstring>

#include "app/slideshow.h"
#include "framework/qmessage.h"
#include "net/addr.h"
#include "net/global.h"
#include "net/socket.h"

namespace {

// See slideshow_load.cpp: the controller's lines keep its main source name.
constexpr const char* kSource = "slideshow.cpp";
constexpr int kBufferSize = 1024;

QNSocket* g_commandSocket = nullptr;

}  // namespace

void OpenCommandSocket(int port) {
  qnInit();
  QNSocket* s = new QNSocket(QNSocket::UDP, "glimra_commands");
  if (!s->Open(port)) qfatal("Can't open UDP socket at port %d\n", port);
  g_commandSocket = s;
  s->SetNonBlocking(1);
}

void CloseCommandSocket() {
  delete g_commandSocket;
  g_commandSocket = nullptr;
}

void NetCheck(int port) {
  QNAddress from;
  from.Set(QNAddress::FAMILY_INET, 0, port);
  if (!g_commandSocket) return;
  char buf[kBufferSize];
  const int n = g_commandSocket->Read(buf, kBufferSize, &from);
  if (n <= 0) return;
  // The terminating zero would not fit: a hard limit of the channel, not a recoverable fault.
  if (n >= kBufferSize) exit(1);
  buf[n] = 0;
  qdbg(kSource, "NetCheck", __LINE__, "in %d bytes (%s)\n", n, buf);
  HandleCommand(buf);
}

void HandleCommand(const char* text) {
  if (!text || strncmp(text, "load ", 5) != 0) return;
  RaceManager* rm = QGetRaceManager();
  if (rm) rm->LoadNewImage(text + 5);
}
