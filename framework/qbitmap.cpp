// QBitMap: allocation, copies between bitmaps, rotation, resizing and cropping.
#include "framework/qbitmap.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "framework/qmem.h"
#include "framework/qmessage.h"
#include "framework/qopengl.h"

namespace {

// Bytes for a bitmap of this geometry, or -1 when a size is negative or the block would not
// fit the 32-bit size field. A zero size gives 0.
int64_t BlockBytes(int depth, int width, int height) {
  if (depth < 0 || width < 0 || height < 0) return -1;
  if (depth == 0 || width == 0 || height == 0) return 0;
  const int64_t bpp = (int64_t(depth) + 7) / 8;
  const int64_t row = bpp * width;
  if (row > INT_MAX / height) return -1;
  return row * height;
}

// Copies `count` 4-byte pixels from pixel index `si` of `src` to index `di` of `dst`; whatever
// lies outside either block (dn and sn pixels long) is dropped. The blocks may overlap.
void CopyRun(uint8_t* dst, int64_t dn, int64_t di, const uint8_t* src, int64_t sn, int64_t si,
             int64_t count) {
  const int64_t lo = std::max({int64_t(0), -di, -si});
  const int64_t hi = std::min({count, dn - di, sn - si});
  if (hi > lo) memmove(dst + (di + lo) * 4, src + (si + lo) * 4, size_t(hi - lo) * 4);
}

int64_t FloorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// Pixel moves of a quarter or half turn. `dest(i, j, &row, &col)` places source column i of
// source row j (both relative to the source rect). Unchecked moves are only used when the
// caller has shown that every index lies inside both blocks.
struct PixelMove {
  const uint8_t* src;
  int64_t srcPixels;
  int srcWidth;
  uint8_t* dst;
  int64_t dstPixels;
  int dstWidth;
  QRect sr;
  bool checked;

  void Move(int i, int j, int64_t row, int64_t col) const {
    const int64_t si = int64_t(sr.y + j) * srcWidth + sr.x + i;
    const int64_t di = row * dstWidth + col;
    if (checked && (si < 0 || si >= srcPixels || di < 0 || di >= dstPixels)) return;
    memcpy(dst + di * 4, src + si * 4, 4);
  }

  // Source rows in bands, so that a quarter turn writes along destination rows while the band's
  // source rows stay in the cache.
  template <class Dest>
  void Banded(Dest dest) const {
    constexpr int kBand = 32;
    int64_t row, col;
    for (int jb = 0; jb < sr.hgt; jb += kBand) {
      const int je = std::min(sr.hgt, jb + kBand);
      for (int i = 0; i < sr.wid; ++i)
        for (int j = jb; j < je; ++j) {
          dest(i, j, &row, &col);
          Move(i, j, row, col);
        }
    }
  }

  // For rects that do not fit: visits only the source rows and columns whose pixel lies in the
  // source block. A rect wider than the whole block is cut to it, so absurd extents cost no
  // more than the block itself.
  template <class Dest>
  void Clipped(Dest dest) const {
    const int64_t w = std::min<int64_t>(sr.wid, srcPixels);
    const int64_t jLo = std::max<int64_t>(0, FloorDiv(-int64_t(sr.x) - w, srcWidth) + 1 - sr.y);
    const int64_t jHi =
        std::min<int64_t>(sr.hgt - 1, FloorDiv(srcPixels - 1 - sr.x, srcWidth) - sr.y);
    int64_t row, col;
    for (int64_t j = jLo; j <= jHi; ++j) {
      const int64_t start = (sr.y + j) * srcWidth + sr.x;
      const int64_t iHi = std::min(w, srcPixels - start);
      for (int64_t i = std::max<int64_t>(0, -start); i < iHi; ++i) {
        dest(int(i), int(j), &row, &col);
        Move(int(i), int(j), row, col);
      }
    }
  }

