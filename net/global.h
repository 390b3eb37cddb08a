// Network start-up and error reporting for the socket layer.
//
// qnInit runs once per process: it resolves the local host's address, starts the network timer,
// initialises ENet, zeroes the port offset and the simulated loss, installs the "udp_out" log
// copy and the "dev." tuning hooks, and registers the shut-down that closes the log's socket and
// deinitialises ENet. Later calls change nothing.
//
// Socket errors are kept as the numbers the framework was written against (10035 would block,
// 10054 reset, ...): every failing system call of net/ stores its mapped error per thread, and
// qnError reports the last one. The port offset and the loss percentage are process-wide; the
// sockets read them at Open and Read. Nothing here locks.
#pragma once

#include <cstdint>

#include "framework/qmessage.h"

class QNAddress;
class QTimer;

// True the first time; every later call answers false at once without touching anything. A
// failed ENet start is reported ("qnInit: can't initialize enet") and does not stop the start.
bool qnInit();
bool qnIsInitialized();

// Logs the warning "[QN] <message> (<error>)\n<error text>" for the calling thread's last
// socket error; 10035 (would block) and 10065 (host unreachable) are not reported.
void qnError(const char* fmt, ...) QPRINTF(1, 2);
// The calling thread's last socket error, and its setter (what a failing call stores).
int qnGetLastError();
void qnSetLastError(int error);
// Stores errno, mapped to the framework's numbers, as the last error; answers that number.
int qnSaveErrno();
// errno to the framework's numbers; an errno without one is answered as it is.
int qnMapErrno(int err);
// The text of an error number ("<unknown error>" for numbers without one).
const char* qnErrorText(int error);

// Added to every port a socket opens, when positive.
void qnSetPortOffset(int offset);
int qnGetPortOffset();
// Percentage of received datagrams that Read drops on purpose (0 = none, 100 = all).
void qnSetPacketLoss(int percent);
int qnGetPacketLoss();

// The local host's address as resolved by qnInit (any when it could not be resolved).
const QNAddress& qnGetLocalHost();
// The timer started by qnInit, or null before it.
QTimer* qnGetTimer();
