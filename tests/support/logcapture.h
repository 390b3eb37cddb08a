// LogCapture: collects what the framework reports for one test, the log file in a temporary
// directory; the previous handlers and log file come back when it goes.
#pragma once

#include <string>
#include <vector>

#include "framework/qmessage.h"
#include "support/tempdir.h"

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // What the handlers received, in order (the log file is not part of it).
  const std::vector<std::string>& Lines() const;
  // Lines (or log-file text) containing `text`.
  int Count(const std::string& text) const;
  bool Seen(const std::string& text) const { return Count(text) > 0; }
  // True when a line of the log file has the level word (as "NOTE") and `text`.
  bool Logged(const std::string& level, const std::string& text) const;
  void Clear();

 private:
  QMessageHandler old_[4];
  std::string oldFile_;
  TempDir dir_{"logcapture"};
};
