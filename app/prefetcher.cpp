// Prefetcher: the worker thread and the hand-over of its pictures.
#include "app/prefetcher.h"

#include "framework/qthread.h"

namespace {

bool SameFit(const ScreenFit& a, const ScreenFit& b) {
  return a.windowWidth == b.windowWidth && a.windowHeight == b.windowHeight &&
         a.desktopAspect == b.desktopAspect && a.maxTexture == b.maxTexture &&
         a.background == b.background && a.half == b.half && a.zoom == b.zoom;
}

}  // namespace

Prefetcher::Prefetcher() {
  running_ = true;
  thread_.reset(new QThread(&Prefetcher::Work, this, "glimra_prefetch"));
  if (!thread_->Create()) running_ = false;
}

Prefetcher::~Prefetcher() {
  std::unique_lock<std::mutex> lock(mutex_);
  stop_ = true;
  jobs_.clear();
  changed_.notify_all();
  changed_.wait(lock, [this] { return !running_; });
  lock.unlock();
  thread_.reset();
}

bool Prefetcher::Matches(const ScreenFit& fit, bool grey) const {
  return grey == grey_ && SameFit(fit, fit_);
}

void Prefetcher::Want(const std::vector<std::string>& paths, const ScreenFit& fit, bool grey) {
  std::lock_guard<std::mutex> lock(mutex_);
  WantLocked(paths, nullptr, fit, grey);
}

void Prefetcher::WantFile(const std::string& path, const std::string& file, const ScreenFit& fit,
                          bool grey) {
  std::lock_guard<std::mutex> lock(mutex_);
  WantLocked({path}, &file, fit, grey);
}

void Prefetcher::WantLocked(const std::vector<std::string>& paths, const std::string* file,
                            const ScreenFit& fit, bool grey) {
  std::vector<std::unique_ptr<Job>> keep;
  const bool same = Matches(fit, grey);
  for (const std::string& p : paths) {
    std::unique_ptr<Job> job;
    // A picture made for another window size stays while it still covers its new place.
    for (auto& j : jobs_)
      if (j && j->path == p &&
          (same || (grey == grey_ && j->done && j->result.ok && j->result.pixels &&
                    Covers(j->result, j->result.pixels->GetWidth(),
                           j->result.pixels->GetHeight(), fit))))
        job = std::move(j);
    if (!job) {
      job.reset(new Job());
      job->path = p;
      if (file) job->file = *file;
    }
    keep.push_back(std::move(job));
  }
  // What is not kept is freed here, outside the worker's hands (busy_ is never in jobs_).
  jobs_ = std::move(keep);
  fit_ = fit;
  grey_ = grey;
  changed_.notify_all();
}

bool Prefetcher::Take(const std::string& path, const ScreenFit& fit, bool grey,
                      LoadedPicture* out) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!running_ || grey != grey_) return false;
  // A picture being decoded now is nearly there: waiting beats decoding it a second time.
  changed_.wait(lock, [&] { return !busy_ || busy_->path != path; });
  for (auto it = jobs_.begin(); it != jobs_.end(); ++it) {
    Job& job = **it;
    if (job.path != path) continue;
    // Not started yet: the caller loads it now, so the worker must not do it again.
    // Made for another window size, it is shrunk to this one's when it still covers it.
    const bool fresh = job.done && job.result.stamp == StampOf(path.c_str()) &&
                       (SameFit(job.result.fit, fit) || Refit(&job.result, fit));
    if (fresh) *out = std::move(job.result);
    jobs_.erase(it);
    return fresh;
  }
  return false;
}

bool Prefetcher::Ready(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& j : jobs_)
    if (j->path == path) return j->done;
  return false;
}

bool Prefetcher::Shape(const std::string& path, int* width, int* height, int* orientation) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& j : jobs_) {
    if (j->path != path || !j->done || !j->result.ok) continue;
    *width = j->result.width, *height = j->result.height, *orientation = j->result.orientation;
    return true;
  }
  return false;
}

void Prefetcher::Forget(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (busy_ && busy_->path == path) busy_->forgotten = true;
  for (auto& j : jobs_) {
    if (j->path != path) continue;
    // Wanted still: made again from the file as it is now.
    j->done = false;
    j->result = LoadedPicture();
  }
  changed_.notify_all();
}

void Prefetcher::Work(void* arg) {
  Prefetcher* self = static_cast<Prefetcher*>(arg);
  std::unique_lock<std::mutex> lock(self->mutex_);
  for (;;) {
    Job* next = nullptr;
    self->changed_.wait(lock, [&] {
      if (self->stop_) return true;
      for (auto& j : self->jobs_)
        if (!j->done) return next = j.get(), true;
      return false;
    });
    if (self->stop_) break;
    // Decoded outside the lock into a job of its own, so that Want may drop the original.
    Job work;
    work.path = next->path;
    work.file = next->file;
    const ScreenFit fit = self->fit_;
    const bool grey = self->grey_;
    self->busy_ = &work;
    lock.unlock();
    LoadPicture(work.path, fit, grey, &work.result, work.file.empty() ? nullptr : &work.file);
    lock.lock();
    self->busy_ = nullptr;
    if (work.result.stopped) {
      // The program is ending: nothing more is decoded; the destructor is waited for.
      self->changed_.notify_all();
      self->changed_.wait(lock, [&] { return self->stop_; });
      break;
    }
    // Still wanted, for the same screen and grey setting, and from the file as it is?
    if (!work.forgotten && self->Matches(fit, grey)) {
      for (auto& j : self->jobs_) {
        if (j->path == work.path && !j->done) {
          j->result = std::move(work.result);
          j->done = true;
          break;
        }
      }
    }
    self->changed_.notify_all();
    // `work` and a result nobody wants are freed here, before the next picture is started.
    lock.unlock();
    work.result = LoadedPicture();
    lock.lock();
  }
  self->running_ = false;
  self->changed_.notify_all();
}
