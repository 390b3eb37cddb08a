// Threads on pthreads: the thread table, the start gate, priorities, affinity, atomics, sleep.
#include "framework/qthread.h"

#include <dirent.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include "framework/qmessage.h"

static_assert(sizeof(pthread_t) <= sizeof(QThreadHandle), "a pthread_t must fit a handle");

struct QThread::Shared {
  QThreadFunc func = nullptr;
  void* arg = nullptr;
  std::atomic<uint32_t> tid{0};
  std::mutex m;
  std::condition_variable cv;
  bool started = false;  // tid recorded
  bool open = false;     // start gate opened by Resume
  // The running thread's own reference (heap, so that a killed thread's can be given back by
  // Kill) and how the thread ended: by the kill signal, or by returning from its entry.
  std::shared_ptr<Shared>* threadRef = nullptr;
  std::atomic<bool> killed{false};
  std::atomic<bool> finished{false};
};

namespace {

// ---------------------------------------------------------------------------------------------
// Thread table and creation guard
// ---------------------------------------------------------------------------------------------

// The signal handler reads the shared records; they are kept beside the QThread pointers so
// that it needs no member access.
struct Slot {
  QThread* thread;
  QThread::Shared* shared;
};
Slot g_table[QTHREAD_MAX];
std::atomic<int> g_creating{0};

void AddThread(QThread* t, QThread::Shared* shared) {
  for (Slot& s : g_table) {
    if (!s.thread) {
      s.shared = shared;
      s.thread = t;
      return;
    }
  }
  QWARN("QThread::AddThread", "AddThread(); out of thread space.\n");
}

void RemoveThread(QThread* t) {
  for (Slot& s : g_table) {
    if (s.thread == t) {
      s.thread = nullptr;
      s.shared = nullptr;
      return;
    }
  }
  QWARN("QThread::RemoveThread", "RemoveThread(); can't find thread %p!\n", static_cast<void*>(t));
}

pthread_t PthreadOf(QThreadHandle h) {
  pthread_t pt;
  memcpy(&pt, &h, sizeof(pt));
  return pt;
}

QThreadHandle HandleOf(pthread_t pt) {
  QThreadHandle h = 0;
  memcpy(&h, &pt, sizeof(pt));
  return h;
}

// Compares the process id with the recorded thread ids, as the framework always did, and ends
// the process whatever it finds. Only async-signal-safe calls here.
void OnTerminate(int) {
  uint32_t pid = static_cast<uint32_t>(getpid());
  for (Slot& s : g_table) {
    QThread::Shared* shared = s.shared;
    if (s.thread && shared && shared->tid.load() == pid) {
      shared->tid.store(0);
      break;
    }
  }
  _exit(0);
}

// Kill: the signal's handler ends the calling thread alone with the raw exit system call, so no
// frame of the program is unwound (a forced unwind through a noexcept frame would abort the
// whole process) and a thread busy without any cancellation point ends just the same.
int KillSignal() { return SIGRTMIN + 4; }

// The record of the thread running here, for the kill handler.
thread_local QThread::Shared* t_shared = nullptr;

void OnKill(int) {
  if (QThread::Shared* shared = t_shared) shared->killed.store(true);
  syscall(SYS_exit, 0);
}

bool InstallKillHandler() {
  static const bool installed = [] {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnKill;
    sigfillset(&sa.sa_mask);
    return sigaction(KillSignal(), &sa, nullptr) == 0;
  }();
  return installed;
}

void* StartRoutine(void* param) {
  auto* ref = static_cast<std::shared_ptr<QThread::Shared>*>(param);
  QThread::Shared* shared = ref->get();
  shared->threadRef = ref;
  t_shared = shared;
  // Only over the default: a program that stops through its own exit procedure on SIGTERM
  // installed its handler first, and a thread must not turn that into a bare end.
  struct sigaction sa, current;
  memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnTerminate;
  sigemptyset(&sa.sa_mask);
  if (sigaction(SIGTERM, nullptr, &current) == 0 && current.sa_handler == SIG_DFL &&
      !(current.sa_flags & SA_SIGINFO))
    sigaction(SIGTERM, &sa, nullptr);

  // A kill inside the condition wait could leave the gate's mutex held: hold it off until the
  // gate is open.
  sigset_t kill, old;
  sigemptyset(&kill);
  sigaddset(&kill, KillSignal());
  pthread_sigmask(SIG_BLOCK, &kill, &old);
  {
    std::unique_lock<std::mutex> lock(shared->m);
    shared->tid.store(static_cast<uint32_t>(gettid()));
    shared->started = true;
    shared->cv.notify_all();
    shared->cv.wait(lock, [&] { return shared->open; });
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  shared->func(shared->arg);
  // From here a kill would only lose the reference: let it wait, and go (a pending kill signal
  // goes with the thread).
  pthread_sigmask(SIG_BLOCK, &kill, nullptr);
  t_shared = nullptr;
  shared->threadRef = nullptr;
  shared->finished.store(true);
  delete ref;
  return nullptr;
}

// ---------------------------------------------------------------------------------------------
// Affinity helpers
// ---------------------------------------------------------------------------------------------

uint64_t MaskOf(const cpu_set_t& set) {
  uint64_t mask = 0;
  for (int i = 0; i < 64; ++i)
    if (CPU_ISSET(i, &set)) mask |= uint64_t(1) << i;
  return mask;
}

cpu_set_t SetOf(uint64_t mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int i = 0; i < 64; ++i)
    if (mask & (uint64_t(1) << i)) CPU_SET(i, &set);
  return set;
}

// The processors the process was started with: "all" for the affinity calls.
uint64_t StartMask() {
  static const uint64_t mask = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) return ~uint64_t(0);
    return MaskOf(set);
  }();
  return mask;
}
// Taken before anybody narrows it.
[[maybe_unused]] const uint64_t g_startMaskAtLoad = StartMask();

