// System fonts: a face found by name through fontconfig, measured and rendered by FreeType, each
// character code compiled into one OpenGL display list holding a glBitmap.
//
// A face name need not exist: fontconfig answers its best substitute ("courier" and "ms sans
// serif" become whatever monospace and sans-serif faces the system has). Heights are cell
// heights in pixels (ascent plus descent), weights are GDI weights (0 default, 400 normal, 700
// bold). A list draws its glyph with the raster position on the baseline and moves it by the
// advance, like the platform's own font bitmaps.
//
// The builders share one process-wide face and one metrics record: each replaces them, and a
// QFont that wants to keep the face takes its own reference (QFUC_AddRef). Display lists are
// compiled only while an OpenGL context is current; without one the builders still open the
// face (so text can be measured) and answer list base 0. Main thread only; not reentrant.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

// Text metrics of a face at its size, in whole pixels.
struct QFontMetrics {
  int height = 0;   // ascent + descent
  int ascent = 0;
  int descent = 0;
  int internalLeading = 0;
  int averageWidth = 0;
  int maxWidth = 0;
};

// A FreeType face at one size; reference counted, opaque.
struct QFontFace;

// ---- Faces ----
// A new reference to the best match for `name`; null when fontconfig finds no file or FreeType
// cannot open it, with the library's error number in *error (the caller reports it).
QFontFace* QFUC_OpenFace(const char* name, int height, int weight, int* error);
// Another reference to `f` (null stays null).
QFontFace* QFUC_AddRef(QFontFace* f);
// Drops one reference; the last one closes the face. Null does nothing.
void QFUC_Release(QFontFace* f);
// Metrics of `f`; zeros for null.
QFontMetrics QFUC_GetMetrics(const QFontFace* f);
// A, B and C widths of `code` (left bearing, black-box width, the rest of the advance); false
// when there is no face or the glyph cannot be loaded.
bool QFUC_GetABCWidths(QFontFace* f, uint32_t code, float* a, float* b, float* c);
// Whole-pixel advance of the 8-bit code; 0 when there is no face or glyph.
int QFUC_GetCharWidth(QFontFace* f, uint8_t code);

// ---- Display lists ----
// True when an OpenGL context is current on this thread.
bool QFUC_HaveContext();
// `n` consecutive list names; 0 without a context or when OpenGL refuses.
uint32_t QFUC_GenLists(int n);
// Deletes lists made by QFUC_GenLists when a context is current; otherwise nothing.
void QFUC_DeleteLists(uint32_t base, int n);
// Compiles codes first .. first + count - 1 into lists listBase + offset onwards; a code the
// face has no glyph for draws the face's missing-glyph box. With `mappedOnly` only the codes the
// face maps are rendered; the box is rendered once into the first unmapped code's list and the
// other unmapped lists call that one. Answers the lists compiled (0 without face, base or
// context).
int QFUC_FillLists(QFontFace* f, uint32_t first, int count, uint32_t listBase, int offset,
                   bool mappedOnly = false);

// ---- Builders: each opens the shared face (warning "<builder>; can't create font %s/%d (Win
// error %d)" when it cannot, lists left empty), generates its lists and answers their base ----
// 256 lists, codes 0-255.
uint32_t QFUC_GenDefaultList(const char* face, int height, int weight);
// Codes 0-255 at 0, 1536-1790 at 256, 65136-65278 at 1792. Generates 1935 lists so that the
// last offset (1934) is its own: a block of 654 would leave offsets 654-1934 to other owners.
uint32_t QFUC_GenArabicList(const char* face, int height, int weight);
// 656 lists: codes 0-255 at 0, 256-654 at 256.
uint32_t QFUC_GenCyrillicGreekList(const char* face, int height, int weight);
// 2 lists: codes 8363-8364.
uint32_t QFUC_GenEuroList(const char* face, int height, int weight);
// 65535 lists for codes 0-65534; only the codes the face maps are rendered, the others call
// the missing-glyph box rendered once (about a second on Mesa's software renderer, most of it
// spent making the lists).
uint32_t QFUC_GenFullList(const char* face, int height, int weight);
// Lists each builder generates (the list count to delete).
constexpr int QFUC_DEFAULT_LISTS = 256;
constexpr int QFUC_ARABIC_LISTS = 1935;
constexpr int QFUC_CYRILLIC_GREEK_LISTS = 656;
constexpr int QFUC_EURO_LISTS = 2;
constexpr int QFUC_FULL_LISTS = 65535;

// The face and metrics the last builder left (borrowed; take a reference to keep the face).
QFontFace* QFUC_GetSharedFace();
QFontMetrics QFUC_GetSharedMetrics();
// Drops the shared face (process end, tests).
void QFUC_ReleaseShared();

// ---- Glyphs one at a time, as coverage for a texture font ----

// One rendered glyph: 8-bit coverage, `width` x `rows`, top row first; `left` and `top` place it
// against the pen and the baseline (top is the rows above the baseline).
struct QFontCoverage {
  std::vector<uint8_t> alpha;
  int width = 0, rows = 0, left = 0, top = 0;
  float advance = 0.0f;
};

// QFontGlyphSource: a face found by family name through fontconfig, and for each character it
// lacks the face fontconfig picks for that character, all at one pixels-per-em size, rendered
// anti-aliased by FreeType on demand. At most eight picked faces stay open; a ninth closes them
// all first. Owns its faces; main thread only.
class QFontGlyphSource {
 public:
  QFontGlyphSource();
  ~QFontGlyphSource();
  QFontGlyphSource(const QFontGlyphSource&) = delete;
  QFontGlyphSource& operator=(const QFontGlyphSource&) = delete;

  // Opens `family` at the largest size whose line (ascent and descent, each rounded up) is at
  // most `lineHeight` pixels. False, with FreeType's error number in *error (the caller reports
  // it), when fontconfig finds no file or FreeType cannot open it; the source then stays closed.
  bool Open(const char* family, int lineHeight, int* error);
  bool IsOpen() const;
  // Rows of the named face above the baseline (rounded up); 0 when closed.
  int GetAscent() const;
  // `code` from the named face, else from the face fontconfig picks for it; false when no
  // installed face maps it (fontconfig's character set and FreeType's map both asked) or the
  // glyph has no 8-bit rendering (a colour-only face).
  bool Render(uint32_t code, QFontCoverage* out);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
