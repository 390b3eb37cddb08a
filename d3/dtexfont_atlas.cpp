// DTexFont: the atlas of glyphs beyond the sheet, rendered on demand, and its texture.
#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "d3/dtexfont.h"
#include "d3/dtexture.h"
#include "framework/qbitmap.h"
#include "framework/qfont_uc.h"
#include "framework/qmessage.h"

namespace {

constexpr const char* kFamily = "DejaVu Sans";
constexpr int kWidth = 256;
constexpr int kFirstHeight = 64;
constexpr int kMaxHeight = 1024;
constexpr int kPad = 1;  // keeps linear filtering from reaching a neighbour
constexpr int kBox = -1;  // the key of the box glyph

}  // namespace

struct DTexFont::Atlas {
  QFontGlyphSource source;
  int lineH = 0;
  int ascent = 0;
  std::unordered_map<int, DTexFontGlyph> glyphs;  // y holds the glyph's first texture row
  std::unique_ptr<QBitMap> pixels;  // white, coverage in alpha; memory rows are texture rows
  int height = 0;
  int penX = kPad, shelf = kPad;
  int dirtyFirst = INT_MAX, dirtyEnd = 0;
  bool remade = true;  // the texture must be made again (new size)
  TexturePtr texture;

  void SetCoords(DTexFontGlyph* g) const {
    g->uLeft = float(g->x) / kWidth;
    g->uRight = float(g->x + g->width) / kWidth;
    // The line's top row lies at the lower texture row: the edge y of a quad is its top.
    g->vLow = float(g->y) / float(height);
    g->vHigh = float(g->y + lineH) / float(height);
  }

  bool Grow() {
    const int h = height ? height * 2 : kFirstHeight;
    std::unique_ptr<QBitMap> next(new QBitMap(32, kWidth, h));
    if (!next->GetBuffer()) return false;
    next->Fill(nullptr, QColor(255, 255, 255, 0));
    if (height) memcpy(next->GetBuffer(), pixels->GetBuffer(), size_t(kWidth) * height * 4);
    pixels = std::move(next);
    height = h;
    for (auto& kv : glyphs) SetCoords(&kv.second);
    remade = true;
    return true;
  }

  // Room for a glyph `w` wide; starts the atlas over when it is full at its largest.
  bool Place(int w, int* x, int* y) {
    if (penX + w + kPad > kWidth) penX = kPad, shelf += lineH + kPad;
    while (shelf + lineH + kPad > height) {
      if (height >= kMaxHeight) {
        glyphs.clear();
        penX = shelf = kPad;
        pixels->Fill(nullptr, QColor(255, 255, 255, 0));
        remade = true;
        continue;
      }
      if (!Grow()) return false;
    }
    *x = penX, *y = shelf;
    penX += w + kPad;
    return true;
  }

  // Writes coverage rows (top row first, placed `top` rows above the baseline) into the cell.
  void Put(int x, int y, const QFontCoverage& c) {
    for (int r = 0; r < c.rows; ++r) {
      const int lineRow = ascent - c.top + r;
      if (lineRow < 0 || lineRow >= lineH) continue;
      uint8_t* row = pixels->GetBuffer() + (size_t(y + lineRow) * kWidth + size_t(x)) * 4;
      const uint8_t* src = c.alpha.data() + size_t(r) * c.width;
      for (int col = 0; col < c.width; ++col) row[size_t(col) * 4 + 3] = src[col];
    }
    dirtyFirst = std::min(dirtyFirst, y);
    dirtyEnd = std::max(dirtyEnd, y + lineH);
  }

  // An outlined rectangle from about cap height to the baseline.
  QFontCoverage Box() const {
    QFontCoverage c;
    c.width = std::max(4, lineH / 2);
    c.top = std::max(3, ascent - lineH / 6);
    c.rows = c.top;
    c.left = 1;
    c.advance = float(c.width + 2);
    c.alpha.assign(size_t(c.width) * c.rows, 0);
    for (int r = 0; r < c.rows; ++r)
      for (int col = 0; col < c.width; ++col)
        if (r == 0 || r == c.rows - 1 || col == 0 || col == c.width - 1)
          c.alpha[size_t(r) * c.width + col] = 255;
    return c;
  }
};

void DTexFont::AtlasDeleter::operator()(Atlas* a) const { delete a; }

const DTexFontGlyph* DTexFont::AtlasGlyph(int code) const {
  if (!atlas_) {
    const int lineH = glyphs_ && glyphsRead_ > 0 ? glyphs_[0].height : 0;
    if (lineH <= 0 || lineH > kMaxHeight / 4) return nullptr;
    atlas_.reset(new Atlas);
    atlas_->lineH = lineH;
    int error = 0;
    if (atlas_->source.Open(kFamily, lineH, &error)) {
      atlas_->ascent = atlas_->source.GetAscent();
    } else {
      QWARN("DTexFont::AtlasGlyph", "DTexFont(%s): no face '%s' (error %d); characters beyond "
            "the sheet show as boxes", name_.cstr(), kFamily, error);
      atlas_->ascent = lineH * 3 / 4;
    }
  }
  Atlas& a = *atlas_;
  auto it = a.glyphs.find(code);
  if (it != a.glyphs.end()) return &it->second;
  QFontCoverage c;
  if (code < 0 || !a.source.Render(uint32_t(code), &c)) {
    if (code == kBox) {
      c = a.Box();
    } else {
      // Kept under its own code too, so that fontconfig is asked once.
      const DTexFontGlyph* box = AtlasGlyph(kBox);
      if (!box) return nullptr;
      DTexFontGlyph g = *box;
      g.code = code;
      return &a.glyphs.emplace(code, g).first->second;
    }
  }
  // A glyph wider than four lines is cut: the atlas keeps its rows short.
  const int w = std::min({c.width, 4 * a.lineH, kWidth - 2 * kPad});
  int x = 0, y = 0;
  if (!a.Place(w, &x, &y)) return nullptr;
  QFontCoverage cut = c;
  if (w < c.width) {
    cut.alpha.clear();
    for (int r = 0; r < c.rows; ++r)
      cut.alpha.insert(cut.alpha.end(), c.alpha.begin() + size_t(r) * c.width,
                       c.alpha.begin() + size_t(r) * c.width + w);
    cut.width = w;
  }
  a.Put(x, y, cut);
  DTexFontGlyph g{};
  g.code = code;
  g.x = x;
  g.y = y;
  g.width = w;
  g.height = a.lineH;
  g.advance = c.advance;
  g.bearingX = float(c.left);
  a.SetCoords(&g);
  return &a.glyphs.emplace(code, g).first->second;
}

bool DTexFont::UploadAtlas() const {
  if (!atlas_ || !atlas_->height) return false;
  Atlas& a = *atlas_;
  if (a.remade || !a.texture) {
    a.texture.reset(MakeTexture(a.pixels.get(), name_.cstr()));
    a.remade = false;
  } else if (a.dirtyFirst < a.dirtyEnd) {
    a.texture->UpdateRows(a.pixels.get(), a.dirtyFirst, a.dirtyEnd - a.dirtyFirst);
  }
  a.dirtyFirst = INT_MAX, a.dirtyEnd = 0;
  return a.texture != nullptr;
}

void DTexFont::SelectAtlas() const {
  if (atlas_ && atlas_->texture) atlas_->texture->Select();
}
