// The log writer and the front calls qdbg, qinfo, qwarn, qerr, the error box, the plain message
// and the fatal errors.
#include "framework/qmessage.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "framework/qdebug.h"
#include "framework/qerror.h"

namespace {

constexpr int kBufSize = 20480;

// Writer state, guarded by the message mutex.
struct WriterState {
  char lastText[kBufSize] = "";
  char lastHeader[kBufSize] = "";
  bool hasLastHeader = false;
  int lastCode = 0;
  int repeatCount = 0;
  std::string fileName;  // fixed at first use
  bool started = false;
  FILE* second = nullptr;
  int mask = QLOGMASK_ERR | QLOGMASK_WARN | QLOGMASK_INFO;
  std::string appTag;
  const char* (*appName)() = nullptr;
  void (*udpSend)(const char*, int) = nullptr;
  bool inUdpSend = false;
  void (*boxPrepare)() = nullptr;
  std::string lastWarning;
};

// Read without the message mutex: the main loop asks on every pass.
std::atomic<unsigned long> g_warningCount{0};

WriterState& W() {
  static WriterState* w = new WriterState;  // never destroyed: logging works until the end
  return *w;
}

QMessageHandler g_dbgHandler = nullptr;
QMessageHandler g_warnHandler = nullptr;
QMessageHandler g_errHandler = nullptr;
QMessageHandler g_errBoxHandler = nullptr;
QMessageHandler g_messageHandler = nullptr;

std::vector<void (*)()>& ShutdownHooks() {
  static auto* hooks = new std::vector<void (*)()>;
  return *hooks;
}

const char* LevelWord(int code) {
  if (code & QLOG_ERR) return "ERR";
  if (code & QLOG_WARN) return "WARN";
  if (code & QLOG_CRIT) return "CRIT";
  if (code & QLOG_NOTE) return "NOTE";
  if (code & QLOG_INFO) return "INFO";
  if (code & QLOG_DBG) return "DBG";
  if (code & QLOG_FATAL) return "FATAL";
  return (code & QLOG_SECOND) ? "INFO" : "?";
}

void EnsureFileName() {
  WriterState& w = W();
  if (!w.fileName.empty()) return;
  char cwd[4096];
  if (getcwd(cwd, sizeof(cwd)))
    w.fileName = std::string(cwd) + "/QLOG.txt";
  else
    w.fileName = "QLOG.txt";
}

// The sibling of the log file with another name ("QLOG_OLD.txt", "QLOG_LAST.txt").
std::string Sibling(const char* replacement) {
  EnsureFileName();
  std::string name = W().fileName;
  size_t at = name.rfind("QLOG.txt");
  if (at != std::string::npos) return name.substr(0, at) + replacement;
  size_t slash = name.find_last_of('/');
  return (slash == std::string::npos ? std::string() : name.substr(0, slash + 1)) + replacement;
}

void UdpSend(const char* text) {
  WriterState& w = W();
  if (!w.udpSend || w.inUdpSend) return;
  w.inUdpSend = true;  // a send that fails must not log itself through here again
  int n = static_cast<int>(strlen(text));
  if (n > 1400) n = 1400;
  w.udpSend(text, n);
  w.inUdpSend = false;
}

void UdpSendf(const char* fmt, ...) QPRINTF(1, 2);
void UdpSendf(const char* fmt, ...) {
  if (!W().udpSend) return;
  char buf[kBufSize];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  UdpSend(buf);
}

const char* AppName() {
  WriterState& w = W();
  if (!w.appTag.empty()) return w.appTag.c_str();
  if (w.appName) {
    const char* n = w.appName();
    if (n && *n) return n;
  }
  return "-";
}

void TimeStamp(char* out, size_t size) {
  time_t now = time(nullptr);
  struct tm tmv;
  localtime_r(&now, &tmv);
  if (strftime(out, size, "%a %b %d %H:%M:%S", &tmv) == 0) out[0] = 0;
}

void ShowBox(int code, const char* header, const char* text) {
  const char* caption = (code & QLOG_FATAL) ? "Fatal error - the program will exit"
                        : (header && *header) ? header
                                              : "Error";
  if (W().boxPrepare) W().boxPrepare();
  qShowMessageBox(caption, text, QMB_OK_EXCLAMATION);
}

void FormatV(char* out, const char* fmt, va_list ap) {
  if (vsnprintf(out, kBufSize, fmt ? fmt : "", ap) < 0) out[0] = 0;
}

// Where a front call comes from. Every header format takes the file, the line and the method, in
// that order.
struct Origin {
  const char* headerFormat;
  const char* file;
  int line;
  const char* method;
};

void FormatHeader(char (&out)[1024], const Origin& o) {
  snprintf(out, sizeof(out), o.headerFormat, o.file, o.line, o.method);
}

// The header (none without an origin), then the text, then the handler or the default, under the
// message mutex.
void Front(QMessageHandler hook, void (*fallback)(const char*, const char*), const Origin* origin,
           const char* fmt, va_list ap, bool addNewline, bool remember = false) {
  char header[1024];
  if (origin) FormatHeader(header, *origin);
  const char* shown = origin ? header : nullptr;
  char text[kBufSize];
  FormatV(text, fmt, ap);
  if (addNewline) {
    size_t n = strlen(text);
    if ((n == 0 || text[n - 1] != '\n') && n + 1 < sizeof(text)) {
      text[n] = '\n';
      text[n + 1] = 0;
    }
  }
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  // Kept whoever handles it: a status report shows the last thing that went wrong.
  if (remember) {
    std::string& last = W().lastWarning;
    last = text;
    while (!last.empty() && (last.back() == '\n' || last.back() == '\r')) last.pop_back();
    ++g_warningCount;
  }
  if (hook)
    hook(shown, text);
  else
    fallback(shown, text);
}

// The fatal paths log the text with a box; what follows differs, unless a stop signal came
// (while the box was up, say): the program then ends as a stop ends it anywhere else.
void LogFatal(const char* fmt, va_list ap) {
  char text[kBufSize];
  FormatV(text, fmt, ap);
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  qlogwrite(QLOG_FATAL | QLOG_BOX, nullptr, "%s", text);
  if (const int sig = qMessageBoxStopSignal()) {
    qnote("qmessage.cpp", "qfatal", __LINE__, "Signal %d (%s): ending", sig, strsignal(sig));
    qExitProcess(0);
  }
}

// Standard error gets the text on a line of its own, without a second line end.
void PrintLine(const char* text) {
  const size_t n = strlen(text);
  fputs(text, stderr);
  if (n == 0 || text[n - 1] != '\n') fputc('\n', stderr);
}

void DefaultDbg(const char* /*header*/, const char* text) {
  // Debug texts come with and without their own line end; every one is a line of its own, and
  // printed once, also when it goes on to the log.
  PrintLine(text);
  if (qdbgGetFlags() & QDEBUG_QDBG_TO_QLOG) {
    qlogwrite(QLOG_DBG | QLOG_ONSTDERR, nullptr, "%s", text);
    return;
  }
  UdpSend(text);
  if (qtraceIsOpen() && (qtraceGetFlags() & QTRACE_QDBG)) qtracePrint(text);
}

void DefaultWarn(const char* header, const char* text) {
  PrintLine(text);
  if (qlogGetMask() & QLOGMASK_WARN) qlogwrite(QLOG_WARN | QLOG_ONSTDERR, header, "%s", text);
  if (qtraceIsOpen() && (qtraceGetFlags() & QTRACE_WARNINGS)) {
    qtracePrint(text);
    if (qtraceGetFlags() & QTRACE_AFTER_WARNING) qtraceFollowUp(3);
  }
}

void DefaultErr(const char* header, const char* text) {
  fprintf(stderr, "%s", text);
  if (qlogGetMask() & QLOGMASK_ERR) qlogwrite(QLOG_ERR | QLOG_ONSTDERR, header, "%s", text);
  if (qtraceIsOpen() && (qtraceGetFlags() & QTRACE_ERRORS)) {
    qtracePrint(text);
    if (qtraceGetFlags() & QTRACE_AFTER_ERROR) qtraceFollowUp(3);
  }
}

void DefaultErrBox(const char* header, const char* text) {
  fprintf(stderr, "%s", text);
  if (qlogGetMask() & QLOGMASK_ERR)
    qlogwrite(QLOG_ERR | QLOG_ONSTDERR | QLOG_BOX, header, "%s", text);
}

void DefaultMessage(const char* /*header*/, const char* text) {
  PrintLine(text);
  if (qlogGetMask() & QLOGMASK_MESSAGE) qlogwrite(QLOG_INFO | QLOG_ONSTDERR, nullptr, "%s", text);
  UdpSend(text);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Settings
// ---------------------------------------------------------------------------------------------

std::recursive_mutex& qMessageMutex() {
  static auto* m = new std::recursive_mutex;  // "QNmessage"; outlives every static destructor
  return *m;
}

int qlogGetMask() { return W().mask; }
std::string qlogLastWarning() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  return W().lastWarning;
}
unsigned long qlogWarningCount() { return g_warningCount.load(std::memory_order_relaxed); }

void qlogSetMask(int mask) { W().mask = mask; }

void qlogSetFileName(const char* fullName) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  W().fileName = fullName ? fullName : "";
}