void ReportLastError(const char* method, const char* call, int err) {
  qwarn("qthread.cpp", method, __LINE__, "%s: error %d '%s'", call, err, strerror(err));
}

// Linux nice value for a platform priority (15 time critical .. -15 idle).
int NiceOf(int priority) {
  switch (priority) {
    case 15: return -20;
    case 2: return -10;
    case 1: return -5;
    case -1: return 5;
    case -2: return 10;
    case -15: return 19;
    default: return 0;
  }
}

std::memory_order OrderOf(int order) {
  static const std::memory_order kOrders[6] = {
      std::memory_order_relaxed, std::memory_order_consume, std::memory_order_acquire,
      std::memory_order_release, std::memory_order_acq_rel, std::memory_order_seq_cst};
  return kOrders[order];
}

bool ValidOrder(int order) { return order >= 0 && order <= 5; }

int32_t Wrap(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// QThread
// ---------------------------------------------------------------------------------------------

QThread::QThread(QThreadFunc func, void* arg, const char* name)
    : name_(name), shared_(std::make_shared<Shared>()) {
  shared_->func = func;
  shared_->arg = arg;
  AddThread(this, shared_.get());
}

QThread::~QThread() {
  RemoveThread(this);
  if (handle_) pthread_detach(PthreadOf(handle_));
}

bool QThread::Create() {
  int idle = 0;
  while (!g_creating.compare_exchange_weak(idle, 1)) {
    idle = 0;
    qSleep(1);
  }
  struct Guard {
    ~Guard() { g_creating.store(0); }
  } guard;

  pthread_t pt;
  auto* ref = new std::shared_ptr<Shared>(shared_);
  if (handle_ || !shared_->func || pthread_create(&pt, nullptr, StartRoutine, ref) != 0) {
    delete ref;
    QERR("QThread::Create", "QThread:Create() failed to CreateThread()");
    return false;
  }
  handle_ = HandleOf(pt);
  Resume();
  return true;
}

bool QThread::Resume() {
  if (!handle_) return false;
  std::lock_guard<std::mutex> lock(shared_->m);
  shared_->open = true;
  shared_->cv.notify_all();
  return true;
}

bool QThread::Suspend() { return false; }

bool QThread::Kill() {
  if (!handle_) return false;
  QINFO("QThread::Kill", "QThread:Kill handle %d\n", static_cast<int>(handle_));
  if (!InstallKillHandler() || pthread_kill(PthreadOf(handle_), KillSignal()) != 0) {
    QWARN("QThread::Kill", "TerminateThread() threadHandle %d failed", static_cast<int>(handle_));
    return false;
  }
  // The killed thread's own reference to the record died with its stack: give it back for it.
  for (int i = 0; i < 1000 && !shared_->killed.load() && !shared_->finished.load(); ++i)
    qSleep(1);
  if (shared_->killed.exchange(false)) {
    delete shared_->threadRef;
    shared_->threadRef = nullptr;
  }
  return true;
}

bool QThread::IsRunning() {
  QWARN("QThread::IsRunning", "QThread:IsRunning() does not work correctly");
  if (!handle_) return false;
  QERR("QThread::IsRunning", "QThread:IsRunning() NYI");
  return false;
}

uint32_t QThread::GetThreadID() const { return shared_->tid.load(); }

bool QThread::SetPriority(int level) {
  if (!handle_) return false;
  uint32_t tid;
  {
    // The id is recorded first thing in the new thread; the wait is short.
    std::unique_lock<std::mutex> lock(shared_->m);
    shared_->cv.wait_for(lock, std::chrono::seconds(1), [&] { return shared_->started; });
    tid = shared_->tid.load();
  }
  if (!tid) return false;
  int nice = NiceOf(qthreadPriorityOfLevel(level));
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) != 0) {
    int err = errno;
    QWARN("QThread::SetPriority", "QThread(%s): can't set level %d (nice '%d'): %s",
          name_.cstr(), level, nice, strerror(err));
    return false;
  }
  return true;
}

