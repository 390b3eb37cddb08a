// UDP sockets on the loopback: reads that refuse or drop, refusals, misuse, the log's udp_out.
#include "net/socket.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "framework/qdebug.h"
#include "framework/qini.h"
#include "net/global.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

// Binds `s` to a free high random port; answers it, offset included, or 0.
int OpenOnFreePort(QNSocket& s) {
  static std::mt19937 rng(static_cast<unsigned>(getpid() * 7919 + time(nullptr)));
  for (int i = 0; i < 50; ++i)
    if (s.Open(20000 + static_cast<int>(rng() % 40000))) return s.GetPort();
  return 0;
}

QNAddress Loopback(int port) {
  QNAddress a;
  a.Set(QNAddress::FAMILY_INET, 0x7f000001, port);
  return a;
}

class QNSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    port_ = OpenOnFreePort(rx_);
    ASSERT_NE(port_, 0);
    tx_.SetNoBind();
    ASSERT_TRUE(tx_.Open(0));
    to_ = Loopback(port_);
  }
  void TearDown() override { qnSetPacketLoss(0); }
  QNSocket rx_{QNSocket::UDP, "rx"};
  QNSocket tx_{QNSocket::UDP, "tx"};
  int port_ = 0;
  QNAddress to_;
};

TEST_F(QNSocketTest, ReadRefusesADatagramLargerThanTheBufferTakesOneThatFitsAndLossDrops) {
  LogCapture log;
  std::vector<char> big(1500, 'b'), fits(1024), in(8192);
  for (size_t i = 0; i < fits.size(); ++i) fits[i] = static_cast<char>(i * 7);

  ASSERT_EQ(tx_.Write(big.data(), 1500, &to_), 1500);
  EXPECT_EQ(rx_.Read(in.data(), 1024), -1);
  EXPECT_TRUE(log.Seen("Incoming packet of size 1500 cannot be stored in buffer of 1024 bytes "
                       "(~WSAEMSGSIZE) - ignoring packet (local=0.0.0.0:"));

  QNAddress from;
  ASSERT_EQ(tx_.Write(fits.data(), 1024, &to_), 1024);
  ASSERT_EQ(rx_.Read(in.data(), 1024, &from), 1024);
  EXPECT_EQ(memcmp(in.data(), fits.data(), 1024), 0);
  EXPECT_EQ(from.GetAddress(), 0x7f000001u);

  // The internal buffer bounds every read, whatever the caller offers.
  std::vector<char> huge(5000, 'h');
  ASSERT_EQ(tx_.Write(huge.data(), 5000, &to_), 5000);
  EXPECT_EQ(rx_.Read(in.data(), 8192), -1);
  EXPECT_TRUE(log.Seen("size 5000 cannot be stored in buffer of 4096 bytes"));

  // A simulated loss of a hundred (dev.fake_packet_drops) drops everything.
  qnSetPacketLoss(100);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(tx_.Write("drop", 4, &to_), 4);
    EXPECT_EQ(rx_.Read(in.data(), 64), 0);
  }
  qnSetPacketLoss(0);
  ASSERT_EQ(tx_.Write("keep", 4, &to_), 4);
  EXPECT_EQ(rx_.Read(in.data(), 64), 4);
}

TEST_F(QNSocketTest, BoundToOneAddressHearsOnlyDatagramsSentToIt) {
  LogCapture log;
  // 127.0.0.2 is another address of the loopback device: the one a bind to 127.0.0.1 refuses.
  QNSocket one(QNSocket::UDP, "one");
  one.SetBindAddress(0x7f000001);
  const int port = OpenOnFreePort(one);
  ASSERT_NE(port, 0);
  ASSERT_EQ(one.SetNonBlocking(1), 0);
  EXPECT_STREQ(one.GetLocalAddress().GetDotted(), "127.0.0.1");
  QNAddress other = Loopback(port), own = Loopback(port);
  other.SetAddress(0x7f000002);
  ASSERT_EQ(tx_.Write("far", 3, &other), 3);
  ASSERT_EQ(tx_.Write("near", 4, &own), 4);
  char in[16] = {};
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(one.Read(in, sizeof(in)), 4);
  EXPECT_STREQ(in, "near");
  // Non-blocking with nothing waiting: zero, flagged, and nothing in the log.
  EXPECT_EQ(one.Read(in, sizeof(in)), 0);
  EXPECT_TRUE(one.GetFlags() & QNSocket::ERROR);
  EXPECT_FALSE(log.Seen("[QN]"));

  // The default, every address, hears both.
  other.SetPort(port_);
  ASSERT_EQ(tx_.Write("far", 3, &other), 3);
  ASSERT_EQ(rx_.Read(in, sizeof(in)), 3);
}

