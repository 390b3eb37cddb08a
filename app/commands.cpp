// The UDP command channel: one plain-text command per datagram, polled once per idle cycle.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/slideshow.h"
#include "framework/qapp.h"
#include "framework/qeval.h"
#include "framework/qini.h"
#include "framework/qmessage.h"
#include "net/addr.h"
#include "net/global.h"
#include "net/socket.h"

namespace {

// See slideshow_load.cpp: the controller's lines keep its main source name.
constexpr const char* kSource = "slideshow.cpp";
constexpr int kBufferSize = 1024;
constexpr int kDefaultPort = 5000;

QNSocket* g_commandSocket = nullptr;

}  // namespace

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

void OpenCommandSocket(int port, const char* listen) {
  qnInit();
  QNSocket* s = new QNSocket(QNSocket::UDP, "glimra_commands");
  if (listen && *listen) {
    QNAddress a;
    a.GetByName(listen);
    s->SetBindAddress(a.GetAddress());
  }
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
  // The program still leaves through its exit procedure, so the screen and the log end well.
  if (n >= kBufferSize) {
    QERR("NetCheck", "Command of %d bytes from %s:%d is too long (at most %d); ending", n,
         from.GetDotted(), from.GetPort(), kBufferSize - 1);
    if (QGetApp()) QGetApp()->Exit(1);
    qExitProcess(1);
  }
  buf[n] = 0;
  qdbg(kSource, "NetCheck", __LINE__, "in %d bytes (%s)\n", n, buf);
  HandleCommand(buf);
}

void HandleCommand(const char* text) {
  if (!text || strncmp(text, "load ", 5) != 0) return;
  RaceManager* rm = QGetRaceManager();
  if (rm) rm->LoadNewImage(text + 5);
}
