// Pixel filters: the amounts' clamping and edge values, the control read on every Do, and the
// abstract base.
#include "framework/qfilter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "framework/qbitmap.h"
#include "framework/qmessage.h"

namespace {

std::vector<std::string> g_errors;
void Capture(const char* /*header*/, const char* text) { g_errors.push_back(text); }

// A 2 x 1 bitmap: a dark translucent pixel and a light opaque one.
struct Picture {
  QBitMap bm{32, 2, 1};
  Picture(uint32_t a = 0x204060C0u, uint32_t b = 0xC0A080FFu) {
    Set(0, a);
    Set(1, b);
  }
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

TEST(QFilterBase, AbstractDoReportsAndChangesNothing) {
  g_errors.clear();
  QMessageHandler old = qSetErrHandler(Capture);
  Picture pic;
  QFilter filter;
  filter.Do(&pic.bm);
  qSetErrHandler(old);
  ASSERT_EQ(g_errors.size(), 1u);
  EXPECT_NE(g_errors[0].find("QFilter::Do abstract call"), std::string::npos);
  EXPECT_EQ(pic.Get(0), 0x204060C0u);
  EXPECT_STREQ(QFilterGray().ClassName(), "QFilterGray");
}

TEST(QFilterBrightness, ClampsAndMovesTowardWhiteOrBlack) {
  QControl amount(150);
  QFilterBrightness filter(&amount);
  Picture pic;
  filter.Do(&pic.bm);  // 150 acts as 100
  EXPECT_EQ(pic.Get(0), 0xFFFFFFC0u);
  EXPECT_EQ(pic.Get(1), 0xFFFFFFFFu);

  Picture dark;
  amount.SetValue(-100);
  filter.Do(&dark.bm);
  EXPECT_EQ(dark.Get(0), 0x000000C0u);

  Picture half;
  amount.SetValue(50);  // 0x20 + 50 * (255 - 32) / 100 = 143
  filter.Do(&half.bm);
  EXPECT_EQ(half.Get(0) >> 24, 143u);
  amount.SetValue(-50);  // 0x20 * 50 / 100 = 16
  Picture lower;
  filter.Do(&lower.bm);
  EXPECT_EQ(lower.Get(0) >> 24, 16u);
}

TEST(QFilterFade, ChangesOnlyAlpha) {
  QControl amount(100);
  QFilterFade filter(&amount);
  Picture pic;
  filter.Do(&pic.bm);
  EXPECT_EQ(pic.Get(0), 0x20406000u);
  EXPECT_EQ(pic.Get(1), 0xC0A08000u);
  amount.SetValue(-100);
  filter.Do(&pic.bm);
  EXPECT_EQ(pic.Get(0), 0x204060FFu);
  amount.SetValue(0);
  filter.Do(&pic.bm);
  EXPECT_EQ(pic.Get(0), 0x204060FFu);
}

TEST(QFilterGray, FullAndPartialGrey) {
  QControl amount(200);  // acts as 128
  QFilterGray filter(&amount);
  Picture pic(0xFF000080u, 0x00FF00FFu);
  filter.Do(&pic.bm);
  EXPECT_EQ(pic.Get(0), 0x49494980u);  // L = 73
  EXPECT_EQ(pic.Get(1), 0x939393FFu);  // L = 147

  Picture half(0xFF000080u);
  amount.SetValue(64);  // 255 + (73 - 255) * 64 / 128 = 164; 0 + 73 * 64 / 128 = 36
  filter.Do(&half.bm);
  EXPECT_EQ(half.Get(0), 0xA4242480u);
  amount.SetValue(-5);
  Picture same;
  filter.Do(&same.bm);
  EXPECT_EQ(same.Get(0), 0x204060C0u);
}

TEST(QFilterColorize, TintsByLuminanceWhenEnabled) {
  QControl enable(0);
  QFilterColorize filter(&enable, QColor(255, 128, 0));
  Picture pic(0xFFFFFF80u, 0x808080FFu);
  filter.Do(&pic.bm);
  EXPECT_EQ(pic.Get(0), 0xFFFFFF80u);
  enable.SetValue(1);
  filter.Do(&pic.bm);
  EXPECT_EQ(pic.Get(0), 0xFF800080u);
  EXPECT_EQ(pic.Get(1), 0x804000FFu);  // L = 128: 128, 64, 0
}

TEST(QFilterBounds, EmptyAndShortBitmapsAreSafe) {
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
