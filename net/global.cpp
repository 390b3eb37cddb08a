// Network start-up, error texts, the process-wide tuning and the log's "udp_out" copy.
#include "net/global.h"

#include <enet/enet.h>
#include <errno.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "framework/qdebug.h"
#include "framework/qtimer.h"
#include "net/addr.h"
#include "net/socket.h"

namespace {

struct NetState {
  bool initialised = false;
  bool enet = false;
  QNAddress localHost;
  QTimer timer;
  int portOffset = 0;
  int loss = 0;
  QNSocket* udpOut = nullptr;  // owned; replaced by a later opener call
  QNAddress udpOutTo;
};

NetState& S() {
  static NetState* s = new NetState;  // lives to the end: the log may send until exit
  return *s;
}

thread_local int t_lastError = 0;

struct ErrorText {
  int error;
  const char* text;
};
const ErrorText kErrorTexts[] = {
    {10022, "Invalid argument"},
    {10035, "Resource temporarily unavailable"},
    {10036, "Blocking operation in progress"},
    {10038, "Not a socket"},
    {10040, "Message too long"},
    {10042, "Bad protocol option"},
    {10048, "Address in use"},
    {10049, "Cannot assign requested address"},
    {10054, "Connection reset"},
    {10093, "Not initialized"},
    {11004, "No data"},
};

// Runs inside the log writer, under the message mutex; the writer's own re-entrancy flag keeps
// a failure report of this send from being sent again.
void SendUdpOut(const char* text, int length) {
  NetState& s = S();
  if (s.udpOut) s.udpOut->Write(text, length, &s.udpOutTo);
}

void CloseUdpOut() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  qlogSetUdpSender(nullptr);
  delete S().udpOut;
  S().udpOut = nullptr;
}

// "type=udp,from=0.0.0.0:0,to=host:port": a send-only, non-blocking socket to host:port.
bool OpenUdpOut(const char* description) {
  std::string type, to;
  std::string rest = description ? description : "";
  while (!rest.empty()) {
    size_t comma = rest.find(',');
    std::string item = rest.substr(0, comma);
    rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
    size_t eq = item.find('=');
    if (eq == std::string::npos) continue;
    std::string key = item.substr(0, eq);
    if (key == "type") type = item.substr(eq + 1);
    if (key == "to") to = item.substr(eq + 1);
  }
  if (type != "udp" || to.find(':') == std::string::npos) {
    QWARN("qnOpenUdpOut", "udp_out: can't use the description '%s'",
          description ? description : "");
    return false;
  }
  // The log's copy is lost without a word otherwise: say which step failed.
  QNAddress dest;
  if (!dest.GetByName(to.c_str())) {
    QERR("qnOpenUdpOut", "qdbg will not work.\nCannot open udp_out socket: name lookup of '%s' "
         "failed.", to.c_str());
    return false;
  }
  QNSocket* sock = new QNSocket(QNSocket::UDP, "udp_out");
  sock->SetNoBind();
  if (!sock->Open(0) || sock->SetNonBlocking(1) != 0) {
    QERR("qnOpenUdpOut", "qdbg will not work.\nCannot open udp_out socket: the socket to '%s' "
         "can't be opened.", to.c_str());
    delete sock;
    return false;
  }
  CloseUdpOut();
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  S().udpOut = sock;
  S().udpOutTo = dest;
  qlogSetUdpSender(SendUdpOut);
  return true;
}

void Shutdown() {
  CloseUdpOut();
  NetState& s = S();
  if (s.enet) enet_deinitialize();
  s.enet = false;
}

}  // namespace

bool qnInit() {
  NetState& s = S();
  if (s.initialised) return false;
  s.initialised = true;

  char host[256] = "";
  if (gethostname(host, sizeof(host) - 1) == 0) s.localHost.GetByName(host);
  s.timer.Start();
  if (enet_initialize() != 0)
    QERR("qnInit", "qnInit: can't initialize enet");
  else
    s.enet = true;
  s.portOffset = 0;
  s.loss = 0;

  qdbgSetUdpOutOpener(OpenUdpOut);
  qdbgSetNetworkTuning(qnSetPortOffset, qnSetPacketLoss);
  qAddShutdownHook(Shutdown);
  return true;
}

bool qnIsInitialized() { return S().initialised; }

int qnGetLastError() { return t_lastError; }
void qnSetLastError(int error) { t_lastError = error; }
int qnSaveErrno() { return t_lastError = qnMapErrno(errno); }

int qnMapErrno(int err) {
  switch (err) {
    case EAGAIN: return 10035;
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK: return 10035;
#endif
    case EINVAL: return 10022;
    case EALREADY:
    case EINPROGRESS: return 10036;
    case ENOTSOCK: return 10038;
    case EMSGSIZE: return 10040;
    case ENOPROTOOPT: return 10042;
    case EADDRINUSE: return 10048;
    case EADDRNOTAVAIL: return 10049;
    case ECONNRESET:
    case ECONNREFUSED: return 10054;  // an ICMP port-unreachable on UDP arrives as a refusal
    case EHOSTUNREACH: return 10065;
    default: return err;
  }
}

const char* qnErrorText(int error) {
  for (const ErrorText& e : kErrorTexts)
    if (e.error == error) return e.text;
  return "<unknown error>";
}

void qnError(const char* fmt, ...) {
  int err = t_lastError;
  if (err == 10035 || err == 10065) return;
  char text[2048];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof(text), fmt, ap);
  va_end(ap);
  QWARN("qnError", "[QN] %s (%d)\n%s", text, err, qnErrorText(err));
}

void qnSetPortOffset(int offset) { S().portOffset = offset; }
int qnGetPortOffset() { return S().portOffset; }
void qnSetPacketLoss(int percent) { S().loss = percent; }
int qnGetPacketLoss() { return S().loss; }

const QNAddress& qnGetLocalHost() { return S().localHost; }
QTimer* qnGetTimer() { return S().initialised ? &S().timer : nullptr; }
