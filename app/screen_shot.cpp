// ScreenShot: the worker that reduces and encodes the frames the main loop reads.
#include "app/screen_shot.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "framework/qmessage.h"
#include "framework/qthread.h"

namespace {

// At most MAX_WIDTH wide, the height following the proportions; a narrower frame keeps its size.
void ReducedSize(int w, int h, int* rw, int* rh) {
  if (w <= ScreenShot::MAX_WIDTH) {
    *rw = w, *rh = h;
    return;
  }
  *rw = ScreenShot::MAX_WIDTH;
  *rh = std::max(1, int(std::lround(double(h) * ScreenShot::MAX_WIDTH / w)));
}

}  // namespace

ScreenShot::ScreenShot(Sink sink) : sink_(std::move(sink)) {
  running_ = true;
  thread_.reset(new QThread(&ScreenShot::Work, this, "glimra_screenshot"));
  if (!thread_->Create())
    running_ = false;
  else
    thread_->SetPriority(6);  // below the show: a proof may wait, the picture may not
}

ScreenShot::~ScreenShot() {
  std::unique_lock<std::mutex> lock(mutex_);
  stop_ = true;
  waiting_.reset();
  changed_.notify_all();
  changed_.wait(lock, [this] { return !running_; });
  lock.unlock();
  thread_.reset();
}

void ScreenShot::Take(std::unique_ptr<QBitMap> frame) {
  if (!frame || frame->GetWidth() <= 0 || frame->GetHeight() <= 0) return;
  std::unique_lock<std::mutex> lock(mutex_);
  if (!running_) {
    lock.unlock();
    Encode(frame.get());
    return;
  }
  waiting_ = std::move(frame);
  changed_.notify_all();
}

std::string ScreenShot::Latest() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return latest_;
}

void ScreenShot::Encode(QBitMap* frame) {
  std::lock_guard<std::mutex> one(encodeMutex_);
  const auto start = std::chrono::steady_clock::now();
  int w = 0, h = 0;
  ReducedSize(frame->GetWidth(), frame->GetHeight(), &w, &h);
  std::string jpeg;
  const bool ok = (w == frame->GetWidth() || frame->AreaReduce(w, h)) &&
                  frame->EncodeJPG(QUALITY, &jpeg);
  if (ok)
    QDBG("ScreenShot::Encode", "Screen shot reduced to %dx%d and encoded (%zu bytes) in %.2f ms\n",
         w, h, jpeg.size(),
         std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
             .count());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!ok || jpeg == latest_) return;
    latest_ = jpeg;
  }
  if (sink_) sink_(std::move(jpeg));
}

void ScreenShot::Work(void* arg) {
  ScreenShot* self = static_cast<ScreenShot*>(arg);
  std::unique_lock<std::mutex> lock(self->mutex_);
  for (;;) {
    self->changed_.wait(lock, [self] { return self->stop_ || self->waiting_; });
    if (self->stop_) break;
    std::unique_ptr<QBitMap> frame = std::move(self->waiting_);
    lock.unlock();
    self->Encode(frame.get());
    frame.reset();
    lock.lock();
  }
  self->running_ = false;
  self->changed_.notify_all();
}
