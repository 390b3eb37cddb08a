// DTexFont: reading the description and the sheets, glyph lookup and measuring.
#include "d3/dtexfont.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "framework/qstring.h"
#include "framework/image/qimage.h"
#include "framework/qini.h"
#include "framework/qmem.h"
#include "framework/qmessage.h"

namespace {

// The code starts after "chars." and four more characters that are never looked at.
constexpr int kCodeOffset = 10;

// atoi's reading of the key's tail, without its undefined overflow: out-of-range numbers are
// held to the int range.
int CodeFromKey(const qstring& key) {
  if (key.Length() <= kCodeOffset) return 0;
  errno = 0;
  long v = strtol(key.cstr() + kCodeOffset, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return int(v);
}

// Full key of a chars entry plus a field suffix.
const char* Field(const qstring& key, const char* suffix, qstring* buf) {
  buf->Format("%s.%s", key.cstr(), suffix);
  return buf->cstr();
}

void SetCoords(DTexFontGlyph* g, float w, float h) {
  g->uLeft = float(g->x) / w;
  g->uRight = g->uLeft + float(g->width) / w;
  const float top = float(g->y) / h;
  const float bottom = top + float(g->height) / h;
  // Sheet rows run from the top; texture space runs from the bottom.
  g->vLow = 1.0f - bottom;
  g->vHigh = 1.0f - top;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------------------------

void DTexFont::GlyphDeleter::operator()(DTexFontGlyph* p) const { qfree(p); }

DTexFont::DTexFont() = default;

DTexFont::DTexFont(const char* name) { Load(name, true); }

DTexFont::~DTexFont() { Release(); }

void DTexFont::Release() {
  glyphs_.reset();
  outlineGlyphs_.reset();
  texture_.reset();
  outlineTexture_.reset();
  atlas_.reset();
  glyphCount_ = glyphsRead_ = rangeCount_ = 0;
  sheetW_ = sheetH_ = outlineW_ = outlineH_ = 0.0f;
  haveOutlineSheet_ = false;
  flags_ &= ~uint32_t(HAS_UNICODE);
}

// ---------------------------------------------------------------------------------------------
// Loading
// ---------------------------------------------------------------------------------------------

bool DTexFont::LoadSheet(const char* file, bool upload, TexturePtr* tex, float* w, float* h) {
  // The Targa reader is silent about a missing file; QFont::Create names the font instead.
  QImage sheet;
  if (!sheet.Read(file) || sheet.GetWidth() <= 0 || sheet.GetHeight() <= 0) return false;
  *w = float(sheet.GetWidth());
  *h = float(sheet.GetHeight());
  if (upload) tex->reset(MakeTexture(&sheet, name_.cstr()));
  return true;
}

bool DTexFont::Load(const char* name, bool upload) {
  Release();
  name_ = name ? name : "";
  qstring file;
  file.Format("%s.dtf", name_.cstr());
  QIni ini(file.cstr(), QIni::SILENT);
  if (!ini.IsFound()) {
    QWARN("DTexFont::Load", "DTexFont:Load(%s) failed", name_.cstr());
    return false;
  }
  minChar_ = ini.GetInt("general.minchar", 0);
  maxChar_ = ini.GetInt("general.maxchar", 0);
  version_ = ini.GetInt("general.version", 2);
  outline_ = ini.GetInt("general.outline", 0);

  int count = 0;
  {
    QIniIterator it(&ini, "chars");
    while (it.GetNext()) ++count;
  }
  const size_t bytes = (size_t(count) + 1) * sizeof(DTexFontGlyph);
  glyphs_.reset(static_cast<DTexFontGlyph*>(qcalloc(bytes)));
  outlineGlyphs_.reset(static_cast<DTexFontGlyph*>(qcalloc(bytes)));
  if (!glyphs_ || !outlineGlyphs_) {
    QWARN("DTexFont::Load", "DTexFont(%s): no memory for '%d' glyphs", name_.cstr(), count);
    Release();
    return false;
  }
  glyphCount_ = count;

  file.Format("%s.tga", name_.cstr());
  if (!LoadSheet(file.cstr(), upload, &texture_, &sheetW_, &sheetH_)) {
    Release();
    return false;
  }
  if (outline_ > 0) {
    file.Format("%s_outline.tga", name_.cstr());
    haveOutlineSheet_ = LoadSheet(file.cstr(), upload, &outlineTexture_, &outlineW_, &outlineH_);
  }

  QIniIterator it(&ini, "chars");
  qstring key, buf;
  int i = 0;
  for (const QIniNode* n = it.GetNext(); n && i < glyphCount_; n = it.GetNext(), ++i) {
    n->GetFullPath(&key);
    DTexFontGlyph* g = &glyphs_[i];
    g->x = ini.GetInt(Field(key, "x", &buf), -1);
    if (g->x == -1) {
      QWARN("DTexFont::Load", "No X defined for texfont %s, entry %d\n", name_.cstr(), i);
      break;
    }
    g->y = ini.GetInt(Field(key, "y", &buf), 0);
    g->width = ini.GetInt(Field(key, "wid", &buf), 0);
    if (version_ >= 2) {
      g->advance = float(ini.GetFloat(Field(key, "advance", &buf), double(g->width) + 1.0));
      g->bearingX = float(ini.GetFloat(Field(key, "bearingx", &buf), 0.0));
    } else {
      g->advance = float(g->width) + 1.0f;
      g->bearingX = 0.0f;
    }
    g->height = ini.GetInt(Field(key, "hgt", &buf), 0);
    g->code = CodeFromKey(key);
    if (g->code > 255) flags_ |= HAS_UNICODE;
    AddToRanges(g->code);
    SetCoords(g, sheetW_, sheetH_);
    glyphsRead_ = i + 1;

    if (haveOutlineSheet_) {
      DTexFontGlyph* o = &outlineGlyphs_[i];
      o->code = g->code;
      o->advance = g->advance;
      o->bearingX = g->bearingX;
      o->x = ini.GetInt(Field(key, "outline.x", &buf), -1);
      o->y = ini.GetInt(Field(key, "outline.y", &buf), -1);
      o->width = ini.GetInt(Field(key, "outline.wid", &buf), 0);
      o->height = ini.GetInt(Field(key, "outline.hgt", &buf), 0);
      SetCoords(o, outlineW_, outlineH_);
    }
  }

  for (int k = 0; k < rangeCount_; ++k)
    rangeBase_[k] = k == 0 ? 0 : rangeBase_[k - 1] + (rangeLast_[k - 1] - rangeFirst_[k - 1] + 1);
  return true;
}

void DTexFont::AddToRanges(int code) {
  if (rangeCount_ == 0) {
    rangeFirst_[0] = rangeLast_[0] = code;
    rangeCount_ = 1;
    return;
  }
  int& last = rangeLast_[rangeCount_ - 1];
  if (int64_t(code) == int64_t(last) + 1) {
    last = code;
    return;
  }
  if (rangeCount_ >= MAX_RANGES) qfatal("DTexFont (%s) has too many ranges", name_.cstr());
  rangeFirst_[rangeCount_] = rangeLast_[rangeCount_] = code;
  ++rangeCount_;
}

// ---------------------------------------------------------------------------------------------
// Lookup and measuring
// ---------------------------------------------------------------------------------------------

int DTexFont::LookupIndex(int code) const {
  for (int k = 0; k < rangeCount_; ++k) {
    if (rangeLast_[k] < code) continue;
    // A code in the gap below this run still maps when the index is not negative.
    const int64_t index = int64_t(rangeBase_[k]) - rangeFirst_[k] + code;
    return index >= 0 && index < glyphsRead_ ? int(index) : -1;
  }
  return -1;
}

const DTexFontGlyph* DTexFont::FindGlyph(int code, bool outline) const {
  const int index = LookupIndex(code);
  if (index < 0) return nullptr;
  if (outline) return haveOutlineSheet_ ? &outlineGlyphs_[index] : nullptr;
  return &glyphs_[index];
}

const DTexFontGlyph* DTexFont::GetGlyph(int index) const {
  return index >= 0 && index < glyphsRead_ ? &glyphs_[index] : nullptr;
}

float DTexFont::GetCharWidth(char c) const {
  const DTexFontGlyph* g = FindGlyph(static_cast<signed char>(c));
  return g ? scaleX_ * g->advance + spacing_ : 0.0f;
}

float DTexFont::MeasuredAdvance(int code) const {
  if (code < minChar_ || code > maxChar_) return 0.0f;
  const DTexFontGlyph* g = FindGlyph(code);
  return g ? scaleX_ * g->advance + spacing_ : 0.0f;
}

const DTexFontGlyph* DTexFont::Resolve(int code, bool* inAtlas) const {
  *inAtlas = false;
  if (code >= minChar_ && code <= maxChar_) {
    const DTexFontGlyph* g = FindGlyph(code);
    if (g) return g;
  }
  if (code >= 0 && code <= 255) return nullptr;
  *inAtlas = true;
  return AtlasGlyph(code);
}

float DTexFont::GetStringWidth(const char* text, int len) const {
  if (!text) return 0.0f;
  if (len < 0) len = int(strlen(text));
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* end = p + len;
  float w = 0.0f;
  bool inAtlas = false;
  while (p < end) {
    const DTexFontGlyph* g = Resolve(qutf8decode(&p, end), &inAtlas);
    if (g) w += scaleX_ * g->advance + spacing_;
  }
  return w;
}

float DTexFont::GetStringWidth(const uint16_t* text, int len) const {
  if (!text) return 0.0f;
  float w = 0.0f;
  for (int i = 0; (len < 0 || i < len) && text[i]; ++i) w += MeasuredAdvance(text[i]);
  return w;
}

float DTexFont::GetHeight() const {
  return glyphs_ ? float(glyphs_[0].height) * scaleY_ : 0.0f;
}

bool DTexFont::HasArabicChars() const {
  for (int i = 0; i < glyphsRead_; ++i)
    if (glyphs_[i].code >= 1536 && glyphs_[i].code <= 1791) return true;
  return false;
}