TEST_F(QNSocketTest, RefusedDatagramMakesTheNextReadZeroAndLaterWritesGoThrough) {
  LogCapture log;
  int closedPort;
  {
    QNSocket gone(QNSocket::UDP, "gone");
    closedPort = OpenOnFreePort(gone);
  }
  ASSERT_NE(closedPort, 0);
  QNAddress nobody = Loopback(closedPort);
  ASSERT_EQ(rx_.Write("x", 1, &nobody), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));

  // Should the refusal never be reported, this datagram ends the blocking read with 5.
  std::atomic<bool> done{false};
  std::thread rescue([&] {
    for (int i = 0; i < 200 && !done; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (done) return;
    QNSocket r(QNSocket::UDP, "rescue");
    r.SetNoBind();
    if (r.Open(0)) r.Write("late!", 5, &to_);
  });
  char in[64];
  EXPECT_EQ(rx_.Read(in, sizeof(in)), 0);
  done = true;
  rescue.join();

  // A refusal still pending when the socket sends is not the new datagram's failure.
  ASSERT_EQ(rx_.Write("y", 1, &nobody), 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  QNSocket peer(QNSocket::UDP, "peer");
  QNAddress to = Loopback(OpenOnFreePort(peer));
  ASSERT_EQ(rx_.Write("hello", 5, &to), 5);
  EXPECT_EQ(peer.Read(in, sizeof(in)), 5);
  EXPECT_FALSE(log.Seen("[QN]"));
}

TEST(QNSocketMisuse, EachIsReportedOnceAndRefused) {
  LogCapture log;
  QNSocket s(QNSocket::UDP, "misused");
  EXPECT_EQ(s.SetNonBlocking(1), -1);
  EXPECT_TRUE(log.Seen("[misused] Non-blocking can only be set after creating the socket"));
  char in[8];
  EXPECT_EQ(s.Read(in, sizeof(in)), -1);
  EXPECT_TRUE(log.Seen("(10038)\nNot a socket"));

  int port = OpenOnFreePort(s);
  ASSERT_NE(port, 0);
  EXPECT_EQ(s.Write("x", 1, nullptr), 0);
  EXPECT_TRUE(log.Seen("QNSocket:Write() [misused]; 'addr'=0"));
  s.SetNoBind();
  EXPECT_TRUE(log.Seen("QNSocket:SetNoBind() called after opening the socket - no effect"));

  QNSocket twin(QNSocket::UDP, "twin");
  EXPECT_FALSE(twin.Open(port));
  EXPECT_TRUE(log.Seen("[QN] QNSocket:Bind() [twin]; can't bind to address 0.0.0.0:" +
                       std::to_string(port) + " (10048)\nAddress in use"));
  EXPECT_FALSE(twin.IsOpen());
  EXPECT_TRUE(twin.GetFlags() & QNSocket::ERROR);
}

// The log's UDP copy: runs the real writer, so the log file goes to a scratch directory.
class UdpOut : public TempDirTest {
 protected:
  void SetUp() override {
    qnInit();
    qlogSetFileName(Tmp("QLOG.txt").c_str());
  }
  void TearDown() override {
    qlogSetUdpSender(nullptr);
    qlogSetFileName(oldLog_.c_str());
  }
  void Setup(const std::string& target) {
    QIni ini(MakeFile("glimra.ini", "dev\n{\n  udp_out=" + target + "\n}\n").c_str());
    qdbg_setup(&ini);
  }
  const std::string oldLog_ = qlogGetFileName();
};

// Failed lookups and sends say so once, not looping through the log; a target gets datagrams.
TEST_F(UdpOut, FailuresAreReportedOnceAndAWarningArrivesAsADatagram) {
  Setup(":7000");  // an empty host name is never found
  std::string log = ReadFile(Tmp("QLOG.txt"));
  EXPECT_NE(log.find("Cannot open udp_out socket: name lookup of ':7000' failed."),
            std::string::npos) << log;
  EXPECT_EQ(log.find("NetworkManager"), std::string::npos) << log;

  Setup("127.0.0.1:0");  // no datagram can go to port 0
  QWARN("UdpOut::Test", "first after setup");
  QWARN("UdpOut::Test", "second after setup");
  log = ReadFile(Tmp("QLOG.txt"));
  size_t first = log.find("[udp_out] failed"), second = log.find("[udp_out] failed", first + 1);
  ASSERT_NE(second, std::string::npos) << log;
  EXPECT_EQ(log.find("[udp_out] failed", second + 1), std::string::npos) << log;
  EXPECT_NE(log.find("second after setup"), std::string::npos);

  QNSocket rx(QNSocket::UDP, "udp_rx");
  int port = OpenOnFreePort(rx);
  Setup("127.0.0.1:" + std::to_string(port));
  QWARN("UdpOut::Test", "udp copy %d", port);
  // The first log line of the process ("application start") may come first.
  ASSERT_EQ(rx.SetNonBlocking(1), 0);
  std::string got;
  char in[2048];
  for (int i = 0; i < 100 && got.find("udp copy") == std::string::npos; ++i) {
    const int n = rx.Read(in, sizeof(in));
    if (n > 0) got.assign(in, size_t(n));
    else std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(got.rfind("[WARN,socket_test.cpp:", 0), 0u) << got;
  const std::string tail = ",UdpOut::Test] WARN: udp copy " + std::to_string(port) + "\n";
  ASSERT_GE(got.size(), tail.size());
  EXPECT_EQ(got.substr(got.size() - tail.size()), tail);
}

}  // namespace
