// QNWatch: one thread's sleep on a connection's socket that other threads can end early.
//
// It owns an event counter (an eventfd) that any thread may set with Wake; Wait sleeps until the
// socket it is given can be read (or written, when asked), a wake came, or the time ran out. A
// wake given while nobody waits ends the next Wait, so none is lost between two looks; Wait takes
// it, so it ends one Wait only. Otherwise the owning thread alone calls Wait.
#pragma once

class QNWatch {
 public:
  enum : int { READABLE = 1, WRITABLE = 2, WOKEN = 4 };

  // Without an event counter (an error says why) the waits end only on the socket or the time.
  QNWatch();
  ~QNWatch();
  QNWatch(const QNWatch&) = delete;
  QNWatch& operator=(const QNWatch&) = delete;

  // Any thread: ends the Wait under way, or the next one.
  void Wake();
  // Sleeps on `handle` (negative: none) for reading, and for writing too with `write`, at most
  // `timeoutMs` (negative: no limit). Answers the READABLE, WRITABLE and WOKEN bits that hold;
  // a socket in error or hung up counts as both readable and writable, so that its reader finds
  // out. 0 on a time-out, and on a failing wait (reported).
  int Wait(int handle, bool write, int timeoutMs);

 private:
  int event_ = -1;
};
