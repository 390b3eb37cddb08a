// Memory accounting: the counter, the guards of tracked blocks, the leak report, writes after
// release, and requests too large to represent.
#include "framework/qmem.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "framework/qmessage.h"

namespace {

std::vector<std::string> g_lines;
void Collect(const char*, const char* text) { g_lines.push_back(text); }

int CountSeen(const std::string& text) {
  int n = 0;
  for (const std::string& l : g_lines)
    if (l.find(text) != std::string::npos) ++n;
  return n;
}

class MemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines.clear();
    oldMsg_ = qSetMessageHandler(Collect);
    oldErr_ = qSetErrHandler(Collect);
    oldDbg_ = qSetDbgHandler(Collect);
  }
  void TearDown() override {
    MqKeepFreed(0);
    MqEnable(false);
    qSetMessageHandler(oldMsg_);
    qSetErrHandler(oldErr_);
    qSetDbgHandler(oldDbg_);
  }
  QMessageHandler oldMsg_ = nullptr, oldErr_ = nullptr, oldDbg_ = nullptr;
};

}  // namespace

TEST_F(MemTest, ReportWithoutTrackingSaysHowToEnableIt) {
  EXPECT_EQ(QMemoryReportLeaks("off"), 0);
  EXPECT_EQ(CountSeen("--- Memory tracking is not enabled - call MqEnable() to enable before "
                     "QMemoryReportLeaks\n"), 1);
}

TEST_F(MemTest, CounterFollowsEveryEntryPoint) {
  for (bool tracking : {false, true}) {
    MqEnable(tracking);
    int before = qmemGetCount();
    void* a = qmalloc(10);
    char* s = qstrdup("abc");
    unsigned char* z = static_cast<unsigned char*>(qcalloc(64));
    EXPECT_EQ(qmemGetCount(), before + 3);
    EXPECT_STREQ(s, "abc");
    for (int i = 0; i < 64; ++i) ASSERT_EQ(z[i], 0) << i;
    EXPECT_EQ(qstrdup(nullptr), nullptr);
    qfree(a);
    qfree(s);
    qfree(z);
    qfree(nullptr);
    EXPECT_EQ(qmemGetCount(), before);
    // A block made with tracking on is released correctly after it is switched off.
    MqEnable(true);
    void* t = qmalloc(5);
    MqEnable(false);
    qfree(t);
    EXPECT_EQ(qmemGetCount(), before);
    EXPECT_EQ(QMemoryCheckAll(), 0);
  }
}

TEST_F(MemTest, UnrepresentableSizesFail) {
  EXPECT_EQ(qmalloc(SIZE_MAX), nullptr);
  EXPECT_EQ(qcalloc(SIZE_MAX - 8), nullptr);
  MqEnable(true);
  long bytes = qmemGetTrackedBytes();
  EXPECT_EQ(qmalloc(SIZE_MAX), nullptr);
  EXPECT_EQ(qmalloc_track(size_t(1) << 33, "big.cpp", 9, 0), nullptr);
  EXPECT_EQ(CountSeen("# Allocation failed;"), 2);
  EXPECT_EQ(qmalloc_track(0, "zero.cpp", 7, 0), nullptr);
  EXPECT_EQ(CountSeen("# Bad allocation length (0) in 'zero.cpp', line 7\n"), 1);
  EXPECT_EQ(qmemGetTrackedBytes(), bytes);
}

TEST_F(MemTest, GuardsCatchOverrunAndUnderrun) {
  MqEnable(true);
  unsigned char* p = static_cast<unsigned char*>(qmalloc_track(16, "guard.cpp", 42, 0));
  ASSERT_NE(p, nullptr);
  EXPECT_TRUE(QMemoryCheckBlock(p));

  unsigned char saved = p[16];
  p[16] = 'x';  // one byte too far: lands on the tail guard
  EXPECT_FALSE(QMemoryCheckBlock(p));
  EXPECT_EQ(CountSeen("  ^^^ Bytes trashed behind end of allocation!\n"), 1);
  EXPECT_EQ(CountSeen("#0: guard.cpp(42): new(16) [serial"), 1);
  EXPECT_EQ(QMemoryCheckAll(), 1);
  p[16] = saved;

  g_lines.clear();
  p[-1] = 'x';  // one byte in front
  EXPECT_FALSE(QMemoryCheckBlock(p));
  EXPECT_EQ(CountSeen("  ^^^ Bytes trashed in front of allocation!\n"), 1);
  EXPECT_EQ(CountSeen("guard.cpp(42)"), 1);  // the block is still named
  // Releasing it reports again and still gives it back.
  long bytes = qmemGetTrackedBytes();
  qfree(p);
  EXPECT_EQ(qmemGetTrackedBytes(), bytes - 16);
  EXPECT_EQ(QMemoryReportLeaks("after underrun"), 0);
}

TEST_F(MemTest, LeakReportListsWhatIsStillAllocated) {
  MqEnable(true);
  void* kept = qmalloc_track(24, "leaky.cpp", 321, QMEM_ZERO);
  void* freed = qmalloc_track(8, "tidy.cpp", 5, 0);
  qfree(freed);
  EXPECT_EQ(QMemoryReportLeaks("test"), 1);
  EXPECT_EQ(CountSeen("### Tarn Memory Report (test) ###\n"), 1);
  EXPECT_EQ(CountSeen("leaky.cpp(321): qcalloc(24)"), 1);
  EXPECT_EQ(CountSeen("tidy.cpp"), 0);
  qfree(kept);
  EXPECT_EQ(QMemoryReportLeaks("empty"), 0);
}

TEST_F(MemTest, UninitializedBlocksAreFound) {
  MqEnable(true);
  unsigned char* untouched = static_cast<unsigned char*>(qmalloc_track(8, "u.cpp", 1, QMEM_MARK_UNINIT));
  unsigned char* written = static_cast<unsigned char*>(qmalloc_track(8, "w.cpp", 2, QMEM_MARK_UNINIT));
  EXPECT_EQ(untouched[3], 204);
  written[7] = 1;
  EXPECT_EQ(QMemoryCheckUninitialized(), 1);
  EXPECT_EQ(CountSeen("u.cpp(1)"), 1);
  EXPECT_EQ(CountSeen("w.cpp(2)"), 0);
  qfree(untouched);
  qfree(written);
}

TEST_F(MemTest, KeptFreedBlocksRevealWritesAfterRelease) {
  MqEnable(true);
  MqKeepFreed(2);
  unsigned char* p = static_cast<unsigned char*>(qmalloc_track(32, "stale.cpp", 77, 0));
  qfree(p);
  EXPECT_EQ(QMemoryCheckFreed(), 0);
  p[5] = 0;  // through the stale pointer: the block is kept, so this stays inside it
  EXPECT_EQ(QMemoryCheckFreed(), 1);
  EXPECT_EQ(CountSeen("  ^^^ Memory modified after having been freed!\n"), 1);
  EXPECT_EQ(CountSeen("stale.cpp(77)"), 1);
  EXPECT_EQ(QMemoryCheckFreed(), 0);  // reported once

  // A second release of a kept block is refused rather than listed twice.
  qfree(p);
  EXPECT_EQ(CountSeen("released twice"), 1);
  // Pushing it out of the keep checks it on the way.
  p[6] = 0;
  for (int i = 0; i < 2; ++i) qfree(qmalloc(4));
  EXPECT_EQ(CountSeen("  ^^^ Memory modified after having been freed!\n"), 2);
}
