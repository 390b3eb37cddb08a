// QBitMap: operations on the pixels themselves (grey, fills, channels, alpha), combining two
// bitmaps, and the run-length packer.
#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "framework/qbitmap.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {

int64_t FloorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// Visits the spans [row * width + x, + w) of the memory rows rowTop, rowTop - 1, ... (h rows),
// each cut to the block of `pixels` pixels; `fn(first, count)` gets what is left. A span wider
// than a row runs into the following rows, as the fills and inversions are meant to.
template <class Fn>
void ForEachRowSpan(int64_t pixels, int width, int64_t rowTop, int64_t h, int64_t x, int64_t w,
                    Fn fn) {
  if (pixels <= 0 || width <= 0 || w <= 0 || h <= 0) return;
  // Only rows whose span reaches into [0, pixels) are visited.
  const int64_t rowHi = std::min(rowTop, FloorDiv(pixels - 1 - x, width));
  const int64_t rowLo = std::max(rowTop - h + 1, FloorDiv(-x - w, width) + 1);
  for (int64_t row = rowHi; row >= rowLo; --row) {
    const int64_t start = row * width + x;
    const int64_t lo = std::max<int64_t>(start, 0);
    const int64_t hi = std::min(start + w, pixels);
    if (hi > lo) fn(lo, hi - lo);
  }
}

uint8_t Clamp255(int64_t v) { return uint8_t(std::clamp<int64_t>(v, 0, 255)); }

// The grey weights as products, so a pixel costs three look-ups; the sums come out exactly as
// r * 0.21 + g * 0.71 + b * 0.08 would.
struct GrayWeights {
  double r[256], g[256], b[256];
  GrayWeights() {
    for (int i = 0; i < 256; ++i) {
      r[i] = i * 0.21;
      g[i] = i * 0.71;
      b[i] = i * 0.08;
    }
  }
};

// The luminance of Lut and the colorize filter, in unsigned integers.
inline unsigned Luma(unsigned r, unsigned g, unsigned b) {
  return ((r + 2 * g) * 29 + b * 13) / 100;
}

