// qdbg_setup: the developer switches of the "dev" group.
#include <cstdlib>
#include <cstring>

#include "framework/qdebug.h"
#include "framework/qerror.h"
#include "framework/qini.h"

namespace {
bool (*g_udpOutOpener)(const char*) = nullptr;
void (*g_portOffset)(int) = nullptr;
void (*g_packetDrops)(int) = nullptr;
}  // namespace

void qdbgSetUdpOutOpener(bool (*open)(const char*)) { g_udpOutOpener = open; }

void qdbgSetNetworkTuning(void (*portOffset)(int), void (*packetDrops)(int)) {
  g_portOffset = portOffset;
  g_packetDrops = packetDrops;
}

void qdbg_setup(QIni* ini) {
  if (!ini) return;
  // Before anything else, so that the command can prepare what the other switches use.
  qstring runFirst;
  ini->GetString("dev.run_first", &runFirst, "");
  if (!runFirst.IsEmpty()) {
    int rc = system(runFirst.cstr());
    QDBG("qdbg_setup", "dev.run_first '%s' returned %d", runFirst.cstr(), rc);
  }

  qdbgSetLevel(ini->GetInt("dev.debug_level", 1));

  int offset = ini->GetInt("dev.port_offset", 0);
  if (offset >= 1 && g_portOffset) g_portOffset(offset);
  int drops = ini->GetInt("dev.fake_packet_drops", 0);
  if (drops >= 1 && g_packetDrops) g_packetDrops(drops);

  qstring udpOut;
  ini->GetString("dev.udp_out", &udpOut, "");
  if (!udpOut.IsEmpty()) {
    int colon = udpOut.FindLast(':');
    if (colon < 0) {
      QWARN("qdbg_setup", "qdbg_setup: need host:port in dev_udpout (now '%s')", udpOut.cstr());
    } else {
      qstring host;
      udpOut.GetSubstring(0, colon, &host);
      int port = atoi(udpOut.cstr() + colon + 1);
      qstring description;
      description.Format("type=udp,from=0.0.0.0:0,to=%s:%d", host.cstr(), port);
      // An opener that fails has said why (name lookup, socket); only a missing network
      // layer is reported here.
      if (!g_udpOutOpener)
        QERR("qdbg_setup",
             "qdbg will not work.\nCannot open udp_out socket as the NetworkManager is not "
             "initialized.\nPlease ask a developer to fix the application.");
      else
        g_udpOutOpener(description.cstr());
    }
  }

  if (ini->GetInt("dev.log_last", 0)) qlogOpenSecondFile();
  qSetFatalBoxSeconds(ini->GetInt("dev.fatal_box_seconds", 0));
  if (ini->GetInt("dev.strict", 0)) {
    qdbgSetStrict(true);
    qlogOpenSecondFile();
  }

  int flags = 0;
  if (ini->GetInt("dev.opengl_checks", 0)) {
    flags |= QDEBUG_OPENGL_CHECKS;
    QWARN("qdbg_setup", "dev.opengl_checks is 1; may slow the program down and possibly even crash - only use when tracking down a bug");
  }
  if (ini->GetInt("dev.argument_tracing", 0)) {
    flags |= QDEBUG_ARGUMENT_TRACING;
    QWARN("qdbg_setup", "dev.argument_tracing is 1; may slow the program down - only use when tracking down a bug");
  }
  if (ini->GetInt("dev.qdbg_to_qlog", 0)) {
    flags |= QDEBUG_QDBG_TO_QLOG;
    QWARN("qdbg_setup", "dev.qdbg_to_qlog is 1; may slow the program down - only use when tracking down a bug");
  }
  qdbgSetFlags(flags);
}
