// Threads: QThread wraps one platform thread, and the process keeps a table of the threads the
// framework made. Also here: processor affinity, atomic 32-bit counters and the millisecond sleep.
//
// A QThread is listed in the 50-slot thread table from construction to destruction; with all
// slots taken it still works but is not listed (and so cannot be found by its handle). The
// QThread owns its handle; the entry function and its argument belong to the caller. Destroying
// a QThread lets the thread run on detached: it does not wait for it.
//
// On Linux a thread cannot be suspended by another one. A thread is created held at a start
// gate (the "suspended" state), and Resume opens that gate; Create resumes before it returns, so
// a created thread always runs. Suspend does nothing. Kill ends the thread at once, wherever it
// is, by a signal whose handler leaves through the thread-exit system call: nothing is unwound,
// no destructor runs, and the process goes on. As with any hard kill, what the thread held stays
// held (a lock, the log's mutex, a half-built allocation) and its stack is not given back, so
// Kill is meant for a thread stuck in its own work.
//
// The first thread started installs a SIGTERM handler that ends the whole process with code 0,
// unless the program handles SIGTERM itself already (then its handler stays); qthreadExit ends
// the whole process too: both are deliberate.
//
// The thread table and the creation guard are process-wide and not locked: create and destroy
// QThreads from one thread. The call-stack text for error reports is qGetStackText (qerror.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "framework/qstring.h"

typedef void (*QThreadFunc)(void* arg);
// A platform thread handle; 0 means none.
typedef uintptr_t QThreadHandle;

constexpr int QTHREAD_MAX = 50;

class QThread {
 public:
  // Lists the thread; a full table logs "AddThread(); out of thread space.\n".
  QThread(QThreadFunc func, void* arg, const char* name = nullptr);
  // Unlists the thread ("RemoveThread(); can't find thread %p!\n" when it was not listed) and
  // closes the handle; a running thread goes on by itself.
  ~QThread();
  QThread(const QThread&) = delete;
  QThread& operator=(const QThread&) = delete;

  // Starts the thread; false after "QThread:Create() failed to CreateThread()" (also when it
  // was created before).
  bool Create();
  // Opens the start gate of a thread created held; false when there is no handle.
  bool Resume();
  // Not possible on this platform: does nothing and answers false.
  bool Suspend();
  // Ends the thread at once (see above); false without a handle or after "TerminateThread()
  // threadHandle %d failed".
  bool Kill();
  // Always false: warns that it does not work, and without a handle that is the answer.
  bool IsRunning();
  // Level 0 (time critical) .. 6 (idle); other levels mean normal. False when the system
  // refuses (raising priority needs privileges) or the thread has not started.
  bool SetPriority(int level);
  // Mask 0 means all processors; false after the "SetThreadAffinityMask" report.
  bool SetAffinityMask(uint64_t mask);

  // The listed QThread with this handle, or null.
  static QThread* FindByHandle(QThreadHandle handle);
  // Number of listed threads.
  static int ListedCount();

  QThreadHandle GetHandle() const { return handle_; }
  // The thread's id, recorded by the thread itself; 0 before it started.
  uint32_t GetThreadID() const;
  const char* GetName() const { return name_.cstr(); }
  int GetSpare() const { return spare_; }

  // Entry function, argument and thread id, shared with the start routine so that the thread
  // may outlive its QThread.
  struct Shared;

 private:
  QThreadHandle handle_ = 0;
  qstring name_;
  int spare_ = -1;
  std::shared_ptr<Shared> shared_;
};

// Platform priority (15 time critical .. -15 idle) that a level stands for; other levels 0.
int qthreadPriorityOfLevel(int level);

// Ends the calling thread the framework's way: unlists and deletes `thread` (may be null), then
// ends the whole process with code 0. Deliberate: nothing survives it.
[[noreturn]] void qthreadExit(QThread* thread);

// Process affinity: (processors the process started with) AND mask, 0 meaning all. False when
// nothing is left or the system refuses; every thread of the process is moved.
bool qSetProcessAffinity(uint64_t mask);
// The same for the calling thread only.
bool qSetThreadAffinity(uint64_t mask);

// Not implemented: logs "QProcessExists() nyi" and answers true.
bool QProcessExists();

// Atomic 32-bit operations; `order` 0..5 is relaxed, consume, acquire, release, acq_rel,
// seq_cst. Another order does nothing and answers 0. Exchange answers the old value, the others
// the new one.
int32_t qAtomicExchange(std::atomic<int32_t>* target, int32_t value, int order);
int32_t qAtomicIncrement(std::atomic<int32_t>* target, int order);
int32_t qAtomicDecrement(std::atomic<int32_t>* target, int order);
int32_t qAtomicAdd(std::atomic<int32_t>* target, int32_t value, int order);
int32_t qAtomicSubtract(std::atomic<int32_t>* target, int32_t value, int order);

// Sleeps the calling thread; negative counts as 0.
void qSleep(int milliseconds);
