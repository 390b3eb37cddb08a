// QThread and the process services: the thread table, start and cancellation, priority and
// affinity, atomics, sleep and the timer, and the deliberate process exits (as death tests).
#include "framework/qthread.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/qmessage.h"
#include "framework/qtimer.h"

namespace {

std::vector<std::string> g_lines;
void Collect(const char*, const char* text) { g_lines.push_back(text); }

bool Seen(const std::string& text) {
  for (const std::string& l : g_lines)
    if (l.find(text) != std::string::npos) return true;
  return false;
}

class ThreadTest : public ::testing::Test {
 protected:
  // Info lines (the kill notice) go to a log of a temporary directory.
  static void SetUpTestSuite() {
    static char dir[] = "/tmp/qthread_test_XXXXXX";
    if (mkdtemp(dir)) {
      logName_ = std::string(dir) + "/QLOG.txt";
      qlogSetFileName(logName_.c_str());
    }
  }
  static void TearDownTestSuite() {
    unlink(logName_.c_str());
    rmdir(logName_.substr(0, logName_.rfind('/')).c_str());
  }
  void SetUp() override {
    g_lines.clear();
    oldErr_ = qSetErrHandler(Collect);
    oldWarn_ = qSetWarnHandler(Collect);
  }
  void TearDown() override {
    qSetErrHandler(oldErr_);
    qSetWarnHandler(oldWarn_);
  }
  QMessageHandler oldErr_ = nullptr, oldWarn_ = nullptr;
  static std::string logName_;
};
std::string ThreadTest::logName_;

template <class Pred>
bool WaitFor(Pred pred, int ms = 5000) {
  for (int i = 0; i < ms && !pred(); ++i) qSleep(1);
  return pred();
}

void Count(void* arg) { static_cast<std::atomic<int>*>(arg)->fetch_add(1); }

// Ticks until told to stop; records its own id.
struct Worker {
  std::atomic<bool> stop{false};
  std::atomic<int> ticks{0};
  std::atomic<uint32_t> tid{0};
  std::atomic<bool> done{false};
  static void Run(void* arg) {
    auto* w = static_cast<Worker*>(arg);
    w->tid = static_cast<uint32_t>(gettid());
    while (!w->stop) {
      ++w->ticks;
      qSleep(1);
    }
    w->done = true;
  }
  bool launched = false;
  bool Launch(QThread& t) { return launched = t.Create(); }
  // The thread must be gone before the worker is.
  ~Worker() {
    stop = true;
    while (launched && !done) qSleep(1);
  }
};

}  // namespace

TEST_F(ThreadTest, RunsEntryWithArgumentAndRecordsItsId) {
  Worker w;
  QThread t(Worker::Run, &w, "worker");
  EXPECT_EQ(t.GetHandle(), 0u);
  EXPECT_FALSE(t.Kill());  // nothing to kill yet
  ASSERT_TRUE(w.Launch(t));
  ASSERT_TRUE(WaitFor([&] { return w.ticks > 0; }));
  EXPECT_EQ(t.GetThreadID(), w.tid.load());
  EXPECT_NE(t.GetThreadID(), static_cast<uint32_t>(gettid()));
  EXPECT_EQ(QThread::FindByHandle(t.GetHandle()), &t);

  EXPECT_FALSE(t.Create());
  EXPECT_TRUE(Seen("QThread:Create() failed to CreateThread()"));
}

TEST_F(ThreadTest, FiftyFirstThreadRunsButIsNotListed) {
  std::atomic<int> ran{0};
  std::vector<std::unique_ptr<QThread>> threads;
  int free = QTHREAD_MAX - QThread::ListedCount();
  for (int i = 0; i < free; ++i) {
    threads.emplace_back(new QThread(Count, &ran, "filler"));
    ASSERT_TRUE(threads.back()->Create());
  }
  EXPECT_FALSE(Seen("out of thread space"));

  auto extra = std::make_unique<QThread>(Count, &ran, "extra");
  EXPECT_TRUE(Seen("AddThread(); out of thread space.\n"));
  ASSERT_TRUE(extra->Create());
  EXPECT_TRUE(WaitFor([&] { return ran == free + 1; }));
  EXPECT_EQ(QThread::FindByHandle(extra->GetHandle()), nullptr);
  EXPECT_EQ(QThread::FindByHandle(threads[0]->GetHandle()), threads[0].get());

  extra.reset();
  EXPECT_TRUE(Seen("RemoveThread(); can't find thread"));
  threads.clear();
  EXPECT_EQ(QThread::ListedCount(), QTHREAD_MAX - free);
}

TEST_F(ThreadTest, KillStopsASleepingThread) {
  Worker w;
  QThread t(Worker::Run, &w, "victim");
  ASSERT_TRUE(w.Launch(t));
  ASSERT_TRUE(WaitFor([&] { return w.ticks > 0; }));
  EXPECT_TRUE(t.Kill());
  qSleep(30);
  int after = w.ticks;
  qSleep(60);
  EXPECT_EQ(w.ticks.load(), after);
  // A cancelled thread never says it is done; one that was not cancelled is waited for.
  if (w.ticks == after) w.done = true;
}

