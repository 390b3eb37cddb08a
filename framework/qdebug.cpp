// Debug flags, the argument-trace stack and the trace file.
#include "framework/qdebug.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "framework/qerror.h"
#include "framework/qstring.h"

namespace {

int g_flags = 0;
int g_level = 1;
bool g_strict = false;

// ---- Argument-trace stacks: two thread slots of 100 entries ----
constexpr int kSlots = 2;
constexpr int kDepth = 100;
struct ArgEntry {
  const char* file;
  const char* function;
  int line;
  char text[200];
};
struct ArgStack {
  std::thread::id owner;
  bool used = false;
  int depth = 0;  // may run past kDepth: the surplus is only counted
  bool overflowReported = false;
  bool underflowReported = false;
  ArgEntry entries[kDepth];
};
ArgStack g_stacks[kSlots];

ArgStack& StackOfThisThread() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  std::thread::id me = std::this_thread::get_id();
  for (auto& s : g_stacks)
    if (s.used && s.owner == me) return s;
  for (auto& s : g_stacks)
    if (!s.used) {
      s.used = true;
      s.owner = me;
      return s;
    }
  qerr("qdebug.cpp", "qargPush", __LINE__, "No space for qarg thread %d\n",
       static_cast<int>(std::hash<std::thread::id>()(me) & 0x7fffffff));
  return g_stacks[0];
}

// ---- Trace file ----
FILE* g_trace = nullptr;
int g_traceFlags = 0;
int g_traceDepth = 0;
pid_t g_traceOwner = 0;

void TraceLine(const char* mark, const char* className, const char* method, const void* object) {
  if (!g_trace) return;
  std::string indent(static_cast<size_t>(g_traceDepth > 0 ? g_traceDepth : 0) * 2, ' ');
  if (object)
    fprintf(g_trace, "%s%s%s::%s (this=0x%p)\n", indent.c_str(), mark, className, method, object);
  else
    fprintf(g_trace, "%s%s%s::%s\n", indent.c_str(), mark, className, method);
  fflush(g_trace);
}

}  // namespace

int qdbgGetFlags() { return g_flags; }
void qdbgSetFlags(int flags) { g_flags = flags; }
int qdbgGetLevel() { return g_level; }
bool qdbgStrict() { return g_strict; }
void qdbgSetStrict(bool on) { g_strict = on; }
void qdbgSetLevel(int level) { g_level = level; }

// ---------------------------------------------------------------------------------------------
// Argument-trace stack
// ---------------------------------------------------------------------------------------------

void qargPush(const char* file, const char* function, int line, const char* fmt, ...) {
  ArgStack& s = StackOfThisThread();
  if (s.depth >= kDepth) {
    ++s.depth;
    if (!s.overflowReported) {
      s.overflowReported = true;
      qerr("qdebug.cpp", "qargPush", __LINE__, "qargPush overflow; verify your qargPush/qargPop calls");
      qargPrint("qargPush overflow state", true);
    }
    return;
  }
  ArgEntry& e = s.entries[s.depth++];
  e.file = file;
  e.function = function;
  e.line = line;
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(e.text, sizeof(e.text), fmt, ap);
  va_end(ap);
}

void qargPop() {
  ArgStack& s = StackOfThisThread();
  if (s.depth <= 0) {
    if (!s.underflowReported) {
      s.underflowReported = true;
      qerr("qdebug.cpp", "qargPop", __LINE__, "qargPop underflow; verify your qargPush/qargPop calls");
    }
    return;
  }
  --s.depth;
}

void qargPrint(const char* title, bool toLog) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  auto out = [toLog](const char* fmt, auto... args) {
    if (toLog)
      qinfo("qdebug.cpp", "qargPrint", __LINE__, fmt, args...);
    else
      qdbg("qdebug.cpp", "qargPrint", __LINE__, fmt, args...);
  };
  out("Argument stack(s) [%s]:\n", title ? title : "");
  for (int i = 0; i < kSlots; ++i) {
    ArgStack& s = g_stacks[i];
    out("Stack for threadID %d [%d]:\n",
        s.used ? static_cast<int>(std::hash<std::thread::id>()(s.owner) & 0x7fffffff) : 0, i);
    int depth = s.depth < kDepth ? s.depth : kDepth;
    if (depth <= 0) {
      out("%s", "<empty stack> (is dev.argument_tracing set to 1?)\n");
      continue;
    }
    for (int k = depth - 1; k >= 0; --k) {
      const ArgEntry& e = s.entries[k];
      out("stack[%d]=%s\n", k, e.text);
      if (toLog)
        out("  (set in %s line %d in %s()\n", e.file, e.line, e.function);
      else
        out("  (set at %s line %d in %s()\n", e.file, e.line, e.function);
    }
  }
}

void qargReset() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  for (auto& s : g_stacks) s = ArgStack();
}

// ---------------------------------------------------------------------------------------------
// Trace file
// ---------------------------------------------------------------------------------------------

bool qtraceOpen(const char* name) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  if (g_trace) fclose(g_trace);
  g_trace = fopen(name, "wb");
  g_traceDepth = 0;
  g_traceOwner = getpid();
  return g_trace != nullptr;
}

void qtraceClose() {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  if (g_trace) fclose(g_trace);
  g_trace = nullptr;
}

bool qtraceIsOpen() { return g_trace != nullptr; }
void qtraceSetFlags(int flags) { g_traceFlags = flags; }
int qtraceGetFlags() { return g_traceFlags; }

void qtraceEnter(const char* className, const char* method, const void* object) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  TraceLine(">", className, method, object);
  if (getpid() == g_traceOwner) ++g_traceDepth;
}

void qtraceLeave(const char* className, const char* method, const void* object) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  if (getpid() == g_traceOwner && g_traceDepth > 0) --g_traceDepth;
  TraceLine("<", className, method, object);
}

void qtracePrint(const char* text) {
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  if (!g_trace || !text) return;
  size_t n = strlen(text);
  fprintf(g_trace, "%s%s", text, (n && text[n - 1] == '\n') ? "" : "\n");
  fflush(g_trace);
}

void qtraceFollowUp(int action) {
  if (action != 3 || !g_trace) return;
  std::lock_guard<std::recursive_mutex> lock(qMessageMutex());
  // What the program was doing: the argument stacks and the call stack.
  for (int i = 0; i < kSlots; ++i) {
    ArgStack& s = g_stacks[i];
    int depth = s.depth < kDepth ? s.depth : kDepth;
    for (int k = depth - 1; k >= 0; --k) fprintf(g_trace, "  arg[%d]=%s\n", k, s.entries[k].text);
  }
  qstring stack;
  qGetStackText(&stack);
  fprintf(g_trace, "%s", stack.cstr());
  fflush(g_trace);
}
