// Prefetcher: decodes the pictures the slideshow will probably show next (the catalogue's next
// and previous ones) on a worker thread, so that a step only has to upload a finished bitmap.
//
// Memory stays bounded: only the pictures of the last Want are kept (two as the controller
// uses it, four when the neighbours either way are portrait pairs); anything else is dropped
// as soon as it is no longer wanted. A result is handed over only for the same path and grey
// setting it was made for, and only while the file's size and time are unchanged, so a file
// replaced on disk is read again. A picture made for another screen fit (the window changed its
// size, or it is one of a portrait pair) is kept and handed over shrunk to the new one while
// its pixels still cover it, and decoded again once they do not. A picture that failed in the
// prefetch is handed over failed, for the caller to report then.
//
// The worker is the framework's QThread; the destructor stops it and waits for the picture it
// is decoding, if any, which a stop request (QBitMap::RequestStop) cuts short; after a decode
// given up that way the worker decodes nothing more. Want and Take are for one thread (the main
// loop).
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "app/picture_loader.h"

class QThread;

class Prefetcher {
 public:
  // Starts the worker; false from IsRunning when the thread could not be made (then every Take
  // answers false and the caller loads by itself).
  Prefetcher();
  ~Prefetcher();
  Prefetcher(const Prefetcher&) = delete;
  Prefetcher& operator=(const Prefetcher&) = delete;

  bool IsRunning() const { return running_; }
  // From now on `paths` (in that order) are wanted for `fit` and `grey`; results and queued
  // work for anything else are dropped.
  void Want(const std::vector<std::string>& paths, const ScreenFit& fit, bool grey);
  // Wants the one picture `path`, read from `file` (the same file by another path: the start
  // decodes its first picture while the window is made, before it enters the pictures' folder).
  void WantFile(const std::string& path, const std::string& file, const ScreenFit& fit, bool grey);
  // Hands over the prefetched `path` for `fit` and `grey` (waiting for it if it is being decoded
  // right now). False when it is not there, was made for something else, or the file changed.
  bool Take(const std::string& path, const ScreenFit& fit, bool grey, LoadedPicture* out);
  // True when `path` is decoded and waits to be taken.
  bool Ready(const std::string& path);
  // The own size and orientation of `path` when it is decoded and waits to be taken, so that
  // its shape is known without a decode; false otherwise.
  bool Shape(const std::string& path, int* width, int* height, int* orientation);
  // Drops what was made or is being made of `path` (its file changed, though perhaps not its
  // size or time); a later Want decodes it again.
  void Forget(const std::string& path);

 private:
  struct Job {
    std::string path;
    std::string file;  // what is read; the path itself when empty
    bool done = false;
    bool forgotten = false;  // the file changed while it was being decoded
    LoadedPicture result;
  };
  static void Work(void* self);
  // Want's work, under the lock; `file` (when given) is what the new jobs read.
  void WantLocked(const std::vector<std::string>& paths, const std::string* file,
                  const ScreenFit& fit, bool grey);
  bool Matches(const ScreenFit& fit, bool grey) const;

  std::unique_ptr<QThread> thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Job>> jobs_;  // the wanted pictures, in order
  Job* busy_ = nullptr;  // the job being decoded (not in jobs_ any more if dropped)
  ScreenFit fit_;
  bool grey_ = false;
  bool stop_ = false;
  bool running_ = false;
};
