// Memory accounting: the counter on every entry point, tracked or not; unrepresentable sizes.
#include "framework/qmem.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/logcapture.h"

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