bool QThread::SetAffinityMask(uint64_t mask) {
  if (!handle_) return false;
  cpu_set_t set = SetOf(mask ? mask : StartMask());
  int rc = pthread_setaffinity_np(PthreadOf(handle_), sizeof(set), &set);
  if (rc != 0) {
    ReportLastError("QThread::SetAffinityMask", "SetThreadAffinityMask", rc);
    QWARN("QThread::SetAffinityMask", "SetThreadAffinityMask of threadPID %d failed",
          static_cast<int>(GetThreadID()));
    return false;
  }
  return true;
}

QThread* QThread::FindByHandle(QThreadHandle handle) {
  if (!handle) return nullptr;
  for (const Slot& s : g_table)
    if (s.thread && s.thread->GetHandle() == handle) return s.thread;
  return nullptr;
}

int QThread::ListedCount() {
  int n = 0;
  for (const Slot& s : g_table)
    if (s.thread) ++n;
  return n;
}

int qthreadPriorityOfLevel(int level) {
  static const int kPriority[7] = {15, 2, 1, 0, -1, -2, -15};
  return (level >= 0 && level <= 6) ? kPriority[level] : 0;
}

void qthreadExit(QThread* thread) {
  delete thread;
  qExitProcess(0);
}

// ---------------------------------------------------------------------------------------------
// Process services
// ---------------------------------------------------------------------------------------------

bool qSetProcessAffinity(uint64_t mask) {
  uint64_t wanted = StartMask() & (mask ? mask : ~uint64_t(0));
  if (!wanted) {
    QWARN("qSetProcessAffinity", "qSetProcessAffinity(); mask '0x%llx' leaves no processor",
          static_cast<unsigned long long>(mask));
    return false;
  }
  cpu_set_t set = SetOf(wanted);
  // Linux keeps a mask per thread: move every thread the process has now.
  DIR* dir = opendir("/proc/self/task");
  if (!dir) return sched_setaffinity(0, sizeof(set), &set) == 0;
  bool ok = true;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    pid_t tid = static_cast<pid_t>(atoi(e->d_name));
    if (sched_setaffinity(tid, sizeof(set), &set) != 0 && errno != ESRCH) {
      ReportLastError("qSetProcessAffinity", "SetProcessAffinityMask", errno);
      ok = false;
    }
  }
  closedir(dir);
  return ok;
}

bool qSetThreadAffinity(uint64_t mask) {
  uint64_t wanted = StartMask() & (mask ? mask : ~uint64_t(0));
  cpu_set_t set = SetOf(wanted);
  if (!wanted || sched_setaffinity(0, sizeof(set), &set) != 0) {
    ReportLastError("qSetThreadAffinity", "SetThreadAffinityMask", wanted ? errno : EINVAL);
    return false;
  }
  return true;
}

bool QProcessExists() {
  QERR("QProcessExists", "QProcessExists() nyi");
  return true;
}

int32_t qAtomicExchange(std::atomic<int32_t>* target, int32_t value, int order) {
  if (!target || !ValidOrder(order)) return 0;
  return target->exchange(value, OrderOf(order));
}

int32_t qAtomicAdd(std::atomic<int32_t>* target, int32_t value, int order) {
  if (!target || !ValidOrder(order)) return 0;
  return Wrap(target->fetch_add(value, OrderOf(order)), value);
}

int32_t qAtomicSubtract(std::atomic<int32_t>* target, int32_t value, int order) {
  if (!target || !ValidOrder(order)) return 0;
  return Wrap(target->fetch_sub(value, OrderOf(order)), Wrap(~value, 1));
}

int32_t qAtomicIncrement(std::atomic<int32_t>* target, int order) {
  return qAtomicAdd(target, 1, order);
}

int32_t qAtomicDecrement(std::atomic<int32_t>* target, int order) {
  return qAtomicSubtract(target, 1, order);
}

void qSleep(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds > 0 ? milliseconds : 0));
}
