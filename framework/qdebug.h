// Developer switches, the argument-trace stack and the enter/leave trace file.
//
// The switches come from the "dev" group of the application's configuration (qdbg_setup). The
// argument-trace stack keeps, for up to two threads, the last 100 pushed texts so that a crash
// report can say what the program was doing. The trace file records enter/leave lines with an
// indent that follows the call depth, and can also take warnings, errors and debug messages.
#pragma once

#include "framework/qmessage.h"

class QIni;

// Debug-flag bits (set by qdbg_setup).
enum QDebugFlags : int {
  QDEBUG_OPENGL_CHECKS = 1,
  QDEBUG_ARGUMENT_TRACING = 4,
  QDEBUG_QDBG_TO_QLOG = 16,
};
int qdbgGetFlags();
void qdbgSetFlags(int flags);
int qdbgGetLevel();
void qdbgSetLevel(int level);

// Reads the "dev." keys of the configuration: first the run-first command, run before anything
// else is read or set, then debug level, port offset, fake packet drops, udp_out, log_last,
// strict, opengl_checks, argument_tracing, qdbg_to_qlog.
void qdbg_setup(QIni* ini);
// True when "dev.strict" was set: configuration readers give their extra advice.
bool qdbgStrict();
void qdbgSetStrict(bool on);

// Set by the network layer: opens the "udp_out" socket with the given description, or answers
// false after logging which step failed (name lookup, socket). Without an opener (no network
// layer) qdbg_setup reports that the NetworkManager is not initialized.
void qdbgSetUdpOutOpener(bool (*open)(const char* description));
// Set by the network layer: port offset and simulated packet drops from "dev." keys.
void qdbgSetNetworkTuning(void (*portOffset)(int), void (*packetDrops)(int));

// ---- Argument-trace stack ----
void qargPush(const char* file, const char* function, int line, const char* fmt, ...) QPRINTF(4, 5);
void qargPop();
void qargPrint(const char* title, bool toLog);
// Forgets every stack (tests).
void qargReset();
#define QARGPUSH(...) qargPush(qsrcfile(__FILE__), __func__, __LINE__, __VA_ARGS__)

// ---- Trace file ----
enum QTraceFlags : int {
  QTRACE_WARNINGS = 16,
  QTRACE_ERRORS = 32,
  QTRACE_QDBG = 64,
  QTRACE_AFTER_ERROR = 1024,
  QTRACE_AFTER_WARNING = 2048,
};
bool qtraceOpen(const char* name);
void qtraceClose();
bool qtraceIsOpen();
void qtraceSetFlags(int flags);
int qtraceGetFlags();
// `object` may be null.
void qtraceEnter(const char* className, const char* method, const void* object);
void qtraceLeave(const char* className, const char* method, const void* object);
// A line of text into the trace file (used by the default handlers).
void qtracePrint(const char* text);
// Follow-up action 3: the argument stacks and the call stack go into the trace file.
void qtraceFollowUp(int action);
