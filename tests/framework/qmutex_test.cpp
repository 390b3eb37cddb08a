// QMutex: time-outs, recursion, the lock count and its messages, mutual exclusion.
#include "framework/qmutex.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "framework/qmessage.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> g_lines;
void Collect(const char*, const char* text) { g_lines.push_back(text); }

// Errors and warnings into g_lines, info lines into a log file of a temporary directory.
class MutexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines.clear();
    oldErr_ = qSetErrHandler(Collect);
    oldWarn_ = qSetWarnHandler(Collect);
    char tmpl[] = "/tmp/qmutex_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    qlogSetFileName((dir_ + "/QLOG.txt").c_str());
  }
  void TearDown() override {
    qSetErrHandler(oldErr_);
    qSetWarnHandler(oldWarn_);
    unlink((dir_ + "/QLOG.txt").c_str());
    rmdir(dir_.c_str());
  }
  bool Logged(const std::string& text) const {
    for (const std::string& l : g_lines)
      if (l.find(text) != std::string::npos) return true;
    std::ifstream f(dir_ + "/QLOG.txt");
    std::stringstream all;
    all << f.rdbuf();
    return all.str().find(text) != std::string::npos;
  }
  static double MsSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
  }

  QMessageHandler oldErr_ = nullptr, oldWarn_ = nullptr;
  std::string dir_;
};

// Runs `body` on another thread while `m` is held there.
template <class F>
void WhileHeldElsewhere(QMutex& m, F body) {
  std::atomic<bool> held{false}, done{false};
  std::thread holder([&] {
    m.Lock();
    held = true;
    while (!done) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    m.Unlock();
  });
  while (!held) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  body();
  done = true;
  holder.join();
}

}  // namespace

TEST_F(MutexTest, TimeoutZeroOnHeldMutexFailsAtOnce) {
  QMutex m("held", QMutex::MUTEX);
  WhileHeldElsewhere(m, [&] {
    auto t = Clock::now();
    EXPECT_FALSE(m.Lock(0));
    EXPECT_LT(MsSince(t), 50.0);
    EXPECT_EQ(m.GetLockCount(), 1);
  });
  EXPECT_TRUE(g_lines.empty());  // a time-out is no failure
  EXPECT_TRUE(m.Lock(0));
  EXPECT_TRUE(m.Unlock());
}

TEST_F(MutexTest, ShortTimeoutWaitsAboutThatLong) {
  QMutex m("held", QMutex::MUTEX);
  WhileHeldElsewhere(m, [&] {
    auto t = Clock::now();
    EXPECT_FALSE(m.Lock(60));
    double ms = MsSince(t);
    EXPECT_GE(ms, 55.0);
    EXPECT_LT(ms, 1000.0);
  });
}

TEST_F(MutexTest, RecursiveLockingNeedsAsManyUnlocks) {
  for (int type : {QMutex::MUTEX, QMutex::CRITICAL_SECTION}) {
    QMutex m("rec", type);
    ASSERT_TRUE(m.Lock());
    ASSERT_TRUE(m.Lock());
    EXPECT_EQ(m.GetLockCount(), 2);
    EXPECT_TRUE(m.Unlock());
    EXPECT_TRUE(m.IsLocked());
    // Still held: another thread cannot get it.
    if (type == QMutex::MUTEX) {
      bool other = true;
      std::thread([&] { other = m.Lock(0); }).join();
      EXPECT_FALSE(other);
    }
    EXPECT_TRUE(m.Unlock());
    EXPECT_FALSE(m.IsLocked());
    bool other = false;
    std::thread([&] {
      other = m.Lock(type == QMutex::MUTEX ? 0 : -1);
      if (other) m.Unlock();
    }).join();
    EXPECT_TRUE(other) << "type " << type;
  }
  EXPECT_TRUE(g_lines.empty());
}

TEST_F(MutexTest, UnlockWithoutLockIsReported) {
  QMutex none("none", QMutex::NONE);
  EXPECT_TRUE(none.Unlock());
  EXPECT_TRUE(Logged("QMutex is released more often than locked -1"));
  EXPECT_FALSE(none.IsLocked());

  // A real mutex refuses an unlock by a thread that does not hold it; the count stays.
  QMutex m("owned", QMutex::MUTEX);
  ASSERT_TRUE(m.Lock());
  bool result = true;
  std::thread([&] { result = m.Unlock(); }).join();
  EXPECT_FALSE(result);
  EXPECT_TRUE(Logged("QMutex:Unlock(); failed"));
  EXPECT_EQ(m.GetLockCount(), 1);
  EXPECT_TRUE(m.Unlock());
}

TEST_F(MutexTest, CriticalSectionIgnoresTimeouts) {
  QMutex cs("cs", QMutex::CRITICAL_SECTION);
  std::atomic<bool> held{false};
  std::thread holder([&] {
    cs.Lock();
    held = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
    cs.Unlock();
  });
  while (!held) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  auto t = Clock::now();
  EXPECT_TRUE(cs.Lock(10));  // waits for the holder, not for 10 ms
  EXPECT_GE(MsSince(t), 40.0);
  EXPECT_TRUE(cs.Unlock());
  holder.join();
  EXPECT_TRUE(Logged("Cannot use timeouts with critical sections (timeout=10)"));
}

TEST_F(MutexTest, ConstructionByType) {
  {
    QMutex cs("cs", QMutex::CRITICAL_SECTION, true);
    EXPECT_TRUE(Logged("'initiallyUsed=true is not supported for critical sections (yet?)"));
    EXPECT_FALSE(cs.IsLocked());
  }
  {
    QMutex m("owned", QMutex::MUTEX, true);
    EXPECT_TRUE(m.IsLocked());
    bool other = true;
    std::thread([&] { other = m.Lock(0); }).join();
    EXPECT_FALSE(other);
    EXPECT_TRUE(m.Unlock());
    EXPECT_FALSE(m.IsLocked());
  }
  QMutex odd("odd", 7);
  EXPECT_TRUE(Logged("Type 7 unsupported"));
  EXPECT_TRUE(odd.Lock());
  EXPECT_TRUE(Logged("Unknown type 7"));
}

TEST_F(MutexTest, ExcludesOtherThreads) {
  for (int type : {QMutex::MUTEX, QMutex::CRITICAL_SECTION}) {
    QMutex m("count", type);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i) {
          m.Lock();
          long v = counter;
          if ((i & 63) == 0) std::this_thread::yield();
          counter = v + 1;
          m.Unlock();
        }
      });
    for (auto& th : threads) th.join();
    EXPECT_EQ(counter, 8000) << "type " << type;
    EXPECT_EQ(m.GetLockCount(), 0);
  }
}
