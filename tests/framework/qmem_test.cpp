// Memory accounting: the counter, the guards of tracked blocks, the leak report, writes after
// release, and requests too large to represent.
#include "framework/qmem.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/logcapture.h"

namespace {
// Tracking (and keeping freed blocks) only for the test that asks for it.
struct Tracking {
  explicit Tracking(int keep = 0) {
    MqEnable(true);
    MqKeepFreed(keep);
  }
  ~Tracking() {
    MqKeepFreed(0);
    MqEnable(false);
  }
};
}  // namespace

TEST(QMem, CounterFollowsEveryEntryPointAndRefusesUnrepresentableSizes) {
  LogCapture log;
  EXPECT_EQ(QMemoryReportLeaks("off"), 0);
  EXPECT_TRUE(log.Seen("--- Memory tracking is not enabled - call MqEnable() to enable before "
                       "QMemoryReportLeaks\n"));
  for (bool tracking : {false, true}) {
    MqEnable(tracking);
    int before = qmemGetCount();
    void* a = qmalloc(10);
    char* s = qstrdup("abc");
    unsigned char* z = static_cast<unsigned char*>(qcalloc(64));
    EXPECT_EQ(qmemGetCount(), before + 3);
    EXPECT_STREQ(s, "abc");
    for (int i = 0; i < 64; ++i) ASSERT_EQ(z[i], 0) << i;
    MqEnable(!tracking);  // blocks are released right whatever the switch says now
    qfree(a);
    qfree(s);
    qfree(z);
    qfree(nullptr);
    EXPECT_EQ(qmemGetCount(), before);
  }
  MqEnable(true);
  EXPECT_EQ(qmalloc(SIZE_MAX), nullptr);
  EXPECT_EQ(qmalloc_track(size_t(1) << 33, "big.cpp", 9, 0), nullptr);
  EXPECT_EQ(qmalloc_track(0, "zero.cpp", 7, 0), nullptr);
  EXPECT_EQ(log.Count("# Allocation failed;"), 2);
  EXPECT_TRUE(log.Seen("# Bad allocation length (0) in 'zero.cpp', line 7\n"));
  MqEnable(false);
  EXPECT_EQ(qmalloc(SIZE_MAX), nullptr);
}

TEST(QMem, GuardsCatchOverrunAndUnderrun) {
  LogCapture log;
  Tracking on;
  unsigned char* p = static_cast<unsigned char*>(qmalloc_track(16, "guard.cpp", 42, 0));
  ASSERT_TRUE(QMemoryCheckBlock(p));
  unsigned char saved = p[16];
  p[16] = 'x';  // one byte too far: lands on the tail guard
  EXPECT_FALSE(QMemoryCheckBlock(p));
  EXPECT_TRUE(log.Seen("  ^^^ Bytes trashed behind end of allocation!\n"));
  EXPECT_TRUE(log.Seen("#0: guard.cpp(42): new(16) [serial"));
  EXPECT_EQ(QMemoryCheckAll(), 1);
  p[16] = saved;

  log.Clear();
  p[-1] = 'x';  // one byte in front
  EXPECT_FALSE(QMemoryCheckBlock(p));
  EXPECT_TRUE(log.Seen("  ^^^ Bytes trashed in front of allocation!\n"));
  EXPECT_TRUE(log.Seen("guard.cpp(42)"));  // the block is still named
  long bytes = qmemGetTrackedBytes();
  qfree(p);  // reported again, and still given back
  EXPECT_EQ(qmemGetTrackedBytes(), bytes - 16);
}

TEST(QMem, LeakReportListsWhatIsStillAllocated) {
  LogCapture log;
  Tracking on;
  void* kept = qmalloc_track(24, "leaky.cpp", 321, QMEM_ZERO);
  qfree(qmalloc_track(8, "tidy.cpp", 5, 0));
  EXPECT_EQ(QMemoryReportLeaks("test"), 1);
  EXPECT_TRUE(log.Seen("### Tarn Memory Report (test) ###\n"));
  EXPECT_TRUE(log.Seen("leaky.cpp(321): qcalloc(24)"));
  EXPECT_FALSE(log.Seen("tidy.cpp"));
  qfree(kept);
  EXPECT_EQ(QMemoryReportLeaks("empty"), 0);
}

TEST(QMem, KeptFreedBlocksRevealWritesAfterRelease) {
  LogCapture log;
  Tracking on(2);
  auto* p = static_cast<unsigned char*>(qmalloc_track(32, "stale.cpp", 77, 0));
  qfree(p);
  EXPECT_EQ(QMemoryCheckFreed(), 0);
  p[5] = 0;  // through the stale pointer: the block is kept, so this stays inside it
  EXPECT_EQ(QMemoryCheckFreed(), 1);
  EXPECT_EQ(log.Count("  ^^^ Memory modified after having been freed!\n"), 1);
  EXPECT_TRUE(log.Seen("stale.cpp(77)"));
  EXPECT_EQ(QMemoryCheckFreed(), 0);  // reported once
  qfree(p);  // a second release is refused rather than kept twice
  EXPECT_TRUE(log.Seen("released twice"));
  p[6] = 0;
  for (int i = 0; i < 2; ++i) qfree(qmalloc(4));  // pushed out of the keep, checked on the way
  EXPECT_EQ(log.Count("  ^^^ Memory modified after having been freed!\n"), 2);
}
