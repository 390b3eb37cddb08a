// QFont: texture and system fonts behind one interface; hex text conversions; the
// application's system fonts.
#include "framework/qfont.h"

#include <cstdio>
#include <cstring>

#include "d3/dtexfont.h"
#include "framework/qmessage.h"
#include "framework/qopengl.h"

namespace {

constexpr int kWeights[] = {0, 500, 700, 400, 400};

// Pixel height the application's system fonts are made at.
constexpr int kSystemFontHeight = 13;

QFont* g_systemFonts[2] = {nullptr, nullptr};

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

void QFont::TexFontDeleter::operator()(DTexFont* f) const { delete f; }

// ---------------------------------------------------------------------------------------------
// Construction
// ---------------------------------------------------------------------------------------------

QFont::QFont(const char* name) : QObject(name) {}

QFont::QFont(const char* name, int size, int style, int weightIndex, int extra)
    : QObject(name), size_(size), style_(style), weightIndex_(weightIndex), extra_(extra) {}

QFont::~QFont() { ReleaseSystem(); }

void QFont::ReleaseSystem() {
  QFUC_DeleteLists(listBase_, listCount_);
  listBase_ = 0;
  listCount_ = 0;
  QFUC_Release(face_);
  face_ = nullptr;
}

int QFont::WeightFromIndex(int index) {
  return index >= 0 && index < int(sizeof(kWeights) / sizeof(kWeights[0])) ? kWeights[index] : 0;
}

void QFont::SetResX(int r) {
  if (created_) {
    QERR("QFont::SetResX", "QFont::SetResX(); can't modify after Create()");
    return;
  }
  resX_ = r;
}

void QFont::SetResY(int r) {
  if (created_) {
    QERR("QFont::SetResY", "QFont::SetResY(); can't modify after Create()");
    return;
  }
  resY_ = r;
}

// ---------------------------------------------------------------------------------------------
// Create
// ---------------------------------------------------------------------------------------------

bool QFont::Create() {
  if (texFont_) {
    QERR("QFont::Create", "QFont:Create(); texFont (%s) was already created", GetName());
    texFont_.reset();
  }
  if (IsTextureFont()) {
    texFont_.reset(new DTexFont(GetName()));
    if (!texFont_->HasTexture()) {
      QWARN("QFont::Create", "Couldn't load texture of tex font '%s'", GetName());
      texFont_.reset();
      return false;
    }
    if (texFont_->GetFlags() & DTexFont::HAS_UNICODE) flags_ |= HAS_UNICODE;
    created_ = 1;
    return true;
  }

  ReleaseSystem();
  QGLMakeAppContextCurrent();  // the builders compile lists only with a context
  const int weight = WeightFromIndex(weightIndex_);
  switch (fontType_) {
    case TYPE_DEFAULT: {
      int error = 0;
      face_ = QFUC_OpenFace(GetName(), size_, weight, &error);
      if (!face_)
        QWARN("QFont::Create", "QFUC_GenDefaultList; can't create font %s/%d (Win error %d)",
              GetName(), size_, error);
      listBase_ = QFUC_GenLists(QFUC_DEFAULT_LISTS);
      if (listBase_) listCount_ = QFUC_DEFAULT_LISTS;
      QFUC_FillLists(face_, 0, 256, listBase_, 0);
      metrics_ = QFUC_GetMetrics(face_);
      break;
    }
    case TYPE_ARABIC:
    case TYPE_FULL:
    case TYPE_EURO: {
      if (fontType_ == TYPE_ARABIC) {
        listBase_ = QFUC_GenArabicList(GetName(), size_, weight);
        listCount_ = QFUC_ARABIC_LISTS;
      } else if (fontType_ == TYPE_FULL) {
        listBase_ = QFUC_GenFullList(GetName(), size_, weight);
        listCount_ = QFUC_FULL_LISTS;
      } else {
        listBase_ = QFUC_GenEuroList(GetName(), size_, weight);
        listCount_ = QFUC_EURO_LISTS;
      }
      if (!listBase_) listCount_ = 0;
      face_ = QFUC_AddRef(QFUC_GetSharedFace());
      metrics_ = QFUC_GetSharedMetrics();
      break;
    }
    default:
      QERR("QFont::Create", "QFont:Create(): unknown fontType (%d)", fontType_);
      break;
  }
  created_ = 1;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Scale
// ---------------------------------------------------------------------------------------------

void QFont::SetScale(float x, float y) {
  if (!IsTextureFont()) {
    QWARN("QFont::SetScale", "QFont:SetScale(); only useful for texture fonts");
    return;
  }
  if (texFont_) texFont_->SetScale(x, y);
}

float QFont::GetScaleX() {
  if (!IsTextureFont()) {
    QWARN("QFont::GetScaleX", "QFont:GetScaleX(); only useful for texture fonts");
    return 1.0f;
  }
  return texFont_ ? texFont_->GetScaleX() : 1.0f;
}

float QFont::GetScaleY() {
  if (!IsTextureFont()) {
    QWARN("QFont::GetScaleY", "QFont:GetScaleY(); only useful for texture fonts");
    return 1.0f;
  }
  return texFont_ ? texFont_->GetScaleY() : 1.0f;
}

// ---------------------------------------------------------------------------------------------
// Measuring
// ---------------------------------------------------------------------------------------------

float QFont::SystemCharWidth(uint32_t code) {
  float a = 0, b = 0, c = 0;
  if (!QFUC_GetABCWidths(face_, code, &a, &b, &c))
    return float(QFUC_GetCharWidth(face_, uint8_t(code)));
  if (a > 0) return a + b;
  if (c > 0) return c + b;
  return b;
}

float QFont::GetWidth(char c) {
  if (IsTextureFont()) return texFont_ ? texFont_->GetCharWidth(c) : 0.0f;
  return SystemCharWidth(static_cast<unsigned char>(c));
}

float QFont::GetWidth(const char* text, int len) {
  if (!text) return 0.0f;
  if (len < 0) len = int(strlen(text));
  if (len < 1) return 0.0f;
  if (IsTextureFont()) return texFont_ ? texFont_->GetStringWidth(text, len) : 0.0f;
  float sum = 0.0f, w = 0.0f;
  for (int i = 0; i < len; ++i) sum += w = SystemCharWidth(static_cast<unsigned char>(text[i]));
  return w < 0 ? sum - w : sum;
}

float QFont::GetWidth(const uint16_t* text, int len) {
  if (!text) return 0.0f;
  if (len < 0) {
    len = 0;
    while (text[len]) ++len;
  }
  if (len < 1) return 0.0f;
  if (IsTextureFont()) return texFont_ ? texFont_->GetStringWidth(text, len) : 0.0f;
  float sum = 0.0f, w = 0.0f;
  for (int i = 0; i < len; ++i) sum += w = SystemCharWidth(text[i]);
  return w < 0 ? sum - w : sum;
}

float QFont::GetWidth(const qstring& text) {
  if (text.IsUnicode()) return GetWidth(text.wstr(), -1);
  return GetWidth(text.cstr(), -1);
}

int QFont::GetHeight() const {
  if (IsTextureFont()) return texFont_ ? int(texFont_->GetHeight()) : 0;
  return metrics_.height;
}

int QFont::GetAscent() const {
  if (IsTextureFont()) return texFont_ ? int(texFont_->GetHeight()) : 0;
  return metrics_.ascent;
}

int QFont::GetDescent() const { return metrics_.descent; }

QFontList::QFontList() : QObject("fontlist") {
  QERR("QFontList::QFontList", "QFontList ctor nyi on Win32/MacCarbon");
}

// ---------------------------------------------------------------------------------------------
// Hex text
// ---------------------------------------------------------------------------------------------

int QFontASCII2QC(const char* text, char* dst, int size) {
  if (!text || !dst || size <= 0) return 0;
  int n = int(strlen(text));
  if (n >= size / 4) {
    QWARN("QFontASCII2QC", "QFontASCII2QC(%s); destination (d) isn't big enough", text);
    n = size / 4 - 1;
  }
  if (n < 0) n = 0;
  for (int i = 0; i < n; ++i)
    snprintf(dst + 4 * i, 5, "%04x", static_cast<unsigned char>(text[i]));
  dst[4 * n] = 0;
  return n;
}

int QFontQC2Unicode(const char* hex, uint16_t* dst, int size) {
  if (!hex || !dst || size < 2) return 0;
  const int groups = int(strlen(hex) / 4);
  int n = groups;
  if (groups >= size / 2) n = size / 2 - 1;
  for (int i = 0; i < n; ++i) {
    unsigned v = 0;
    for (int k = 0; k < 4; ++k) {
      const int d = HexDigit(hex[4 * i + k]);
      if (d < 0) break;
      v = v * 16 + unsigned(d);
    }
    dst[i] = uint16_t(v);
  }
  dst[n] = 0;
  return n;
}

// ---------------------------------------------------------------------------------------------
// The application's system fonts
// ---------------------------------------------------------------------------------------------

bool QFontCreateSystemFonts() {
  static const char* const names[] = {"courier", "ms sans serif"};
  bool ok = true;
  for (int i = 0; i < 2; ++i) {
    if (g_systemFonts[i]) continue;
    g_systemFonts[i] = new QFont(names[i], kSystemFontHeight);
    ok = g_systemFonts[i]->Create() && ok;
  }
  return ok;
}

QFont* QGetSystemFont(int which) {
  return which >= 0 && which < 2 ? g_systemFonts[which] : nullptr;
}

void QFontReleaseSystemFonts() {
  for (QFont*& f : g_systemFonts) {
    delete f;
    f = nullptr;
  }
  QFUC_ReleaseShared();
}
