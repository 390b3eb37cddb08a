// The developer switches read from the "dev" group.
#include "framework/qdebug.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "framework/qini.h"
#include "support/logcapture.h"
#include "support/tempdir.h"

namespace {

class DebugSetup : public TempDirTest {
 protected:
  // The second log file goes beside the first, so the log is sent to our directory.
  DebugSetup() : TempDirTest("glimra_dbg") { qlogSetFileName(Tmp("QLOG.txt").c_str()); }
  void TearDown() override {
    qlogCloseSecondFile();
    qdbgSetFlags(0);
    qdbgSetStrict(false);
    qdbgSetUdpOutOpener(nullptr);
  }
  QIni* Ini(const std::string& text) {
    ini_.reset(new QIni(MakeFile("glimra.ini", text).c_str()));
    return ini_.get();
  }
  LogCapture log_;
  std::unique_ptr<QIni> ini_;
};

TEST_F(DebugSetup, DefaultsLeaveEverythingOffAndSwitchesSetFlagsAndWarn) {
  qdbgSetFlags(0xFF);
  qdbg_setup(Ini("dev\n{\n}\n"));
  // Cleared before the switches are read.
  EXPECT_TRUE(qdbgGetFlags() == 0 && qdbgGetLevel() == 1 && !qdbgStrict() && log_.Lines().empty());

  qdbg_setup(Ini("dev\n{\n  debug_level=3\n  opengl_checks=1\n  argument_tracing=1\n"
                 "  qdbg_to_qlog=1\n  log_last=1\n}\n"));
  EXPECT_EQ(qdbgGetFlags(), QDEBUG_OPENGL_CHECKS | QDEBUG_ARGUMENT_TRACING | QDEBUG_QDBG_TO_QLOG);
  EXPECT_EQ(qdbgGetLevel(), 3);
  for (const char* said : {"dev.opengl_checks is 1; may slow the program down and possibly even crash",
                           "dev.argument_tracing is 1;", "dev.qdbg_to_qlog is 1;"})
    EXPECT_TRUE(log_.Seen(said)) << said;
  EXPECT_EQ(access(Tmp("QLOG_LAST.txt").c_str(), F_OK), 0);
  qdbgSetLevel(1);
}

bool g_opened = false;
std::string g_description;
bool FakeOpener(const char* description) {
  g_description = description;
  return g_opened;
}

TEST_F(DebugSetup, UdpOutNeedsHostAndPortAndANetwork) {
  qdbg_setup(Ini("dev\n{\n  udp_out=localhost\n}\n"));
  EXPECT_TRUE(log_.Seen("qdbg_setup: need host:port in dev_udpout (now 'localhost')"));
  qdbg_setup(Ini("dev\n{\n  udp_out=10.1.2.3:7000\n}\n"));
  EXPECT_TRUE(log_.Seen("Cannot open udp_out socket as the NetworkManager is not initialized."));

  // With a network layer, a failing opener reports its own cause; no second line here.
  log_.Clear();
  qdbgSetUdpOutOpener(FakeOpener);
  qdbg_setup(Ini("dev\n{\n  udp_out=10.1.2.3:7000\n}\n"));
  EXPECT_EQ(g_description, "type=udp,from=0.0.0.0:0,to=10.1.2.3:7000");
  g_opened = true;
  qdbg_setup(Ini("dev\n{\n  udp_out=127.0.0.1:7000\n}\n"));
  EXPECT_EQ(g_description, "type=udp,from=0.0.0.0:0,to=127.0.0.1:7000");
  EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
