#include "support/logcapture.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {
std::vector<std::string> g_lines;
void Collect(const char*, const char* text) { g_lines.push_back(text); }
}  // namespace

LogCapture::LogCapture() {
  g_lines.clear();
  old_[0] = qSetWarnHandler(Collect);
  old_[1] = qSetErrHandler(Collect);
  old_[2] = qSetMessageHandler(Collect);
  old_[3] = qSetDbgHandler(Collect);
  oldFile_ = qlogGetFileName();
  char tmpl[] = "/tmp/logcapture_XXXXXX";
  if (mkdtemp(tmpl)) dir_ = tmpl;
  qlogSetFileName((dir_ + "/QLOG.txt").c_str());
}

LogCapture::~LogCapture() {
  qSetWarnHandler(old_[0]);
  qSetErrHandler(old_[1]);
  qSetMessageHandler(old_[2]);
  qSetDbgHandler(old_[3]);
  qlogSetFileName(oldFile_.c_str());
  unlink((dir_ + "/QLOG.txt").c_str());
  rmdir(dir_.c_str());
}

int LogCapture::Count(const std::string& text) const {
  int n = 0;
  for (const std::string& l : g_lines)
    if (l.find(text) != std::string::npos) ++n;
  std::ifstream f(dir_ + "/QLOG.txt");
  std::stringstream buf;
  buf << f.rdbuf();
  const std::string file = buf.str();
  for (size_t at = file.find(text); at != std::string::npos; at = file.find(text, at + 1)) ++n;
  return n;
}

void LogCapture::Clear() {
  g_lines.clear();
  unlink((dir_ + "/QLOG.txt").c_str());
}
