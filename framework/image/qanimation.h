// QAnimation: plays an animated GIF or WebP one frame at a time, each frame reduced to the size
// it is shown at.
//
// What is held while it plays is the file's compressed bytes and one canvas of the picture's
// logical size (RGBA, top row first) on which each frame is composed over the ones before it, as
// the file's disposal methods say: GIF frames are decoded record by record through giflib (a
// "previous" disposal also keeps the part of the canvas that frame covers), WebP frames by
// libwebpdemux's animation decoder, which composes them itself. Frames are never all decoded at
// once. Transparent parts of the canvas are shown over black.
//
// A frame's delay under MIN_DELAY_MS counts as SHORT_DELAY_MS, as browsers do. The animation
// loops for ever, whatever loop count the file asks for: a picture on a wall keeps moving. Each
// loop starts again from an empty canvas.
//
// Sizes are checked before the libraries allocate: the logical size is 1 to QImage::MAX_SIZE
// each way and must be one the file's bytes can hold, and the canvas (twice it for GIF, for the
// kept part) with the bytes must stay within QImage::MAX_DECODE_BYTES. A frame that cannot be
// decoded is warned about once; the animation then ends there, and every later Next answers
// false. Not thread-safe: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "framework/qmem.h"

class QBitMap;

class QAnimation {
 public:
  static constexpr int MIN_DELAY_MS = 20;
  static constexpr int SHORT_DELAY_MS = 100;

  QAnimation();
  ~QAnimation();
  QAnimation(const QAnimation&) = delete;
  QAnimation& operator=(const QAnimation&) = delete;

  // True when `data` is a GIF or a WebP of more than one frame. Quiet: a file that is not, or
  // that cannot be read that far, answers false and is left to the still readers.
  static bool Animates(const uint8_t* data, size_t size);

  // Takes the file's bytes (owned from then on) and reads its header; `name` names it in
  // messages. False, with a warning naming the file and the value, for a file that is neither
  // kind, a header the library refuses, or a size over the limits above.
  bool Open(QBlock bytes, size_t size, const char* name);

  // The logical size of the picture (the canvas); 0 before a successful Open.
  int GetWidth() const { return width_; }
  int GetHeight() const { return height_; }

  // Decodes the next frame (the first one after the last), composes it and writes the canvas,
  // reduced with the area filter, into `out` at `width` x `height` (at most the canvas's size;
  // `out` is allocated when its size differs). `*delayMs` is how long it is to be shown. False,
  // leaving `out` as it was, when the frame cannot be decoded (warned once) or the sizes do not
  // fit; the animation has then ended.
  bool Next(QBitMap* out, int width, int height, int* delayMs);
  // The index of the frame Next gave last in its loop: 0 for the first.
  int FrameIndex() const { return index_; }
  // True when the frame Next gave last ends its loop (the next one is the first again).
  bool AtLoopEnd() const;
  // True once a frame failed: nothing more will come.
  bool Ended() const { return ended_; }

 private:
  struct Gif;
  struct WebP;
  bool NextGif(int* delayMs);
  bool NextWebP(int* delayMs);
  // Warns once with the file's name and `what`, and ends the animation.
  void Fail(const char* what);

  QBlock bytes_;
  size_t size_ = 0;
  char name_[256] = {0};
  int width_ = 0, height_ = 0;
  int index_ = -1;
  bool ended_ = false;
  std::unique_ptr<Gif> gif_;
  std::unique_ptr<WebP> webp_;
};
