// QTimer on std::chrono::steady_clock.
#include "framework/qtimer.h"

void QTimer::Start() {
  start_ = Clock::now();
  frozen_ = Clock::duration(0);
  running_ = true;
}

void QTimer::Stop() {
  frozen_ = Elapsed();
  running_ = false;
}

void QTimer::Reset() {
  start_ = Clock::now();
  frozen_ = Clock::duration(0);
}

QTimer::Clock::duration QTimer::Elapsed() const {
  return running_ ? Clock::now() - start_ : frozen_;
}

double QTimer::GetMilliSeconds() const {
  return std::chrono::duration<double, std::milli>(Elapsed()).count();
}

double QTimer::GetMicroSeconds() const {
  return std::chrono::duration<double, std::micro>(Elapsed()).count();
}

double QTimer::GetSeconds() const { return std::chrono::duration<double>(Elapsed()).count(); }
