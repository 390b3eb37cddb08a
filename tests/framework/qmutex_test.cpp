// QMutex: time-outs, recursion, mutual exclusion and the lock count.
#include "framework/qmutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "support/logcapture.h"

namespace {

using Clock = std::chrono::steady_clock;
double MsSince(Clock::time_point t) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}
void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Holds `m` on another thread until `body`, run meanwhile, has returned.
template <class F>
void WhileHeldElsewhere(QMutex& m, F body) {
  std::atomic<bool> held{false}, done{false};
  std::thread holder([&] {
    m.Lock();
    held = true;
    while (!done) SleepMs(1);
    m.Unlock();
  });
  while (!held) SleepMs(1);
  body();
  done = true;
  holder.join();
}

bool LockElsewhere(QMutex& m, int timeout) {
  bool got = false;
  std::thread([&] {
    got = m.Lock(timeout);
    if (got) m.Unlock();
  }).join();
  return got;
}

}  // namespace

TEST(QMutexTimeout, ZeroFailsAtOnceAndShortWaitsAboutThatLong) {
  LogCapture log;
  QMutex m("held", QMutex::MUTEX);
  WhileHeldElsewhere(m, [&] {
    auto t = Clock::now();
    EXPECT_FALSE(m.Lock(0));
    EXPECT_LT(MsSince(t), 50.0);
    t = Clock::now();
    EXPECT_FALSE(m.Lock(60));
    EXPECT_GE(MsSince(t), 55.0);
    EXPECT_LT(MsSince(t), 1000.0);
    EXPECT_EQ(m.GetLockCount(), 1);
  });
  EXPECT_FALSE(log.Seen("QMutex"));  // a time-out is no failure
  EXPECT_TRUE(m.Lock(0));
  EXPECT_TRUE(m.Unlock());
}

TEST(QMutexLocking, RecursiveFromOneThreadExclusiveForOthers) {
  for (int type : {QMutex::MUTEX, QMutex::CRITICAL_SECTION}) {
    QMutex m("rec", type);
    ASSERT_TRUE(m.Lock());
    ASSERT_TRUE(m.Lock());
    EXPECT_TRUE(m.Unlock());
    EXPECT_TRUE(m.IsLocked());
    if (type == QMutex::MUTEX) {
      EXPECT_FALSE(LockElsewhere(m, 0));
    }
    EXPECT_TRUE(m.Unlock());
    EXPECT_FALSE(m.IsLocked());
    EXPECT_TRUE(LockElsewhere(m, type == QMutex::MUTEX ? 0 : -1));

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

// Ownership taken at construction is not a counted lock: the first Unlock is one too many.
TEST(QMutexLocking, OwnershipFromConstructionIsNotCountedAndSurplusUnlocksAreReported) {
  LogCapture log;
  QMutex owned("owned", QMutex::MUTEX, true);
  EXPECT_FALSE(owned.IsLocked());
  EXPECT_FALSE(LockElsewhere(owned, 0));
  EXPECT_TRUE(owned.Unlock());
  EXPECT_TRUE(log.Seen("QMutex is released more often than locked -1"));
  EXPECT_TRUE(LockElsewhere(owned, 0));

  // A real mutex refuses an unlock by a thread that does not hold it; the count stays.
  QMutex m("held", QMutex::MUTEX);
  ASSERT_TRUE(m.Lock());
  bool result = true;
  std::thread([&] { result = m.Unlock(); }).join();
  EXPECT_FALSE(result);
  EXPECT_TRUE(log.Seen("QMutex:Unlock(); failed"));
  EXPECT_EQ(m.GetLockCount(), 1);
  EXPECT_TRUE(m.Unlock());
}
