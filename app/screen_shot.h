// ScreenShot: proof of display. Turns frames of the window into small JPEGs: each frame is
// reduced to at most MAX_WIDTH pixels wide (the window's proportions kept, each new pixel the
// average of the area it covers), encoded with QUALITY and handed to the sink, but only when the
// bytes differ from the last ones handed over: a frame drawn again the same (an expose, a focus
// change) sends nothing.
//
// The reduction and the encoding run on a worker thread (the framework's QThread), so that the
// main loop only pays for reading the pixels. Only the newest frame waits: one that comes while
// the worker is busy replaces the one still waiting, so a burst of frames costs at most two
// encodings. The sink is called on the worker thread, one call at a time, and must be safe
// there. The destructor waits for the frame being encoded (its sink call included) and drops the
// one waiting.
//
// Take and Latest may be called from any thread.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "framework/qbitmap.h"

class QThread;

class ScreenShot {
 public:
  static constexpr int MAX_WIDTH = 480;
  static constexpr int QUALITY = 80;
  using Sink = std::function<void(std::string jpeg)>;

  // Starts the worker; without it (the thread could not be made, warned) Take encodes at once on
  // the calling thread.
  explicit ScreenShot(Sink sink);
  ~ScreenShot();
  ScreenShot(const ScreenShot&) = delete;
  ScreenShot& operator=(const ScreenShot&) = delete;

  // Hands over a frame (32-bit, rows bottom-up, as QCanvas::ReadPixels gives it). An empty frame
  // is ignored.
  void Take(std::unique_ptr<QBitMap> frame);
  // The last JPEG handed to the sink ("" before the first), for a sender that must repeat it
  // (a broker connection made again).
  std::string Latest() const;

 private:
  static void Work(void* arg);
  // Reduces and encodes `frame` and hands the result on when it is new. No lock held.
  void Encode(QBitMap* frame);

  Sink sink_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::unique_ptr<QThread> thread_;
  bool running_ = false;
  bool stop_ = false;
  std::unique_ptr<QBitMap> waiting_;  // the newest frame not yet started; null when none
  std::string latest_;
  std::mutex encodeMutex_;  // one encoding and sink call at a time, whoever runs it
};
