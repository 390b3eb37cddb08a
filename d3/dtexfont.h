// DTexFont: a texture font, text drawn as textured quads cut from one glyph sheet.
//
// A font is a ".dtf" description (an INI file read with QIni) beside its glyph sheet ".tga" and,
// optionally, an outline sheet "_outline.tga". Every entry of the description's "chars" group is
// one glyph: a rectangle of the sheet (pixels, y from the top of the picture), a pen advance and
// a left bearing. The entry's code is the number that starts at the eleventh character of its
// full key ("chars.char65" is code 65); entries come in at most five ascending runs of
// consecutive codes, and a sixth run is a fatal error. The first entry sets the line height.
//
// Lookups keep a quirk on purpose: a code in the gap below a later run maps to a glyph of an
// earlier run; only the callers' min/max character check filters it. Glyph indices are still
// bounded by the glyphs actually read, so no lookup leaves the glyph arrays.
//
// Sheets are stored for a y-down 2D mode: Paint puts the bottom edge of a glyph's rectangle (in
// picture rows from the top) at the quad's edge y and the top edge at y + height, so the glyph
// must be upside down inside its rectangle of the sheet (tools/glimra-fontsheet writes it so).
//
// 8-bit text is UTF-8. A code the sheet has (inside min..max char) comes from the sheet; any
// other code above 255 is rendered on first use from "DejaVu Sans" (or the face fontconfig picks
// for that character) at the size whose line matches the sheet's, into an atlas texture of the
// font, and drawn from there on the same baseline, in the same colour and flags. A character
// no installed face has, and each byte that starts no valid UTF-8 sequence, is an outlined box.
// The atlas grows from 256 x 64 to 256 x 1024 pixels; when that is full it starts empty again.
// Only the rows that changed are uploaded. Without the face (warned once) every such code is a
// box. Codes up to 255 without a sheet glyph draw nothing and measure 0, as before.
//
// Ownership: the font owns its glyph arrays (counted allocator), its textures and its atlas.
// Loading with upload off reads the description and the sheet's size only, for measuring
// without OpenGL. Not copyable; main thread only (Paint needs the application's OpenGL context
// current).
#pragma once

#include <cstdint>
#include <memory>

#include "framework/qcolor.h"
#include "framework/qstring.h"

class DBitMapTexture;
class QBitMap;

// One glyph: eleven 32-bit words in this order.
struct DTexFontGlyph {
  int32_t code;
  int32_t x;       // pixels in the sheet
  int32_t y;       // pixels from the top of the sheet
  int32_t width;
  int32_t height;
  float advance;   // pen advance
  float bearingX;  // left bearing
  float uLeft;
  float vLow;      // 1 - (y + height) / sheet height
  float uRight;
  float vHigh;     // 1 - y / sheet height
};

class DTexFont {
 public:
  enum Flags : uint32_t {
    PREMULTIPLIED = 1,  // blend with source factor ONE instead of SRC_ALPHA
    BOLD = 2,           // every quad drawn twice, the second shifted by the bold offset
    HAS_UNICODE = 4,    // a glyph code above 255 was read
  };
  static constexpr int MAX_RANGES = 5;

  // An empty font (no glyphs, no texture).
  DTexFont();
  // Loads at once with upload on; test HasTexture for the outcome.
  explicit DTexFont(const char* name);
  ~DTexFont();
  DTexFont(const DTexFont&) = delete;
  DTexFont& operator=(const DTexFont&) = delete;

  // Reads "<name>.dtf" and "<name>.tga" (and "<name>_outline.tga" when the description asks),
  // replacing what the font held. False when the description cannot be read (warning "DTexFont:
  // Load(%s) failed") or the sheet cannot (silently: QFont::Create reports it); both leave the
  // font without glyphs. An entry without ".x" warns and ends the glyph list there; a sixth run
  // of codes ends the program (fatal "DTexFont (%s) has too many ranges"). With `upload` off no
  // texture is made: the sheet is read only for its size, and the font measures but never draws.
  bool Load(const char* name, bool upload = true);
  // True when the glyph sheet became a texture (the font can draw).
  bool HasTexture() const { return texture_ != nullptr; }
  bool HasOutlineTexture() const { return outlineTexture_ != nullptr; }

  // The glyph of `code` (main or outline record), or null when none; see the header text for
  // the gap quirk.
  const DTexFontGlyph* FindGlyph(int code, bool outline = false) const;

  // ---- Measuring ----
  // One character taken as a signed byte: codes 128-255 find no glyph and measure 0.
  float GetCharWidth(char c) const;
  // UTF-8 text of `len` bytes (-1: to the terminating zero), measured as Paint draws it (see
  // the header text); never reads past `len`.
  float GetStringWidth(const char* text, int len = -1) const;
  // The same over 16-bit codes.
  float GetStringWidth(const uint16_t* text, int len = -1) const;
  // Height of the first entry's glyph times scale Y; 0 without glyphs.
  float GetHeight() const;

  // ---- Drawing (dtexfont_paint.cpp) ----
  // Draws `len` bytes (-1: to the terminating zero) of UTF-8 text with the pen starting at
  // (x, y) and answers the pen x after the text truncated toward zero, x + GetStringWidth; x
  // unchanged without texture or text.
  int Paint(const char* text, float x, float y, int len = -1);
  // 16-bit text: always modulated by the colour, codes outside min..max skipped, a code inside
  // without glyph warns "DTexFont: can't find char 0x%x"; colour and alpha drawn in two passes.
  int Paint(const uint16_t* text, float x, float y, int len = -1);

