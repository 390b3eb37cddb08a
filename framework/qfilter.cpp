// Pixel filters: brightness, fade, grey and colorize.
#include "framework/qfilter.h"

#include <algorithm>

#include "framework/qbitmap.h"
#include "framework/qmessage.h"

namespace {

// Pixels a filter may touch: width x height, but never past the block.
int64_t FilterPixels(const QBitMap* bm) {
  if (!bm || !bm->GetBuffer()) return 0;
  const int64_t wanted = int64_t(std::max(bm->GetWidth(), 0)) * std::max(bm->GetHeight(), 0);
  return std::min<int64_t>(wanted, bm->GetSize() / 4);
}

// Looks up `count` bytes every 4 bytes from `p`.
void ApplyTable(uint8_t* p, int64_t pixels, const uint8_t* table, int first, int count) {
  for (; pixels > 0; --pixels, p += 4)
    for (int c = first; c < first + count; ++c) p[c] = table[p[c]];
}

// Process-wide grey tables. R[255] is non-zero once they are built: that is the built mark.
int g_grayR[256], g_grayG[256], g_grayB[256];

void BuildGrayTables() {
  if (g_grayR[255] != 0) return;
  for (int i = 0; i < 256; ++i) {
    g_grayG[i] = i * 58 / 100;
    g_grayB[i] = i * 13 / 100;
  }
  // The mark goes last, so a table is never seen as built before it is.
  for (int i = 0; i < 256; ++i) g_grayR[i] = i * 29 / 100;
}

}  // namespace

void QFilter::Do(QBitMap* /*bitmap*/) { QERR("QFilter::Do", "QFilter::Do abstract call"); }

// ---------------------------------------------------------------------------------------------
// Brightness
// ---------------------------------------------------------------------------------------------

void QFilterBrightness::Do(QBitMap* bitmap) { Apply(bitmap, Amount()); }

void QFilterBrightness::Apply(QBitMap* bitmap, int amount) {
  const int a = std::clamp(amount, -100, 100);
  const int64_t n = FilterPixels(bitmap);
  if (a == 0 || n == 0) return;
  uint8_t table[256];
  for (int i = 0; i < 256; ++i)
    table[i] = uint8_t(a > 0 ? i + a * (255 - i) / 100 : i * (a + 100) / 100);
  ApplyTable(bitmap->GetBuffer(), n, table, 0, 3);
}

// ---------------------------------------------------------------------------------------------
// Fade
// ---------------------------------------------------------------------------------------------

void QFilterFade::Do(QBitMap* bitmap) { Apply(bitmap, Amount()); }

void QFilterFade::Apply(QBitMap* bitmap, int amount) {
  const int a = std::clamp(amount, -100, 100);
  const int64_t n = FilterPixels(bitmap);
  if (a == 0 || n == 0) return;
  uint8_t table[256];
  for (int i = 0; i < 256; ++i)
    table[i] = uint8_t(a > 0 ? i * (100 - a) / 100 : i + (-a) * (255 - i) / 100);
  ApplyTable(bitmap->GetBuffer(), n, table, 3, 1);
}

// ---------------------------------------------------------------------------------------------
// Grey
// ---------------------------------------------------------------------------------------------

void QFilterGray::Do(QBitMap* bitmap) { Apply(bitmap, Amount()); }

void QFilterGray::Apply(QBitMap* bitmap, int amount) {
  const int a = std::clamp(amount, 0, 128);
  const int64_t n = FilterPixels(bitmap);
  if (n == 0) return;
  BuildGrayTables();
  uint8_t* p = bitmap->GetBuffer();
  for (int64_t i = 0; i < n; ++i, p += 4) {
    const int l = g_grayR[p[0]] + g_grayG[p[1]] + g_grayB[p[2]];
    for (int c = 0; c < 3; ++c) p[c] = uint8_t(p[c] + (l - p[c]) * a / 128);
  }
}

// ---------------------------------------------------------------------------------------------
// Colorize
// ---------------------------------------------------------------------------------------------

void QFilterColorize::Do(QBitMap* bitmap) { Apply(bitmap, Amount(), tint_); }

void QFilterColorize::Apply(QBitMap* bitmap, int enable, QColor tint) {
  QINFO("QFilterColorize::Do", "QFilter0Colorize\n");
  const int64_t n = FilterPixels(bitmap);
  if (enable == 0 || n == 0) return;
  const unsigned tr = unsigned(tint.GetR()), tg = unsigned(tint.GetG()), tb = unsigned(tint.GetB());
  uint8_t* p = bitmap->GetBuffer();
  for (int64_t i = 0; i < n; ++i, p += 4) {
    const unsigned l = ((p[0] + 2u * p[1]) * 29u + p[2] * 13u) / 100u;
    p[0] = uint8_t(tr * l / 255);
    p[1] = uint8_t(tg * l / 255);
    p[2] = uint8_t(tb * l / 255);
  }
}