const char* qlogGetFileName() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  EnsureFileName();
  return W().fileName.c_str();
}

void qlogSetAppTag(const char* tag) { W().appTag = tag ? tag : ""; }
void qlogSetAppNameProvider(const char* (*provider)()) { W().appName = provider; }
void qlogSetUdpSender(void (*send)(const char*, int)) { W().udpSend = send; }
void qlogSetBoxPrepare(void (*prepare)()) { W().boxPrepare = prepare; }

QMessageHandler qSetDbgHandler(QMessageHandler h) { std::swap(g_dbgHandler, h); return h; }
QMessageHandler qSetWarnHandler(QMessageHandler h) { std::swap(g_warnHandler, h); return h; }
QMessageHandler qSetErrHandler(QMessageHandler h) { std::swap(g_errHandler, h); return h; }
QMessageHandler qSetErrBoxHandler(QMessageHandler h) { std::swap(g_errBoxHandler, h); return h; }
QMessageHandler qSetMessageHandler(QMessageHandler h) { std::swap(g_messageHandler, h); return h; }

bool qlogOpenSecondFile() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  WriterState& w = W();
  if (w.second) return true;
  w.second = fopen(Sibling("QLOG_LAST.txt").c_str(), "w");
  return w.second != nullptr;
}

void qlogCloseSecondFile() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  if (W().second) fclose(W().second);
  W().second = nullptr;
}

