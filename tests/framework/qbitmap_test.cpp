// QBitMap: allocation, rotations and top-down copies, pixel arithmetic, and the quirks that run
// past a rectangle but must stay inside the block (run under AddressSanitizer).
#include "framework/qbitmap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/qmem.h"
#include "support/logcapture.h"

namespace {

struct BitmapTest : ::testing::Test { LogCapture log_; };
using Rows = std::vector<std::vector<uint32_t>>;

// Pixel at column x of memory row `row` as 0xRRGGBBAA.
uint32_t Px(const QBitMap& bm, int x, int row) {
  const uint8_t* p = bm.GetAddress(x, row);
  if (!p) return 0xDEADBEEF;
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

void Put(QBitMap& bm, int x, int row, uint32_t rgba) {
  uint8_t* p = bm.GetAddress(x, row);
  p[0] = uint8_t(rgba >> 24), p[1] = uint8_t(rgba >> 16);
  p[2] = uint8_t(rgba >> 8), p[3] = uint8_t(rgba);
}

// The picture as seen on screen, top row first, each pixel's value.
Rows Screen(const QBitMap& bm) {
  Rows rows;
  for (int row = bm.GetHeight() - 1; row >= 0; --row) {
    rows.emplace_back();
    for (int x = 0; x < bm.GetWidth(); ++x) rows.back().push_back(Px(bm, x, row));
  }
  return rows;
}

// Numbers every pixel: (x, memory row) holds the packed value 10 * row + x + 1.
void Number(QBitMap& bm) {
  for (int row = 0; row < bm.GetHeight(); ++row)
    for (int x = 0; x < bm.GetWidth(); ++x) Put(bm, x, row, uint32_t(10 * row + x + 1));
}

}  // namespace

TEST_F(BitmapTest, AllocRefusesBadGeometryAndLeavesTheBitmapEmpty) {
  QBitMap bm(32, 2, 2);
  ASSERT_NE(bm.GetBuffer(), nullptr);
  EXPECT_EQ(bm.GetSize(), 16);
  for (auto [w, h] : {std::pair{0, 5}, std::pair{-2, 4}, std::pair{70000, 70000}}) {
    EXPECT_FALSE(bm.Alloc(32, w, h));
    EXPECT_EQ(bm.GetBuffer(), nullptr);
    EXPECT_EQ(bm.GetWidth(), 0);
    EXPECT_TRUE(log_.Seen("QBitMap::Alloc() failed on " + std::to_string(w) + "x" +
                          std::to_string(h) + ", depth 32, flags 0"));
  }
  QBitMap deep(24, 2, 2);
  EXPECT_TRUE(log_.Seen("Really only dep=32 is supported"));
  EXPECT_EQ(deep.GetSize(), 12);
}

TEST_F(BitmapTest, ExternalPixelsAreNeverFreed) {
  const int before = qmemGetCount();
  uint8_t block[2 * 1 * 4] = {1, 2, 3, 4, 5, 6, 7, 8};
  {
    QBitMap bm;
    ASSERT_TRUE(bm.Alloc(32, 2, 1, 0, block));
    EXPECT_EQ(bm.GetFlags() & QBitMap::EXTERNAL, QBitMap::EXTERNAL);
    // Reallocating drops the borrowed block without freeing it and owns the new one.
    ASSERT_TRUE(bm.Resize(1, 1, false));
    EXPECT_EQ(bm.GetFlags() & QBitMap::EXTERNAL, 0u);
    // A borrowed block may carry an empty picture; only owned blocks need a positive size.
    for (auto [w, h] : {std::pair{0, 1}, std::pair{2, 0}}) {
      ASSERT_TRUE(bm.Alloc(32, w, h, 0, block)) << w << "x" << h;
      EXPECT_EQ(bm.GetBuffer(), block);
      EXPECT_EQ(bm.GetSize(), 0);
      EXPECT_EQ(bm.GetWidth(), w);
    }
    EXPECT_FALSE(bm.Alloc(32, -1, 1, 0, block));
    EXPECT_EQ(bm.GetBuffer(), nullptr);
  }
  EXPECT_EQ(qmemGetCount(), before);
  EXPECT_EQ(block[7], 8);
}

TEST_F(BitmapTest, RotationsOfAnAsymmetricPictureOtherAnglesAndRectsPastTheBlock) {
  // On screen d e f over a b c (memory row 0).
  QBitMap src(32, 3, 2), dst(32, 2, 3);
  Number(src);
  const uint32_t a = 1, b = 2, c = 3, d = 11, e = 12, f = 13;
  const std::pair<int, Rows> turns[] = {
      {90, {{a, d}, {b, e}, {c, f}}},
      {180, {{c, b, a}, {f, e, d}}},
      {270, {{f, c}, {e, b}, {d, a}}}};
  for (const auto& [angle, want] : turns) {
    QBitMap turned(32, int(want[0].size()), int(want.size()));
    ASSERT_TRUE(src.Rotate(angle, nullptr, &turned, nullptr));
    EXPECT_EQ(Screen(turned), want) << angle;
  }
  dst.Fill(nullptr, QColor(0x11223344u));
  EXPECT_FALSE(src.Rotate(45, nullptr, &dst, nullptr));
  EXPECT_TRUE(log_.Seen("QBitMap:Rotate(); angle 45 not supported"));
  EXPECT_EQ(Px(dst, 1, 2), 0x11223344u);

  // A source rect one column right of the picture reads on into the next memory row, and the
  // pixel past the block is dropped: its destination keeps what it had.
  QBitMap half(32, 3, 2);
  half.Fill(nullptr, QColor(0x99u));
  const QRect shifted{1, 0, 3, 2};
  ASSERT_TRUE(src.Rotate(180, &shifted, &half, nullptr));
  EXPECT_EQ(Screen(half), (Rows{{11, 3, 2}, {0x99, 13, 12}}));
}

TEST_F(BitmapTest, AreaReduceAveragesTheCoveredAreaAndKeepsTheTopRowOnTop) {
  // 4 x 2 -> 2 x 1: each new pixel is the mean of a 2 x 2 block, per byte.
  QBitMap bm(32, 4, 2);
  const uint32_t top[] = {0x00000000, 0x04080C10, 0x10203040, 0x20406080};
  const uint32_t bottom[] = {0x02020202, 0x06060606, 0x30303030, 0x50505050};
  for (int x = 0; x < 4; ++x) Put(bm, x, 1, top[x]), Put(bm, x, 0, bottom[x]);
  ASSERT_TRUE(bm.AreaReduce(2, 1));
  EXPECT_EQ(Screen(bm), (Rows{{0x03040506, 0x2C384450}}));

  // 3 -> 2 across: the middle pixel is split half and half; rows stay where they were.
  QBitMap odd(32, 3, 2);
  for (int x = 0; x < 3; ++x) Put(odd, x, 1, x == 1 ? 0x000000FF : 0xF00000FF), Put(odd, x, 0, 0x0000F0FF);
  ASSERT_TRUE(odd.AreaReduce(2, 2));
  EXPECT_EQ(Screen(odd), (Rows{{0xA00000FF, 0xA00000FF}, {0x0000F0FF, 0x0000F0FF}}));

  // A flat picture stays flat through any ratio; growing, other depths and empty sizes are refused.
  QBitMap flat(32, 97, 61);
  flat.Fill(nullptr, QColor(0x80, 0x40, 0x20, 0xFF));
  ASSERT_TRUE(flat.AreaReduce(13, 7));
  for (int row = 0; row < 7; ++row)
    for (int x = 0; x < 13; ++x) ASSERT_EQ(Px(flat, x, row), 0x804020FFu);
  EXPECT_FALSE(flat.AreaReduce(14, 7));
  EXPECT_FALSE(flat.AreaReduce(0, 7));
  EXPECT_EQ(flat.GetWidth(), 13);
  QBitMap grey(8, 4, 4);
  EXPECT_FALSE(grey.AreaReduce(2, 2));
}

TEST_F(BitmapTest, CopyPixelsFromCountsRowsFromTheTopAndStaysInsideTheBlock) {
  QBitMap src(32, 4, 1), dst(32, 4, 3);
  Number(src);
  dst.Fill(nullptr, QColor(0u));
  // Top-down row 1, column 2: four pixels run on into the row above (memory order).
  ASSERT_TRUE(dst.CopyPixelsFrom(&src, 0, 0, 4, 1, 2, 1));
  EXPECT_EQ(Screen(dst), (Rows{{3, 4, 0, 0}, {0, 0, 1, 2}, {0, 0, 0, 0}}));
  // From the top row the same copy would leave the block: only what fits arrives.
  ASSERT_TRUE(dst.CopyPixelsFrom(&src, 0, 0, 4, 1, 2, 0));
  EXPECT_EQ(Screen(dst)[0], (std::vector<uint32_t>{3, 4, 1, 2}));
  // Too wide and too tall: capped with both messages, and the copy still happens.
  QBitMap big(32, 5, 4);
  Number(big);
  ASSERT_TRUE(dst.CopyPixelsFrom(&big, 0, 0, 5, 4, 0, 0));
  EXPECT_TRUE(log_.Seen("QBitMap:CopyPixelsFrom() swid>wid (5>4); capping"));
  EXPECT_TRUE(log_.Seen("QBitMap:CopyPixelsFrom() shgt>hgt(4>3); capping"));
  EXPECT_EQ(Screen(dst)[0], (std::vector<uint32_t>{31, 32, 33, 34}));
  QBitMap deep(24, 4, 1);
  EXPECT_FALSE(deep.CopyPixelsFrom(&src, 0, 0, 1, 1, 0, 0));
}

TEST_F(BitmapTest, MakeGrayTruncatesItsWeightedSum) {
  QBitMap bm(32, 4, 1);
  const uint32_t in[] = {0xFF000011u, 0x00FF0022u, 0x0000FF33u, 0xFFFFFF44u};
  for (int x = 0; x < 4; ++x) Put(bm, x, 0, in[x]);
  bm.MakeGray();  // white gives 254, not 255
  EXPECT_EQ(Screen(bm)[0], (std::vector<uint32_t>{0x35353511u, 0xB5B5B522u, 0x14141433u, 0xFEFEFE44u}));
}

TEST_F(BitmapTest, FillClipsRightAndBottomButLetsNegativeXRunOn) {
  QBitMap bm(32, 4, 3);
  bm.Fill(nullptr, QColor(0u));
  const QRect past{3, 1, 4, 5};
  bm.Fill(&past, QColor(0x07u));
  EXPECT_TRUE(log_.Seen("Fill r->x+r->wid>wid (3+4>4)"));
  EXPECT_EQ(Screen(bm), (Rows{{0, 0, 0, 0}, {0, 0, 0, 7}, {0, 0, 0, 7}}));

  // x = -3 becomes 0 and keeps its width 6: top-down row 1 (memory row 1) runs into row 2.
  bm.Fill(nullptr, QColor(0u));
  const QRect negative{-3, 1, 6, 1};
  bm.Fill(&negative, QColor(0x090909FFu), true);
  const uint32_t k = 0x09090900;  // alpha kept at 0
  EXPECT_EQ(Screen(bm), (Rows{{k, k, 0, 0}, {k, k, k, k}, {0, 0, 0, 0}}));
  // From the top row, and with absurd extents, the fill stops at the end of the block.
  const QRect top{-3, 0, 6, 1}, huge{-3, -3, 2000000000, 2000000000};
  bm.Fill(&top, QColor(0x0A00u));
  EXPECT_EQ(Screen(bm)[0], (std::vector<uint32_t>{0xA00, 0xA00, 0xA00, 0xA00}));
  bm.Fill(&huge, QColor(0x0B00u));
  EXPECT_EQ(Px(bm, 0, 0), 0xB00u);
  bm.SetColorAt(4, 0, QColor(9, 9, 9));
  EXPECT_TRUE(log_.Seen("QBitMap:SetColorAt(4,0) out of range (4x3)"));
}

TEST_F(BitmapTest, LutComparesItsFloorUnsignedAndStoresTheLowByte) {
  QBitMap bm(32, 3, 1);
  Put(bm, 0, 0, 0x101010FDu);  // alpha 253: lifted by mode 1 only
  Put(bm, 1, 0, 0x10101000u);  // alpha 0: never
  Put(bm, 2, 0, 0x404040FFu);
  bm.Lut(50, 0);
  EXPECT_EQ(Screen(bm)[0], (std::vector<uint32_t>{0x101010FDu, 0x10101000u, 0x404040FFu}));
  // 300 lifts everything to 44, and -1 (every luminance is below it) to 255.
  bm.Lut(300, 0);
  EXPECT_EQ(Px(bm, 2, 0), 0x2C2C2CFFu);
  bm.Lut(-1, 1);
  EXPECT_EQ(Screen(bm)[0], (std::vector<uint32_t>{0xFFFFFFFDu, 0x10101000u, 0xFFFFFFFFu}));
}

TEST_F(BitmapTest, ResizeWithoutGLScalesNearestNeighbour) {
  QBitMap bm(32, 4, 4);
  Number(bm);  // memory row r holds 10r+1 .. 10r+4
  ASSERT_TRUE(bm.Resize(2, 2, true));
  EXPECT_TRUE(log_.Seen("QBitMap:Resize() failed; no OpenGL context"));
  EXPECT_EQ(Screen(bm), (Rows{{11, 12}, {1, 2}}));
  QBitMap row(32, 2, 1);
  Number(row);
  ASSERT_TRUE(row.Resize(4, 1, true));
  EXPECT_EQ(Screen(row)[0], (std::vector<uint32_t>{1, 1, 1, 2}));
  EXPECT_FALSE(row.Resize(0, 3, true));
  EXPECT_EQ(row.GetWidth(), 4);
}

TEST_F(BitmapTest, BlendOfDifferentSizesTakesWhatBothHave) {
  QBitMap bm(32, 2, 1), other(32, 1, 1);
  Put(bm, 0, 0, 0x11223344u), Put(bm, 1, 0, 0x44556680u);
  Put(other, 0, 0, 0x0A141E28u);
  EXPECT_TRUE(bm.Blend(&other));
  EXPECT_EQ(Px(bm, 1, 0), 0x44556680u);
  EXPECT_FALSE(bm.Blend(nullptr));
  EXPECT_TRUE(log_.Seen("Source bitmap is not valid"));
}
