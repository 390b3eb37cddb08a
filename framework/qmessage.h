// Logging: every part of the program reports through these calls.
//
// A message carries the caller's source file, method ("Class::Method") and line. All calls end in
// one writer (qlogwrite) that stamps the text with time and level, folds immediate repeats,
// appends it to "QLOG.txt" (opened and closed per message, so a crash loses nothing), optionally
// copies it to "QLOG_LAST.txt" and to a UDP debug socket, and for the gravest levels shows a
// message box. Everything runs under the process-wide recursive mutex "QNmessage", so lines
// from different threads never interleave. Logging never fails its caller.
#pragma once

#include <cstdarg>
#include <mutex>
#include <string>

#if defined(__GNUC__)
#define QPRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define QPRINTF(fmt, first)
#endif

// Writer codes: the lowest set bit of 1..64 chooses the level word.
enum QLogCode : int {
  QLOG_ERR = 1,        // "ERR"
  QLOG_WARN = 2,       // "WARN"
  QLOG_CRIT = 4,       // "CRIT"
  QLOG_NOTE = 8,       // "NOTE"
  QLOG_INFO = 16,      // "INFO"
  QLOG_DBG = 32,       // "DBG"
  QLOG_FATAL = 64,     // "FATAL"
  QLOG_NOUDP = 128,    // not sent to the UDP debug socket
  QLOG_ONSTDERR = 256, // already printed to standard error
  QLOG_BOX = 1024,     // show a message box; never folded into a repeat
  QLOG_SECOND = 2048,  // counts as a level for the second file; "INFO" when no level bit is set
};

// Log-file mask bits: which calls reach "QLOG.txt" (initially 14).
enum QLogMask : int {
  QLOGMASK_MESSAGE = 1,
  QLOGMASK_ERR = 2,
  QLOGMASK_WARN = 4,
  QLOGMASK_INFO = 8,
};

// The file name part of a path, for the QDBG/QWARN/... macros.
constexpr const char* qsrcfile(const char* path) {
  const char* last = path;
  for (const char* p = path; *p; ++p)
    if (*p == '/' || *p == '\\') last = p + 1;
  return last;
}

void qdbg(const char* file, const char* method, int line, const char* fmt, ...) QPRINTF(4, 5);
void qinfo(const char* file, const char* method, int line, const char* fmt, ...) QPRINTF(4, 5);
// A note: logged at level "NOTE" with the same header as qinfo, whatever the mask says.
void qnote(const char* file, const char* method, int line, const char* fmt, ...) QPRINTF(4, 5);
void qwarn(const char* file, const char* method, int line, const char* fmt, ...) QPRINTF(4, 5);
void qerr(const char* file, const char* method, int line, const char* fmt, ...) QPRINTF(4, 5);
// Error box: printed, logged when mask bit 2 is set, and shown in a message box.
void qerrbox(const char* file, const char* method, int line, const char* fmt, ...) QPRINTF(4, 5);
// Plain message without file or line: standard error, the log when mask bit 1 is set, UDP.
void qmessage(const char* fmt, ...) QPRINTF(1, 2);
// Logs with a box, then crashes on purpose so that the platform's crash handling takes over.
// A stop signal (qStopMessageBoxes) closes the box; both fatal calls then log "Signal %d (%s):
// ending" and leave through the orderly exit path with code 0, as a stop does elsewhere.
[[noreturn]] void qfatal(const char* fmt, ...) QPRINTF(1, 2);
// Logs with a box, then ends the process through the orderly exit path with code 0.
[[noreturn]] void qfatalexit(const char* fmt, ...) QPRINTF(1, 2);

#define QDBG(method, ...) qdbg(qsrcfile(__FILE__), method, __LINE__, __VA_ARGS__)
#define QINFO(method, ...) qinfo(qsrcfile(__FILE__), method, __LINE__, __VA_ARGS__)
#define QNOTE(method, ...) qnote(qsrcfile(__FILE__), method, __LINE__, __VA_ARGS__)
#define QWARN(method, ...) qwarn(qsrcfile(__FILE__), method, __LINE__, __VA_ARGS__)
#define QERR(method, ...) qerr(qsrcfile(__FILE__), method, __LINE__, __VA_ARGS__)
#define QERRBOX(method, ...) qerrbox(qsrcfile(__FILE__), method, __LINE__, __VA_ARGS__)

// The writer. `header` may be null. Formats into a 20,480-byte buffer (longer text is cut).
void qlogwrite(int code, const char* header, const char* fmt, ...) QPRINTF(3, 4);
void qlogwritev(int code, const char* header, const char* fmt, va_list args);

// Replaceable handlers: (header, text). A setter returns the previous handler; null restores
// the default handler.
typedef void (*QMessageHandler)(const char* header, const char* text);
QMessageHandler qSetDbgHandler(QMessageHandler h);
QMessageHandler qSetWarnHandler(QMessageHandler h);
QMessageHandler qSetErrHandler(QMessageHandler h);
QMessageHandler qSetErrBoxHandler(QMessageHandler h);
QMessageHandler qSetMessageHandler(QMessageHandler h);

// The text of the last warning or error any thread logged (without its line end); empty before
// the first. For status reports.
std::string qlogLastWarning();
// How many warnings and errors have been logged so far: a cheap look at whether the last one
// changed.
unsigned long qlogWarningCount();

int qlogGetMask();
void qlogSetMask(int mask);

// The log file's full name is fixed at first use ("QLOG.txt" in the current directory then),
// so a later change of directory does not move the log. Setting a name (tests, tools) fixes it
// at once; a later first message does not write the start banner again.
void qlogSetFileName(const char* fullName);
const char* qlogGetFileName();
// Rotation: "QLOG.txt" becomes "QLOG_OLD.txt" (replacing it) and an empty log is begun.
void qlogReset();
// Files rotate once they grow past this many bytes (10,000,000).
constexpr long QLOG_MAX_SIZE = 10000000;

// The second file "QLOG_LAST.txt" (beside the log file), opened with mode "w".
bool qlogOpenSecondFile();
void qlogCloseSecondFile();

// Application tag used in log lines; without one the application name provider is asked.
void qlogSetAppTag(const char* tag);
void qlogSetAppNameProvider(const char* (*provider)());

// Hooks for layers built later: the UDP debug copy and the window that must leave full screen
// before a message box can be seen. Both may be null.
void qlogSetUdpSender(void (*send)(const char* text, int length));
void qlogSetBoxPrepare(void (*prepare)());

// Orderly exit path: shut down the registered layers (network, the log's UDP socket), then exit.
void qAddShutdownHook(void (*hook)());
[[noreturn]] void qExitProcess(int code);

// The process-wide recursive message mutex "QNmessage".
std::recursive_mutex& qMessageMutex();