void qlogReset() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  EnsureFileName();
  const std::string& name = W().fileName;
  std::string old = Sibling("QLOG_OLD.txt");
  remove(old.c_str());
  rename(name.c_str(), old.c_str());
  remove(name.c_str());  // should the rename have failed
  if (FILE* f = fopen(name.c_str(), "ab")) fclose(f);
}

// ---------------------------------------------------------------------------------------------
// The writer
// ---------------------------------------------------------------------------------------------

void qlogwrite(int code, const char* header, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  qlogwritev(code, header, fmt, ap);
  va_end(ap);
}

void qlogwritev(int code, const char* header, const char* fmt, va_list ap) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  WriterState& w = W();

  if (!w.started) {
    w.started = true;
    EnsureFileName();
    int banner = (code & ~(QLOG_ERR | QLOG_WARN | QLOG_CRIT | QLOG_NOTE | QLOG_DBG | QLOG_FATAL |
                           QLOG_BOX)) | QLOG_INFO;
    qlogwrite(banner, nullptr, "--- application start ---\n");
    qlogwrite(banner, nullptr, "QLog file is: %s", w.fileName.c_str());
  }

  const char* level = LevelWord(code);
  char text[kBufSize];
  FormatV(text, fmt, ap);

  // Repeat suppression: an identical text is only counted.
  if (!(code & QLOG_BOX) && strcmp(text, w.lastText) == 0) {
    ++w.repeatCount;
    UdpSendf("%s: %s\n", level, text);
    return;
  }
  if (w.repeatCount > 0) {
    int count = w.repeatCount;
    w.repeatCount = 0;
    std::string lastText = w.lastText;
    std::string lastHeader = w.lastHeader;
    bool hadHeader = w.hasLastHeader;
    qlogwrite(w.lastCode, hadHeader ? lastHeader.c_str() : nullptr, "[%dx repeat] %s", count,
              lastText.c_str());
  }
  memcpy(w.lastText, text, sizeof(text));
  w.lastCode = code;
  w.hasLastHeader = header != nullptr;
  snprintf(w.lastHeader, sizeof(w.lastHeader) - 1, "%s", header ? header : "");

  size_t len = strlen(text);
  if (len > 0 && text[len - 1] == '\n') text[--len] = 0;

  if (!(code & QLOG_ONSTDERR)) fprintf(stderr, "%s\n", text);
  if (!(code & QLOG_NOUDP)) {
    if (header)
      UdpSendf("[%s] %s: %s\n", header, level, text);
    else
      UdpSendf("%s: %s\n", level, text);
  }

  char stamp[80];
  TimeStamp(stamp, sizeof(stamp));
  FILE* f = fopen(w.fileName.c_str(), "a");
  const bool logged = f != nullptr;
  if (!f) {
    char why[256];
    snprintf(why, sizeof(why), "[%s/%d] Can't open log file (QLOG)", AppName(),
             static_cast<int>(getpid()));
    fprintf(stderr, "** %s\n", why);
  } else {
    if (fseek(f, 0, SEEK_END) == 0 && ftell(f) > QLOG_MAX_SIZE) {
      fclose(f);
      qlogReset();
      f = fopen(w.fileName.c_str(), "a");
    }
    if (f) {
      if (header)
        fprintf(f, "%s (%-5s): [%s] %s [%s]\n", stamp, level, AppName(), text, header);
      else
        fprintf(f, "%s (%-5s): [%s] %s\n", stamp, level, AppName(), text);
      fclose(f);
    }
  }

  // A line the log file did not get does not go to the second file either.
  const int secondCodes = QLOG_ERR | QLOG_WARN | QLOG_CRIT | QLOG_FATAL | QLOG_SECOND;
  if (logged && w.second && (code & secondCodes)) {
    if (header)
      fprintf(w.second, "%s (%s): %s [%s]\n", stamp, level, text, header);
    else
      fprintf(w.second, "%s (%s): %s\n", stamp, level, text);
    fflush(w.second);
  }

  if (code & QLOG_BOX) ShowBox(code, header, text);
}

