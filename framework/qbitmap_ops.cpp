// QBitMap: operations on the pixels themselves (grey, fills, channels, alpha), combining two
// bitmaps, and the run-length packer.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "framework/qbitmap.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {

// Set by RequestStop, possibly from a signal handler: only a lock-free atomic may be touched there.
std::atomic<bool> g_stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets the stop request");

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

// One axis of an area reduction: for each new pixel, the first old pixel it covers and the
// weights (summing to 1 << 16) of the old pixels from there on.
struct AreaTaps {
  std::vector<int> first, count;
  std::vector<uint32_t> weights;  // count[i] entries per new pixel, in order
  std::vector<size_t> start;      // where pixel i's weights begin
};

AreaTaps MakeAreaTaps(int from, int to) {
  AreaTaps t;
  t.first.resize(size_t(to));
  t.count.resize(size_t(to));
  t.start.resize(size_t(to));
  const double scale = double(from) / double(to);
  for (int i = 0; i < to; ++i) {
    const double lo = i * scale, hi = (i + 1) * scale;
    const int a = int(lo);
    const int b = std::min(from - 1, int(std::ceil(hi)) - 1);
    t.first[size_t(i)] = a;
    t.count[size_t(i)] = b - a + 1;
    t.start[size_t(i)] = t.weights.size();
    uint32_t sum = 0, biggest = 0;
    size_t biggestAt = t.weights.size();
    for (int j = a; j <= b; ++j) {
      const double part = std::min(hi, double(j + 1)) - std::max(lo, double(j));
      const uint32_t w = uint32_t(std::lround(std::max(0.0, part) / scale * 65536.0));
      if (w > biggest) biggest = w, biggestAt = t.weights.size();
      t.weights.push_back(w);
      sum += w;
    }
    // Rounding must not brighten or darken: the weights add up to exactly one.
    if (biggestAt < t.weights.size()) t.weights[biggestAt] += 65536u - sum;
  }
  return t;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Whole-picture pixel operations
// ---------------------------------------------------------------------------------------------

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
  // Unsigned comparison and a plain byte store: a negative floor lifts every qualifying pixel
  // and a floor above 255 stores its low byte. Kept so that existing tables look the same.
  const unsigned limit = unsigned(floor);
  const uint8_t lifted = uint8_t(floor);
  uint8_t* p = pixels_;
  for (int64_t n = Pixels32(); n > 0; --n, p += 4) {
    const bool qualifies = mode == 0 ? p[3] >= 254 : p[3] != 0;
    if (qualifies && Luma(p[0], p[1], p[2]) < limit) p[0] = p[1] = p[2] = lifted;
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

// ---------------------------------------------------------------------------------------------
// Giving up
// ---------------------------------------------------------------------------------------------

void QBitMap::RequestStop() { g_stopRequested.store(true, std::memory_order_relaxed); }
bool QBitMap::StopRequested() { return g_stopRequested.load(std::memory_order_relaxed); }

// ---------------------------------------------------------------------------------------------
// Area reduction
// ---------------------------------------------------------------------------------------------

struct QAreaReducer::Taps : AreaTaps {
  explicit Taps(const AreaTaps& t) : AreaTaps(t) {}
};

QAreaReducer::QAreaReducer(int srcWidth, int srcHeight, QBitMap* dst)
    : srcW_(srcWidth), srcH_(srcHeight), dst_(dst) {
  if (!dst || dst->GetDepth() != 32 || !dst->GetBuffer() || srcWidth <= 0 || srcHeight <= 0 ||
      dst->GetWidth() > srcWidth || dst->GetHeight() > srcHeight ||
      int64_t(dst->GetSize()) < int64_t(dst->GetWidth()) * dst->GetHeight() * 4)
    return;
  dstW_ = dst->GetWidth();
  dstH_ = dst->GetHeight();
  tx_.reset(new Taps(MakeAreaTaps(srcW_, dstW_)));
  ty_.reset(new Taps(MakeAreaTaps(srcH_, dstH_)));
  across_.resize(size_t(dstW_) * 4);
  acc_[0].assign(size_t(dstW_) * 4, 32768u);
  acc_[1].assign(size_t(dstW_) * 4, 32768u);
  ok_ = true;
}

QAreaReducer::~QAreaReducer() = default;

// The weight of old row `j` in new row `i`; 0 when it lies outside.
uint32_t QAreaReducer::WeightOf(int i, int j) const {
  if (i < 0 || i >= dstH_) return 0;
  const int k = j - ty_->first[size_t(i)];
  if (k < 0 || k >= ty_->count[size_t(i)]) return 0;
  return ty_->weights[ty_->start[size_t(i)] + size_t(k)];
}

void QAreaReducer::PushRow(const uint8_t* row) {
  if (!ok_ || !row || srcRow_ >= srcH_) return;
  // Across: the old row into `dstW_` pixels.
  uint8_t* out = across_.data();
  const int* first = tx_->first.data();
  const int* count = tx_->count.data();
  const size_t* start = tx_->start.data();
  const uint32_t* weights = tx_->weights.data();
  for (int x = 0; x < dstW_; ++x, out += 4) {
    uint32_t a0 = 32768, a1 = 32768, a2 = 32768, a3 = 32768;
    const uint8_t* p = row + size_t(first[x]) * 4;
    const uint32_t* w = weights + start[x];
    for (int k = count[x]; k > 0; --k, p += 4, ++w) {
      const uint32_t wk = *w;
      a0 += p[0] * wk, a1 += p[1] * wk, a2 += p[2] * wk, a3 += p[3] * wk;
    }
    out[0] = uint8_t(std::min<uint32_t>(255, a0 >> 16));
    out[1] = uint8_t(std::min<uint32_t>(255, a1 >> 16));
    out[2] = uint8_t(std::min<uint32_t>(255, a2 >> 16));
    out[3] = uint8_t(std::min<uint32_t>(255, a3 >> 16));
  }
  // Down: an old row falls into the current new row and, across a border, the next one too.
  const size_t n = across_.size();
  for (int d = 0; d < 2; ++d) {
    const uint32_t w = WeightOf(outRow_ + d, srcRow_);
    if (!w) continue;
    uint32_t* acc = acc_[d].data();
    for (size_t i = 0; i < n; ++i) acc[i] += across_[i] * w;
  }
  const bool lastOfRow = outRow_ < dstH_ &&
                         srcRow_ == ty_->first[size_t(outRow_)] + ty_->count[size_t(outRow_)] - 1;
  ++srcRow_;
  if (!lastOfRow) return;
  // The new row is complete; rows arrive top-down and memory rows are bottom-up.
  uint8_t* dst = dst_->GetBuffer() + size_t(dstH_ - 1 - outRow_) * n;
  for (size_t i = 0; i < n; ++i) dst[i] = uint8_t(std::min<uint32_t>(255, acc_[0][i] >> 16));
  std::swap(acc_[0], acc_[1]);
  std::fill(acc_[1].begin(), acc_[1].end(), 32768u);
  ++outRow_;
}

bool QBitMap::AreaReduce(int width, int height) {
  if (depth_ != 32 || !pixels_ || width <= 0 || height <= 0 || width > width_ ||
      height > height_ || int64_t(size_) < int64_t(width_) * height_ * 4)
    return false;
  if (width == width_ && height == height_) return true;
  QBitMap result(32, width, height, int(flags_ & ~uint32_t(EXTERNAL)));
  QAreaReducer reducer(width_, height_, &result);
  if (!reducer.IsReady()) return false;
  for (int y = height_ - 1; y >= 0; --y) {
    if (StopRequested()) return false;
    reducer.PushRow(pixels_ + size_t(y) * size_t(width_) * 4);
  }
  // Swap blocks: the old one goes with `result`, which frees it unless it was never ours.
  std::swap(pixels_, result.pixels_);
  std::swap(size_, result.size_);
  std::swap(width_, result.width_);
  std::swap(height_, result.height_);
  std::swap(flags_, result.flags_);
  return true;
}
