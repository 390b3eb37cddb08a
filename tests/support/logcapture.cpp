#include "support/logcapture.h"

#include <unistd.h>

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
  int n = 0;
  for (const std::string& l : g_lines)
    if (l.find(text) != std::string::npos) ++n;
  const std::string file = ReadFile(dir_.File("QLOG.txt"));
  for (size_t at = file.find(text); at != std::string::npos; at = file.find(text, at + 1)) ++n;
  return n;
}

bool LogCapture::Logged(const std::string& level, const std::string& text) const {
  const std::string file = ReadFile(dir_.File("QLOG.txt"));
  const std::string word = "(" + level;
  for (size_t at = 0; at < file.size();) {
    size_t end = file.find('\n', at);
    if (end == std::string::npos) end = file.size();
    const std::string line = file.substr(at, end - at);
    if (line.find(word) != std::string::npos && line.find(text) != std::string::npos) return true;
    at = end + 1;
  }
  return false;
}

void LogCapture::Clear() {
  g_lines.clear();
  unlink(dir_.File("QLOG.txt").c_str());
}
