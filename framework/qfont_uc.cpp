// System fonts through fontconfig and FreeType, compiled into glBitmap display lists.
#include "framework/qfont_uc.h"

#include <SDL.h>
#include <GL/gl.h>
#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "framework/qmessage.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define QFUC_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define QFUC_LSAN 1
#endif
#endif

struct QFontFace {
  FT_Face face = nullptr;
  int refs = 1;
  QFontMetrics metrics;
};

namespace {

FT_Library g_library = nullptr;
QFontFace* g_shared = nullptr;

FT_Library Library(int* error) {
  if (!g_library) {
    const FT_Error e = FT_Init_FreeType(&g_library);
    if (e) {
      g_library = nullptr;
      *error = e;
    }
  }
  return g_library;
}

struct PatternDeleter {
  void operator()(FcPattern* p) const { FcPatternDestroy(p); }
};
using PatternPtr = std::unique_ptr<FcPattern, PatternDeleter>;

// The font file fontconfig picks for the name, weight and pixel height; false when none.
// Loads fontconfig's configuration once. Its parser drops a few blocks for the life of the
// process; the leak checker is told to look away from them.
bool InitFontconfig() {
#ifdef QFUC_LSAN
  __lsan::ScopedDisabler keep;
#endif
  return FcInit() != FcFalse;
}

bool MatchFile(const char* name, int height, int weight, std::string* file, int* index) {
  if (!InitFontconfig()) return false;
  PatternPtr pat(FcPatternCreate());
  if (!pat) return false;
  FcPatternAddString(pat.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(name));
  if (weight > 0) FcPatternAddInteger(pat.get(), FC_WEIGHT, FcWeightFromOpenType(weight));
  if (height > 0) FcPatternAddDouble(pat.get(), FC_PIXEL_SIZE, double(height));
  FcConfigSubstitute(nullptr, pat.get(), FcMatchPattern);
  FcDefaultSubstitute(pat.get());
  FcResult result = FcResultNoMatch;
  PatternPtr match(FcFontMatch(nullptr, pat.get(), &result));
  if (!match) return false;
  FcChar8* path = nullptr;
  if (FcPatternGetString(match.get(), FC_FILE, 0, &path) != FcResultMatch || !path) return false;
  *file = reinterpret_cast<const char*>(path);
  if (FcPatternGetInteger(match.get(), FC_INDEX, 0, index) != FcResultMatch) *index = 0;
  return true;
}

int Pixels(FT_Pos v) { return int(std::lround(double(v) / 64.0)); }

void ReadMetrics(QFontFace* f) {
  const FT_Size_Metrics& m = f->face->size->metrics;
  QFontMetrics& out = f->metrics;
  out.ascent = int(std::ceil(double(m.ascender) / 64.0));
  out.descent = int(std::ceil(double(-m.descender) / 64.0));
  out.height = out.ascent + out.descent;
  out.internalLeading = out.height - int(m.y_ppem);
  out.maxWidth = Pixels(m.max_advance);
  // The platform's average width is that of the lower-case x, near enough.
  out.averageWidth = FT_Load_Char(f->face, 'x', FT_LOAD_DEFAULT) == 0
                         ? Pixels(f->face->glyph->advance.x)
                         : out.maxWidth / 2;
}

// Rows of a one-bit FreeType bitmap, bottom row first, each (width + 7) / 8 bytes.
std::vector<GLubyte> FlipMono(const FT_Bitmap& bm) {
  const int rowBytes = (int(bm.width) + 7) / 8;
  std::vector<GLubyte> out(size_t(rowBytes) * bm.rows);
  for (unsigned r = 0; r < bm.rows; ++r) {
    const unsigned char* src = bm.pitch >= 0
                                   ? bm.buffer + size_t(r) * size_t(bm.pitch)
                                   : bm.buffer + size_t(bm.rows - 1 - r) * size_t(-bm.pitch);
    std::copy(src, src + rowBytes, out.begin() + size_t(bm.rows - 1 - r) * rowBytes);
  }
  return out;
}

// A rendered glyph as glBitmap takes it.
struct MonoGlyph {
  std::vector<GLubyte> bits;  // empty for a glyph without ink (a space)
  int width = 0, rows = 0, left = 0, top = 0;
  float advance = 0;
};

// Renders the glyph loaded into the face's slot; false when the load failed.
bool Render(FT_Face face, FT_Error loaded, MonoGlyph* out) {
  if (loaded) return false;
  const FT_GlyphSlot g = face->glyph;
  const FT_Bitmap& bm = g->bitmap;
  out->bits.clear();
  if (bm.pixel_mode == FT_PIXEL_MODE_MONO && bm.buffer) out->bits = FlipMono(bm);
  out->width = int(bm.width);
  out->rows = int(bm.rows);
  out->left = g->bitmap_left;
  out->top = g->bitmap_top;
  out->advance = float(g->advance.x) / 64.0f;
  return true;
}

void Compile(uint32_t list, const MonoGlyph& gl) {
  const bool empty = gl.bits.empty();
  glNewList(list, GL_COMPILE);
  glBitmap(empty ? 0 : GLsizei(gl.width), empty ? 0 : GLsizei(gl.rows), GLfloat(-gl.left),
           GLfloat(gl.rows - gl.top), gl.advance, 0.0f, empty ? nullptr : gl.bits.data());
  glEndList();
}

constexpr FT_Int32 kMonoLoad = FT_LOAD_RENDER | FT_LOAD_TARGET_MONO | FT_LOAD_MONOCHROME;

// One builder: the shared face, its lists, and the codes it fills.
struct Block {
  uint32_t first;
  int count;
  int offset;
};

uint32_t Build(const char* builder, const char* face, int height, int weight, int lists,
               const Block* blocks, int nBlocks, bool mappedOnly) {
  QFUC_ReleaseShared();
  int error = 0;
  g_shared = QFUC_OpenFace(face, height, weight, &error);
  if (!g_shared)
    QWARN(builder, "%s; can't create font %s/%d (Win error %d)", builder, face ? face : "",
          height, error);
  const uint32_t base = QFUC_GenLists(lists);
  for (int i = 0; i < nBlocks; ++i)
    QFUC_FillLists(g_shared, blocks[i].first, blocks[i].count, base, blocks[i].offset,
                   mappedOnly);
  return base;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Faces
// ---------------------------------------------------------------------------------------------

QFontFace* QFUC_OpenFace(const char* name, int height, int weight, int* error) {
  int dummy = 0;
  if (!error) error = &dummy;
  *error = 0;
  FT_Library lib = Library(error);
  if (!lib) return nullptr;
  std::string file;
  int index = 0;
  if (!MatchFile(name ? name : "", height, weight, &file, &index)) {
    *error = FT_Err_Cannot_Open_Resource;
    return nullptr;
  }
  FT_Face face = nullptr;
  FT_Error e = FT_New_Face(lib, file.c_str(), index, &face);
  if (e) {
    *error = e;
    return nullptr;
  }
  // A positive platform height is the cell height, ascent plus descent.
  FT_Size_RequestRec req = {FT_SIZE_REQUEST_TYPE_CELL, 0, FT_Long(height > 0 ? height : 12) * 64,
                            0, 0};
  e = FT_Request_Size(face, &req);
  if (e && face->num_fixed_sizes > 0) e = FT_Select_Size(face, 0);
  if (e) {
    FT_Done_Face(face);
    *error = e;
    return nullptr;
  }
  QFontFace* f = new QFontFace;
  f->face = face;
  ReadMetrics(f);
  return f;
}

QFontFace* QFUC_AddRef(QFontFace* f) {
  if (f) ++f->refs;
  return f;
}

void QFUC_Release(QFontFace* f) {
  if (!f || --f->refs > 0) return;
  FT_Done_Face(f->face);
  delete f;
}

QFontMetrics QFUC_GetMetrics(const QFontFace* f) { return f ? f->metrics : QFontMetrics(); }

bool QFUC_GetABCWidths(QFontFace* f, uint32_t code, float* a, float* b, float* c) {
  if (!f || FT_Load_Char(f->face, code, FT_LOAD_DEFAULT) != 0) return false;
  const FT_Glyph_Metrics& m = f->face->glyph->metrics;
  *a = float(m.horiBearingX) / 64.0f;
  *b = float(m.width) / 64.0f;
  *c = float(m.horiAdvance) / 64.0f - *a - *b;
  return true;
}

int QFUC_GetCharWidth(QFontFace* f, uint8_t code) {
  if (!f || FT_Load_Char(f->face, code, FT_LOAD_DEFAULT) != 0) return 0;
  return Pixels(f->face->glyph->advance.x);
}

// ---------------------------------------------------------------------------------------------
// Display lists
// ---------------------------------------------------------------------------------------------

bool QFUC_HaveContext() { return SDL_GL_GetCurrentContext() != nullptr; }

uint32_t QFUC_GenLists(int n) {
  if (n <= 0 || !QFUC_HaveContext()) return 0;
  return glGenLists(n);
}

void QFUC_DeleteLists(uint32_t base, int n) {
  if (base && n > 0 && QFUC_HaveContext()) glDeleteLists(base, n);
}

int QFUC_FillLists(QFontFace* f, uint32_t first, int count, uint32_t listBase, int offset,
                   bool mappedOnly) {
  if (!f || !listBase || count <= 0 || !QFUC_HaveContext()) return 0;
  glPushClientAttrib(GL_CLIENT_PIXEL_STORE_BIT);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glPixelStorei(GL_UNPACK_SKIP_ROWS, 0);
  glPixelStorei(GL_UNPACK_SKIP_PIXELS, 0);
  glPixelStorei(GL_UNPACK_LSB_FIRST, GL_FALSE);
  int filled = 0;
  const uint32_t end = first + uint32_t(count);
  MonoGlyph glyph;
  if (!mappedOnly) {
    for (uint32_t code = first; code < end; ++code) {
      // A code the face lacks loads glyph 0, its missing-glyph box.
      if (!Render(f->face, FT_Load_Char(f->face, code, kMonoLoad), &glyph)) continue;
      Compile(listBase + uint32_t(offset) + (code - first), glyph);
      ++filled;
    }
  } else {
    // Walking the face's own map renders only the codes it has. The unmapped bulk of a large
    // block shows the missing-glyph box: rendered once into the first unmapped code's list,
    // which the other unmapped lists call.
    MonoGlyph missing;
    const bool haveMissing = Render(f->face, FT_Load_Glyph(f->face, 0, kMonoLoad), &missing);
    uint32_t boxList = 0;
    FT_UInt gindex = 0;
    FT_ULong next = FT_Get_First_Char(f->face, &gindex);
    while (gindex && next < first) next = FT_Get_Next_Char(f->face, next, &gindex);
    for (uint32_t code = first; code < end; ++code) {
      const uint32_t list = listBase + uint32_t(offset) + (code - first);
      const bool mapped = gindex && next == code;
      if (mapped) next = FT_Get_Next_Char(f->face, next, &gindex);
      if (mapped && Render(f->face, FT_Load_Char(f->face, code, kMonoLoad), &glyph)) {
        Compile(list, glyph);
      } else if (boxList) {
        glNewList(list, GL_COMPILE);
        glCallList(boxList);
        glEndList();
      } else if (haveMissing) {
        Compile(list, missing);
        boxList = list;
      } else {
        continue;
      }
      ++filled;
    }
  }
  glPopClientAttrib();
  return filled;
}

// ---------------------------------------------------------------------------------------------
// Builders
// ---------------------------------------------------------------------------------------------

uint32_t QFUC_GenDefaultList(const char* face, int height, int weight) {
  static const Block blocks[] = {{0, 256, 0}};
  return Build("QFUC_GenDefaultList", face, height, weight, QFUC_DEFAULT_LISTS, blocks, 1,
               false);
}

uint32_t QFUC_GenArabicList(const char* face, int height, int weight) {
  static const Block blocks[] = {{0, 256, 0}, {1536, 255, 256}, {65136, 143, 1792}};
  return Build("QFUC_GenArabicList", face, height, weight, QFUC_ARABIC_LISTS, blocks, 3, false);
}

uint32_t QFUC_GenCyrillicGreekList(const char* face, int height, int weight) {
  static const Block blocks[] = {{0, 256, 0}, {256, 399, 256}};
  return Build("QFUC_GenCyrillicGreekList", face, height, weight, QFUC_CYRILLIC_GREEK_LISTS,
               blocks, 2, false);
}

uint32_t QFUC_GenEuroList(const char* face, int height, int weight) {
  static const Block blocks[] = {{8363, 2, 0}};
  return Build("QFUC_GenCompleteList", face, height, weight, QFUC_EURO_LISTS, blocks, 1, false);
}

uint32_t QFUC_GenFullList(const char* face, int height, int weight) {
  static const Block blocks[] = {{0, 65535, 0}};
  return Build("QFUC_GenCompleteList", face, height, weight, QFUC_FULL_LISTS, blocks, 1, true);
}

QFontFace* QFUC_GetSharedFace() { return g_shared; }

QFontMetrics QFUC_GetSharedMetrics() { return QFUC_GetMetrics(g_shared); }

void QFUC_ReleaseShared() {
  QFUC_Release(g_shared);
  g_shared = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Glyphs one at a time
// ---------------------------------------------------------------------------------------------

namespace {

constexpr int kMaxPicked = 8;
constexpr FT_Int32 kGrayLoad = FT_LOAD_RENDER | FT_LOAD_TARGET_LIGHT;

struct FaceDeleter {
  void operator()(FT_FaceRec_* f) const { FT_Done_Face(f); }
};
using FacePtr = std::unique_ptr<FT_FaceRec_, FaceDeleter>;

struct CharSetDeleter {
  void operator()(FcCharSet* c) const { FcCharSetDestroy(c); }
};

int LineHeight(FT_Face face) {
  const FT_Size_Metrics& m = face->size->metrics;
  return int(std::ceil(double(m.ascender) / 64.0)) + int(std::ceil(double(-m.descender) / 64.0));
}

// The file fontconfig picks for `code` (its character set must hold it), preferring `family`.
bool MatchFileFor(const std::string& family, uint32_t code, std::string* file, int* index) {
  if (!InitFontconfig()) return false;
  PatternPtr pat(FcPatternCreate());
  std::unique_ptr<FcCharSet, CharSetDeleter> want(FcCharSetCreate());
  if (!pat || !want || !FcCharSetAddChar(want.get(), code)) return false;
  FcPatternAddString(pat.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(family.c_str()));
  FcPatternAddCharSet(pat.get(), FC_CHARSET, want.get());
  FcConfigSubstitute(nullptr, pat.get(), FcMatchPattern);
  FcDefaultSubstitute(pat.get());
  FcResult result = FcResultNoMatch;
  PatternPtr match(FcFontMatch(nullptr, pat.get(), &result));
  FcCharSet* has = nullptr;
  FcChar8* path = nullptr;
  if (!match || FcPatternGetCharSet(match.get(), FC_CHARSET, 0, &has) != FcResultMatch ||
      !FcCharSetHasChar(has, code) ||
      FcPatternGetString(match.get(), FC_FILE, 0, &path) != FcResultMatch || !path)
    return false;
  *file = reinterpret_cast<const char*>(path);
  if (FcPatternGetInteger(match.get(), FC_INDEX, 0, index) != FcResultMatch) *index = 0;
  return true;
}

// Copies the glyph in the slot; false for a bitmap that is not 1- or 8-bit grey.
bool TakeCoverage(FT_Face face, QFontCoverage* out) {
  const FT_GlyphSlot g = face->glyph;
  const FT_Bitmap& bm = g->bitmap;
  if (bm.pixel_mode != FT_PIXEL_MODE_GRAY && bm.pixel_mode != FT_PIXEL_MODE_MONO &&
      bm.rows > 0 && bm.width > 0)
    return false;
  out->width = int(bm.width);
  out->rows = int(bm.rows);
  out->left = g->bitmap_left;
  out->top = g->bitmap_top;
  out->advance = float(g->advance.x) / 64.0f;
  out->alpha.assign(size_t(out->width) * size_t(out->rows), 0);
  for (int r = 0; r < out->rows; ++r) {
    const unsigned char* src = bm.pitch >= 0
                                   ? bm.buffer + size_t(r) * size_t(bm.pitch)
                                   : bm.buffer + size_t(out->rows - 1 - r) * size_t(-bm.pitch);
    uint8_t* dst = out->alpha.data() + size_t(r) * size_t(out->width);
    for (int c = 0; c < out->width; ++c)
      dst[c] = bm.pixel_mode == FT_PIXEL_MODE_GRAY ? src[c]
                                                    : ((src[c / 8] >> (7 - c % 8)) & 1) * 255;
  }
  return true;
}

}  // namespace

struct QFontGlyphSource::Impl {
  struct Picked {
    std::string file;
    int index;
    FacePtr face;
  };
  std::string family;
  FacePtr face;
  int pixels = 0;
  int ascent = 0;
  std::vector<Picked> picked;

  FT_Face PickedFace(const std::string& file, int index) {
    for (Picked& p : picked)
      if (p.file == file && p.index == index) return p.face.get();
    if (picked.size() >= size_t(kMaxPicked)) picked.clear();
    int error = 0;
    FT_Library lib = Library(&error);
    FT_Face f = nullptr;
    if (!lib || FT_New_Face(lib, file.c_str(), index, &f) != 0) return nullptr;
    FacePtr owned(f);
    // A face of fixed bitmap sizes only (colour emoji) cannot take the size: left out.
    if (FT_Set_Pixel_Sizes(f, 0, FT_UInt(pixels)) != 0) return nullptr;
    picked.push_back(Picked{file, index, std::move(owned)});
    return f;
  }
};

QFontGlyphSource::QFontGlyphSource() : impl_(new Impl) {}

QFontGlyphSource::~QFontGlyphSource() = default;

bool QFontGlyphSource::Open(const char* family, int lineHeight, int* error) {
  int dummy = 0;
  if (!error) error = &dummy;
  *error = 0;
  impl_.reset(new Impl);
  FT_Library lib = Library(error);
  if (!lib) return false;
  std::string file;
  int index = 0;
  if (!MatchFile(family ? family : "", 0, 0, &file, &index)) {
    *error = FT_Err_Cannot_Open_Resource;
    return false;
  }
  FT_Face f = nullptr;
  if ((*error = FT_New_Face(lib, file.c_str(), index, &f)) != 0) return false;
  FacePtr face(f);
  int pixels = std::max(lineHeight, 4);
  for (; pixels > 4; --pixels)
    if (FT_Set_Pixel_Sizes(f, 0, FT_UInt(pixels)) == 0 && LineHeight(f) <= lineHeight) break;
  if ((*error = FT_Set_Pixel_Sizes(f, 0, FT_UInt(pixels))) != 0) return false;
  impl_->family = family ? family : "";
  impl_->pixels = pixels;
  impl_->ascent = int(std::ceil(double(f->size->metrics.ascender) / 64.0));
  impl_->face = std::move(face);
  return true;
}

bool QFontGlyphSource::IsOpen() const { return impl_->face != nullptr; }

int QFontGlyphSource::GetAscent() const { return impl_->ascent; }

bool QFontGlyphSource::Render(uint32_t code, QFontCoverage* out) {
  FT_Face face = impl_->face.get();
  if (!face || !out) return false;
  if (FT_Get_Char_Index(face, code) == 0) {
    std::string file;
    int index = 0;
    if (!MatchFileFor(impl_->family, code, &file, &index)) return false;
    face = impl_->PickedFace(file, index);
    if (!face || FT_Get_Char_Index(face, code) == 0) return false;
  }
  return FT_Load_Char(face, code, kGrayLoad) == 0 && TakeCoverage(face, out);
}
