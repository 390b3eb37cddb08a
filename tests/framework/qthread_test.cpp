// QThread: the thread table, start and kill; sleep and the timer.
#include "framework/qthread.h"

#include <gtest/gtest.h>
#include <unistd.h>

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

// In a noexcept frame without a cancellation point: unwinding through it would abort.
TEST(QThreadRun, KillEndsASpinningThreadAndTheProcessGoesOn) {
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

TEST(QThreadServices, TheTimerFreezesWhenStopped) {
  QTimer timer;
  timer.Start();
  qSleep(20);
  EXPECT_GE(timer.GetMilliSeconds(), 20.0);
  timer.Stop();
  const double frozen = timer.GetMicroSeconds();
  qSleep(5);
  EXPECT_EQ(timer.GetMicroSeconds(), frozen);
}