  template <class Dest>
  void RowWise(Dest dest) const {
    int64_t row, col;
    for (int j = 0; j < sr.hgt; ++j)
      for (int i = 0; i < sr.wid; ++i) {
        dest(i, j, &row, &col);
        Move(i, j, row, col);
      }
  }
};

// Lowest and highest pixel index of a rectangle of rows and columns in a block `width` wide.
bool Inside(int64_t rowLo, int64_t rowHi, int64_t colLo, int64_t colHi, int width,
            int64_t pixels) {
  return rowLo * width + colLo >= 0 && rowHi * width + colHi < pixels;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Allocation
// ---------------------------------------------------------------------------------------------

QBitMap::QBitMap(int depth, int width, int height, int flags) {
  if (depth != 0 && depth != 32) QERR("QBitMap::QBitMap", "Really only dep=32 is supported");
  if (depth != 0 && width != 0 && height != 0) Alloc(depth, width, height, flags);
}

QBitMap::~QBitMap() { Free(); }

void QBitMap::Free() {
  if (!(flags_ & EXTERNAL)) qfree(pixels_);
  flags_ &= ~uint32_t(EXTERNAL);
  pixels_ = nullptr;
  size_ = depth_ = width_ = height_ = 0;
}

bool QBitMap::Alloc(int depth, int width, int height, int flags, void* pixels) {
  Free();
  const int64_t bytes = BlockBytes(depth, width, height);
  uint8_t* block = nullptr;
  if (pixels && bytes >= 0)
    block = static_cast<uint8_t*>(pixels);  // somebody else's block, even for an empty picture
  else if (bytes > 0)
    block = static_cast<uint8_t*>(qmalloc(size_t(bytes)));
  if (!block) {
    QWARN("QBitMap::Alloc", "QBitMap::Alloc() failed on %dx%d, depth %d, flags %d\n", width,
          height, depth, flags);
    return false;
  }
  depth_ = depth;
  width_ = width;
  height_ = height;
  size_ = int(bytes);
  pixels_ = block;
  // An owned block must never carry the "not ours" bit, or it would leak.
  flags_ = pixels ? (uint32_t(flags) | EXTERNAL) : (uint32_t(flags) & ~uint32_t(EXTERNAL));
  return true;
}

uint8_t* QBitMap::GetAddress(int x, int y) const {
  if (!pixels_ || x < 0 || y < 0 || x >= width_ || y >= height_) return nullptr;
  const int64_t bpp = (int64_t(depth_) + 7) / 8;
  const int64_t at = (int64_t(y) * width_ + x) * bpp;
  if (at + bpp > size_) return nullptr;
  return pixels_ + at;
}

QBitMap* QBitMap::CreateClone(bool copyPixels) const {
  QBitMap* clone =
      new (std::nothrow) QBitMap(depth_, width_, height_, int(flags_ & ~uint32_t(EXTERNAL)));
  if (!clone || (pixels_ && !clone->pixels_)) {
    QERR("QBitMap::CreateClone", "Unable to create clone bitmap");
    delete clone;
    return nullptr;
  }
  if (copyPixels) clone->CopyFrom(this);
  return clone;
}

void QBitMap::CopyFrom(const QBitMap* src) {
  if (!src || !src->pixels_ || !pixels_ || src == this) return;
  memcpy(pixels_, src->pixels_, size_t(std::min(src->size_, size_)));
}

bool QBitMap::CopyPixelsFrom(const QBitMap* src, int sx, int sy, int wid, int hgt, int dx,
                             int dy) {
  if (depth_ != 32 || (src && src->depth_ != 32)) {
    QERR("QBitMap::CopyPixelsFrom", "Only implemented for depth=32");
    return false;
  }
  if (!src || !src->pixels_ || !pixels_) {
    QWARN("QBitMap::CopyPixelsFrom", "QBitMap:CopyPixelsFrom() no pixels in '%s'",
          !src ? "(null)" : (src->pixels_ ? "destination" : "source"));
    return false;
  }
  if (wid > width_) {
    QWARN("QBitMap::CopyPixelsFrom", "QBitMap:CopyPixelsFrom() swid>wid (%d>%d); capping", wid,
          width_);
    wid = width_;
  }
  if (hgt > height_) {
    QWARN("QBitMap::CopyPixelsFrom", "QBitMap:CopyPixelsFrom() shgt>hgt(%d>%d); capping", hgt,
          height_);
    hgt = height_;
  }
  const int64_t sn = src->Pixels32(), dn = Pixels32();
  for (int k = 0; k < hgt; ++k) {
    const int64_t srow = int64_t(src->height_) - sy - hgt + k;
    const int64_t drow = int64_t(height_) - hgt - dy + k;
    CopyRun(pixels_, dn, drow * width_ + dx, src->pixels_, sn, srow * src->width_ + sx, wid);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Rotation
// ---------------------------------------------------------------------------------------------

bool QBitMap::Rotate(int angle, const QRect* srcRect, QBitMap* dst, const QRect* dstRect) {
  if (angle != 0 && angle != 90 && angle != 180 && angle != 270) {
    QWARN("QBitMap::Rotate", "QBitMap:Rotate(); angle %d not supported", angle);
    return false;
  }
  if (!dst) {
    QWARN("QBitMap::Rotate", "QBitMap:Rotate(); no destination for '%s'", GetName());
    return false;
  }
  const QRect s = srcRect ? *srcRect : QRect{0, 0, width_, height_};
  const QRect d = dstRect ? *dstRect : QRect{0, 0, dst->width_, dst->height_};
  if (angle == 0) return dst->CopyPixelsFrom(this, s.x, s.y, s.wid, s.hgt, d.x, d.y);

  PixelMove m{pixels_, Pixels32(), width_, dst->pixels_, dst->Pixels32(), dst->width_, s, true};
  if (!m.src || !m.dst || s.wid <= 0 || s.hgt <= 0) return true;
  // Destination extents per angle; the move is unchecked only when both blocks hold every index.
  const int64_t w = s.wid, h = s.hgt;
  int64_t rowLo, rowHi, colLo, colHi;
  if (angle == 90) {
    rowLo = int64_t(d.y) + d.hgt - w, rowHi = int64_t(d.y) + d.hgt - 1;
    colLo = d.x, colHi = int64_t(d.x) + h - 1;
  } else if (angle == 180) {
    rowLo = d.y, rowHi = int64_t(d.y) + h - 1;
    colLo = d.x, colHi = int64_t(d.x) + w - 1;
  } else {
    rowLo = d.y, rowHi = int64_t(d.y) + w - 1;
    colLo = int64_t(d.x) + d.wid - h, colHi = int64_t(d.x) + d.wid - 1;
  }
  m.checked = !(Inside(s.y, int64_t(s.y) + h - 1, s.x, int64_t(s.x) + w - 1, width_, m.srcPixels) &&
                Inside(rowLo, rowHi, colLo, colHi, dst->width_, m.dstPixels));

  auto turn90 = [&](int i, int j, int64_t* row, int64_t* col) {
    *row = int64_t(d.y) + d.hgt - 1 - i;
    *col = int64_t(d.x) + j;
  };
  auto turn180 = [&](int i, int j, int64_t* row, int64_t* col) {
    *row = int64_t(d.y) + h - 1 - j;
    *col = int64_t(d.x) + w - 1 - i;
  };
  auto turn270 = [&](int i, int j, int64_t* row, int64_t* col) {
    *row = int64_t(d.y) + i;
    *col = int64_t(d.x) + d.wid - 1 - j;
  };
  if (m.checked) {
    if (angle == 90) m.Clipped(turn90);
    else if (angle == 180) m.Clipped(turn180);
    else m.Clipped(turn270);
  } else {
    if (angle == 90) m.Banded(turn90);
    else if (angle == 180) m.RowWise(turn180);
    else m.Banded(turn270);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Resizing and cropping
// ---------------------------------------------------------------------------------------------

void QBitMap::ScaleNearest(uint8_t* dst, int w, int h) const {
  const int64_t n = Pixels32();
  int64_t srcRow = 0, rowAcc = 0;
  for (int y = 0; y < h; ++y) {
    uint8_t* d = dst + int64_t(y) * w * 4;
    int64_t srcCol = 0, acc = 0;
    for (int x = 0; x < w; ++x, d += 4) {
      const int64_t si = srcRow * width_ + srcCol;
      if (si < n)
        memcpy(d, pixels_ + si * 4, 4);
      else
        memset(d, 0, 4);
      acc += width_;
      while (acc > w) {
        acc -= w;
        ++srcCol;
      }
    }
    rowAcc += height_;
    while (rowAcc > h) {
      rowAcc -= h;
      ++srcRow;
    }
  }
}

bool QBitMap::Resize(int width, int height, bool scaleContents) {
  if (!pixels_ || (width == width_ && height == height_)) return true;
  const int64_t bytes = BlockBytes(32, width, height);
  uint8_t* block = bytes > 0 ? static_cast<uint8_t*>(qmalloc(size_t(bytes))) : nullptr;
  if (!block) {
    QWARN("QBitMap::Resize", "QBitMap::Alloc() failed on %dx%d, depth %d", width, height, depth_);
    return false;
  }
  if (scaleContents) {
    const char* failure = nullptr;
    if (depth_ != 32 || int64_t(size_) < int64_t(width_) * height_ * 4) {
      failure = "source is not 32-bit";
    } else {
      failure = QGLScaleImage(width_, height_, pixels_, width, height, block);
    }
    if (failure) {
      QWARN("QBitMap::Resize", "QBitMap:Resize() failed; %s", failure);
      ScaleNearest(block, width, height);
    }
  }
  if (!(flags_ & EXTERNAL)) qfree(pixels_);
  flags_ &= ~uint32_t(EXTERNAL);
  pixels_ = block;
  width_ = width;
  height_ = height;
  size_ = int(bytes);
  depth_ = 32;
  return true;
}

bool QBitMap::CropTo(const QRect& r) {
  if (!pixels_ || r.wid <= 0 || r.hgt <= 0) {
    QWARN("QBitMap::CropTo", "QBitMap:CropTo() nothing to keep of '%s' (%dx%d)", GetName(), r.wid,
          r.hgt);
    return false;
  }
  QBitMap part(32, r.wid, r.hgt);
  if (!part.pixels_) return false;
  // What the rect takes from outside the picture comes out black, not as stale memory.
  memset(part.pixels_, 0, size_t(part.size_));
  if (!part.CopyPixelsFrom(this, r.x, r.y, r.wid, r.hgt, 0, 0)) return false;
  if (!Resize(r.wid, r.hgt, false)) return false;
  CopyFrom(&part);
  return true;
}