TEST_F(ThreadTest, IsRunningNeverClaimsToKnow) {
  Worker w;
  QThread t(Worker::Run, &w, "w");
  EXPECT_FALSE(t.IsRunning());
  EXPECT_TRUE(Seen("QThread:IsRunning() does not work correctly"));
  EXPECT_FALSE(Seen("QThread:IsRunning() NYI"));
  ASSERT_TRUE(w.Launch(t));
  EXPECT_FALSE(t.IsRunning());
  EXPECT_TRUE(Seen("QThread:IsRunning() NYI"));
}

TEST_F(ThreadTest, PriorityLevelsMapToNiceValues) {
  Worker w;
  QThread t(Worker::Run, &w, "nice");
  ASSERT_TRUE(w.Launch(t));
  ASSERT_TRUE(t.SetPriority(5));  // lowest: lowering is always allowed
  EXPECT_EQ(getpriority(PRIO_PROCESS, t.GetThreadID()), 10);
  if (geteuid() == 0) {
    // Level 9 is no level: normal priority. Raising back needs privileges.
    ASSERT_TRUE(t.SetPriority(9));
    EXPECT_EQ(getpriority(PRIO_PROCESS, t.GetThreadID()), 0);
  }
}

TEST_F(ThreadTest, AffinityMasksAreLimitedToTheStartingProcessors) {
  Worker w;
  QThread t(Worker::Run, &w, "aff");
  ASSERT_TRUE(w.Launch(t));
  EXPECT_TRUE(t.SetAffinityMask(0));
  long cpus = sysconf(_SC_NPROCESSORS_CONF);
  if (cpus < 64) {
    uint64_t none = uint64_t(1) << 63;
    EXPECT_FALSE(t.SetAffinityMask(none));
    EXPECT_TRUE(Seen("SetThreadAffinityMask of threadPID " + std::to_string(t.GetThreadID()) +
                     " failed"));
    EXPECT_FALSE(qSetProcessAffinity(none));
    EXPECT_FALSE(qSetThreadAffinity(none));
  }
  EXPECT_TRUE(qSetThreadAffinity(0));
  EXPECT_TRUE(qSetProcessAffinity(0));
}

TEST_F(ThreadTest, ProcessExistsIsNotImplemented) {
  EXPECT_TRUE(QProcessExists());
  EXPECT_TRUE(Seen("QProcessExists() nyi"));
}

TEST(Atomics, WrapAndRefuseUnknownOrders) {
  std::atomic<int32_t> v{INT32_MAX};
  EXPECT_EQ(qAtomicIncrement(&v, 5), INT32_MIN);
  EXPECT_EQ(qAtomicDecrement(&v, 0), INT32_MAX);
  EXPECT_EQ(qAtomicSubtract(&v, -1, 4), INT32_MIN);
  EXPECT_EQ(qAtomicAdd(&v, -1, 2), INT32_MAX);
  EXPECT_EQ(qAtomicExchange(&v, 7, 3), INT32_MAX);
  EXPECT_EQ(v.load(), 7);
  for (int order : {-1, 6, 100}) {
    EXPECT_EQ(qAtomicExchange(&v, 1, order), 0);
    EXPECT_EQ(qAtomicIncrement(&v, order), 0);
    EXPECT_EQ(qAtomicAdd(&v, 5, order), 0);
  }
  EXPECT_EQ(v.load(), 7);
}

TEST(Atomics, IncrementsFromManyThreadsAreNotLost) {
  std::atomic<int32_t> v{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) qAtomicIncrement(&v, 0);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(v.load(), 80000);
}

TEST(Timer, MeasuresSleepsAndFreezesWhenStopped) {
  QTimer timer;
  EXPECT_EQ(timer.GetMilliSeconds(), 0.0);
  timer.Start();
  qSleep(20);
  double ms = timer.GetMilliSeconds();
  EXPECT_GE(ms, 20.0);
  EXPECT_LT(ms, 2000.0);
  EXPECT_NEAR(timer.GetMicroSeconds() / 1000.0, timer.GetSeconds() * 1000.0, 5.0);
  timer.Stop();
  double frozen = timer.GetMilliSeconds();
  qSleep(5);
  EXPECT_EQ(timer.GetMilliSeconds(), frozen);
  timer.Reset();
  EXPECT_EQ(timer.GetMilliSeconds(), 0.0);
  qSleep(-5);  // negative sleeps return at once
}

// The deliberate exits end the process with code 0: run them in a child.
TEST(ThreadDeathTest, TerminationSignalEndsTheProcessCleanly) {
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
}

TEST(ThreadDeathTest, ThreadExitEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::atomic<int> ran{0};
        qthreadExit(new QThread(Count, &ran, "exit"));
      },
      ::testing::ExitedWithCode(0), "");
}
