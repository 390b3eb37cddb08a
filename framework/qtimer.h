// QTimer: a stopwatch on the monotonic performance counter, for frame clocks and measurements.
//
// A new timer is stopped at zero. Start begins (or restarts) counting from zero; Stop freezes the
// elapsed time; Reset sets it back to zero without changing whether it runs. Nothing can fail.
#pragma once

#include <chrono>

class QTimer {
 public:
  QTimer() = default;

  // Counts from zero from now on.
  void Start();
  // Keeps the elapsed time as it is now.
  void Stop();
  // Elapsed time back to zero; a running timer runs on.
  void Reset();
  bool IsRunning() const { return running_; }

  double GetMilliSeconds() const;
  double GetMicroSeconds() const;
  double GetSeconds() const;

 private:
  using Clock = std::chrono::steady_clock;
  Clock::duration Elapsed() const;

  Clock::time_point start_{};
  Clock::duration frozen_{0};
  bool running_ = false;
};