uint32_t PackedPixel(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Whole-picture pixel operations
// ---------------------------------------------------------------------------------------------

bool QBitMap::ReduceByArea(int width, int height) {
  const int64_t sw = width_, sh = height_;
  if (depth_ != 32 || !pixels_ || width < 1 || height < 1 || width > sw || height > sh)
    return false;
  if (width == sw && height == sh) return true;
  uint8_t* block = static_cast<uint8_t*>(qmalloc(size_t(int64_t(width) * height * 4)));
  if (!block) {
    QWARN("QBitMap::ReduceByArea", "QBitMap::ReduceByArea() no memory for %dx%d", width, height);
    return false;
  }
  // One row of channel sums for the output row being gathered; source rows are visited once.
  std::vector<uint64_t> sums(size_t(width) * 4);
  std::vector<int> firstX(size_t(width) + 1);
  for (int x = 0; x <= width; ++x) firstX[size_t(x)] = int(int64_t(x) * sw / width);
  for (int y = 0; y < height; ++y) {
    const int64_t y0 = int64_t(y) * sh / height, y1 = int64_t(y + 1) * sh / height;
    std::fill(sums.begin(), sums.end(), 0);
    for (int64_t sy = y0; sy < y1; ++sy) {
      const uint8_t* row = pixels_ + sy * sw * 4;
      for (int x = 0; x < width; ++x) {
        uint64_t* acc = &sums[size_t(x) * 4];
        for (int sx = firstX[size_t(x)]; sx < firstX[size_t(x) + 1]; ++sx)
          for (int c = 0; c < 4; ++c) acc[c] += row[int64_t(sx) * 4 + c];
      }
    }
    uint8_t* out = block + int64_t(y) * width * 4;
    for (int x = 0; x < width; ++x) {
      const uint64_t n = uint64_t(firstX[size_t(x) + 1] - firstX[size_t(x)]) * uint64_t(y1 - y0);
      for (int c = 0; c < 4; ++c)
        out[x * 4 + c] = uint8_t((sums[size_t(x) * 4 + c] + n / 2) / n);
    }
  }
  if (!(flags_ & EXTERNAL)) qfree(pixels_);
  flags_ &= ~uint32_t(EXTERNAL);
  pixels_ = block;
  width_ = width;
  height_ = height;
  size_ = width * height * 4;
  return true;
}

void QBitMap::MakeGray() {
  static const GrayWeights kWeights;
  uint8_t* p = pixels_;
  for (int64_t n = Pixels32(); n > 0; --n, p += 4) {
    const uint8_t g = uint8_t(kWeights.r[p[0]] + kWeights.g[p[1]] + kWeights.b[p[2]]);
    p[0] = p[1] = p[2] = g;
  }
}

void QBitMap::Lut(int floor, int mode) {
  QDBG("QBitMap::Lut", "QBitMap:Lut(%d)\n", floor);
  const uint8_t lifted = Clamp255(floor);
  uint8_t* p = pixels_;
  for (int64_t n = Pixels32(); n > 0; --n, p += 4) {
    const bool qualifies = mode == 0 ? p[3] >= 254 : p[3] != 0;
    if (qualifies && int64_t(Luma(p[0], p[1], p[2])) < floor) p[0] = p[1] = p[2] = lifted;
  }
}

void QBitMap::Fill(const QRect* r, QColor color, bool keepAlpha) {
  const int64_t n = Pixels32();
  if (!n) return;
  int64_t x = 0, y = 0, w = width_, h = height_;
  if (r) {
    x = r->x, y = r->y, w = r->wid, h = r->hgt;
    if (x < 0) {
      QERR("QBitMap::Fill", "r->x<0");
      x = 0;
    } else if (x + w > width_) {
      QERR("QBitMap::Fill", "Fill r->x+r->wid>wid (%d+%d>%d)", r->x, r->wid, width_);
      w = width_ - x;
    }
    if (y < 0) {
      QERR("QBitMap::Fill", "r->y<0");
      y = 0;
    } else if (y + h > height_) {
      QERR("QBitMap::Fill", "Fill r->y+r->hgt>hgt (%d+%d>%d)", r->y, r->hgt, height_);
      h = height_ - y;
    }
  }
  const uint8_t rgba[4] = {uint8_t(color.GetR()), uint8_t(color.GetG()), uint8_t(color.GetB()),
                           uint8_t(color.GetA())};
  const int bytes = keepAlpha ? 3 : 4;
  auto fill = [&](int64_t first, int64_t count) {
    for (uint8_t* p = pixels_ + first * 4; count > 0; --count, p += 4)
      memcpy(p, rgba, size_t(bytes));
  };
  const int64_t rowTop = int64_t(height_) - 1 - y;
  if (w >= width_ && h > 0) {
    // Spans at least a row wide touch each other: one run covers them all, and filling a pixel
    // twice with the same colour changes nothing, so a huge unchecked width costs one pass.
    const int64_t first = std::max<int64_t>((rowTop - h + 1) * width_ + x, 0);
    const int64_t end = std::min(rowTop * width_ + x + w, n);
    if (end > first) fill(first, end - first);
    return;
  }
  ForEachRowSpan(n, width_, rowTop, h, x, w, fill);
}

void QBitMap::SetColorAt(int x, int y, QColor color) {
  if (x < 0 || y < 0 || x >= width_ || y >= height_) {
    QWARN("QBitMap::SetColorAt", "QBitMap:SetColorAt(%d,%d) out of range (%dx%d)", x, y, width_,
          height_);
    return;
  }
  if (depth_ != 32 && depth_ != 24) return;
  uint8_t* p = GetAddress(x, height_ - 1 - y);
  if (!p) return;
  p[0] = uint8_t(color.GetR());
  p[1] = uint8_t(color.GetG());
  p[2] = uint8_t(color.GetB());
  if (depth_ == 32) p[3] = uint8_t(color.GetA());
}

void QBitMap::InvertChannel(int channel, int x, int y, int wid, int hgt) {
  if (depth_ != 32) {
    QWARN("QBitMap::InvertChannel", "QBitMap::InvertChannel() only supported for 32-bit");
    return;
  }
  if (channel < 0 || channel > 3) {
    QWARN("QBitMap::InvertChannel", "QBitMap::InvertChannel() no channel '%d'", channel);
    return;
  }
  if (wid == -1) wid = width_;
  if (hgt == -1) hgt = height_;
  const int64_t n = Pixels32(), x0 = x, w = wid, rowTop = int64_t(height_) - 1 - y;
  if (w <= width_) {
    ForEachRowSpan(n, width_, rowTop, hgt, x0, w, [&](int64_t first, int64_t count) {
      for (uint8_t* p = pixels_ + first * 4 + channel; count > 0; --count, p += 4)
        *p = uint8_t(255 - *p);
    });
    return;
  }
  // Spans wider than a row overlap, and a pixel covered twice is back where it was: count the
  // spans over each pixel instead of walking them, so that any extent costs one pass.
  if (n == 0 || w <= 0 || hgt <= 0) return;
  const int64_t rowLo = rowTop - hgt + 1;
  uint8_t* p = pixels_ + channel;
  for (int64_t i = 0; i < n; ++i, p += 4) {
    const int64_t lo = std::max(rowLo, FloorDiv(i - x0 - w, width_) + 1);
    const int64_t hi = std::min(rowTop, FloorDiv(i - x0, width_));
    if (hi >= lo && ((hi - lo + 1) & 1)) *p = uint8_t(255 - *p);
  }
}

// ---------------------------------------------------------------------------------------------
// Alpha
// ---------------------------------------------------------------------------------------------

void QBitMap::SetAlpha(int alpha) {
  const uint8_t a = Clamp255(alpha);
  uint8_t* p = pixels_;
  for (int64_t n = Pixels32(); n > 0; --n, p += 4) p[3] = a;
}

void QBitMap::ScaleAlpha(int mul, int div, int offset) {
  if (div == 0) {
    QWARN("QBitMap::ScaleAlpha", "QBitMap:ScaleAlpha() divisor '%d'", div);
    return;
  }
  uint8_t* p = pixels_;
  for (int64_t n = Pixels32(); n > 0; --n, p += 4)
    p[3] = Clamp255(int64_t(p[3]) * mul / div + offset);
}

void QBitMap::AlphaToMask() {
  uint8_t* p = pixels_;
  for (int64_t n = Pixels32(); n > 0; --n, p += 4) p[0] = p[1] = p[2] = p[3] ? 255 : 0;
}

bool QBitMap::Accumulate(const QBitMap* src, int div) {
  if (!src || !src->pixels_ || !pixels_ || div == 0) {
    QWARN("QBitMap::Accumulate", "QBitMap:Accumulate() no source pixels or divisor '%d'", div);
    return false;
  }
  const int n = std::min(size_, src->size_);
  for (int i = 0; i < n; ++i) pixels_[i] = uint8_t(pixels_[i] + src->pixels_[i] / div);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Combining bitmaps
// ---------------------------------------------------------------------------------------------

bool QBitMap::Blend(const QBitMap* src) {
  if (depth_ != 32 || (src && src->depth_ != 32)) {
    QERR("QBitMap::Blend", "Only implemented for depth=32");
    return false;
  }
  if (!src || !src->pixels_) {
    QERR("QBitMap::Blend", "Source bitmap is not valid");
    return false;
  }
  const int64_t n = std::min(Pixels32(), src->Pixels32());
  uint8_t* d = pixels_;
  const uint8_t* s = src->pixels_;
  for (int64_t i = 0; i < n; ++i, d += 4, s += 4) {
    const unsigned a = s[3], keep = 255 - a;
    for (int c = 0; c < 3; ++c) d[c] = uint8_t((s[c] * a + d[c] * keep) / 255);
    d[3] = uint8_t(a + d[3] * keep / 255);
  }
  return true;
}

bool QBitMap::CopyChannel(const QBitMap* src, int srcChannel, int dstChannel) {
  if (!src || !src->pixels_ || srcChannel < 0 || srcChannel > 3 || dstChannel < 0 ||
      dstChannel > 3) {
    QWARN("QBitMap::CopyChannel", "QBitMap:CopyChannel() bad source or channels '%d', '%d'",
          srcChannel, dstChannel);
    return false;
  }
  const int64_t n = std::min(Pixels32(), src->Pixels32());
  for (int64_t i = 0; i < n; ++i) pixels_[i * 4 + dstChannel] = src->pixels_[i * 4 + srcChannel];
  return true;
}

bool QBitMap::MergeAlpha(const QBitMap* src) {
  if (!src || depth_ != 32 || src->depth_ != 32) {
    QERR("QBitMap::MergeAlpha", "Only supported for 32-bit");
    return false;
  }
  if (src->width_ != width_) {
    QERR("QBitMap::MergeAlpha", "Bitmaps must be the same size/width");
    return false;
  }
  if (src->height_ != height_) {
    QERR("QBitMap::MergeAlpha", "Bitmaps must be the same size/height");
    return false;
  }
  const int64_t n = std::min(Pixels32(), src->Pixels32());
  for (int64_t i = 0; i < n; ++i) {
    uint8_t& a = pixels_[i * 4 + 3];
    a = uint8_t(unsigned(a) * src->pixels_[i * 4 + 3] / 255);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Run-length packing
// ---------------------------------------------------------------------------------------------

uint8_t* QBitMap::RLECompress(int* retSize) const {
  if (retSize) *retSize = 0;
  QDBG("QBitMap::RLECompress", "RLECompress(size=%d)\n", size_);
  const int64_t n = Pixels32();
  // Worst case: every pixel literal, one header per 128 of them.
  const int64_t worst = n * 4 + (n + 127) / 128;
  if (!n || worst > INT_MAX) return nullptr;
  uint8_t* out = static_cast<uint8_t*>(qmalloc(size_t(worst)));
  if (!out) {
    QWARN("QBitMap::RLECompress", "QBitMap:RLECompress() no memory for '%lld' bytes",
          static_cast<long long>(worst));
    return nullptr;
  }
  auto same = [&](int64_t a, int64_t b) {
    return memcmp(pixels_ + a * 4, pixels_ + b * 4, 4) == 0;
  };
  int64_t i = 0, o = 0;
  while (i < n) {
    int64_t run = 1;
    while (i + run < n && run < 128 && same(i, i + run)) ++run;
    if (run >= 2) {
      QDBG("QBitMap::RLECompress", "Seeing run\n");
      QDBG("QBitMap::RLECompress", "Run of length %d, pix %x\n", int(run),
           unsigned(PackedPixel(pixels_ + i * 4)));
      out[o++] = uint8_t(127 + run);
      memcpy(out + o, pixels_ + i * 4, 4);
      o += 4;
      i += run;
      continue;
    }
    // Literals up to the start of the next run.
    int64_t len = 1;
    while (i + len < n && len < 128 && !(i + len + 1 < n && same(i + len, i + len + 1))) ++len;
    QDBG("QBitMap::RLECompress", "Copy length %d\n", int(len));
    out[o++] = uint8_t(len - 1);
    memcpy(out + o, pixels_ + i * 4, size_t(len) * 4);
    o += len * 4;
    i += len;
  }
  QDBG("QBitMap::RLECompress", "i=%d\n", int(i));
  QDBG("QBitMap::RLECompress", "Ret size %d\n", int(o));
  if (retSize) *retSize = int(o);
  return out;
}
