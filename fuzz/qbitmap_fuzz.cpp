// Drives the bitmap operations that take rectangles and offsets with arbitrary values: whatever
// the numbers, no operation may touch memory outside a pixel block.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "framework/qbitmap.h"
#include "framework/qmem.h"
#include "fuzz/fuzz_util.h"

namespace {

struct Input {
  const uint8_t* data;
  size_t size;
  int Int() {
    uint32_t v = 0;
    const size_t n = size < 4 ? size : 4;
    memcpy(&v, data, n);
    data += n, size -= n;
    return int(v);
  }
  // Mostly small values, now and then anything.
  int Coord() {
    const int v = Int();
    return (v & 0x100) ? v : (v % 40);
  }
  QRect Rect() { return QRect{Coord(), Coord(), Coord(), Coord()}; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_util::SilenceLog();
  Input in{data, size};
  const int depth = (in.Int() & 1) ? 32 : 24;
  QBitMap a(depth, 1 + (in.Int() & 15), 1 + (in.Int() & 15));
  QBitMap b(32, 1 + (in.Int() & 15), 1 + (in.Int() & 15));
  if (a.GetBuffer()) memset(a.GetBuffer(), 0x5A, size_t(a.GetSize()));
  if (b.GetBuffer()) memset(b.GetBuffer(), 0xA5, size_t(b.GetSize()));
  while (in.size > 0) {
    const int op = in.Int() & 15;
    QRect r = in.Rect(), s = in.Rect();
    switch (op) {
      case 0: a.Fill(&r, QColor(uint32_t(in.Int())), in.Int() & 1); break;
      case 1: a.CopyPixelsFrom(&b, r.x, r.y, r.wid, r.hgt, s.x, s.y); break;
      case 2: b.Rotate(in.Int() % 4 * 90, &r, &a, &s); break;
      case 3: a.Rotate(in.Int() % 4 * 90, &r, &b, &s); break;
      case 4: a.InvertChannel(in.Int() & 3, r.x, r.y, r.wid, r.hgt); break;
      case 5: a.SetColorAt(r.x, r.y, QColor(0xFFu)); break;
      case 6: a.Resize(1 + (r.wid & 31), 1 + (r.hgt & 31), in.Int() & 1); break;
      case 7: b.CropTo(QRect{r.x, r.y, r.wid & 63, r.hgt & 63}); break;
      case 8: a.Blend(&b); a.CopyChannel(&b, r.x & 3, r.y & 3); a.MergeAlpha(&b); break;
      case 9: a.Accumulate(&b, r.x); b.CopyFrom(&a); break;
      case 10: a.MakeGray(); a.Lut(r.x, r.y); break;
      case 11: a.ScaleAlpha(r.x, r.y, r.wid); a.AlphaToMask(); break;
      case 12: {
        int n = 0;
        uint8_t* p = a.RLECompress(&n);
        qfree(p);
        break;
      }
      case 13: b.GetAddress(r.x, r.y); break;
      default: {
        QBitMap* c = a.CreateClone(r.x & 1);
        delete c;
        break;
      }
    }
  }
  return 0;
}
