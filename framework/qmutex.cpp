// QMutex on std::recursive_timed_mutex (type 0) and std::recursive_mutex (type 1).
#include "framework/qmutex.h"

#include <chrono>
#include <new>
#include <system_error>

#include "framework/qmessage.h"

QMutex::QMutex(const char* name, int type, bool initiallyOwned) : type_(type), name_(name) {
  switch (type) {
    case CRITICAL_SECTION:
      section_.reset(new std::recursive_mutex);
      if (initiallyOwned)
        QERR("QMutex::QMutex", "'initiallyUsed=true is not supported for critical sections (yet?)");
      break;
    case MUTEX:
      mutex_.reset(new (std::nothrow) std::recursive_timed_mutex);
      if (!mutex_) {
        QWARN("QMutex::QMutex", "QMutex: can't create mutex");
        break;
      }
      // Held at once but not counted: the lock count only follows Lock and Unlock, so the
      // matching Unlock reports "released more often than locked -1".
      if (initiallyOwned) {
        mutex_->lock();
        TookLock();
      }
      break;
    case NONE:
      break;
    default:
      QERR("QMutex::QMutex", "Type %d unsupported", type);
      break;
  }
}

QMutex::~QMutex() {
  // Destroying a held standard mutex is undefined: let go of what this thread holds. A lock held
  // by another thread at this point is a caller's fault; the mutex is then left allocated.
  if (depth_ > 0 && Owned()) {
    for (; depth_ > 0; --depth_) {
      if (mutex_) mutex_->unlock();
      if (section_) section_->unlock();
    }
  } else if (depth_ > 0) {
    mutex_.release();
    section_.release();
  }
}

void QMutex::TookLock() {
  owner_.store(std::this_thread::get_id());
  ++depth_;
}

bool QMutex::Lock(int timeoutMs) {
  switch (type_) {
    case CRITICAL_SECTION:
      if (timeoutMs >= 0)
        QINFO("QMutex::Lock", "Cannot use timeouts with critical sections (timeout=%d)", timeoutMs);
      section_->lock();
      TookLock();
      break;
    case MUTEX: {
      bool got = false;
      try {
        if (!mutex_)
          got = false;
        else if (timeoutMs < 0) {
          mutex_->lock();
          got = true;
        } else if (timeoutMs == 0) {
          if (!mutex_->try_lock()) return false;
          got = true;
        } else {
          if (!mutex_->try_lock_for(std::chrono::milliseconds(timeoutMs))) return false;
          got = true;
        }
      } catch (const std::system_error&) {
        got = false;
      }
      if (!got) {
        QERR("QMutex::Lock", "QMutex:Unlock(); WAIT_FAILED");
        return false;
      }
      TookLock();
      break;
    }
    case NONE:
      break;
    default:
      QERR("QMutex::Lock", "Unknown type %d", type_);
      break;
  }
  count_.fetch_add(1);
  return true;
}

bool QMutex::Unlock() {
  switch (type_) {
    case CRITICAL_SECTION:
    case MUTEX:
      if (!Owned() || depth_ <= 0 || (type_ == MUTEX && !mutex_)) {
        QERR("QMutex::Unlock", "QMutex:Unlock(); failed");
        return false;
      }
      if (--depth_ == 0) owner_.store(std::thread::id());
      if (mutex_) mutex_->unlock();
      if (section_) section_->unlock();
      break;
    case NONE:
      break;
    default:
      QERR("QMutex::Unlock", "Unknown type %d", type_);
      break;
  }
  int32_t now = count_.fetch_sub(1) - 1;
  if (now < 0) QERR("QMutex::Unlock", "QMutex is released more often than locked %d", now);
  return true;
}

bool QMutex::IsLocked() const { return type_ != NONE && count_.load() > 0; }
