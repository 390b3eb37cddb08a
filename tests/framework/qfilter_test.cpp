// Pixel filters: clamped amounts, edge values, the control read on every Do, short blocks.
#include "framework/qfilter.h"

#include <gtest/gtest.h>

#include <cstring>

#include "framework/qbitmap.h"
#include "support/logcapture.h"

namespace {

// A 2 x 1 bitmap: by default a dark translucent pixel and a light opaque one.
struct Picture {
  QBitMap bm{32, 2, 1};
  explicit Picture(uint32_t a = 0x204060C0u, uint32_t b = 0xC0A080FFu) { Set(0, a), Set(1, b); }
  void Set(int x, uint32_t rgba) {
    uint8_t* p = bm.GetAddress(x, 0);
    p[0] = uint8_t(rgba >> 24), p[1] = uint8_t(rgba >> 16);
    p[2] = uint8_t(rgba >> 8), p[3] = uint8_t(rgba);
  }
  uint32_t Get(int x) const {
    const uint8_t* p = bm.GetAddress(x, 0);
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
  }
};

}  // namespace

TEST(QFilter, AmountsAreClampedAndReadOnEveryDo) {
  QControl amount;  // one control for all: each Do must read its current value
  QFilterBrightness bright(&amount);
  QFilterFade fade(&amount);
  QFilterGray gray(&amount);
  QFilterColorize tint(&amount, QColor(255, 128, 0));
  const uint32_t a = 0x204060C0u, b = 0xC0A080FFu, red = 0xFF000080u, green = 0x00FF00FFu;
  const struct { QFilter* filter; int amount; uint32_t in0, in1, out0, out1; } cases[] = {
      {&bright, 150, a, b, 0xFFFFFFC0u, 0xFFFFFFFFu},  // acts as 100
      {&bright, -100, a, b, 0x000000C0u, 0x000000FFu},
      {&bright, 50, a, b, 0x8F9FAFC0u, 0xDFCFBFFFu},   // 0x20 + 50 * (255 - 0x20) / 100 = 143
      {&bright, -50, a, b, 0x102030C0u, 0x605040FFu},  // 0x20 * 50 / 100 = 16
      {&fade, 100, a, b, 0x20406000u, 0xC0A08000u},    // alpha only
      {&fade, -100, 0x20406000u, b, 0x204060FFu, b},
      {&fade, 0, a, b, a, b},
      {&gray, 200, red, green, 0x49494980u, 0x939393FFu},  // acts as 128; L = 73 and 147
      {&gray, 64, red, green, 0xA4242480u, 0x49C949FFu},   // 255 + (73 - 255) * 64 / 128 = 164
      {&gray, -5, a, b, a, b},
      {&tint, 0, 0xFFFFFF80u, b, 0xFFFFFF80u, b},
      {&tint, 1, 0xFFFFFF80u, 0x808080FFu, 0xFF800080u, 0x804000FFu},  // L = 128: 128, 64, 0
  };
  for (const auto& c : cases) {
    Picture pic(c.in0, c.in1);
    amount.SetValue(c.amount);
    c.filter->Do(&pic.bm);
    EXPECT_EQ((std::pair{pic.Get(0), pic.Get(1)}), (std::pair{c.out0, c.out1}))
        << c.filter->ClassName() << " " << c.amount;
  }
}

TEST(QFilter, EmptyAndShortBitmapsAreSafe) {
  QControl amount(100);
  QBitMap empty;
  QFilterBrightness(&amount).Do(&empty);
  QFilterGray(&amount).Do(nullptr);
  // A 24-bit block is shorter than width x height x 4: the filter stops at its end.
  QBitMap deep(24, 3, 3);
  ASSERT_EQ(deep.GetSize(), 27);
  memset(deep.GetBuffer(), 0xFF, 27);
  QFilterFade(&amount).Do(&deep);
  QFilterColorize(&amount).Do(&deep);
  EXPECT_EQ(deep.GetBuffer()[23], 0);     // alpha of the sixth and last whole pixel
  EXPECT_EQ(deep.GetBuffer()[26], 0xFF);  // the three bytes after it are no pixel
}
