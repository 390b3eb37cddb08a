#include "support/logcapture.h"

#include <unistd.h>

#include <algorithm>
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
  qlogSetFileName(dir_.File("QLOG.txt").c_str());
}

LogCapture::~LogCapture() {
  qSetWarnHandler(old_[0]);
  qSetErrHandler(old_[1]);
  qSetMessageHandler(old_[2]);
  qSetDbgHandler(old_[3]);
  qlogSetFileName(oldFile_.c_str());
}

const std::vector<std::string>& LogCapture::Lines() const { return g_lines; }

int LogCapture::Count(const std::string& text) const {
  int n = int(std::count_if(g_lines.begin(), g_lines.end(),
                            [&](const std::string& l) { return l.find(text) != std::string::npos; }));
  const std::string file = ReadFile(dir_.File("QLOG.txt"));
  for (size_t at = file.find(text); at != std::string::npos; at = file.find(text, at + 1)) ++n;
  return n;
}

bool LogCapture::Logged(const std::string& level, const std::string& text) const {
  std::istringstream in(ReadFile(dir_.File("QLOG.txt")));
  for (std::string line; std::getline(in, line);)
    if (line.find("(" + level) != std::string::npos && line.find(text) != std::string::npos)
      return true;
  return false;
}

void LogCapture::Clear() {
  g_lines.clear();
  unlink(dir_.File("QLOG.txt").c_str());
}
