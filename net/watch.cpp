// QNWatch on poll and an eventfd.
#include "net/watch.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "framework/qmessage.h"

QNWatch::QNWatch() {
  event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event_ < 0) QERR("QNWatch", "Can't make an eventfd: %s", strerror(errno));
}

QNWatch::~QNWatch() {
  if (event_ >= 0) close(event_);
}

void QNWatch::Wake() {
  if (event_ < 0) return;
  const uint64_t one = 1;
  // A full counter wakes the waiter as well as a written one; nothing else can fail here.
  if (write(event_, &one, sizeof one) < 0) return;
}

int QNWatch::Wait(int handle, bool write, int timeoutMs) {
  // poll passes over negative handles: with no socket, only the wake and the time count.
  pollfd p[2] = {{handle, short(POLLIN | (write ? POLLOUT : 0)), 0}, {event_, POLLIN, 0}};
  int n;
  do {
    n = poll(p, 2, timeoutMs < 0 ? -1 : timeoutMs);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    QERR("QNWatch::Wait", "poll on socket '%d' failed: %s", handle, strerror(errno));
    return 0;
  }
  int ready = 0;
  if (p[0].revents & (POLLIN | POLLERR | POLLHUP)) ready |= READABLE;
  if (p[0].revents & (POLLOUT | POLLERR | POLLHUP)) ready |= WRITABLE;
  if (p[1].revents & POLLIN) {
    uint64_t count;
    // Taken, so that the wake ends this wait only.
    if (read(event_, &count, sizeof count) == sizeof count) ready |= WOKEN;
  }
  return ready;
}
