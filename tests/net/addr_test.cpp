// Addresses: parsing without and with a lookup, the system layout, and the error texts.
#include "net/addr.h"

#include <gtest/gtest.h>

#include <cstring>

#include "net/global.h"
#include "support/logcapture.h"

// Dotted text needs no lookup; "host:port" is split and looked up; null or empty fails.
TEST(QNAddressParse, DottedTextHostAndPortAndNothing) {
  LogCapture log;
  QNAddress a;
  a.SetPort(77);
  ASSERT_TRUE(a.GetByName("127.0.0.1"));
  EXPECT_EQ(a.GetAddress(), 0x7f000001u);
  EXPECT_EQ(a.GetPort(), 77);
  EXPECT_STREQ(a.GetName(), "127.0.0.1");
  EXPECT_FALSE(log.Seen("QNAddress::GetByName("));  // the line a lookup leaves

  a.Set(QNAddress::FAMILY_INET, 0, 0);
  ASSERT_TRUE(a.GetByName("localhost:6000"));
  EXPECT_EQ(a.GetPort(), 6000);
  EXPECT_STREQ(a.GetName(), "localhost");
  EXPECT_EQ(a.GetAddress(), 0x7f000001u);
  EXPECT_TRUE(log.Seen("QNAddress::GetByName(localhost)='127.0.0.1'"));

  a.Set(QNAddress::FAMILY_INET, 0x7f000002, 1234);
  qnSetLastError(0);
  EXPECT_FALSE(a.GetByName(nullptr));
  EXPECT_TRUE(log.Seen("'name' is null"));
  EXPECT_FALSE(a.GetByName(""));
  EXPECT_TRUE(log.Seen("'name' is empty (name[0]=0)"));
  EXPECT_EQ(log.Count("[QN] QNAddress:GetByName() failed (11001)"), 2);
  EXPECT_EQ(a.GetAddress(), 0x7f000002u);
  EXPECT_EQ(a.GetPort(), 1234);
  // Almost dotted texts are names, not addresses.
  EXPECT_FALSE(a.GetByName(":99"));
  EXPECT_EQ(a.GetPort(), 99);
}

TEST(QNAddressLayout, FirstSixteenBytesAreTheSystemAddress) {
  QNAddress a;
  const unsigned char* b = reinterpret_cast<const unsigned char*>(&a);
  EXPECT_EQ(b[0] | b[1] << 8, 2);  // a new address is (2, 0, any)
  a.Set(QNAddress::FAMILY_INET, 0x7f010203, 0x1234);
  const unsigned char expect[16] = {2, 0, 0x12, 0x34, 127, 1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(memcmp(b, expect, 16), 0);
  EXPECT_STREQ(a.GetDotted(), "127.1.2.3");
}

TEST(QNErrors, ReportsCarryNumberAndTextExceptWouldBlockAndUnreachable) {
  LogCapture log;
  // A known number's text is socket_test's (a bind to a taken port).
  qnSetLastError(4242);
  qnError("odd");
  EXPECT_TRUE(log.Seen("[QN] odd (4242)\n<unknown error>"));
  log.Clear();
  qnSetLastError(10035);
  qnError("blocked");
  qnSetLastError(10065);
  qnError("unreachable");
  EXPECT_FALSE(log.Seen("[QN]"));
}
