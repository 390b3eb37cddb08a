// QBitMap: the framework's in-memory picture, one block of pixels with a width and a height.
//
// Layout (shared by every reader, writer and texture): 4 bytes per pixel in the order red, green,
// blue, alpha; rows packed with no padding (stride 4 x width); rows stored bottom-up, memory row 0
// being the bottom line of the picture, as OpenGL wants it for texture uploads. Only depth 32 is
// really supported; other depths get a block of (depth + 7) / 8 x width x height bytes.
//
// Two coordinate conventions, kept apart on purpose:
//   top-down  (y from the top, memory row height - 1 - y): Fill, SetColorAt, CopyPixelsFrom,
//             InvertChannel, CropTo;
//   bottom-up (memory rows directly): Rotate, GetAddress.
//
// Ownership: the pixels come from the counted allocator (qmalloc) and are freed by Free, Alloc,
// Resize and the destructor, except when flag bit 1 (EXTERNAL) is set: then the block belongs to
// whoever handed it to Alloc and is never freed here.
//
// Rectangles that do not fit are not refused: a few operations deliberately run on in memory
// order (a Fill with x < 0 keeps its width and wraps into the following rows). Whatever happens,
// no operation reads or writes a byte outside the pixel block; the part of a copy or fill that
// would land outside it is dropped.
// Not thread-safe, except for the stop request (RequestStop), which any thread or a signal
// handler may make.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/qcolor.h"
#include "framework/qdrawable.h"

class QBitMap : public QDrawable {
 public:
  enum Flags : uint32_t { EXTERNAL = 2 };  // pixels belong to somebody else

  // Depth other than 0 or 32 logs "Really only dep=32 is supported" and goes on. Allocates when
  // depth, width and height are all non-zero; a refused Alloc leaves the bitmap empty.
  QBitMap(int depth = 0, int width = 0, int height = 0, int flags = 0);
  ~QBitMap() override;
  const char* ClassName() const override { return "QBitMap"; }

  int GetDepth() const override { return depth_; }
  int GetWidth() const override { return width_; }
  int GetHeight() const override { return height_; }
  // The pixel block (null when empty) and its length in bytes.
  uint8_t* GetBuffer() const { return pixels_; }
  int GetSize() const { return size_; }
  uint32_t GetFlags() const { return flags_; }
  // Address of pixel x in memory row y (bottom-up); null outside the picture or the block.
  uint8_t* GetAddress(int x, int y) const;

  // ---- Allocation (qbitmap.cpp) ----
  // Replaces the pixels. With `pixels` the block is taken as is (EXTERNAL set, never freed),
  // zero sizes included (an empty picture over somebody's block). False, with a warning naming
  // the geometry, when a size is negative, or zero without `pixels`, when width x height x bytes
  // overflows, or memory runs out; the bitmap is then empty. New pixels are not cleared.
  bool Alloc(int depth, int width, int height, int flags = 0, void* pixels = nullptr);
  // Releases owned pixels and empties the bitmap. Cannot fail.
  void Free();
  // A new bitmap of the same geometry owning its own block (EXTERNAL is not inherited), with
  // the pixels copied when asked. Null, with an error, when it cannot be made. Caller deletes.
  QBitMap* CreateClone(bool copyPixels = true) const;
  // Copies min(source size, own size) bytes, whatever the geometries. Null source: nothing.
  void CopyFrom(const QBitMap* src);
  // Copies a top-down rectangle of `src` to (dx, dy) here. Width and height larger than this
  // bitmap are capped with a warning; nothing else is clipped. False for depths other than 32
  // or a missing source.
  bool CopyPixelsFrom(const QBitMap* src, int sx, int sy, int wid, int hgt, int dx, int dy);
  // Reallocates to the new size. With `scaleContents` the picture is scaled (GLU when an OpenGL
  // context can be made current, else nearest neighbour); without, the new pixels are undefined.
  // False, bitmap unchanged, when the new block cannot be had. Nothing happens when empty or
  // when the size is the same (true).
  bool Resize(int width, int height, bool scaleContents = true);
  // Keeps only the top-down rectangle `r`; false, unchanged, for an empty rectangle or no memory.
  bool CropTo(const QRect& r);

  // ---- Geometry ----
  // Copies `srcRect` of this bitmap (memory rows, bottom-up) turned clockwise by `angle` (0, 90,
  // 180, 270) into `dstRect` of `dst`, which must already have the turned size. Null rects mean
  // the whole bitmap. Another angle warns and moves nothing (false); so does a null `dst`.
  bool Rotate(int angle, const QRect* srcRect, QBitMap* dst, const QRect* dstRect);
  // Shrinks the 32-bit picture to `width` x `height` (neither larger than now) by averaging the
  // area each new pixel covers, weighted by how much of every old pixel falls in it: the
  // reduction a photo needs to look right on a smaller screen. False, unchanged, for another
  // depth, a size that is not smaller or equal, no memory, or a stop request (qbitmap_ops.cpp).
  bool AreaReduce(int width, int height);

  // ---- Giving up (qbitmap_ops.cpp) ----
  // Asks every long piece of work on pixels, on every thread (the picture readers' decodes,
  // AreaReduce), to give up at its next row: the program is ending. It stays asked. Safe in a
  // signal handler (one lock-free atomic store).
  static void RequestStop();
  // True once RequestStop was called; work that gives up answers false and logs only a debug
  // line, since nothing is wrong with the picture.
  static bool StopRequested();

