// The developer switches read from the "dev" group.
#include "framework/qdebug.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <string>
#include <vector>

#include "framework/qini.h"

namespace {

std::vector<std::string>* g_lines = nullptr;
void Capture(const char*, const char* text) { g_lines->push_back(text); }

class DebugSetup : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/glimra_dbg_XXXXXX";
    dir_ = mkdtemp(tmpl);
    qlogSetFileName((dir_ + "/QLOG.txt").c_str());
    g_lines = &lines_;
    oldWarn_ = qSetWarnHandler(Capture);
    oldErr_ = qSetErrHandler(Capture);
  }
  void TearDown() override {
    qSetWarnHandler(oldWarn_);
    qSetErrHandler(oldErr_);
    qlogCloseSecondFile();
    qdbgSetFlags(0);
    qdbgSetStrict(false);
    qdbgSetUdpOutOpener(nullptr);
    ASSERT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
  }
  QIni* Ini(const std::string& text) {
    std::string name = dir_ + "/glimra.ini";
    std::ofstream(name) << text;
    ini_.reset(new QIni(name.c_str()));
    return ini_.get();
  }
  bool Logged(const std::string& what) const {
    for (auto& l : lines_)
      if (l.find(what) != std::string::npos) return true;
    return false;
  }
  std::string dir_;
  std::vector<std::string> lines_;
  std::unique_ptr<QIni> ini_;
  QMessageHandler oldWarn_ = nullptr, oldErr_ = nullptr;
};

TEST_F(DebugSetup, DefaultsLeaveEverythingOff) {
  qdbgSetFlags(0xFF);
  qdbg_setup(Ini("dev\n{\n}\n"));
  EXPECT_EQ(qdbgGetFlags(), 0);  // cleared before the switches are read
  EXPECT_EQ(qdbgGetLevel(), 1);
  EXPECT_FALSE(qdbgStrict());
  EXPECT_TRUE(lines_.empty());
}

TEST_F(DebugSetup, SwitchesSetFlagsAndWarn) {
  qdbg_setup(Ini("dev\n{\n  debug_level=3\n  opengl_checks=1\n  argument_tracing=1\n"
                 "  qdbg_to_qlog=1\n  log_last=1\n}\n"));
  EXPECT_EQ(qdbgGetFlags(), QDEBUG_OPENGL_CHECKS | QDEBUG_ARGUMENT_TRACING | QDEBUG_QDBG_TO_QLOG);
  EXPECT_EQ(qdbgGetLevel(), 3);
  EXPECT_TRUE(Logged("dev.opengl_checks is 1; may slow the program down and possibly even crash"));
  EXPECT_TRUE(Logged("dev.argument_tracing is 1;"));
  EXPECT_TRUE(Logged("dev.qdbg_to_qlog is 1;"));
  std::ifstream second(dir_ + "/QLOG_LAST.txt");
  EXPECT_TRUE(second.good());
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
  EXPECT_TRUE(Logged("qdbg_setup: need host:port in dev_udpout (now 'localhost')"));

  lines_.clear();
  qdbg_setup(Ini("dev\n{\n  udp_out=10.1.2.3:7000\n}\n"));
  EXPECT_TRUE(Logged("Cannot open udp_out socket as the NetworkManager is not initialized."));

  lines_.clear();
  g_opened = true;
  qdbgSetUdpOutOpener(FakeOpener);
  qdbg_setup(Ini("dev\n{\n  udp_out=127.0.0.1:7000\n}\n"));
  EXPECT_EQ(g_description, "type=udp,from=0.0.0.0:0,to=127.0.0.1:7000");
  EXPECT_TRUE(lines_.empty());
}

}  // namespace
