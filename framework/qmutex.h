// QMutex: a named lock of one of three kinds, with a lock count that any thread may read.
//
// Type 0 is a recursive mutex that can wait with a time-out; type 1 (the "critical section") is a
// recursive mutex that always waits without limit; type 2 does no locking at all and every call
// succeeds. Both real kinds are recursive: the owning thread may lock again and must unlock as
// often. The lock count goes +1 per successful Lock and -1 per Unlock (atomically, so IsLocked
// may be asked from any thread); it counts locks, not owners, and for type 2 it is kept too.
// Ownership given at construction holds the mutex without counting as a lock: IsLocked stays
// false, and the Unlock that lets it go reports the count -1.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "framework/qstring.h"

class QMutex {
 public:
  enum Type : int { MUTEX = 0, CRITICAL_SECTION = 1, NONE = 2 };

  // Another type logs "Type %d unsupported" (the object then locks nothing). A critical
  // section refuses initial ownership with an error and is made unowned.
  explicit QMutex(const char* name = nullptr, int type = MUTEX, bool initiallyOwned = false);
  // A lock still held by the destroying thread is let go.
  ~QMutex();
  QMutex(const QMutex&) = delete;
  QMutex& operator=(const QMutex&) = delete;

  // Waits at most `timeoutMs` (negative: without limit; 0: just tries). False on time-out, or
  // after "QMutex:Unlock(); WAIT_FAILED" when waiting itself failed. A critical section logs
  // that it cannot time out and waits without limit.
  bool Lock(int timeoutMs = -1);
  // False, with "QMutex:Unlock(); failed" and the count unchanged, when the calling thread does
  // not hold it. Unlocking more often than locking logs "QMutex is released more often than
  // locked %d" and still answers true.
  bool Unlock();
  // False for type 2, else lock count > 0.
  bool IsLocked() const;

  int GetLockCount() const { return count_.load(); }
  int GetType() const { return type_; }
  const char* GetName() const { return name_.cstr(); }

 private:
  bool Owned() const { return owner_.load() == std::this_thread::get_id(); }
  void TookLock();

  int type_;
  std::atomic<int32_t> count_{0};
  qstring name_;
  std::unique_ptr<std::recursive_mutex> section_;       // type 1
  std::unique_ptr<std::recursive_timed_mutex> mutex_;   // type 0
  // Which thread holds a real lock and how deep: unlocking from any other thread is refused.
  std::atomic<std::thread::id> owner_{};
  int depth_ = 0;
};