  // ---- Pixel operations (qbitmap_ops.cpp) ----
  // Grey with the weights 0.21, 0.71, 0.08, truncated (white becomes 254). Alpha untouched.
  void MakeGray();
  // Lifts red, green and blue to `floor` where the luminance is below it; mode 0 touches pixels
  // with alpha >= 254, other modes every pixel with a non-zero alpha. The floor is compared
  // unsigned and stored as a byte: -1 makes every qualifying pixel white, 300 stores 44.
  void Lut(int floor, int mode);
  // Fills the top-down rect (null: all) with the colour, keeping alpha when asked. A negative x
  // or y is set to 0 with an error and the extent is then not cut (the fill runs on in memory
  // order); an extent past the edge is cut with an error.
  void Fill(const QRect* r, QColor color, bool keepAlpha = false);
  // Sets pixel (x, top-down y); out of range warns and changes nothing.
  void SetColorAt(int x, int y, QColor color);
  // Complements byte `channel` (0 red .. 3 alpha) over the top-down rect; -1 extents mean the
  // full width or height. Warns and does nothing for depths other than 32 or another channel.
  void InvertChannel(int channel, int x = 0, int y = 0, int wid = -1, int hgt = -1);

  // ---- Alpha operations, over every pixel (qbitmap_ops.cpp) ----
  void SetAlpha(int alpha);
  // alpha = alpha x mul / div + offset, held to 0..255. A zero divisor warns and does nothing.
  void ScaleAlpha(int mul, int div, int offset);
  // Red, green and blue become 255 where alpha is non-zero, 0 where it is zero.
  void AlphaToMask();
  // Adds each byte of `src` divided by `div` to the matching byte here (wrapping), over the
  // bytes both blocks have. False, with a warning, for a missing source or a zero divisor.
  bool Accumulate(const QBitMap* src, int div);

  // ---- Combining bitmaps (qbitmap_ops.cpp) ----
  // Lays `src` over this bitmap by its alpha, pixel by pixel in memory order, over the pixels
  // both have. False with an error for depths other than 32 or an empty source.
  bool Blend(const QBitMap* src);
  // Copies byte `srcChannel` of each source pixel to byte `dstChannel` here, over the pixels
  // both have. False with a warning for a channel outside 0..3 or an empty source.
  bool CopyChannel(const QBitMap* src, int srcChannel, int dstChannel);
  // Multiplies this alpha by the source alpha (a x sa / 255). Both must be 32-bit and of the
  // same width and height; otherwise an error and false.
  bool MergeAlpha(const QBitMap* src);
  // Run-length packs the pixels: a header byte n, then for n >= 128 one pixel repeated n - 127
  // times, else n + 1 literal pixels (4 bytes each). Answers a qmalloc block the caller frees
  // with qfree and its length in *retSize; null (and *retSize 0) when empty or out of memory.
  uint8_t* RLECompress(int* retSize) const;

  // ---- Writers (qimage_write.cpp) ----
  // Writes the picture in format 0 SGI RGB, 1 Targa 32-bit, 2 Targa grey, 3 JPEG (`quality`
  // used by JPEG only). False, with a warning, for another format or when the file fails.
  bool Write(const char* name, int format, int quality = 90);
  bool WriteTGA(const char* name, int format);
  bool WriteRGB(const char* name);
  bool WriteJPG(const char* name, int quality);
  // The picture as a JPEG file's bytes in `out` (alpha dropped). False, with a warning naming
  // the bitmap, when it is empty, lacks its pixels, memory runs out or the library fails; `out`
  // is then untouched.
  bool EncodeJPG(int quality, std::string* out) const;

 protected:
  uint32_t flags_ = 0;
  int depth_ = 0;
  int width_ = 0;
  int height_ = 0;
  uint8_t* pixels_ = nullptr;
  int size_ = 0;

 private:
  // Whole 4-byte pixels the block holds: every 32-bit loop is bounded by this.
  int Pixels32() const { return pixels_ ? size_ / 4 : 0; }
  // Nearest-neighbour scaling of the current pixels into `dst` (w x h, 4 bytes each).
  void ScaleNearest(uint8_t* dst, int w, int h) const;
};

// The area reduction of QBitMap::AreaReduce fed one picture row at a time, top row first, so
// that a reader can shrink a picture while decoding it without holding it whole. Rows go into
// `dst` (32-bit, already allocated at the new size, not larger than the old one either way) as
// soon as they are complete. A reducer whose sizes do not fit is not ready and ignores rows.
class QAreaReducer {
 public:
  QAreaReducer(int srcWidth, int srcHeight, QBitMap* dst);
  ~QAreaReducer();
  QAreaReducer(const QAreaReducer&) = delete;
  QAreaReducer& operator=(const QAreaReducer&) = delete;

  bool IsReady() const { return ok_; }
  // One old row of `srcWidth` RGBA pixels; rows past the last are ignored.
  void PushRow(const uint8_t* row);

 private:
  struct Taps;
  uint32_t WeightOf(int newRow, int oldRow) const;

  int srcW_, srcH_, dstW_ = 0, dstH_ = 0;
  QBitMap* dst_;
  bool ok_ = false;
  int srcRow_ = 0, outRow_ = 0;
  std::unique_ptr<Taps> tx_, ty_;
  std::vector<uint8_t> across_;
  std::vector<uint32_t> acc_[2];
};
