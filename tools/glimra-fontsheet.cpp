// glimra-fontsheet: renders a TrueType font with FreeType into a texture font, a glyph sheet
// "<out>.tga" (32-bit Targa: white, coverage in alpha) and its description "<out>.dtf".
//   glimra-fontsheet OUT [FONTFILE [PIXELS]]
// Defaults: /usr/share/fonts/truetype/dejavu/DejaVuSans.ttf at 14 pixels per em; the shipped
// overlay font data/fonts/din14 is made with them.
//
// Codes 32-126 and 160-255 are written as two runs, in ascending order, as the font reader
// wants. Every glyph rectangle is one line high (ascent plus descent), since the reader takes
// the line height from the first entry. Advance and left bearing come from the font.
//
// Orientation: DTexFont::Paint maps the bottom edge of a glyph's rectangle (rows counted from
// the top of the picture) to the quad's edge at y, and the top edge to y + height. The canvas's
// 2D text mode has y growing downward, so for upright text each glyph is stored upside down
// inside its rectangle: the rectangle's first picture row holds the line's lowest row.
#include <ft2build.h>
#include FT_FREETYPE_H

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "framework/qbitmap.h"

namespace {

constexpr int kSheetWidth = 256;
constexpr int kPad = 1;  // keeps linear filtering from reaching a neighbour

struct Glyph {
  int code;
  int x = 0, y = 0, wid = 0;
  float advance = 0, bearing = 0;
  int left = 0, top = 0;  // bitmap placement against the pen and the baseline
  std::vector<unsigned char> alpha;  // wid x rows, top row first
  int rows = 0;
};

bool Render(FT_Face face, int code, Glyph* g) {
  if (FT_Load_Char(face, FT_ULong(code), FT_LOAD_RENDER | FT_LOAD_TARGET_LIGHT) != 0) return false;
  const FT_GlyphSlot s = face->glyph;
  const FT_Bitmap& bm = s->bitmap;
  g->code = code;
  g->wid = int(bm.width);
  g->rows = int(bm.rows);
  g->left = s->bitmap_left;
  g->top = s->bitmap_top;
  g->advance = float(s->advance.x) / 64.0f;
  g->bearing = float(s->bitmap_left);
  g->alpha.assign(size_t(g->wid) * size_t(g->rows), 0);
  for (int r = 0; r < g->rows; ++r) {
    const unsigned char* src = bm.buffer + (bm.pitch >= 0 ? r : g->rows - 1 - r) *
                                               std::abs(bm.pitch);
    for (int c = 0; c < g->wid; ++c) g->alpha[size_t(r) * g->wid + c] = src[c];
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: glimra-fontsheet OUT [FONTFILE [PIXELS]]\n");
    return 2;
  }
  const std::string out = argv[1];
  const char* fontFile = argc > 2 ? argv[2] : "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
  const int pixels = argc > 3 ? atoi(argv[3]) : 14;
  if (pixels < 4 || pixels > 200) {
    fprintf(stderr, "glimra-fontsheet: pixel size '%d' outside 4..200\n", pixels);
    return 2;
  }

  FT_Library lib = nullptr;
  FT_Face face = nullptr;
  if (FT_Init_FreeType(&lib) != 0 || FT_New_Face(lib, fontFile, 0, &face) != 0 ||
      FT_Set_Pixel_Sizes(face, 0, FT_UInt(pixels)) != 0) {
    fprintf(stderr, "glimra-fontsheet: can't open font '%s'\n", fontFile);
    return 1;
  }
  const int ascent = int(std::ceil(double(face->size->metrics.ascender) / 64.0));
  const int descent = int(std::ceil(double(-face->size->metrics.descender) / 64.0));
  const int lineH = ascent + descent;

  std::vector<Glyph> glyphs;
  for (int code = 32; code <= 255; ++code) {
    if (code > 126 && code < 160) continue;
    Glyph g;
    if (!Render(face, code, &g)) {
      fprintf(stderr, "glimra-fontsheet: no glyph for code %d\n", code);
      return 1;
    }
    glyphs.push_back(std::move(g));
  }

  // Shelf packing, left to right, one line high per shelf.
  int x = kPad, y = kPad;
  for (Glyph& g : glyphs) {
    if (x + g.wid + kPad > kSheetWidth) {
      x = kPad;
      y += lineH + kPad;
    }
    g.x = x;
    g.y = y;
    x += g.wid + kPad;
  }
  const int sheetH = y + lineH + kPad;

  QBitMap sheet(32, kSheetWidth, sheetH);
  if (!sheet.GetBuffer()) return 1;
  // White everywhere, so filtering at glyph edges blends toward white, not black.
  uint8_t* px = sheet.GetBuffer();
  for (int i = 0; i < sheet.GetSize() / 4; ++i) {
    px[4 * i + 0] = px[4 * i + 1] = px[4 * i + 2] = 255;
    px[4 * i + 3] = 0;
  }
  for (const Glyph& g : glyphs) {
    for (int r = 0; r < g.rows; ++r) {
      const int lineRow = ascent - g.top + r;  // 0 = top row of the line
      if (lineRow < 0 || lineRow >= lineH) continue;
      const int picRow = g.y + (lineH - 1 - lineRow);  // upside down in its rectangle
      const int memRow = sheetH - 1 - picRow;          // bitmap rows run bottom-up
      for (int c = 0; c < g.wid; ++c) {
        uint8_t* p = sheet.GetAddress(g.x + c, memRow);
        if (p) p[3] = g.alpha[size_t(r) * g.wid + c];
      }
    }
  }
  if (!sheet.Write((out + ".tga").c_str(), 1)) return 1;

  FILE* f = fopen((out + ".dtf").c_str(), "w");
  if (!f) {
    fprintf(stderr, "glimra-fontsheet: can't write '%s.dtf'\n", out.c_str());
    return 1;
  }
  fprintf(f, "; %s at %d pixels, made by glimra-fontsheet\n", fontFile, pixels);
  fprintf(f, "general\n{\n  version=2\n  minchar=32\n  maxchar=255\n  outline=0\n}\n");
  fprintf(f, "chars\n{\n");
  for (const Glyph& g : glyphs)
    fprintf(f, "  char%d\n  {\n    x=%d\n    y=%d\n    wid=%d\n    hgt=%d\n    advance=%g\n"
               "    bearingx=%g\n  }\n",
            g.code, g.x, g.y, g.wid, lineH, double(g.advance), double(g.bearing));
  fprintf(f, "}\n");
  const bool ok = fclose(f) == 0;
  FT_Done_Face(face);
  FT_Done_FreeType(lib);
  printf("%s: %zu glyphs, line height %d, sheet %d x %d\n", out.c_str(), glyphs.size(), lineH,
         kSheetWidth, sheetH);
  return ok ? 0 : 1;
}