  // ---- Settings ----
  void SetScale(float x, float y) { scaleX_ = x, scaleY_ = y; }
  float GetScaleX() const { return scaleX_; }
  float GetScaleY() const { return scaleY_; }
  // Slant X shears each quad: it is added to the x of the quad's edge at y + height.
  void SetSlant(float x, float y) { slantX_ = x, slantY_ = y; }
  float GetSlantX() const { return slantX_; }
  float GetSlantY() const { return slantY_; }
  void SetSpacing(float s) { spacing_ = s; }
  float GetSpacing() const { return spacing_; }
  void SetBoldOffset(float o) { boldOffset_ = o; }
  void SetColor(QColor c) { color_ = c; }
  QColor GetColor() const { return color_; }
  void SetFlags(uint32_t f) { flags_ = f; }
  void EnableFlags(uint32_t f) { flags_ |= f; }
  void DisableFlags(uint32_t f) { flags_ &= ~f; }
  uint32_t GetFlags() const { return flags_; }

  // True when at least one glyph code lies in the Arabic block 1536..1791.
  bool HasArabicChars() const;

  // ---- What was read ----
  const char* GetName() const { return name_.cstr(); }
  int GetVersion() const { return version_; }
  int GetMinChar() const { return minChar_; }
  int GetMaxChar() const { return maxChar_; }
  // Entries of "chars"; the glyphs actually read may be fewer (see GetGlyphsRead).
  int GetGlyphCount() const { return glyphCount_; }
  int GetGlyphsRead() const { return glyphsRead_; }
  const DTexFontGlyph* GetGlyph(int index) const;
  int GetRangeCount() const { return rangeCount_; }
  // First, last and base of run `k`; 0 outside 0..range count - 1.
  int GetRangeFirst(int k) const { return InRange(k) ? rangeFirst_[k] : 0; }
  int GetRangeLast(int k) const { return InRange(k) ? rangeLast_[k] : 0; }
  int GetRangeBase(int k) const { return InRange(k) ? rangeBase_[k] : 0; }
  float GetSheetWidth() const { return sheetW_; }
  float GetSheetHeight() const { return sheetH_; }

 private:
  struct GlyphDeleter {
    void operator()(DTexFontGlyph* p) const;
  };
  struct TextureDeleter {
    void operator()(DBitMapTexture* t) const;
  };
  struct Atlas;  // glyphs beyond the sheet (atlas file)
  struct AtlasDeleter {
    void operator()(Atlas* a) const;
  };
  using GlyphArray = std::unique_ptr<DTexFontGlyph[], GlyphDeleter>;
  using TexturePtr = std::unique_ptr<DBitMapTexture, TextureDeleter>;

  bool InRange(int k) const { return k >= 0 && k < rangeCount_; }
  void Release();
  // Reads a sheet; with upload, makes its texture too. False when the picture did not load.
  bool LoadSheet(const char* file, bool upload, TexturePtr* tex, float* w, float* h);
  // The sheet's texture; null when none could be made (paint file).
  static DBitMapTexture* MakeTexture(QBitMap* sheet, const char* name);
  // Glyph index of `code` by the runs, or -1.
  int LookupIndex(int code) const;
  void AddToRanges(int code);
  // Adds one glyph's advance plus spacing when min..max and a glyph allow it.
  float MeasuredAdvance(int code) const;
  // The glyph `code` (or -1) is drawn with, and whether it lies in the atlas; null when it
  // draws nothing.
  const DTexFontGlyph* Resolve(int code, bool* inAtlas) const;
  // The atlas glyph of `code`, rendered and placed on first use; the box when no face has it;
  // null without a line height or memory (atlas file).
  const DTexFontGlyph* AtlasGlyph(int code) const;
  // Brings the atlas texture up to date; false when it cannot draw (atlas file).
  bool UploadAtlas() const;
  void SelectAtlas() const;
  // Emits the quad(s) of one glyph and answers the pen advance (paint file).
  float EmitGlyph(const DTexFontGlyph* g, float x, float y) const;
  // Sets the GL state both paint paths share (paint file).
  void BeginPaint(bool modulate) const;
  void EndPaint() const;

  int version_ = 2;
  qstring name_;
  int minChar_ = 0;
  int maxChar_ = 0;
  int outline_ = 0;
  GlyphArray glyphs_;
  GlyphArray outlineGlyphs_;
  int glyphCount_ = 0;
  int glyphsRead_ = 0;
  int rangeFirst_[MAX_RANGES] = {};
  int rangeLast_[MAX_RANGES] = {};
  int rangeBase_[MAX_RANGES] = {};
  int rangeCount_ = 0;
  TexturePtr texture_;
  TexturePtr outlineTexture_;
  mutable std::unique_ptr<Atlas, AtlasDeleter> atlas_;
  float sheetW_ = 0.0f, sheetH_ = 0.0f;
  float outlineW_ = 0.0f, outlineH_ = 0.0f;
  bool haveOutlineSheet_ = false;
  float scaleX_ = 1.0f, scaleY_ = 1.0f;
  float slantX_ = 0.0f, slantY_ = 0.0f;
  float spacing_ = 0.0f;
  float boldOffset_ = 1.0f;
  QColor color_{255, 255, 255, 255};
  uint32_t flags_ = 0;
};
