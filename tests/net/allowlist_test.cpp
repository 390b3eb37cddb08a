// The senders' allow list: which addresses each text lets in, and bad entries.
#include "net/allowlist.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/logcapture.h"

namespace {

constexpr uint32_t Ip(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return a << 24 | b << 16 | c << 8 | d;
}

TEST(QNAllowList, EntriesLetInTheirAddressesAndSubnetsOnly) {
  struct Case {
    const char* text;
    std::vector<uint32_t> in, out;
  };
  const Case cases[] = {
      {"", {Ip(127, 0, 0, 1), Ip(8, 8, 8, 8)}, {}},
      {" , ", {Ip(1, 2, 3, 4)}, {}},
      {"127.0.0.1, 10.1.0.0/16",
       {Ip(127, 0, 0, 1), Ip(10, 1, 0, 0), Ip(10, 1, 255, 255)},
       {Ip(127, 0, 0, 2), Ip(10, 2, 0, 1), Ip(10, 0, 255, 255), Ip(11, 1, 0, 1)}},
      // Bits past the prefix do not matter; /0 is everyone, /32 one address.
      {"192.168.7.9/24", {Ip(192, 168, 7, 1), Ip(192, 168, 7, 255)}, {Ip(192, 168, 8, 1)}},
      {"0.0.0.0/0", {Ip(0, 0, 0, 0), Ip(255, 255, 255, 255)}, {}},
      {"10.0.0.5/32,10.0.0.7", {Ip(10, 0, 0, 5), Ip(10, 0, 0, 7)}, {Ip(10, 0, 0, 6)}},
      {"\t172.16.0.0/12 ,",
       {Ip(172, 31, 255, 255), Ip(172, 16, 0, 0)},
       {Ip(172, 32, 0, 0), Ip(172, 15, 255, 255)}},
  };
  for (const Case& c : cases) {
    LogCapture log;
    QNAllowList list;
    EXPECT_TRUE(list.Parse(c.text)) << c.text;
    EXPECT_FALSE(log.Seen("network.allow")) << c.text;
    for (uint32_t a : c.in) EXPECT_TRUE(list.Allows(a)) << c.text << " " << std::hex << a;
    for (uint32_t a : c.out) EXPECT_FALSE(list.Allows(a)) << c.text << " " << std::hex << a;
  }
}

TEST(QNAllowList, ABadEntryIsLeftOutAndNoGoodOneLeavesOnlyThisMachine) {
  LogCapture log;
  QNAllowList list;
  EXPECT_FALSE(list.Parse("10.0.0.0/8, 10.0.0.300, host.example, 1.2.3.4/33, 1.2.3/8, 5.6.7.8/"));
  for (const char* bad : {"10.0.0.300", "host.example", "1.2.3.4/33", "1.2.3/8", "5.6.7.8/"})
    EXPECT_TRUE(log.Seen("network.allow entry '" + std::string(bad) + "' is no IPv4")) << bad;
  EXPECT_TRUE(list.Allows(Ip(10, 9, 9, 9)));
  EXPECT_FALSE(list.Allows(Ip(127, 0, 0, 1)));

  EXPECT_FALSE(list.Parse("localhost, 1.2.3.4/x"));
  EXPECT_TRUE(log.Seen("network.allow 'localhost, 1.2.3.4/x' has no good entry; only 127.0.0.1"));
  EXPECT_FALSE(list.AllowsEveryone());
  EXPECT_TRUE(list.Allows(Ip(127, 0, 0, 1)));
  EXPECT_FALSE(list.Allows(Ip(127, 0, 0, 2)));
  EXPECT_FALSE(list.Allows(Ip(10, 9, 9, 9)));
}

}  // namespace
