// QThread and the process services: the thread table, start and cancellation, priority and
// affinity, atomics, sleep and the timer, and the deliberate process exits (as death tests).
#include "framework/qthread.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "framework/qtimer.h"
#include "support/logcapture.h"

namespace {

template <class Pred>
bool WaitFor(Pred pred) {
  for (int i = 0; i < 5000 && !pred(); ++i) qSleep(1);
  return pred();
}

void Count(void* arg) { static_cast<std::atomic<int>*>(arg)->fetch_add(1); }

// Ticks until told to stop; the thread must be gone before the worker is.
struct Worker {
  std::atomic<bool> stop{false}, done{false};
  std::atomic<int> ticks{0};
  std::atomic<uint32_t> tid{0};
  bool launched = false;
  static void Run(void* arg) {
    auto* w = static_cast<Worker*>(arg);
    w->tid = static_cast<uint32_t>(gettid());
    for (; !w->stop; qSleep(1)) ++w->ticks;
    w->done = true;
  }
  bool Launch(QThread& t) {
    launched = t.Create();
    return launched && WaitFor([&] { return ticks > 0; });
  }
  ~Worker() {
    stop = true;
    while (launched && !done) qSleep(1);
  }
};

// Spins without any cancellation point until it is killed.
struct Spinner {
  std::atomic<long> turns{0};
  static void Run(void* arg) noexcept {
    auto* s = static_cast<Spinner*>(arg);
    for (;;) s->turns.fetch_add(1, std::memory_order_relaxed);
  }
};

}  // namespace

TEST(QThreadRun, RunsEntryWithArgumentAndRecordsItsId) {
  LogCapture log;
  Worker w;
  QThread t(Worker::Run, &w, "worker");
  EXPECT_FALSE(t.Kill());  // no handle yet
  EXPECT_FALSE(t.IsRunning());
  ASSERT_TRUE(w.Launch(t));
  EXPECT_EQ(t.GetThreadID(), w.tid.load());
  EXPECT_NE(t.GetThreadID(), static_cast<uint32_t>(gettid()));
  EXPECT_EQ(QThread::FindByHandle(t.GetHandle()), &t);
  EXPECT_FALSE(t.IsRunning());
  EXPECT_FALSE(t.Create());
  EXPECT_TRUE(log.Seen("QThread:Create() failed to CreateThread()"));
}

TEST(QThreadRun, FiftyFirstThreadRunsButIsNotListed) {
  LogCapture log;
  std::atomic<int> ran{0};
  std::vector<std::unique_ptr<QThread>> threads;
  int free = QTHREAD_MAX - QThread::ListedCount();
  for (int i = 0; i < free; ++i) {
    threads.emplace_back(new QThread(Count, &ran, "filler"));
    ASSERT_TRUE(threads.back()->Create());
  }
  EXPECT_FALSE(log.Seen("out of thread space"));
  auto extra = std::make_unique<QThread>(Count, &ran, "extra");
  EXPECT_TRUE(log.Seen("AddThread(); out of thread space.\n"));
  ASSERT_TRUE(extra->Create());
  EXPECT_TRUE(WaitFor([&] { return ran == free + 1; }));
  EXPECT_EQ(QThread::FindByHandle(extra->GetHandle()), nullptr);
  EXPECT_EQ(QThread::FindByHandle(threads[0]->GetHandle()), threads[0].get());
  extra.reset();
  EXPECT_TRUE(log.Seen("RemoveThread(); can't find thread"));
  threads.clear();
  EXPECT_EQ(QThread::ListedCount(), QTHREAD_MAX - free);
}

TEST(QThreadControl, PriorityAffinityAndKill) {
  LogCapture log;
  Worker w;
  QThread t(Worker::Run, &w, "ctl");
  ASSERT_TRUE(w.Launch(t));
  ASSERT_TRUE(t.SetPriority(5));  // lowest: lowering is always allowed
  EXPECT_EQ(getpriority(PRIO_PROCESS, t.GetThreadID()), 10);
  if (geteuid() == 0) {  // raising back needs privileges; level 9 means normal
    ASSERT_TRUE(t.SetPriority(9));
    EXPECT_EQ(getpriority(PRIO_PROCESS, t.GetThreadID()), 0);
  }
  EXPECT_TRUE(t.SetAffinityMask(0));
  if (sysconf(_SC_NPROCESSORS_CONF) < 64) {
    uint64_t none = uint64_t(1) << 63;
    EXPECT_FALSE(t.SetAffinityMask(none));
    EXPECT_TRUE(log.Seen("SetThreadAffinityMask of threadPID " + std::to_string(t.GetThreadID())));
    EXPECT_FALSE(qSetProcessAffinity(none));
    EXPECT_FALSE(qSetThreadAffinity(none));
  }
  EXPECT_TRUE(qSetThreadAffinity(0));
  EXPECT_TRUE(qSetProcessAffinity(0));
  EXPECT_TRUE(QProcessExists());

  EXPECT_TRUE(t.Kill());
  qSleep(30);
  const int after = w.ticks;
  qSleep(60);
  EXPECT_EQ(w.ticks.load(), after);
  if (w.ticks == after) w.done = true;  // a killed thread never says so itself

  // A thread that never reaches a cancellation point, inside a noexcept frame, ends at once too,
  // and the process goes on.
  static Spinner spinner;
  QThread spin(Spinner::Run, &spinner, "spin");
  ASSERT_TRUE(spin.Create());
  ASSERT_TRUE(WaitFor([] { return spinner.turns > 0; }));
  const std::string task = "/proc/self/task/" + std::to_string(spin.GetThreadID());
  EXPECT_EQ(access(task.c_str(), F_OK), 0);
  EXPECT_TRUE(spin.Kill());
  EXPECT_TRUE(WaitFor([&] { return access(task.c_str(), F_OK) != 0; }));
  const long turns = spinner.turns;
  qSleep(20);
  EXPECT_EQ(spinner.turns.load(), turns);
}

TEST(QThreadServices, AtomicsWrapAndRefuseUnknownOrdersAndTheTimerFreezesWhenStopped) {
  std::atomic<int32_t> v{INT32_MAX};
  EXPECT_EQ(qAtomicIncrement(&v, 5), INT32_MIN);
  EXPECT_EQ(qAtomicSubtract(&v, 1, 4), INT32_MAX);
  for (int order : {-1, 6}) EXPECT_EQ(qAtomicExchange(&v, 1, order) + qAtomicAdd(&v, 5, order), 0);
  EXPECT_EQ(v.load(), INT32_MAX);

  QTimer timer;
  timer.Start();
  qSleep(20);
  EXPECT_GE(timer.GetMilliSeconds(), 20.0);
  timer.Stop();
  const double frozen = timer.GetMicroSeconds();
  qSleep(5);
  EXPECT_EQ(timer.GetMicroSeconds(), frozen);
}

// The deliberate exits end the process with code 0: run them in a child.
TEST(QThreadDeathTest, TerminationSignalAndThreadExitEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::atomic<int> ran{0};
        QThread t(Count, &ran, "sig");
        t.Create();
        WaitFor([&] { return ran == 1; });
        raise(SIGTERM);
        qSleep(5000);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(qthreadExit(new QThread(Count, nullptr, "exit")), ::testing::ExitedWithCode(0), "");
}