// ---------------------------------------------------------------------------------------------
// Front calls
// ---------------------------------------------------------------------------------------------

void qdbg(const char* file, const char* method, int line, const char* fmt, ...) {
  const Origin origin{"[DBG,%s:%d,%s]", file, line, method};
  va_list ap;
  va_start(ap, fmt);
  Front(g_dbgHandler, DefaultDbg, &origin, fmt, ap, false);
  va_end(ap);
}

void qinfo(const char* file, const char* method, int line, const char* fmt, ...) {
  if (!(qlogGetMask() & QLOGMASK_INFO)) return;
  char header[1024];
  FormatHeader(header, Origin{"%s:%d / %s", file, line, method});
  va_list ap;
  va_start(ap, fmt);
  qlogwritev(QLOG_INFO, header, fmt, ap);
  va_end(ap);
}

void qnote(const char* file, const char* method, int line, const char* fmt, ...) {
  char header[1024];
  FormatHeader(header, Origin{"%s:%d / %s", file, line, method});
  va_list ap;
  va_start(ap, fmt);
  qlogwritev(QLOG_NOTE, header, fmt, ap);
  va_end(ap);
}

void qwarn(const char* file, const char* method, int line, const char* fmt, ...) {
  const Origin origin{"WARN,%s:%d,%s", file, line, method};
  va_list ap;
  va_start(ap, fmt);
  Front(g_warnHandler, DefaultWarn, &origin, fmt, ap, false, true);
  va_end(ap);
}

void qerr(const char* file, const char* method, int line, const char* fmt, ...) {
  const Origin origin{"ERR,%s:%d,%s", file, line, method};
  va_list ap;
  va_start(ap, fmt);
  Front(g_errHandler, DefaultErr, &origin, fmt, ap, true, true);
  va_end(ap);
}

void qerrbox(const char* file, const char* method, int line, const char* fmt, ...) {
  const Origin origin{"In %s, line %d, function %s()", file, line, method};
  va_list ap;
  va_start(ap, fmt);
  Front(g_errBoxHandler, DefaultErrBox, &origin, fmt, ap, true, true);
  va_end(ap);
}

void qmessage(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  Front(g_messageHandler, DefaultMessage, nullptr, fmt, ap, false);
  va_end(ap);
}

void qfatal(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogFatal(fmt, ap);
  va_end(ap);
  QCrash("qfatal");
  qExitProcess(0);  // only when the crash was survived
}

void qfatalexit(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  LogFatal(fmt, ap);
  va_end(ap);
  qExitProcess(0);
}

void qAddShutdownHook(void (*hook)()) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  ShutdownHooks().push_back(hook);
}

void qExitProcess(int code) {
  std::vector<void (*)()> hooks;
  {
    std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
    hooks.swap(ShutdownHooks());
  }
  for (auto it = hooks.rbegin(); it != hooks.rend(); ++it) (*it)();
  qlogSetUdpSender(nullptr);
  qlogCloseSecondFile();
  fflush(stdout);
  fflush(stderr);
  exit(code);
}
